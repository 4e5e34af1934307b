#pragma once
// HttpResponse: a status and a JSON body, and the exact bytes the service
// sends for them. Every answer has the same head: the status line, the JSON
// content type, "Cache-Control: no-store" and the body length. Plain values.

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
};

// The standard reason phrase of a status code ("Unknown" for codes the
// service never sends).
std::string_view reasonPhrase(int status) noexcept;

}  // namespace tarv
