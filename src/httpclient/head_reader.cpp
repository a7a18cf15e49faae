// SPDX-License-Identifier: Apache-2.0
// The head reader. Reading one byte per receive call is the simple way to never take a byte of
// the body (or of the next pipelined request) out of the socket; this reader keeps exactly that
// behaviour but works in blocks: it peeks what is queued, finds where the head ends in it, and
// then takes exactly the bytes of the head. A head that arrives in one segment costs two
// receive calls instead of one per byte (and a poll before the peek when the read has a
// deadline).
#include "httpclient/head_reader.h"

#include <atomic>
#include <cstring>

#include "httpclient/head_values.h"
#include "platform/socket.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace tw::httpclient {
namespace {

constexpr int32_t kMinHeadBuffer = 6;   // the cut marker needs five bytes, plus one of head
constexpr int32_t kScratchSize = 2048;  // peek window while discarding bytes
constexpr char kCutMarker[] = "\r\n\r\n";

std::atomic<uint64_t> g_receive_calls{0};

// Progress through the exact sequence CR LF CR LF; a bare LF LF does not end a head.
class BlankLine {
 public:
  void Step(unsigned char byte) noexcept {
    if (byte == '\r') {
      state_ = (state_ == 0 || state_ == 2) ? state_ + 1 : 0;
    } else if (byte == '\n') {
      state_ = (state_ == 1 || state_ == 3) ? state_ + 1 : 0;
    } else {
      state_ = 0;
    }
  }
  bool Complete() const noexcept { return state_ == 4; }

 private:
  int state_ = 0;
};

// A receive that waits for the peer: with a deadline (non-zero) it first waits, at most until
// then, for something to arrive. Without one it is the bare receive, no call more.
int32_t PeekBefore(int64_t deadline_ms, int32_t socket, char* out, int32_t length) noexcept {
  if (deadline_ms != 0 && !platform::WaitReadableUntil(socket, deadline_ms)) return 0;
  return Receive(socket, out, length, UPNP_MSG_PEEK);
}

// Takes `count` bytes that a peek has shown to be queued, into `out`. The peeked bytes are
// queued already, so this normally is one call; it loops only if a call returns fewer.
bool Take(int32_t socket, char* out, int32_t count) noexcept {
  int32_t taken = 0;
  while (taken < count) {
    const int32_t got = Receive(socket, out + taken, count - taken, 0);
    if (got < 1) return false;
    taken += got;
  }
  return true;
}

// Discards bytes until `done(byte)` says the last one was the final one to take. False when a
// receive fails (or the peer closes) first.
template <typename Done>
bool DiscardUntil(int32_t socket, int64_t deadline_ms, Done&& done) noexcept {
  char scratch[kScratchSize];
  for (;;) {  // ends when done() accepts a byte, the peer stops sending or the deadline passes
    const int32_t peeked = PeekBefore(deadline_ms, socket, scratch, kScratchSize);
    if (peeked < 1) return false;
    int32_t used = 0;
    bool finished = false;
    while (used < peeked && !finished) {
      finished = done(static_cast<unsigned char>(scratch[used]));
      ++used;
    }
    if (!Take(socket, scratch, used)) return false;
    if (finished) return true;
  }
}

bool IsChunkedGet(const char* head) noexcept {
  return std::strncmp(head, "GET", 3) == 0 && IsChunked(head);
}

}  // namespace

int32_t Receive(int32_t socket, void* buffer, int32_t length, int32_t flags) noexcept {
  g_receive_calls.fetch_add(1, std::memory_order_relaxed);
  return upnp_recv(socket, buffer, length, flags);
}

uint64_t ReceiveCalls() noexcept { return g_receive_calls.load(std::memory_order_relaxed); }

int32_t ReadHead(int32_t socket, char* buffer, int32_t size, int64_t deadline_ms) noexcept {
  if (buffer == nullptr || size < kMinHeadBuffer) return 0;
  const int32_t limit = size - 1;  // room for the NUL
  int32_t stored = 0;
  BlankLine blank_line;
  bool complete = false;
  while (!complete && stored < limit) {  // each round stores at least one byte or returns
    // Peek straight into the buffer behind what is stored: the later take then overwrites
    // these bytes with the same bytes, so no copy is needed.
    char* window = buffer + stored;
    const int32_t peeked = PeekBefore(deadline_ms, socket, window, limit - stored);
    if (peeked < 1) return 0;
    int32_t used = 0;
    int32_t dropped = 0;
    if (stored == 0) {
      // Stray CR/LF (any byte below 32) before a request line is dropped.
      while (used < peeked && static_cast<unsigned char>(window[used]) < 32) ++used;
      dropped = used;
    }
    int32_t kept = 0;
    while (used < peeked && !complete && stored + kept < limit) {
      blank_line.Step(static_cast<unsigned char>(window[used]));
      ++used;
      ++kept;
      complete = blank_line.Complete();
    }
    if (!Take(socket, window, used)) return 0;
    if (dropped > 0) std::memmove(window, window + dropped, static_cast<size_t>(kept));
    stored += kept;
  }
  buffer[stored] = '\0';
  int32_t length = stored;
  if (!complete) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_get_header header buffer too small!\n%s", buffer);
    std::memcpy(buffer + size - 5, kCutMarker, 4);
    buffer[size - 1] = '\0';
    // The rest of the head is dropped up to its blank line; a failure there still serves the
    // part that was kept, unless the time ran out: the rest would then be read as the next head.
    const bool skipped = DiscardUntil(socket, deadline_ms, [&blank_line](unsigned char byte) {
      blank_line.Step(byte);
      return blank_line.Complete();
    });
    if (!skipped && deadline_ms != 0 && getSystemTime() >= deadline_ms) return 0;
    length = limit;
  }
  if (IsChunkedGet(buffer)) {
    // Some clients send a chunked body with a GET; it is drained so the next head starts clean.
    // The rule (two line feeds and a "0" seen) is rough but matches those clients' short bodies.
    int line_feeds = 0;
    int zeros = 0;
    const bool drained =
        DiscardUntil(socket, deadline_ms, [&line_feeds, &zeros](unsigned char byte) {
          if (byte == '\n') ++line_feeds;
          if (byte == '0') ++zeros;
          return line_feeds >= 2 && zeros >= 1;
        });
    if (!drained) return 0;
  }
  return length;
}

}  // namespace tw::httpclient
