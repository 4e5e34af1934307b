#pragma once
// A language-model provider stand-in for tests: a one-thread HTTP/1.1 server
// on 127.0.0.1 (system-chosen port) that records every request and answers
// with scripted replies in order. Each connection carries one request and is
// closed after the reply. Nothing leaves the machine.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kernel/base/json.h"

namespace tarv::testing {

struct RecordedRequest {
  std::string method;
  std::string target;                         // path and query as sent
  std::map<std::string, std::string> headers;  // names lower-cased; last one wins
  std::string body;
};

struct ScriptedReply {
  int status = 200;
  std::string body;
  std::chrono::milliseconds delay{0};  // before the reply is written
};

class FakeProvider {
 public:
  FakeProvider() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0) throw std::runtime_error("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      throw std::runtime_error("bind");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }

  ~FakeProvider() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    ::close(listener_);
  }

  FakeProvider(const FakeProvider&) = delete;
  FakeProvider& operator=(const FakeProvider&) = delete;

  int port() const { return port_; }
  std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // Queues the reply to the next request; without one the server answers 599.
  void reply(ScriptedReply reply) {
    std::lock_guard<std::mutex> lock(mutex_);
    replies_.push_back(std::move(reply));
  }
  void reply(int status, std::string body) { reply(ScriptedReply{status, std::move(body), {}}); }

  std::vector<RecordedRequest> requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
      }
      pollfd ready{listener_, POLLIN, 0};
      if (::poll(&ready, 1, 20) <= 0) continue;
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      handle(client);
      ::close(client);
    }
  }

  static std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  }

  // Reads more bytes into `data`; false at the end of the stream or after a
  // quiet second.
  static bool readMore(int client, std::string& data) {
    pollfd ready{client, POLLIN, 0};
    if (::poll(&ready, 1, 5000) <= 0) return false;
    char buffer[65536];
    const ssize_t got = ::recv(client, buffer, sizeof buffer, 0);
    if (got <= 0) return false;
    data.append(buffer, static_cast<std::size_t>(got));
    return true;
  }

  void handle(int client) {
    std::string data;
    std::size_t headEnd;
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos)
      if (!readMore(client, data)) return;
    RecordedRequest request;
    std::size_t lineStart = 0;
    bool first = true;
    while (lineStart < headEnd) {
      std::size_t lineEnd = data.find("\r\n", lineStart);
      const std::string line = data.substr(lineStart, lineEnd - lineStart);
      lineStart = lineEnd + 2;
      if (first) {
        const std::size_t space = line.find(' ');
        const std::size_t secondSpace = line.find(' ', space + 1);
        request.method = line.substr(0, space);
        request.target = line.substr(space + 1, secondSpace - space - 1);
        first = false;
        continue;
      }
      const std::size_t colon = line.find(':');
      if (colon == std::string::npos) continue;
      std::string value = line.substr(colon + 1);
      value.erase(0, value.find_first_not_of(' '));
      const std::string name = lower(line.substr(0, colon));
      request.headers[name] = value;
    }
    std::size_t contentLength = 0;
    if (auto found = request.headers.find("content-length"); found != request.headers.end())
      contentLength = std::stoul(found->second);
    while (data.size() < headEnd + 4 + contentLength)
      if (!readMore(client, data)) break;
    request.body = data.substr(headEnd + 4, contentLength);

    ScriptedReply reply{599, "no reply scripted", {}};
    {
      std::unique_lock<std::mutex> lock(mutex_);
      requests_.push_back(std::move(request));
      if (!replies_.empty()) {
        reply = std::move(replies_.front());
        replies_.pop_front();
      }
      if (reply.delay.count() > 0 && wake_.wait_for(lock, reply.delay, [this] { return stopping_; })) return;
    }
    const std::string response = "HTTP/1.1 " + std::to_string(reply.status) +
                                 " Scripted\r\nContent-Type: application/json\r\nContent-Length: " +
                                 std::to_string(reply.body.size()) + "\r\nConnection: close\r\n\r\n" + reply.body;
    std::size_t sent = 0;
    while (sent < response.size()) {
      const ssize_t wrote = ::send(client, response.data() + sent, response.size() - sent, MSG_NOSIGNAL);
      if (wrote <= 0) return;  // the client gave up (time-out tests)
      sent += static_cast<std::size_t>(wrote);
    }
  }

  int listener_ = -1;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::deque<ScriptedReply> replies_;
  std::vector<RecordedRequest> requests_;
  std::thread thread_;
};

// A request's body as JSON (the providers send nothing else).
inline json::Value bodyOf(const RecordedRequest& request) { return json::Value::parse(request.body); }

// A successful reply of each protocol carrying the model's text.
inline std::string openAIReply(const std::string& content) {
  return json::encode(
      json::Value{{"choices", {{{"index", 0}, {"message", {{"role", "assistant"}, {"content", content}}}}}}});
}
inline std::string anthropicReply(const std::string& text) {
  return json::encode(json::Value{{"content", {{{"type", "text"}, {"text", text}}}}, {"stop_reason", "end_turn"}});
}

}  // namespace tarv::testing
