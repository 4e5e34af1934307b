#pragma once
// A minimal blocking HTTP client for the service tests: connects to
// 127.0.0.1, sends raw bytes and reads one response framed by its
// Content-Length. Every wait is bounded so a server fault fails a test
// instead of hanging it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tarv::testing {

struct HttpReply {
  int status = 0;          // 0: no complete response arrived
  std::string head;        // status line and headers, up to and including the blank line
  std::string body;
  nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false); }
};

class Socket {
 public:
  explicit Socket(int port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  ~Socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool connected() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  // Reads until one whole response is buffered (or the wait ends); bytes past
  // it stay buffered for the next call.
  HttpReply read(std::chrono::milliseconds wait = std::chrono::milliseconds(5000)) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (true) {
      const std::size_t headEnd = buffer_.find("\r\n\r\n");
      if (headEnd != std::string::npos) {
        const std::string head = buffer_.substr(0, headEnd + 4);
        std::size_t length = 0;
        const std::size_t field = head.find("\r\nContent-Length: ");
        if (field != std::string::npos) length = std::strtoul(head.c_str() + field + 18, nullptr, 10);
        if (buffer_.size() >= headEnd + 4 + length) {
          HttpReply reply;
          reply.head = head;
          reply.body = buffer_.substr(headEnd + 4, length);
          reply.status = head.size() > 12 ? std::atoi(head.c_str() + 9) : 0;
          buffer_.erase(0, headEnd + 4 + length);
          return reply;
        }
      }
      if (!fill(deadline)) return {};
    }
  }

  // Whether the server closes the connection (end of stream) within the wait.
  bool closedByPeer(std::chrono::milliseconds wait = std::chrono::milliseconds(3000)) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (fill(deadline)) {
    }
    return eof_;
  }

 private:
  bool fill(std::chrono::steady_clock::time_point deadline) {
    if (eof_) return false;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd waiting{fd_, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return false;
    char chunk[65536];
    const ssize_t got = ::recv(fd_, chunk, sizeof chunk, 0);
    if (got <= 0) {
      eof_ = true;
      return false;
    }
    buffer_.append(chunk, static_cast<std::size_t>(got));
    return true;
  }

  int fd_ = -1;
  std::string buffer_;
  bool eof_ = false;
};

// "METHOD target HTTP/1.1" with the given extra header lines (each ending in
// CRLF) and body; Content-Length is added for a non-empty body.
inline std::string request(std::string_view method, std::string_view target, std::string_view headers,
                           std::string_view body = {}) {
  std::string text = std::string(method) + " " + std::string(target) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  text += headers;
  if (!body.empty()) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  text += "\r\n";
  text += body;
  return text;
}

}  // namespace tarv::testing
