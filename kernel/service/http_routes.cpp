// HTTPServer's request handling: the checks every request passes, the four
// routes and their error answers.

#include <openssl/crypto.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "kernel/base/kernel_error.h"
#include "kernel/base/text.h"
#include "kernel/index/load_trace.h"
#include "kernel/service/form_fields.h"
#include "kernel/service/http_server.h"
#include "kernel/service/page_writer.h"

namespace tarv {
namespace {

constexpr std::string_view kQueriesPrefix = "/v1/queries/";
constexpr std::size_t kMaxQueryBody = 16384;

// Copies an answer made the plain way into the connection's body buffer.
int put(ByteBuffer& body, const HttpResponse& answer) {
  body.append(answer.body);
  return answer.status;
}

double roundToHundredths(double ms) { return std::round(ms * 100.0) / 100.0; }

}  // namespace

bool HTTPServer::authorized(const HttpRequest& request) const {
  const std::string* given = request.header("authorization");
  if (given == nullptr) return false;
  // The length is no secret; the bytes are compared in constant time so the
  // answer time does not tell how much of a guess was right.
  if (given->size() != bearer_.size()) return false;
  return CRYPTO_memcmp(given->data(), bearer_.data(), bearer_.size()) == 0;
}

HttpResponse HTTPServer::respond(const HttpRequest& request) {
  ByteBuffer body;
  const int status = respond(request, body);
  return {status, std::string(body.view())};
}

int HTTPServer::respond(const HttpRequest& request, ByteBuffer& body, ResultStore::Released* released) {
  body.clear();
  int status = 0;
  if (!authorized(request)) {
    status = put(body, HttpResponse::error(401, "unauthorized", "Invalid session token"));
  } else if (request.header("origin") != nullptr) {
    status = put(body, HttpResponse::error(403, "origin", "Browser requests are not supported"));
  } else {
    try {
      status = route(request, body, released);
    } catch (const KernelError& error) {
      body.clear();  // a page may have been half written
      status = put(body, HttpResponse::error(400, "invalid_request", error.message()));
    } catch (const std::exception&) {
      body.clear();
      status = put(body, HttpResponse::error(500, "internal", "Search service failed"));
    }
  }
  // The detail is built only when someone reads it: paging is hot.
  if (LoadTrace::enabled())
    LoadTrace::event("http", "request",
                     "method=" + request.method + " path=" + request.path + " status=" + std::to_string(status));
  return status;
}

int HTTPServer::route(const HttpRequest& request, ByteBuffer& body, ResultStore::Released* released) {
  const std::string& path = request.path;
  if (path == "/v1/status") {
    if (request.method == "GET") return put(body, status());
  } else if (path == "/v1/queries") {
    if (request.method == "POST") return put(body, createQuery(request, released));
  } else if (path.size() > kQueriesPrefix.size() && path.compare(0, kQueriesPrefix.size(), kQueriesPrefix) == 0) {
    const std::string_view id = std::string_view(path).substr(kQueriesPrefix.size());
    if (request.method == "GET") return readPage(request, id, body);
    if (request.method == "DELETE") return put(body, deleteQuery(std::string(id)));
  }
  return put(body, HttpResponse::error(404, "not_found", "Unknown route or method"));
}

HttpResponse HTTPServer::status() {
  return HttpResponse::json(200, json::Value{{"version", version_},
                                             {"total", search_->total()},
                                             {"loadMs", loadMs_},
                                             {"sources", sources_},
                                             {"resultBytes", results_.bytes()},
                                             {"capture", json::Value{{"enabled", false}}}});
}

HttpResponse HTTPServer::createQuery(const HttpRequest& request, ResultStore::Released* released) {
  // Refused rather than queued: the client decides whether to try again.
  std::unique_lock<std::mutex> running(searching_, std::try_to_lock);
  if (!running.owns_lock()) return HttpResponse::error(429, "busy", "A query is still running");

  if (request.bodyTooLarge || request.body.size() > kMaxQueryBody) throw KernelError::invalid("Request too large");
  auto fields = form::parse(request.body, {"query", "sort"});
  const std::string& query = fields["query"];
  const std::string& sort = fields["sort"];
  const std::size_t queryUnits = utf16(query).size();
  if (queryUnits > kMaxQueryUnits) throw KernelError::invalid("Query exceeds 2048 characters");

  if (options_.beforeSearch) options_.beforeSearch();
  const auto started = std::chrono::steady_clock::now();
  JoinedSearch::Result result = search_->search(query, sort);
  const auto elapsed = std::chrono::steady_clock::now() - started;
  const double searchMs = roundToHundredths(
      static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) / 1e6);

  const ResultStore::Entry entry = results_.add(std::move(result.ids), sort, searchMs, released);
  LoadTrace::event("query", "search",
                   "sort=" + sort + " queryChars=" + std::to_string(queryUnits) +
                       " matches=" + std::to_string(entry.rows.size()));
  // No case recorder in this service: recording is off, nothing to record.
  return HttpResponse::json(201, json::Value{{"id", entry.id},
                                             {"version", version_},
                                             {"total", result.total},
                                             {"expiresAt", entry.expiresAt},
                                             {"searchMs", entry.searchMs}});
}

int HTTPServer::readPage(const HttpRequest& request, std::string_view id, ByteBuffer& body) {
  auto fields = form::parse(request.query.value_or(std::string()), {"version", "offset", "limit"});
  const std::int64_t offset = form::integer(fields["offset"]);
  const std::int64_t limit = form::integer(fields["limit"]);
  if (offset < 0 || limit < 1 || limit > kMaxPageRows) throw KernelError::invalid("offset >= 0 and limit 1..512 required");
  if (fields["version"] != version_) return put(body, HttpResponse::error(409, "version_changed", "Index version changed"));

  const std::optional<ResultStore::Entry> entry = results_.get(std::string(id));
  if (!entry) return put(body, HttpResponse::error(410, "expired", "Query expired or was evicted; search again"));

  const std::int64_t total = static_cast<std::int64_t>(entry->rows.size());
  const std::int64_t first = std::min(offset, total);
  const std::int64_t end = std::min(total, first + limit);
  pages_.write(body, entry->rows, offset, static_cast<std::size_t>(first), static_cast<std::size_t>(end));
  return 200;
}

HttpResponse HTTPServer::deleteQuery(const std::string& id) {
  results_.remove(id);
  return HttpResponse::json(200, json::Value{{"deleted", true}, {"id", id}});
}

}  // namespace tarv
