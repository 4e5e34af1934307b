#include "kernel/service/http_response.h"

namespace tarv {

HttpResponse HttpResponse::json(int status, const json::Value& value) { return {status, json::encode(value)}; }

HttpResponse HttpResponse::error(int status, std::string_view code, std::string_view message) {
  return json(status, json::Value{{"code", code}, {"message", message}});
}

std::string HttpResponse::bytes() const {
  std::string out;
  out.reserve(128 + body.size());
  out += "HTTP/1.1 ";
  out += std::to_string(status);
  out += ' ';
  out += reasonPhrase(status);
  out += "\r\nContent-Type: application/json; charset=utf-8\r\nCache-Control: no-store\r\nContent-Length: ";
  out += std::to_string(body.size());
  out += "\r\n\r\n";
  out += body;
  return out;
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
