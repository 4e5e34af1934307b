#include "core/ai/http_client.h"

#include <memory>

#include "core/ai/ai_error.h"
#include "core/ai/curl_library.h"
#include "core/ai/intent_text.h"
#include "kernel/base/json.h"
#include "kernel/base/text.h"

namespace tarv::AISearch {
namespace {

struct UrlDeleter {
  void operator()(CURLU* url) const { curlLibrary().urlCleanup(url); }
};
using Url = std::unique_ptr<CURLU, UrlDeleter>;

struct CurlText {
  char* value = nullptr;
  ~CurlText() {
    if (value) curlLibrary().free(value);
  }
};

// An absolute http(s) URL with a host, or nothing.
Url parsedWebUrl(std::string_view text) {
  const CurlLibrary& curl = curlLibrary();
  Url url(curl.url());
  if (!url) return nullptr;
  const std::string copy(text);
  if (curl.urlSet(url.get(), CURLUPART_URL, copy.c_str(), 0) != CURLUE_OK) return nullptr;
  CurlText scheme, host;
  if (curl.urlGet(url.get(), CURLUPART_SCHEME, &scheme.value, 0) != CURLUE_OK ||
      curl.urlGet(url.get(), CURLUPART_HOST, &host.value, 0) != CURLUE_OK)
    return nullptr;
  const std::string_view schemeText(scheme.value);
  if (schemeText != "http" && schemeText != "https") return nullptr;
  if (!host.value[0]) return nullptr;
  return url;
}

std::optional<std::string> urlText(CURLU* url) {
  const CurlLibrary& curl = curlLibrary();
  CurlText whole;
  if (curl.urlGet(url, CURLUPART_URL, &whole.value, 0) != CURLUE_OK) return std::nullopt;
  return std::string(whole.value);
}

struct Collected {
  std::string body;
  bool tooLarge = false;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
  auto* collected = static_cast<Collected*>(user);
  const std::size_t bytes = size * count;
  if (collected->body.size() + bytes > kMaximumReplyBytes) {
    collected->tooLarge = true;
    return 0;  // makes libcurl stop with a write error
  }
  collected->body.append(data, bytes);
  return bytes;
}

// The first `limit` bytes of `body` as text: ill-formed UTF-8 (including a
// code point cut at the limit) is repaired rather than passed on.
std::string bodyPrefix(std::string_view body, std::size_t limit) {
  const std::string_view prefix = body.substr(0, limit);
  return isValidUtf8(prefix) ? std::string(prefix) : utf8(utf16(prefix));
}

}  // namespace

HttpResponse post(const HttpRequest& request) {
  const CurlLibrary& lib = curlLibrary();
  std::unique_ptr<CURL, decltype(lib.easyCleanup)> curl(lib.easyInit(), lib.easyCleanup);
  if (!curl) throw AIError::transport("Cannot start an HTTP request");
  std::unique_ptr<curl_slist, decltype(lib.slistFreeAll)> headers(nullptr, lib.slistFreeAll);
  for (const auto& [name, value] : request.headers) {
    const std::string line = name + ": " + value;
    curl_slist* grown = lib.slistAppend(headers.get(), line.c_str());
    if (!grown) throw AIError::transport("Cannot start an HTTP request");
    headers.release();
    headers.reset(grown);
  }
  // libcurl would otherwise ask for "100 Continue" before a large body, a
  // round trip that plain servers do not answer.
  if (curl_slist* grown = lib.slistAppend(headers.get(), "Expect:")) {
    headers.release();
    headers.reset(grown);
  }
  Collected collected;
  char errorText[CURL_ERROR_SIZE] = {};
  CURL* handle = curl.get();
  lib.easySetopt(handle, CURLOPT_URL, request.url.c_str());
  lib.easySetopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  lib.easySetopt(handle, CURLOPT_POST, 1L);
  lib.easySetopt(handle, CURLOPT_POSTFIELDS, request.body.data());
  lib.easySetopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  lib.easySetopt(handle, CURLOPT_HTTPHEADER, headers.get());
  lib.easySetopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout.count()));
  lib.easySetopt(handle, CURLOPT_NOSIGNAL, 1L);
  lib.easySetopt(handle, CURLOPT_WRITEFUNCTION, &collect);
  lib.easySetopt(handle, CURLOPT_WRITEDATA, &collected);
  lib.easySetopt(handle, CURLOPT_ERRORBUFFER, errorText);
  // Replies may be compressed; libcurl decodes whatever it supports.
  lib.easySetopt(handle, CURLOPT_ACCEPT_ENCODING, "");
  const CURLcode code = lib.easyPerform(handle);
  if (collected.tooLarge) throw AIError::transport("The AI service's reply is larger than 8 MiB");
  if (code != CURLE_OK) throw AIError::transport(errorText[0] ? errorText : lib.easyStrerror(code));
  HttpResponse response;
  lib.easyGetinfo(handle, CURLINFO_RESPONSE_CODE, &response.status);
  response.body = std::move(collected.body);
  return response;
}

std::string send(const HttpRequest& request) {
  HttpResponse response = post(request);
  if (response.status >= 200 && response.status <= 299 && !response.body.empty()) return std::move(response.body);
  const json::Value body = json::Value::parse(response.body, nullptr, /*allow_exceptions=*/false);
  if (body.is_object()) {
    auto error = body.find("error");
    if (error != body.end() && error->is_object()) {
      auto message = error->find("message");
      if (message != error->end() && message->is_string())
        throw AIError::status(response.status, message->get<std::string>());
    }
  }
  throw AIError::status(response.status, bodyPrefix(response.body, 200));
}

std::optional<std::string> appendingPathComponent(std::string_view base, std::string_view component) {
  const CurlLibrary& curl = curlLibrary();
  Url url = parsedWebUrl(text::trimmed(base));
  if (!url) return std::nullopt;
  CurlText path;
  if (curl.urlGet(url.get(), CURLUPART_PATH, &path.value, 0) != CURLUE_OK) return std::nullopt;
  std::string joined(path.value);
  if (joined.empty() || joined.back() != '/') joined += '/';
  joined += component;
  if (curl.urlSet(url.get(), CURLUPART_PATH, joined.c_str(), 0) != CURLUE_OK) return std::nullopt;
  return urlText(url.get());
}

std::optional<std::string> replacingOrigin(std::string_view url, std::string_view origin) {
  const CurlLibrary& curl = curlLibrary();
  Url target = parsedWebUrl(url);
  Url source = parsedWebUrl(text::trimmed(origin));
  if (!target || !source) return std::nullopt;
  for (CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
    CurlText value;
    const CURLUcode got = curl.urlGet(source.get(), part, &value.value, 0);
    if (got == CURLUE_OK) {
      if (curl.urlSet(target.get(), part, value.value, 0) != CURLUE_OK) return std::nullopt;
    } else if (part == CURLUPART_PORT) {
      curl.urlSet(target.get(), CURLUPART_PORT, nullptr, 0);  // the scheme's default port
    } else {
      return std::nullopt;
    }
  }
  return urlText(target.get());
}

}  // namespace tarv::AISearch
