// SPDX-License-Identifier: Apache-2.0
#include "support/http_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace tw::test {
namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int Remaining(int64_t deadline_ms) {
  const int64_t left = deadline_ms - NowMs();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

HttpPeer::~HttpPeer() { Close(); }

void HttpPeer::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool HttpPeer::Connect(int port, int timeout_ms) {
  Close();
  eof_ = false;
  pending_.clear();
  fd_ = socket(AF_INET, SOCK_STREAM, 0);
  if (fd_ < 0) return false;
  const int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  timeval limit{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
  setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  const sockaddr_in address = Loopback(port);
  if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    Close();
    return false;
  }
  return true;
}

bool HttpPeer::Send(const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {  // each round sends at least one byte or fails
    const ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool HttpPeer::SendInPieces(const std::string& bytes, size_t piece, int pause_ms) {
  if (piece == 0) piece = 1;
  for (size_t at = 0; at < bytes.size(); at += piece) {
    if (!Send(bytes.substr(at, piece))) return false;
    if (pause_ms > 0) usleep(static_cast<useconds_t>(pause_ms) * 1000);
  }
  return true;
}

bool HttpPeer::Fill(int64_t deadline_ms) {
  if (fd_ < 0 || eof_) return false;
  pollfd waiting{fd_, POLLIN, 0};
  if (poll(&waiting, 1, Remaining(deadline_ms)) <= 0) return false;
  char buffer[16384];
  const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
  if (n <= 0) {
    eof_ = true;
    return false;
  }
  pending_.append(buffer, static_cast<size_t>(n));
  return true;
}

std::string HttpPeer::ReadExactly(size_t n, int timeout_ms) {
  const int64_t deadline = NowMs() + timeout_ms;
  while (pending_.size() < n && Fill(deadline)) {
  }
  const size_t take = pending_.size() < n ? pending_.size() : n;
  std::string out = pending_.substr(0, take);
  pending_.erase(0, take);
  return out;
}

std::string HttpPeer::ReadUntil(const std::string& marker, int timeout_ms) {
  const int64_t deadline = NowMs() + timeout_ms;
  size_t found;
  while ((found = pending_.find(marker)) == std::string::npos && Fill(deadline)) {
  }
  const size_t take = found == std::string::npos ? pending_.size() : found + marker.size();
  std::string out = pending_.substr(0, take);
  pending_.erase(0, take);
  return out;
}

HttpResponse HttpPeer::ReadResponse(int timeout_ms) {
  const int64_t deadline = NowMs() + timeout_ms;
  HttpResponse response;
  response.head = ReadUntil("\r\n\r\n", Remaining(deadline));
  if (response.head.size() < 4 ||
      response.head.compare(response.head.size() - 4, 4, "\r\n\r\n") != 0) {
    return response;
  }
  const size_t space = response.head.find(' ');
  if (response.head.compare(0, 5, "HTTP/") == 0 && space != std::string::npos) {
    response.status = std::atoi(response.head.c_str() + space + 1);
  }
  size_t length = 0;
  std::string lower = response.head;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const size_t header = lower.find("\r\ncontent-length:");
  if (header != std::string::npos) {
    length = static_cast<size_t>(std::strtoull(lower.c_str() + header + 17, nullptr, 10));
  }
  response.body = ReadExactly(length, Remaining(deadline));
  response.complete = response.body.size() == length;
  return response;
}

std::string HttpPeer::ReadAll(int timeout_ms) {
  const int64_t deadline = NowMs() + timeout_ms;
  while (Fill(deadline)) {
  }
  std::string out;
  out.swap(pending_);
  return out;
}

bool HttpPeer::WaitClosed(int timeout_ms) {
  const int64_t deadline = NowMs() + timeout_ms;
  while (Fill(deadline)) {
  }
  return eof_;
}

bool HttpPeer::StaysSilent(int wait_ms) {
  const size_t before = pending_.size();
  const int64_t deadline = NowMs() + wait_ms;
  Fill(deadline);
  return pending_.size() == before && !eof_;
}

void HttpPeer::ShutdownWrite() {
  if (fd_ >= 0) shutdown(fd_, SHUT_WR);
}

void HttpPeer::Reset() {
  if (fd_ < 0) return;
  linger hard{1, 0};
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
  if (listener < 0) return false;
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof(address);
  bool ok = bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
            listen(listener, 1) == 0 &&
            getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
            client_.Connect(ntohs(address.sin_port));
  if (ok) {
    server_fd_ = accept(listener, nullptr, nullptr);
    ok = server_fd_ >= 0;
  }
  close(listener);
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
