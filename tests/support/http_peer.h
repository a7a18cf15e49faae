// SPDX-License-Identifier: Apache-2.0
// Raw loopback peers for wire tests (which need TW_REQUIRE_LOOPBACK_NAMESPACE()). Every read ends
// at its deadline with what it has, so a server that hangs fails the test instead of hanging it.
#pragma once

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>

namespace tw::test {

constexpr int kPeerTimeoutMs = 5000;

inline sockaddr_in LoopbackAddress(int port, const std::string& ip = "127.0.0.1") {
  sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {}, {}};
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

// One response: the head through its blank line, its status code and Content-Length bytes of body.
struct HttpResponse {
  std::string head;
  int status = 0;
  std::string body;
  bool complete = false;  // the head and the announced body all arrived
};

class HttpPeer {
  using Clock = std::chrono::steady_clock;

 public:
  HttpPeer() = default;
  ~HttpPeer() { Close(); }
  HttpPeer(const HttpPeer&) = delete;
  HttpPeer& operator=(const HttpPeer&) = delete;

  // TCP_NODELAY: small writes leave as they are written.
  bool Connect(int port, const std::string& ip = "127.0.0.1") {
    Close();
    eof_ = false;
    pending_.clear();
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    const timeval limit{kPeerTimeoutMs / 1000, 0};
    const sockaddr_in address = LoopbackAddress(port, ip);
    if (fd_ < 0 || setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0 ||
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0 ||
        connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      Close();
    }
    return fd_ >= 0;
  }
  bool Send(const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {  // each round sends a byte or more, or fails
      const ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return false;
      sent += static_cast<size_t>(n);
    }
    return true;
  }
  HttpResponse ReadResponse(int timeout_ms = kPeerTimeoutMs) {
    const auto deadline = After(timeout_ms);
    HttpResponse response;
    size_t end;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos && Fill(deadline)) {
    }
    if (end == std::string::npos) return response;
    response.head = Take(end + 4);
    if (response.head.compare(0, 5, "HTTP/") == 0) {
      response.status = std::atoi(response.head.c_str() + response.head.find(' ') + 1);
    }
    const char* header = strcasestr(response.head.c_str(), "\r\ncontent-length:");
    const size_t length = header == nullptr ? 0 : std::strtoull(header + 17, nullptr, 10);
    while (pending_.size() < length && Fill(deadline)) {
    }
    response.body = Take(length);
    response.complete = response.body.size() == length;
    return response;
  }
  std::string ReadAll(int timeout_ms = kPeerTimeoutMs) {
    WaitClosed(timeout_ms);
    return Take(std::string::npos);
  }
  // True when the other side closed; bytes arriving meanwhile are kept.
  bool WaitClosed(int timeout_ms = kPeerTimeoutMs) {
    const auto deadline = After(timeout_ms);
    while (Fill(deadline)) {
    }
    return eof_;
  }
  bool StaysSilent(int wait_ms) {
    const size_t before = pending_.size();
    Fill(After(wait_ms));
    return pending_.size() == before && !eof_;
  }
  void ShutdownWrite() { shutdown(fd_, SHUT_WR); }
  void Reset() {  // closes with a reset (SO_LINGER 0) instead of an orderly end of stream
    const linger hard{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    Close();
  }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  static Clock::time_point After(int ms) { return Clock::now() + std::chrono::milliseconds(ms); }
  bool Fill(Clock::time_point deadline) {
    if (fd_ < 0 || eof_) return false;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waiting{fd_, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) return false;
    char buffer[16384];
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
    eof_ = n <= 0;
    if (n > 0) pending_.append(buffer, static_cast<size_t>(n));
    return n > 0;
  }
  std::string Take(size_t n) {  // up to n bytes off the front of pending_
    std::string out = pending_.substr(0, n);
    pending_.erase(0, out.size());
    return out;
  }

  int fd_ = -1;
  bool eof_ = false;
  std::string pending_;
};

// A connected TCP pair over 127.0.0.1: `client` talks, the accepted end is the code's.
class PeerPair {
 public:
  PeerPair() = default;
  ~PeerPair() { CloseServer(); }
  PeerPair(const PeerPair&) = delete;
  PeerPair& operator=(const PeerPair&) = delete;

  bool Open() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof(address);
    const bool ok = listener >= 0 &&
                    bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                    listen(listener, 1) == 0 &&
                    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
                    client_.Connect(ntohs(address.sin_port)) &&
                    (server_fd_ = accept(listener, nullptr, nullptr)) >= 0;
    if (listener >= 0) close(listener);
    return ok;
  }
  HttpPeer& client() { return client_; }
  int server_fd() const { return server_fd_; }
  // The bytes queued at the server end that nobody has read yet (peeked).
  std::string QueuedAtServer(int timeout_ms = 200) {
    pollfd waiting{server_fd_, POLLIN, 0};
    if (poll(&waiting, 1, timeout_ms) <= 0) return "";
    char buffer[65536];
    const ssize_t n = recv(server_fd_, buffer, sizeof(buffer), MSG_PEEK | MSG_DONTWAIT);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
  }
  void CloseServer() {
    if (server_fd_ >= 0) close(server_fd_);
    server_fd_ = -1;
  }

 private:
  HttpPeer client_;
  int server_fd_ = -1;
};

}  // namespace tw::test
