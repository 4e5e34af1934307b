#include "kernel/service/http_response.h"

#include <charconv>
#include <cstring>

namespace tarv {

HttpResponse HttpResponse::json(int status, const json::Value& value) { return {status, json::encode(value)}; }

HttpResponse HttpResponse::error(int status, std::string_view code, std::string_view message) {
  return json(status, json::Value{{"code", code}, {"message", message}});
}

std::string HttpResponse::bytes() const {
  char head[kMaxHeadBytes];
  std::string out(head, writeHead(head, status, body.size()));
  out += body;
  return out;
}

std::size_t HttpResponse::writeHead(char* out, int status, std::size_t bodyLength) noexcept {
  static constexpr std::string_view kFixed =
      "\r\nContent-Type: application/json; charset=utf-8\r\nCache-Control: no-store\r\nContent-Length: ";
  char* at = out;
  auto put = [&at](std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    at += text.size();
  };
  put("HTTP/1.1 ");
  // The status is one of the service's own three-digit codes; anything else
  // is clamped rather than allowed to overrun the head.
  at = std::to_chars(at, at + 11, status < 0 || status > 999 ? 500 : status).ptr;
  *at++ = ' ';
  put(reasonPhrase(status));
  put(kFixed);
  at = std::to_chars(at, at + 20, bodyLength).ptr;
  put("\r\n\r\n");
  return static_cast<std::size_t>(at - out);
}

std::string_view reasonPhrase(int status) noexcept {
  switch (status) {
    case 200: return "OK";
    case 201: return "Created";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 409: return "Conflict";
    case 410: return "Gone";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    default: return "Unknown";
  }
}

}  // namespace tarv
