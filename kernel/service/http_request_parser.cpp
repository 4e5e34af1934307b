#include "kernel/service/http_request_parser.h"

#include <algorithm>
#include <cstring>

namespace tarv {
namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";

// RFC 9110 token characters, for methods and header names.
bool isTokenChar(unsigned char c) {
  if (c >= '0' && c <= '9') return true;
  if ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') return true;
  return std::strchr("!#$%&'*+-.^_`|~", c) != nullptr && c != 0;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return isTokenChar(static_cast<unsigned char>(c)); });
}

std::string lowerAscii(std::string_view text) {
  std::string lower(text);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return lower;
}

std::string_view trimSpaces(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// Whether a comma-separated header value lists `token` (case-insensitive).
bool listsToken(std::string_view value, std::string_view token) {
  while (!value.empty()) {
    const std::size_t comma = value.find(',');
    const std::string_view item = trimSpaces(value.substr(0, comma));
    if (lowerAscii(item) == token) return true;
    if (comma == std::string_view::npos) break;
    value.remove_prefix(comma + 1);
  }
  return false;
}

HttpRequestParser::Result failure(HttpRequestParser::Status status, std::string error) {
  HttpRequestParser::Result result;
  result.status = status;
  result.error = std::move(error);
  return result;
}

}  // namespace

HttpRequestParser::Result HttpRequestParser::parse(std::string_view received) {
  if (headLength_ == 0) {
    // Resume the search a few bytes back, in case the terminator straddles
    // the previous end of input.
    const std::size_t from = searched_ >= kHeadEnd.size() - 1 ? searched_ - (kHeadEnd.size() - 1) : 0;
    const std::size_t window = std::min(received.size(), limits_.maxHead);
    const std::size_t end = from < window ? received.substr(0, window).find(kHeadEnd, from) : std::string_view::npos;
    if (end == std::string_view::npos) {
      if (received.size() >= limits_.maxHead) return failure(Status::tooLarge, "Request too large");
      searched_ = received.size();
      return {};
    }
    const std::size_t length = end + kHeadEnd.size();
    if (length > limits_.maxHead) return failure(Status::tooLarge, "Request too large");
    Result head = parseHead(received.substr(0, length));
    if (head.status == Status::complete) {  // an oversized body, left unread
      head.consumed = length;
      reset();
    }
    if (head.status != Status::incomplete) return head;
    headLength_ = length;
  }

  if (received.size() - headLength_ < bodyLength_) return {};
  Result result;
  result.status = Status::complete;
  result.request = std::move(head_);
  result.request.body.assign(received.substr(headLength_, bodyLength_));
  result.consumed = headLength_ + bodyLength_;
  head_ = HttpRequest{};
  reset();
  return result;
}

HttpRequestParser::Result HttpRequestParser::parseHead(std::string_view head) {
  HttpRequest request;
  std::size_t lineEnd = head.find("\r\n");
  std::string_view line = head.substr(0, lineEnd);
  head.remove_prefix(lineEnd + 2);

  // Request line: METHOD SP target SP HTTP/1.x, nothing else.
  const std::size_t firstSpace = line.find(' ');
  const std::size_t secondSpace = firstSpace == std::string_view::npos ? firstSpace : line.find(' ', firstSpace + 1);
  if (secondSpace == std::string_view::npos) return failure(Status::malformed, "Malformed request line");
  const std::string_view method = line.substr(0, firstSpace);
  const std::string_view target = line.substr(firstSpace + 1, secondSpace - firstSpace - 1);
  const std::string_view version = line.substr(secondSpace + 1);
  if (!isToken(method) || target.empty() || target.front() != '/')
    return failure(Status::malformed, "Malformed request line");
  for (char c : target)
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7F) return failure(Status::malformed, "Malformed request line");
  bool http10 = false;
  if (version == "HTTP/1.0") {
    http10 = true;
  } else if (version != "HTTP/1.1") {
    return failure(Status::malformed, "Unsupported HTTP version");
  }
  request.method.assign(method);
  const std::size_t question = target.find('?');
  request.path.assign(target.substr(0, question));
  if (question != std::string_view::npos) request.query.emplace(target.substr(question + 1));

  // Header lines up to the blank line that ends the head.
  bool sawLength = false;
  std::size_t length = 0;
  bool lengthTooLarge = false;
  while (true) {
    lineEnd = head.find("\r\n");
    line = head.substr(0, lineEnd);
    head.remove_prefix(lineEnd + 2);
    if (line.empty()) break;
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !isToken(line.substr(0, colon)))
      return failure(Status::malformed, "Malformed header");
    const std::string_view value = trimSpaces(line.substr(colon + 1));
    for (char c : value)
      if (c == '\r' || c == '\n' || c == '\0') return failure(Status::malformed, "Malformed header");
    std::string name = lowerAscii(line.substr(0, colon));

    if (name == "transfer-encoding") return failure(Status::malformed, "Unsupported transfer encoding");
    if (name == "content-length") {
      // Two lengths could frame the body two ways; refuse rather than guess.
      if (sawLength || value.empty()) return failure(Status::malformed, "Malformed content length");
      sawLength = true;
      for (char c : value) {
        if (c < '0' || c > '9') return failure(Status::malformed, "Malformed content length");
        if (length > limits_.maxBody) {
          lengthTooLarge = true;  // keep scanning digits only to validate them
          continue;
        }
        length = length * 10 + static_cast<std::size_t>(c - '0');
      }
      lengthTooLarge = lengthTooLarge || length > limits_.maxBody;
    }
    auto [slot, added] = request.headers.try_emplace(std::move(name), value);
    if (!added) {
      slot->second += ", ";
      slot->second += value;
    }
  }

  const std::string* connection = request.header("connection");
  request.keepAlive = http10 ? connection != nullptr && listsToken(*connection, "keep-alive")
                             : connection == nullptr || !listsToken(*connection, "close");

  if (lengthTooLarge) {
    request.bodyTooLarge = true;
    request.keepAlive = false;
    Result result;
    result.status = Status::complete;
    result.request = std::move(request);
    return result;
  }
  head_ = std::move(request);
  bodyLength_ = length;
  return {};
}

}  // namespace tarv
