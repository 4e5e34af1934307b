#pragma once
// HttpRequestParser: finds one complete request at the start of the bytes a
// connection has received so far. The head (request line and headers, up to
// and including the blank line) may take at most `maxHead` bytes; a body is
// announced by Content-Length and read when it is at most `maxBody` bytes,
// otherwise the request is returned with bodyTooLarge set and without it.
// Chunked bodies are refused.
//
// The parser only looks at the bytes it is given, never past their end. It
// remembers how far it has searched for the end of the head, so feeding a
// head one byte at a time costs linear time; call reset() before the next
// request. One parser per connection; not shared between threads.

#include <cstddef>
#include <string>
#include <string_view>

#include "kernel/service/http_request.h"

namespace tarv {

class HttpRequestParser {
 public:
  struct Limits {
    std::size_t maxHead = 16384;
    std::size_t maxBody = 16384;
  };

  enum class Status {
    incomplete,  // more bytes are needed
    complete,    // `request` is filled; `consumed` bytes belong to it
    tooLarge,    // the head exceeds maxHead
    malformed,   // not a request this server understands; `error` says why
  };

  struct Result {
    Status status = Status::incomplete;
    HttpRequest request;
    std::size_t consumed = 0;
    std::string error;
  };

  HttpRequestParser() : HttpRequestParser(Limits()) {}
  explicit HttpRequestParser(Limits limits) : limits_(limits) {}

  // `received` starts with the first byte of the request and holds every
  // byte received for it so far (and possibly bytes of later requests).
  Result parse(std::string_view received);
  // Forgets the search position, for the next request.
  void reset() noexcept {
    searched_ = 0;
    headLength_ = 0;
    bodyLength_ = 0;
  }

  const Limits& limits() const noexcept { return limits_; }

 private:
  Limits limits_;
  // Parses the head (the first headLength_ bytes) into head_.
  Result parseHead(std::string_view head);

  std::size_t searched_ = 0;    // bytes already known not to end the head
  std::size_t headLength_ = 0;  // non-zero once the head is parsed
  HttpRequest head_;            // the parsed head while its body arrives
  std::size_t bodyLength_ = 0;
};

}  // namespace tarv
