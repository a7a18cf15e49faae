// SPDX-License-Identifier: Apache-2.0
// Message bodies after a head: chunked transfer coding, Content-Length, or until the peer
// closes. Shared by the server's request loop and the HTTP client. Nothing is logged here: a
// short body is handed back as far as it arrived and the caller decides.
#include "httpclient/body_reader.h"

#include <cstring>

#include "httpclient/head_reader.h"
#include "httpclient/head_values.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace tw::httpclient {
namespace {

constexpr int32_t kSizeLineSize = 20;
// Bodies announced up to this size are received straight into a string of their exact size;
// longer announcements grow the string as bytes really arrive, so a made-up Content-Length
// cannot reserve gigabytes up front.
constexpr int64_t kDirectBodyLimit = 64 * 1024;
constexpr int32_t kPieceSize = 8192;  // read-until-close pieces (up to 8191 bytes each)

// Reads a chunk-size line one byte at a time up to its LF, or until 19 bytes are stored (a
// longer line is cut and its rest is read as data). False when a receive gives nothing.
bool ReadSizeLine(int32_t socket, char (&line)[kSizeLineSize]) noexcept {
  std::memset(line, 0, sizeof(line));
  for (int32_t i = 0; i < kSizeLineSize - 1; ++i) {
    if (Receive(socket, &line[i], 1, 0) < 1) return false;
    if (line[i] == '\n') break;
  }
  return true;
}

// The size as written (hexadecimal); "FFFFFFFF" and the like come out negative.
int32_t ChunkSize(const char* line) noexcept { return static_cast<int32_t>(upnp_hexToi(line)); }

// Receives until `count` bytes are there or the peer stops; returns how many arrived.
int64_t ReceiveUpTo(int32_t socket, char* out, int64_t count) noexcept {
  int64_t total = 0;
  while (total < count) {
    const int64_t left = count - total;
    const int32_t want = left < INT32_MAX ? static_cast<int32_t>(left) : INT32_MAX;
    const int32_t got = Receive(socket, out + total, want, 0);
    if (got < 1) break;
    total += got;
  }
  return total;
}

// The CR LF behind a chunk (or the final one after the last chunk); trailers are not supported.
void ReadChunkEnd(int32_t socket) noexcept {
  char end[2];
  ReceiveUpTo(socket, end, sizeof(end));
}

// Appends bytes; false (and *text freed) when memory ran out, the text being lost then.
bool Append(upnp_string** text, const char* bytes, uint32_t count) noexcept {
  upnp_string* grown = upnp_string_add(*text, bytes, count);
  if (grown == nullptr || upnp_string_get_cstring(grown) == nullptr) {
    if (grown != nullptr)
      upnp_string_free(grown);
    else if (*text != nullptr)
      upnp_string_free(*text);
    *text = nullptr;
    return false;
  }
  *text = grown;
  return true;
}

upnp_string* ReceiveChunked(int32_t socket) noexcept {
  upnp_string* body = nullptr;
  char line[kSizeLineSize];
  // Each round takes at least one byte off the socket, so the peer bounds the loop.
  while (ReadSizeLine(socket, line)) {
    const int32_t size = ChunkSize(line);
    if (size == 0) {
      ReadChunkEnd(socket);
      break;
    }
    // A negative size is not an end: its CR LF is read and the next size line follows.
    if (size > 0) {
      auto* block = static_cast<char*>(upnp_malloc_impl(static_cast<size_t>(size)));
      if (block == nullptr) break;
      const int64_t got = ReceiveUpTo(socket, block, size);
      const bool kept = got == 0 || Append(&body, block, static_cast<uint32_t>(got));
      upnp_free_impl(block);
      if (!kept) return nullptr;
    }
    ReadChunkEnd(socket);
  }
  return body;
}

upnp_string* ReceiveLength(int32_t socket, int64_t length) noexcept {
  if (length <= kDirectBodyLimit) {
    upnp_string* body = upnp_string_create(nullptr, static_cast<uint32_t>(length + 1));
    if (body == nullptr) return nullptr;
    const int64_t got = ReceiveUpTo(socket, body->buffer, length);
    if (got == 0) {
      upnp_string_free(body);
      return nullptr;
    }
    body->length = static_cast<uint32_t>(got);
    body->buffer[got] = '\0';
    return body;
  }
  if (length >= static_cast<int64_t>(UINT32_MAX)) return nullptr;  // cannot be held anyway
  upnp_string* body = upnp_string_create(nullptr, static_cast<uint32_t>(kDirectBodyLimit + 1));
  auto* piece = static_cast<char*>(upnp_malloc_impl(kPieceSize));
  if (body == nullptr || piece == nullptr) {
    if (body != nullptr) upnp_string_free(body);
    if (piece != nullptr) upnp_free_impl(piece);
    return nullptr;
  }
  int64_t total = 0;
  while (total < length) {
    const int64_t left = length - total;
    const int32_t want = left < kPieceSize ? static_cast<int32_t>(left) : kPieceSize;
    const int32_t got = Receive(socket, piece, want, 0);
    if (got < 1) break;
    if (!Append(&body, piece, static_cast<uint32_t>(got))) break;
    total += got;
  }
  upnp_free_impl(piece);
  if (body != nullptr && body->length == 0) {
    upnp_string_free(body);
    return nullptr;
  }
  return body;
}

upnp_string* ReceiveUntilClose(int32_t socket) noexcept {
  auto* piece = static_cast<char*>(upnp_malloc_impl(kPieceSize));
  if (piece == nullptr) return nullptr;
  upnp_string* body = nullptr;
  for (;;) {  // ends when the peer closes or a receive fails
    const int32_t got = Receive(socket, piece, kPieceSize - 1, 0);
    if (got < 1) break;
    if (!Append(&body, piece, static_cast<uint32_t>(got))) break;
  }
  upnp_free_impl(piece);
  return body;
}

}  // namespace

upnp_string* ReceiveBody(int32_t socket, const char* head) noexcept {
  if (IsChunked(head)) return ReceiveChunked(socket);
  // A Content-Length of 0 counts as none and falls through to the rules below.
  const int64_t length = ContentLength(head);
  if (length > 0) return ReceiveLength(socket, length);
  if (HasConnectionClose(head) || upnp_istrstr(head, "HTTP/1.0") != nullptr) {
    return ReceiveUntilClose(socket);
  }
  return nullptr;  // HTTP/1.1 without framing: no body
}

int32_t ReceiveChunk(int32_t socket, char** data_out) noexcept {
  *data_out = nullptr;
  char line[kSizeLineSize];
  if (!ReadSizeLine(socket, line)) return -1;
  const int32_t size = ChunkSize(line);
  if (size < 1) {
    ReadChunkEnd(socket);
    return 0;
  }
  auto* block = static_cast<char*>(upnp_malloc_impl(static_cast<size_t>(size)));
  if (block == nullptr) return -1;
  const int64_t got = ReceiveUpTo(socket, block, size);
  if (got == 0) {
    upnp_free_impl(block);
    return -1;
  }
  ReadChunkEnd(socket);
  *data_out = block;
  return static_cast<int32_t>(got);
}

}  // namespace tw::httpclient
