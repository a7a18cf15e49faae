// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "support/test_support.h"

namespace tw::test {

inline const std::string kAgent = "User-Agent: ktConnect DLNADOC/1.50\r\n";
inline const std::string kOk = "HTTP/1.1 200 OK\r\n";

// A loopback server playing one scripted reply to the HTTP client: it accepts one connection,
// writes the reply at once, shuts its write side and keeps what the client sends until it closes.
// Every wait ends at a deadline, so a client that hangs fails the test instead of hanging it.
class ScriptedServer {
 public:
  explicit ScriptedServer(const std::string& reply)
      : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof(address);
    EXPECT_TRUE(bind(listener_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                listen(listener_, 1) == 0 &&
                getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, reply] { Serve(reply); });
  }
  ~ScriptedServer() {
    Request();
    close(listener_);
  }
  int port() const { return port_; }
  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  // What the client sent, once it closed; this server's authority shows as HOST.
  const std::string& Request() {
    if (thread_.joinable()) thread_.join();
    return request_;
  }

 private:
  static bool Readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 10000) == 1;
  }
  void Serve(const std::string& reply) {
    const int fd = Readable(listener_) ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (fd < 0) return;
    send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);  // all of it, unless the client went away
    shutdown(fd, SHUT_WR);
    char buffer[65536];
    for (ssize_t n; Readable(fd) && (n = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
      request_.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    const std::string authority = "127.0.0.1:" + std::to_string(port_);
    for (size_t at; (at = request_.find(authority)) != std::string::npos;) {
      request_.replace(at, authority.size(), "HOST");
    }
  }

  int listener_;
  int port_ = 0;
  std::string request_;
  std::thread thread_;
};

// The client's wire tests run in the private namespace; each starts from the default user agent.
class ClientTest : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    HTTP_make_user_agent_settable();
  }
};

}  // namespace tw::test
