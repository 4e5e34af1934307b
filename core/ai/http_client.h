#pragma once
// The assistant's HTTP exchange over libcurl: one POST with a body, headers
// and a time-out, no redirects, http and https only. Replies larger than
// kMaximumReplyBytes are cut off as a transport failure (no model answer is
// that long). Thread-safe: every call uses its own handle.
//
// Errors: AIError::invalidBaseURL for a URL that does not parse; transport
// failures (time-out, refused connection, TLS) as AIError::transport with
// libcurl's description; HTTP failures as AIError::status (see send()).

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarv::AISearch {

struct HttpRequest {
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;  // in the order sent
  std::string body;
  std::chrono::milliseconds timeout{60000};
};

struct HttpResponse {
  long status = 0;
  std::string body;
};

inline constexpr std::size_t kMaximumReplyBytes = 8u << 20;

// Performs the POST; any status is returned as it is.
HttpResponse post(const HttpRequest& request);

// The common exchange of the HTTP providers: posts `request` and returns the
// body when the status is 200 to 299 and the body is not empty. Otherwise
// throws AIError::status(code, message): the string at "error" / "message"
// of a JSON body, else the first 200 bytes of the body as text.
std::string send(const HttpRequest& request);

// `base` (white space around it ignored) with `component` appended as one
// more path component, keeping any query; nothing unless `base` is an
// absolute http or https URL with a host.
std::optional<std::string> appendingPathComponent(std::string_view base, std::string_view component);

// `url` with its scheme, host and port taken from `origin` ("http://127.0.0.1:8080");
// nothing when either does not parse.
std::optional<std::string> replacingOrigin(std::string_view url, std::string_view origin);

}  // namespace tarv::AISearch
