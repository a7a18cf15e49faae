// SPDX-License-Identifier: Apache-2.0
// Raw loopback peers for wire tests: a client that sends exact bytes and reads exact bytes with
// a deadline, and connected socket pairs for testing readers directly. Tests using it start with
// TW_REQUIRE_LOOPBACK_NAMESPACE(). Every read ends at its deadline with what it has, so a server
// that hangs fails the test instead of hanging it.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace tw::test {

constexpr int kPeerTimeoutMs = 5000;

// One response off the wire: the head through its blank line, the status code of its status
// line (0 when none) and exactly Content-Length bytes of body (none without the header).
struct HttpResponse {
  std::string head;
  int status = 0;
  std::string body;
  bool complete = false;  // the head and the announced body all arrived
};

class HttpPeer {
 public:
  HttpPeer() = default;
  ~HttpPeer();
  HttpPeer(const HttpPeer&) = delete;
  HttpPeer& operator=(const HttpPeer&) = delete;

  // Connects to ip:port (TCP_NODELAY on, so small writes leave as they are written).
  bool Connect(int port, const std::string& ip = "127.0.0.1");
  // Sends all bytes (no SIGPIPE); false when the connection failed.
  bool Send(const std::string& bytes);

  // Up to n bytes: returns early only when the peer closes or the deadline passes.
  std::string ReadExactly(size_t n, int timeout_ms = kPeerTimeoutMs);
  HttpResponse ReadResponse(int timeout_ms = kPeerTimeoutMs);
  // Everything until the peer closes (or the deadline).
  std::string ReadAll(int timeout_ms = kPeerTimeoutMs);
  // True when the other side closed before the deadline; bytes arriving meanwhile are kept.
  bool WaitClosed(int timeout_ms = kPeerTimeoutMs);
  // True when nothing arrives and the connection stays open for wait_ms.
  bool StaysSilent(int wait_ms);

  void ShutdownWrite();
  void Reset();  // closes with a reset (SO_LINGER 0) instead of an orderly end of stream
  void Close();

 private:
  // One poll+recv into pending_; false when the deadline passed or the stream ended.
  bool Fill(std::chrono::steady_clock::time_point deadline);
  std::string Take(size_t n);  // up to n bytes off the front of pending_

  int fd_ = -1;
  bool eof_ = false;
  std::string pending_;
};

// A connected TCP pair over 127.0.0.1: `client` talks, `server` is the accepted end handed to
// the code under test. Both are closed by the destructor.
class PeerPair {
 public:
  PeerPair() = default;
  ~PeerPair();
  PeerPair(const PeerPair&) = delete;
  PeerPair& operator=(const PeerPair&) = delete;

  bool Open();
  HttpPeer& client() { return client_; }
  int server_fd() const { return server_fd_; }
  // The bytes queued at the server end that nobody has read yet (peeked, left in place).
  std::string QueuedAtServer(int timeout_ms = 200);
  void CloseServer();

 private:
  HttpPeer client_;
  int server_fd_ = -1;
};

}  // namespace tw::test
