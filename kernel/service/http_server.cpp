#include "kernel/service/http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <set>

#include "kernel/base/kernel_error.h"
#include "kernel/index/load_trace.h"

namespace tarv {

// The live connection threads. Shared with the threads themselves, so the
// count and its signal outlive the server object for the last thread that
// reports its end.
struct HTTPServer::Connections {
  std::mutex lock;
  std::condition_variable idle;
  std::size_t active = 0;
  std::set<int> sockets;
};

namespace {

std::size_t codePoints(const std::string& text) {
  std::size_t count = 0;
  for (char c : text) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return count;
}

void checkToken(const std::string& token) {
  if (codePoints(token) < HTTPServer::kMinimumTokenLength)
    throw KernelError::invalid("TARV_TOKEN must contain at least 24 characters");
}

// The authorization header a request must carry; checks the token first, so
// a short token is the first error a server reports.
std::string bearerOf(const std::string& token) {
  checkToken(token);
  return "Bearer " + token;
}

void closeQuietly(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

// Sends head and body (one system call when the socket takes it all) or
// gives up (peer gone, or the send time-out passed).
bool sendAll(int fd, std::string_view head, std::string_view body) {
  iovec parts[2] = {{const_cast<char*>(head.data()), head.size()}, {const_cast<char*>(body.data()), body.size()}};
  iovec* next = parts;
  std::size_t count = body.empty() ? 1 : 2;
  while (count > 0) {
    msghdr message{};
    message.msg_iov = next;
    message.msg_iovlen = count;
    const ssize_t sent = ::sendmsg(fd, &message, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    auto left = static_cast<std::size_t>(sent);
    while (count > 0 && left >= next->iov_len) {
      left -= next->iov_len;
      ++next;
      --count;
    }
    if (count > 0) {
      next->iov_base = static_cast<char*>(next->iov_base) + left;
      next->iov_len -= left;
    }
  }
  return true;
}

bool sendAnswer(int fd, int status, std::string_view body) {
  char head[HttpResponse::kMaxHeadBytes];
  return sendAll(fd, std::string_view(head, HttpResponse::writeHead(head, status, body.size())), body);
}

// After an answer that ends the connection while the client may still be
// sending (an unread body), read a little of what follows before closing, so
// the close does not reset the connection and destroy the answer in flight.
void lingeringClose(int fd) {
  ::shutdown(fd, SHUT_WR);
  char sink[4096];
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
  std::size_t drained = 0;
  while (drained < (256u << 10)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd waiting{fd, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) break;
    const ssize_t got = ::recv(fd, sink, sizeof sink, 0);
    if (got <= 0) break;
    drained += static_cast<std::size_t>(got);
  }
}

}  // namespace

std::string HTTPServer::environmentToken() {
  const char* value = std::getenv("TARV_TOKEN");
  std::string token = value == nullptr ? std::string() : std::string(value);
  checkToken(token);
  return token;
}

HTTPServer::HTTPServer(std::string token, JoinedSearchPtr search, json::Value sources, double loadMs, Options options)
    : token_(std::move(token)),
      bearer_(bearerOf(token_)),
      search_(std::move(search)),
      pages_(search_),
      version_(search_ ? search_->joinKey() : std::string()),
      sources_(std::move(sources)),
      loadMs_(loadMs),
      results_(options.storeLimits, options.clock),
      options_(std::move(options)),
      connections_(std::make_shared<Connections>()) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0) throw KernelError::io("socket failed");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = 0;  // the system picks a free port
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    closeQuietly(listener_);
    throw KernelError::io("bind/listen failed");
  }
  port_ = ntohs(address.sin_port);
  if (::pipe2(wake_, O_CLOEXEC) != 0) {
    closeQuietly(listener_);
    throw KernelError::io("socket failed");
  }
}

HTTPServer::~HTTPServer() {
  stop();
  closeQuietly(listener_);
  closeQuietly(wake_[0]);
  closeQuietly(wake_[1]);
}

std::string HTTPServer::readyLine() const {
  LoadTrace::event("http", "ready", "port=" + std::to_string(port_) + " version=" + version_);
  return json::encode(json::Value{{"event", "http.ready"}, {"port", port_}, {"version", version_}});
}

void HTTPServer::start() {
  std::lock_guard<std::mutex> guard(lifecycle_);
  if (acceptor_.joinable() || stopping_) return;
  acceptor_ = std::thread(&HTTPServer::acceptLoop, this);
}

void HTTPServer::stop() {
  std::lock_guard<std::mutex> guard(lifecycle_);
  stopping_ = true;
  if (acceptor_.joinable()) {
    const char byte = 1;
    while (::write(wake_[1], &byte, 1) < 0 && errno == EINTR) {
    }
    acceptor_.join();
  }
  closeQuietly(listener_);

  // Idle connections wait for their next request: ending their receiving
  // side wakes them. A connection in the middle of a request still answers.
  std::unique_lock<std::mutex> lock(connections_->lock);
  for (int fd : connections_->sockets) ::shutdown(fd, SHUT_RD);
  connections_->idle.wait(lock, [this] { return connections_->active == 0; });
}

void HTTPServer::acceptLoop() {
  while (true) {
    pollfd waiting[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (::poll(waiting, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (waiting[1].revents != 0) return;
    if ((waiting[0].revents & POLLIN) == 0) continue;

    int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // Out of descriptors: back off instead of spinning on the ready listener.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      continue;
    }
    {
      std::lock_guard<std::mutex> lock(connections_->lock);
      if (connections_->active >= options_.maxConnections) {
        ::close(fd);  // over the limit: closed at once
        continue;
      }
      ++connections_->active;
      connections_->sockets.insert(fd);
    }
    try {
      std::thread([this, fd] { serve(fd); }).detach();
    } catch (const std::exception&) {
      std::lock_guard<std::mutex> lock(connections_->lock);
      connections_->sockets.erase(fd);
      --connections_->active;
      ::close(fd);
    }
  }
}

void HTTPServer::serve(int fd) {
  // Keep the shared record alive past the server's own lifetime.
  const std::shared_ptr<Connections> connections = connections_;
  try {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // A client that does not read its answers cannot hold the thread forever either.
    timeval sendTimeout{};
    sendTimeout.tv_sec = static_cast<time_t>(options_.receiveTimeout.count() / 1000);
    sendTimeout.tv_usec = static_cast<suseconds_t>((options_.receiveTimeout.count() % 1000) * 1000);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);

    HttpRequestParser parser(options_.requestLimits);
    std::string received;
    // One body buffer for every answer on this connection; a page of the
    // largest size fits after the first few requests, so later answers
    // allocate nothing for their text.
    ByteBuffer body(64 << 10);
    ResultStore::Released released;
    char chunk[16384];
    // The whole next request must arrive before this moment, however it trickles in.
    auto deadline = std::chrono::steady_clock::now() + options_.receiveTimeout;
    while (true) {
      HttpRequestParser::Result parsed = parser.parse(received);
      if (parsed.status == HttpRequestParser::Status::incomplete) {
        if (stopping_ && received.empty()) break;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;  // stalled: dropped without an answer
        pollfd waiting{fd, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) continue;
        const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
        if (got == 0) break;  // closed (or half-closed) by the client, or stopping
        if (got < 0) {
          if (errno == EINTR || errno == EAGAIN) continue;
          break;
        }
        received.append(chunk, static_cast<std::size_t>(got));
        continue;
      }

      if (parsed.status != HttpRequestParser::Status::complete) {
        const HttpResponse answer = HttpResponse::error(400, "invalid_request", parsed.error);
        LoadTrace::event("http", "request", "method=- path=- status=400");
        if (sendAnswer(fd, answer.status, answer.body)) lingeringClose(fd);
        break;
      }

      const int status = respond(parsed.request, body, &released);
      const bool sent = sendAnswer(fd, status, body.view());
      released.clear();  // evicted results are freed once the client has its answer
      if (!sent) break;
      if (!parsed.request.keepAlive) {
        if (parsed.request.bodyTooLarge) lingeringClose(fd);
        break;
      }
      received.erase(0, parsed.consumed);
      if (stopping_) break;
      deadline = std::chrono::steady_clock::now() + options_.receiveTimeout;
    }
  } catch (...) {
    // Out of memory or a thread error: this connection ends, others go on.
  }

  std::lock_guard<std::mutex> lock(connections->lock);
  connections->sockets.erase(fd);
  ::close(fd);
  --connections->active;
  connections->idle.notify_all();
}

}  // namespace tarv
