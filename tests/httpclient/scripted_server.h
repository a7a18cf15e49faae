// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "support/test_support.h"

namespace tw::test {

inline const std::string kAgent = "User-Agent: ktConnect DLNADOC/1.50\r\n";
inline const std::string kOk = "HTTP/1.1 200 OK\r\n";

// A loopback server playing one scripted reply to the HTTP client on each of `connections` in
// turn: all of it at once, then the end of its stream; what the client sends is kept until it
// closes. Every wait ends at a deadline, so a client that hangs fails the test.
class ScriptedServer {
 public:
  explicit ScriptedServer(const std::string& reply, int connections = 1) {
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof(address);
    EXPECT_TRUE(bind(listener_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                listen(listener_, 64) == 0 &&
                getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread_ = std::thread([this, reply, connections] {
      for (int n = 0; n < connections && Readable(listener_); ++n) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);  // all, unless the client went away
        shutdown(fd, SHUT_WR);
        char buffer[65536];
        for (ssize_t got; Readable(fd) && (got = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
          request_.append(buffer, static_cast<size_t>(got));
        }
        close(fd);
      }
    });
  }
  ~ScriptedServer() {
    Request();
    close(listener_);
  }
  std::string Url(const std::string& path) const { return url_ + path; }
  // What the clients sent, once the last one closed; this server's authority shows as HOST.
  std::string Request() {
    if (thread_.joinable()) thread_.join();
    // By hand: <regex> trips GCC's maybe-uninitialized warning in the sanitizer builds.
    std::string out;
    const std::string authority = "127.0.0.1:";
    size_t from = 0;
    for (size_t at; (at = request_.find(authority, from)) != std::string::npos;) {
      size_t end = at + authority.size();
      while (end < request_.size() && std::isdigit(static_cast<unsigned char>(request_[end])))
        ++end;
      out += request_.substr(from, at - from) + "HOST";
      from = end;
    }
    return out + request_.substr(from);
  }

 private:
  static bool Readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 10000) == 1;
  }

  const int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string url_, request_;
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
