// SPDX-License-Identifier: Apache-2.0
// Raw loopback peers for wire tests: a client that sends exact bytes and reads exact bytes with
// a deadline, and connected socket pairs for testing readers directly.
//
// Everything here talks to 127.0.0.1 only; tests using it start with
// TW_REQUIRE_LOOPBACK_NAMESPACE(). Every wait takes a deadline in milliseconds and returns what
// it has when the deadline passes, so a server that hangs fails the test instead of hanging it.
//
//   tw::test::HttpPeer peer;
//   ASSERT_TRUE(peer.Connect(port));
//   ASSERT_TRUE(peer.Send("GET / HTTP/1.1\r\n\r\n"));
//   tw::test::HttpResponse r = peer.ReadResponse();   // head + Content-Length body
//   EXPECT_EQ(r.status, 200);
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tw::test {

constexpr int kPeerTimeoutMs = 5000;

// One response as read off the wire: the head (through its blank line), the status code of its
// status line (0 when none), and exactly Content-Length bytes of body (none without the header).
struct HttpResponse {
  std::string head;
  int status = 0;
  std::string body;
  bool complete = false;  // the head and the announced body all arrived
};

class HttpPeer {
 public:
  HttpPeer() = default;
  explicit HttpPeer(int fd) : fd_(fd) {}  // adopts a connected descriptor
  ~HttpPeer();
  HttpPeer(const HttpPeer&) = delete;
  HttpPeer& operator=(const HttpPeer&) = delete;

  // Connects to 127.0.0.1:port (TCP_NODELAY on, so small writes leave as they are written).
  bool Connect(int port, int timeout_ms = kPeerTimeoutMs);
  // Sends all bytes (no SIGPIPE); false when the connection failed.
  bool Send(const std::string& bytes);
  // Sends bytes in pieces of `piece` bytes with a pause between them, so the receiver sees the
  // message arrive in many segments.
  bool SendInPieces(const std::string& bytes, size_t piece, int pause_ms = 2);

  // Up to n bytes: returns early only when the peer closes or the deadline passes.
  std::string ReadExactly(size_t n, int timeout_ms = kPeerTimeoutMs);
  // Bytes up to and including the first occurrence of marker (everything read when it never
  // comes). Bytes behind the marker are kept for the next read.
  std::string ReadUntil(const std::string& marker, int timeout_ms = kPeerTimeoutMs);
  HttpResponse ReadResponse(int timeout_ms = kPeerTimeoutMs);
  // Everything until the peer closes (or the deadline).
  std::string ReadAll(int timeout_ms = kPeerTimeoutMs);
  // True when the other side closed (end of stream or reset) before the deadline; bytes that
  // arrive meanwhile are kept for later reads.
  bool WaitClosed(int timeout_ms = kPeerTimeoutMs);
  // True when nothing arrives and the connection stays open for wait_ms.
  bool StaysSilent(int wait_ms);

  void ShutdownWrite();
  // Closes with a reset (SO_LINGER 0) instead of an orderly end of stream.
  void Reset();
  void Close();
  int fd() const { return fd_; }

 private:
  // One poll+recv into pending_; false when the deadline passed or the stream ended.
  bool Fill(int64_t deadline_ms);

  int fd_ = -1;
  bool eof_ = false;
  std::string pending_;
};

// A connected TCP pair over 127.0.0.1: `client` talks, `server` is the accepted end handed to
// the code under test. Both are closed by the destructor unless released.
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

// Milliseconds of a monotonic clock.
int64_t NowMs();

}  // namespace tw::test
