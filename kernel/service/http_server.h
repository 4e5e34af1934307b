#pragma once
// HTTPServer: serves one loaded joined search to local clients over HTTP/1.1
// on 127.0.0.1, at a port the system picks. A client creates a query (the
// search runs once and its ordered ids go to the result store), reads it page
// by page and deletes it. Every request must carry "authorization: Bearer
// <token>"; requests with an "origin" header (browsers) are refused. Bodies
// are JSON and never cached.
//
// Threads: start() runs the accept loop on a thread of its own and each
// connection on a thread of its own (at most maxConnections; one more is
// closed at once). Only one query executes at a time: a second POST while one
// runs is answered 429, not queued. A connection that does not deliver a
// whole request within receiveTimeout is dropped, so a stalled client holds
// one thread for a bounded time and never delays another. stop() (also run by
// the destructor) stops accepting, lets the requests under way finish and
// closes idle connections. respond() may be called from any thread.
//
// Errors: the constructor throws KernelError::invalid("TARV_TOKEN must
// contain at least 24 characters") for a short token and KernelError::io
// "socket failed" / "bind/listen failed" when the socket cannot be opened.
// Request errors never escape: they become error responses.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "kernel/base/json.h"
#include "kernel/query/joined_search.h"
#include "kernel/service/byte_buffer.h"
#include "kernel/service/http_request.h"
#include "kernel/service/http_request_parser.h"
#include "kernel/service/http_response.h"
#include "kernel/service/page_writer.h"
#include "kernel/service/result_store.h"

namespace tarv {

class HTTPServer {
 public:
  struct Options {
    std::size_t maxConnections = 256;
    std::chrono::milliseconds receiveTimeout{10000};
    HttpRequestParser::Limits requestLimits;
    ResultStore::Limits storeLimits;
    ResultStore::Clock clock = ResultStore::wallClockMillis;
    // Runs with the query lock held, just before a search (tests hold a
    // query "running" with it).
    std::function<void()> beforeSearch;
  };

  static constexpr std::size_t kMinimumTokenLength = 24;
  static constexpr std::size_t kMaxQueryUnits = 2048;
  static constexpr std::int64_t kMaxPageRows = 512;

  // TARV_TOKEN, checked as the constructor checks it.
  static std::string environmentToken();

  // `sources` is the status route's array of source records; `loadMs` the
  // time the index took to load.
  HTTPServer(std::string token, JoinedSearchPtr search, json::Value sources, double loadMs, Options options);
  HTTPServer(std::string token, JoinedSearchPtr search, json::Value sources, double loadMs)
      : HTTPServer(std::move(token), std::move(search), std::move(sources), loadMs, Options()) {}
  ~HTTPServer();

  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  int port() const noexcept { return port_; }
  // The joined search's join key; pages must name it.
  const std::string& version() const noexcept { return version_; }
  // {"event":"http.ready","port":P,"version":V}, compact; also traced.
  std::string readyLine() const;

  void start();
  void stop();

  // The answer to one request, after the checks in order: token, origin, route.
  HttpResponse respond(const HttpRequest& request);
  // The same answer with its body written into `body` (cleared first), so a
  // connection reuses one buffer for all its answers; returns the status.
  // Results a new query evicts go to `released` when given, so the caller
  // can free them after sending the answer.
  int respond(const HttpRequest& request, ByteBuffer& body, ResultStore::Released* released = nullptr);

  ResultStore& results() noexcept { return results_; }

 private:
  struct Connections;

  // Each returns the status and writes the body into `body`.
  int route(const HttpRequest& request, ByteBuffer& body, ResultStore::Released* released);
  HttpResponse status();
  HttpResponse createQuery(const HttpRequest& request, ResultStore::Released* released);
  int readPage(const HttpRequest& request, std::string_view id, ByteBuffer& body);
  HttpResponse deleteQuery(const std::string& id);
  bool authorized(const HttpRequest& request) const;

  void acceptLoop();
  void serve(int fd);

  std::string token_;
  std::string bearer_;  // "Bearer " + token, as the header must give it
  JoinedSearchPtr search_;
  PageWriter pages_;
  std::string version_;
  json::Value sources_;
  double loadMs_ = 0;
  ResultStore results_;
  std::mutex searching_;
  int listener_ = -1;

  Options options_;
  int port_ = 0;
  int wake_[2] = {-1, -1};  // written once by stop() to end the accept loop
  std::thread acceptor_;
  std::atomic<bool> stopping_{false};
  std::mutex lifecycle_;
  std::shared_ptr<Connections> connections_;
};

}  // namespace tarv
