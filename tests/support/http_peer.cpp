// SPDX-License-Identifier: Apache-2.0
#include "support/http_peer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace tw::test {
namespace {

sockaddr_in Address(int port, const std::string& ip = "127.0.0.1") {
  sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {}, {}};
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

using Clock = std::chrono::steady_clock;
Clock::time_point After(int ms) { return Clock::now() + std::chrono::milliseconds(ms); }

}  // namespace

HttpPeer::~HttpPeer() { Close(); }

void HttpPeer::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool HttpPeer::Connect(int port, const std::string& ip) {
  Close();
  eof_ = false;
  pending_.clear();
  fd_ = socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  const timeval limit{kPeerTimeoutMs / 1000, 0};
  const sockaddr_in address = Address(port, ip);
  if (fd_ < 0 || setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0 ||
      setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0 ||
      connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    Close();
    return false;
  }
  return true;
}

bool HttpPeer::Send(const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {  // each round sends a byte or more, or fails
    const ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool HttpPeer::Fill(Clock::time_point deadline) {
  if (fd_ < 0 || eof_) return false;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd waiting{fd_, POLLIN, 0};
  if (poll(&waiting, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) return false;
  char buffer[16384];
  const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
  eof_ = n <= 0;
  if (n > 0) pending_.append(buffer, static_cast<size_t>(n));
  return n > 0;
}

std::string HttpPeer::Take(size_t n) {
  std::string out = pending_.substr(0, n);
  pending_.erase(0, out.size());
  return out;
}

std::string HttpPeer::ReadExactly(size_t n, int timeout_ms) {
  const auto deadline = After(timeout_ms);
  while (pending_.size() < n && Fill(deadline)) {
  }
  return Take(n);
}

HttpResponse HttpPeer::ReadResponse(int timeout_ms) {
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
  std::string lower = response.head;
  std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
  const size_t header = lower.find("\r\ncontent-length:");
  const size_t length =
      header == std::string::npos ? 0 : std::strtoull(lower.c_str() + header + 17, nullptr, 10);
  while (pending_.size() < length && Fill(deadline)) {
  }
  response.body = Take(length);
  response.complete = response.body.size() == length;
  return response;
}

std::string HttpPeer::ReadAll(int timeout_ms) {
  const auto deadline = After(timeout_ms);
  while (Fill(deadline)) {
  }
  return Take(std::string::npos);
}

bool HttpPeer::WaitClosed(int timeout_ms) {
  const auto deadline = After(timeout_ms);
  while (Fill(deadline)) {
  }
  return eof_;
}

bool HttpPeer::StaysSilent(int wait_ms) {
  const size_t before = pending_.size();
  Fill(After(wait_ms));
  return pending_.size() == before && !eof_;
}

void HttpPeer::ShutdownWrite() { shutdown(fd_, SHUT_WR); }

void HttpPeer::Reset() {
  const linger hard{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
  Close();
}

PeerPair::~PeerPair() { CloseServer(); }

void PeerPair::CloseServer() {
  if (server_fd_ >= 0) close(server_fd_);
  server_fd_ = -1;
}

bool PeerPair::Open() {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = Address(0);
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

std::string PeerPair::QueuedAtServer(int timeout_ms) {
  pollfd waiting{server_fd_, POLLIN, 0};
  if (poll(&waiting, 1, timeout_ms) <= 0) return "";
  char buffer[65536];
  const ssize_t n = recv(server_fd_, buffer, sizeof(buffer), MSG_PEEK | MSG_DONTWAIT);
  return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

}  // namespace tw::test
