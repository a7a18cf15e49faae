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
// Pieces in which streamed bodies are read (up to 8191 bytes each when reading until close).
constexpr int32_t kPieceSize = 8192;

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

// A piece buffer of kPieceSize bytes for the readers below, freed with its scope.
class Piece {
 public:
  Piece() noexcept : bytes_(static_cast<char*>(upnp_malloc_impl(kPieceSize))) {}
  ~Piece() {
    if (bytes_ != nullptr) upnp_free_impl(bytes_);
  }
  Piece(const Piece&) = delete;
  Piece& operator=(const Piece&) = delete;
  char* get() const noexcept { return bytes_; }

 private:
  char* bytes_;
};

enum class Ended { kAll, kStopped, kWriterFailed };

// Chunks until the one of size 0. Chunk data goes to write piece by piece as it arrives, so an
// announced size (up to 2 GiB) reserves nothing: only bytes that really came take memory.
template <typename Write>
Ended ReadChunks(int32_t socket, char* piece, Write&& write) noexcept {
  char line[kSizeLineSize];
  // Each round takes at least one byte off the socket, so the peer bounds the loop.
  while (ReadSizeLine(socket, line)) {
    const int32_t size = ChunkSize(line);
    if (size == 0) {
      ReadChunkEnd(socket);
      return Ended::kAll;
    }
    // A negative size is not an end: its CR LF is read and the next size line follows.
    for (int32_t left = size; left > 0;) {
      const int32_t got = Receive(socket, piece, left < kPieceSize ? left : kPieceSize, 0);
      if (got < 1) break;  // the next size line fails as well and ends the read
      if (!write(piece, got)) return Ended::kWriterFailed;
      left -= got;
    }
    ReadChunkEnd(socket);
  }
  return Ended::kStopped;
}

// Up to length bytes, piece by piece.
template <typename Write>
Ended ReadCounted(int32_t socket, char* piece, int64_t length, Write&& write) noexcept {
  for (int64_t left = length; left > 0;) {
    const int32_t got =
        Receive(socket, piece, left < kPieceSize ? static_cast<int32_t>(left) : kPieceSize, 0);
    if (got < 1) return Ended::kStopped;
    if (!write(piece, got)) return Ended::kWriterFailed;
    left -= got;
  }
  return Ended::kAll;
}

// Until the peer closes (kAll) or a receive fails (kStopped), up to 8191 bytes at a time.
template <typename Write>
Ended ReadUntilClose(int32_t socket, char* piece, Write&& write) noexcept {
  for (;;) {  // ends when the peer closes or a receive fails
    const int32_t got = Receive(socket, piece, kPieceSize - 1, 0);
    if (got < 1) return got == 0 ? Ended::kAll : Ended::kStopped;
    if (!write(piece, got)) return Ended::kWriterFailed;
  }
}

// The writer the framed readers hand their pieces to when the body is collected in a string.
auto AppendingTo(upnp_string** body) noexcept {
  return [body](const char* bytes, int32_t count) {
    return Append(body, bytes, static_cast<uint32_t>(count));
  };
}

upnp_string* ReceiveChunked(int32_t socket) noexcept {
  Piece piece;
  if (piece.get() == nullptr) return nullptr;
  upnp_string* body = nullptr;
  // A failed append has freed the text and left body null.
  ReadChunks(socket, piece.get(), AppendingTo(&body));
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
  Piece piece;
  if (body == nullptr || piece.get() == nullptr) {
    if (body != nullptr) upnp_string_free(body);
    return nullptr;
  }
  ReadCounted(socket, piece.get(), length, AppendingTo(&body));
  if (body != nullptr && body->length == 0) {
    upnp_string_free(body);
    return nullptr;
  }
  return body;
}

upnp_string* ReceiveUntilClose(int32_t socket) noexcept {
  Piece piece;
  if (piece.get() == nullptr) return nullptr;
  upnp_string* body = nullptr;
  ReadUntilClose(socket, piece.get(), AppendingTo(&body));
  return body;
}

enum class Framing { kChunked, kLength, kUntilClose, kNone };

// The framing a head announces, in this order: chunked, a Content-Length above 0 (0 counts as
// none and falls through), until the peer closes for "Connection: close" or HTTP/1.0; an HTTP/1.1
// head with none of them has no body.
Framing FramingOf(const char* head, int64_t* length) noexcept {
  if (IsChunked(head)) return Framing::kChunked;
  *length = ContentLength(head);
  if (*length > 0) return Framing::kLength;
  if (HasConnectionClose(head) || upnp_istrstr(head, "HTTP/1.0") != nullptr) {
    return Framing::kUntilClose;
  }
  return Framing::kNone;
}

BodyEnd EndOf(Ended ended) noexcept {
  switch (ended) {
    case Ended::kAll:
      return BodyEnd::kComplete;
    case Ended::kStopped:
      return BodyEnd::kShort;
    case Ended::kWriterFailed:
      break;
  }
  return BodyEnd::kFailed;
}

}  // namespace

upnp_string* ReceiveBody(int32_t socket, const char* head) noexcept {
  int64_t length = 0;
  switch (FramingOf(head, &length)) {
    case Framing::kChunked:
      return ReceiveChunked(socket);
    case Framing::kLength:
      return ReceiveLength(socket, length);
    case Framing::kUntilClose:
      return ReceiveUntilClose(socket);
    case Framing::kNone:
      break;
  }
  return nullptr;
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
  // The block starts at most kDirectBodyLimit bytes long and doubles only when it is full, so a
  // made-up size reserves memory for bytes that really came, not for the announcement.
  int64_t capacity = size < kDirectBodyLimit ? size : kDirectBodyLimit;
  auto* block = static_cast<char*>(upnp_malloc_impl(static_cast<size_t>(capacity)));
  if (block == nullptr) return -1;
  int64_t got = 0;
  while (got < size) {
    if (got == capacity) {
      const int64_t grown = capacity * 2 < size ? capacity * 2 : size;
      auto* bigger = static_cast<char*>(upnp_malloc_impl(static_cast<size_t>(grown)));
      if (bigger == nullptr) {
        upnp_free_impl(block);
        return -1;
      }
      std::memcpy(bigger, block, static_cast<size_t>(got));
      upnp_free_impl(block);
      block = bigger;
      capacity = grown;
    }
    const int32_t received = Receive(socket, block + got, static_cast<int32_t>(capacity - got), 0);
    if (received < 1) break;
    got += received;
  }
  if (got == 0) {
    upnp_free_impl(block);
    return -1;
  }
  ReadChunkEnd(socket);
  *data_out = block;
  return static_cast<int32_t>(got);
}

BodyEnd StreamBody(int32_t socket, const char* head, BodyWriter write, void* context) noexcept {
  int64_t length = 0;
  const Framing framing = FramingOf(head, &length);
  if (framing == Framing::kNone) return BodyEnd::kNone;
  Piece piece;
  if (piece.get() == nullptr) return BodyEnd::kFailed;
  auto put = [write, context](const char* bytes, int32_t count) {
    return write(context, bytes, static_cast<uint32_t>(count));
  };
  switch (framing) {
    case Framing::kChunked:
      return EndOf(ReadChunks(socket, piece.get(), put));
    case Framing::kLength:
      return EndOf(ReadCounted(socket, piece.get(), length, put));
    default:
      return EndOf(ReadUntilClose(socket, piece.get(), put));
  }
}

}  // namespace tw::httpclient
