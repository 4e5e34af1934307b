#pragma once
// HttpResponse: a status and a JSON body, and the exact bytes the service
// sends for them. Every answer has the same head: the status line, the JSON
// content type, "Cache-Control: no-store" and the body length. Plain values.

#include <cstddef>
#include <string>
#include <string_view>

#include "kernel/base/json.h"

namespace tarv {

struct HttpResponse {
  int status = 200;
  std::string body;

  static HttpResponse json(int status, const json::Value& value);
  // {"code": code, "message": message}
  static HttpResponse error(int status, std::string_view code, std::string_view message);

  // The head and the body, ready to send.
  std::string bytes() const;

  // The most bytes writeHead() writes.
  static constexpr std::size_t kMaxHeadBytes = 160;
  // The head of an answer with `status` and a body of `bodyLength` bytes,
  // written at `out` (room for kMaxHeadBytes); returns its length.
  static std::size_t writeHead(char* out, int status, std::size_t bodyLength) noexcept;
};

// The standard reason phrase of a status code ("Unknown" for codes the
// service never sends).
std::string_view reasonPhrase(int status) noexcept;

}  // namespace tarv
