#pragma once
// HttpRequest: one parsed HTTP/1.x request as the service routes it. A plain
// value; header names are lower-cased, repeated headers are joined with ", ".

#include <map>
#include <optional>
#include <string>

namespace tarv {

struct HttpRequest {
  std::string method;
  std::string path;                   // the target before any "?"
  std::optional<std::string> query;   // the target after the first "?"
  std::map<std::string, std::string> headers;
  std::string body;
  // The head announced a body above the limit; the body was not read, so the
  // connection cannot be reused after the answer.
  bool bodyTooLarge = false;
  // Whether the client asked to keep the connection open (HTTP/1.1 unless
  // "connection: close"; HTTP/1.0 only with "connection: keep-alive").
  bool keepAlive = true;

  // The header's value, by lower-case name.
  const std::string* header(const std::string& name) const {
    auto found = headers.find(name);
    return found == headers.end() ? nullptr : &found->second;
  }
};

}  // namespace tarv
