// SPDX-License-Identifier: Apache-2.0
// A loopback server that plays scripted replies to the HTTP client under test (wire tests need
// TW_REQUIRE_LOOPBACK_NAMESPACE()). Each connection: the request is read (head, and as many body
// bytes as its Content-Length says), the reply is written, the write side is shut and the server
// waits for the client to close. Every wait ends at a deadline, so a client that hangs fails the
// test instead of hanging it.
#pragma once

#include "support/test_support.h"

namespace tw::test {

class ScriptedServer {
 public:
  // One connection per reply, served in turn; an empty reply answers nothing.
  explicit ScriptedServer(std::vector<std::string> replies) : replies_(std::move(replies)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof(address);
    if (listener_ < 0 ||
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener_, 8) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "cannot listen on loopback";
      return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~ScriptedServer() {
    Finish();
    if (listener_ >= 0) close(listener_);
  }
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  int port() const { return port_; }
  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  // Waits until every scripted connection was served; the requests as they arrived.
  const std::vector<std::string>& Requests() {
    Finish();
    return requests_;
  }

 private:
  static constexpr int kWaitMs = 10000;

  void Finish() {
    if (thread_.joinable()) thread_.join();
  }
  static bool Readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeout_ms) == 1;
  }
  static std::string ReadRequest(int fd) {
    std::string in;
    char buffer[65536];
    size_t wanted = std::string::npos;
    while (in.size() < wanted && Readable(fd, kWaitMs)) {
      const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
      if (n <= 0) break;
      in.append(buffer, static_cast<size_t>(n));
      const size_t end = in.find("\r\n\r\n");
      if (wanted == std::string::npos && end != std::string::npos) {
        const char* length = strcasestr(in.c_str(), "\r\nContent-Length:");
        const size_t body = length != nullptr && length < in.c_str() + end
                                ? std::strtoull(length + 17, nullptr, 10)
                                : 0;
        wanted = end + 4 + body;
      }
    }
    return in;
  }
  static void Send(int fd, const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return;  // the client went away
      sent += static_cast<size_t>(n);
    }
  }
  void Serve() {
    for (const std::string& reply : replies_) {
      if (!Readable(listener_, kWaitMs)) return;
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      requests_.push_back(ReadRequest(fd));
      Send(fd, reply);
      shutdown(fd, SHUT_WR);
      char sink[4096];
      while (Readable(fd, kWaitMs) && recv(fd, sink, sizeof(sink), 0) > 0) {
      }
      close(fd);
    }
  }

  std::vector<std::string> replies_;
  std::vector<std::string> requests_;
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace tw::test
