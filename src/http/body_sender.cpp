// SPDX-License-Identifier: Apache-2.0
// In-memory and file response bodies, the plain-or-TLS send path and the release of a
// connection's file cache. On a plain connection a response costs as few system calls as the
// wire allows: a small body leaves with its header in one gather write, a file body through
// sendfile behind a header held back for it.
#include "http/body_sender.h"

#include <cstdint>

#include "base/status.h"
#include "http/hooks.h"
#include "http/registry.h"
#include "http/response_header.h"
#include "platform/file_handle.h"
#include "platform/socket.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace tw::http {
namespace {

constexpr int32_t kStatusPartial = 206;
constexpr int32_t kStatusRangeNotSatisfiable = 416;
// The TLS module's "connection is gone" result.
constexpr int64_t kTlsConnectionLost = -2;
// File bodies up to this size are read and leave with their header in one write: for them the
// copy is cheaper than sendfile's setup, and the response costs one send instead of two.
constexpr uint32_t kInlineFileBody = 16 * 1024;
// A file body read through the handle (TLS, multi-part files) goes out in blocks of this size.
constexpr uint32_t kFileBlockSize = 64 * 1024;
// A file that ends before its announced range may still be growing (a recording): it gets one
// more chance after this pause, as the media file reader gives it.
constexpr int32_t kGrowingFileRetryMs = 50;

// A body that did not (fully) go out: the framing is lost, so the connection must end.
int32_t Lost(HttpRequest& request) noexcept {
  request.close_connection = 1;
  return kHttpFail;
}

bool SendHead(HttpRequest& request, const ResponseHead& head) noexcept {
  return SendOnConnection(request, head.text, static_cast<int64_t>(head.length)) >= 0;
}

// A file body through the handle: for TLS, where the bytes must pass the send hook, and for
// multi-part media files, which no single descriptor holds.
bool SendFileBlocks(HttpRequest& request, upnp_file* file, int64_t offset,
                    int64_t length) noexcept {
  if (upnp_mediafile_seek(file, offset, 0) != offset) return false;
  const uint32_t size = length < kFileBlockSize ? static_cast<uint32_t>(length) : kFileBlockSize;
  auto* block = static_cast<char*>(upnp_malloc_impl(size));
  if (block == nullptr) return false;
  bool ok = true;
  while (ok && length > 0) {  // each round sends at least one byte or stops
    const uint32_t want = length < size ? static_cast<uint32_t>(length) : size;
    const int32_t got = upnp_mediafile_read(file, block, want);
    ok = got > 0 && SendOnConnection(request, block, got) >= 0;
    length -= got;
  }
  upnp_free_impl(block);
  return ok;
}

// A file body with sendfile; true when all of it went out.
bool SendFileDirect(HttpRequest& request, upnp_file* file, int64_t offset,
                    int64_t length) noexcept {
  int64_t sent = platform::SendFileRange(request.socket, file->descriptor, offset, length);
  if (sent >= 0 && sent < length && file->complete == 0) {
    Sleep(kGrowingFileRetryMs);
    const int64_t more =
        platform::SendFileRange(request.socket, file->descriptor, offset + sent, length - sent);
    sent = more < 0 ? more : sent + more;
  }
  return sent == length;
}

}  // namespace

int32_t RangeErrorStatus(const HttpRequest& request) noexcept {
  const int64_t start = request.range_start;
  const int64_t end = request.range_end;
  if (start == HTTP_RANGE_UNSET || end == HTTP_RANGE_UNSET) return kStatusBadRequest;
  if (start == HTTP_RANGE_REFUSED || end == HTTP_RANGE_REFUSED) return kStatusNotAcceptable;
  if (end >= 0 && end < start) return kStatusRangeNotSatisfiable;
  if (start > request.content_length || end > request.content_length) {
    return kStatusRangeNotSatisfiable;
  }
  // Time seeking needs a media stream; an in-memory body has no timeline.
  if (request.is_timeseek != 0) return kStatusBadRequest;
  return 0;
}

int64_t SendOnConnection(HttpRequest& request, const void* data, int64_t length) noexcept {
  if (request.tls != 0) {
    const upnp_tls_send_fn send = Tls().send;
    if (send == nullptr) return kSysFail;
    const int64_t sent = send(request.tls_session, data, length);
    if (sent == kTlsConnectionLost) request.close_connection = 1;
    return sent;
  }
  return upnp_send(request.socket, data, length);
}

int32_t SendInMemory(HttpRequest& request, const char* data) noexcept {
  request.total_size = request.content_length;
  HTTP_get_range_header(&request);
  if (const int32_t error = RangeErrorStatus(request); error != 0) {
    return HTTP_send_error_code(&request, error);
  }

  int64_t offset = 0;  // first byte of data in the body
  int64_t available = request.content_length > 0 ? request.content_length : 0;
  bool pad = false;  // the announced length runs one byte past data (see below)
  int32_t status = kStatusOk;
  if (request.range_start >= 0) {
    const int64_t total = request.total_size;
    const int64_t start = request.range_start;
    int64_t end = request.range_end;
    // An end equal to the total size is kept although it is one past the last byte: the answer
    // then announces one byte more than the resource holds ("bytes 90-100/100"), where a
    // correction would change the Content-Range and length clients get. Pinned by
    // HttpBodySender.RangesSelectTheBytesAndBadOnesGetTheirStatus.
    // Unset and refused ends were answered above, so a negative end here is "to the end"
    // (-1) or a number that wrapped while parsing; both are read as open-ended.
    if (end < 0 || end > total) end = total - 1;
    request.range_end = end;
    // Now 0 <= start <= end + 1 and end <= total, so only a span of the whole int64 range
    // could overflow; it saturates.
    const int64_t span = end - start;
    request.content_length = span < INT64_MAX ? span + 1 : INT64_MAX;
    offset = start;
    available = total - start;
    pad = request.content_length > available;
    if (!pad) available = request.content_length;
    status = kStatusPartial;
  }

  ResponseHead head;
  PrepareResponseHeader(request, status, &head);
  if ((request.method & HTTP_METHOD_HEAD) != 0 || request.content_length <= 0) {
    return SendHead(request, head) ? kHttpOk : kHttpFail;
  }
  if (request.tls == 0 && !pad) {
    // Header and body in one write: a small answer leaves in one segment and one system call.
    const int64_t sent = platform::SendPair(
        request.socket, head.text, static_cast<int64_t>(head.length), data + offset, available);
    return sent >= 0 ? kHttpOk : kHttpFail;
  }
  if (!SendHead(request, head)) return kHttpFail;
  if (available > 0 && SendOnConnection(request, data + offset, available) < 0) return kHttpFail;
  // The announced length runs one byte past the handler's data (the range rule above). That byte
  // would be the handler's text terminator, so a NUL goes out: the framing stays right without
  // reading past the caller's buffer. Pinned by the same test.
  static constexpr char kNul[1] = {'\0'};
  if (pad && SendOnConnection(request, kNul, 1) < 0) return kHttpFail;
  return kHttpOk;
}

int32_t SendFile(HttpRequest& request, int32_t status, upnp_file* file, int64_t offset) noexcept {
  ResponseHead head;
  PrepareResponseHeader(request, status, &head);
  const int64_t length = request.content_length;
  if ((request.method & HTTP_METHOD_HEAD) != 0 || length <= 0) {
    return SendHead(request, head) ? kHttpOk : kHttpFail;
  }
  bool sent = false;
  if (request.tls == 0 && file->parts == nullptr && length <= kInlineFileBody) {
    char body[kInlineFileBody];
    const auto small = static_cast<uint32_t>(length);
    if (platform::ReadAt(file, body, small, offset) == length) {
      return platform::SendPair(request.socket, head.text, static_cast<int64_t>(head.length), body,
                                length) >= 0
                 ? kHttpOk
                 : Lost(request);
    }
    // A short read (a file that shrank, or one still being written) takes the sendfile road
    // below, which gives a growing file its second chance; nothing has been sent yet.
  }
  if (request.tls == 0 && file->parts == nullptr) {
    // The header waits in the socket (MSG_MORE) for the file's first bytes: the pair leaves in
    // full segments, and the body never passes through this process.
    sent = platform::SendPair(request.socket, head.text, static_cast<int64_t>(head.length), nullptr,
                              0, true) >= 0 &&
           SendFileDirect(request, file, offset, length);
  } else {
    sent = SendHead(request, head) && SendFileBlocks(request, file, offset, length);
  }
  return sent ? kHttpOk : Lost(request);
}

void FreeFileCache(HttpFileCache* cache) noexcept {
  if (cache == nullptr) return;
  if (const upnp_http_file_completed_fn hook = FileCompletedHook(); hook != nullptr) hook(cache);
  if (cache->file != nullptr) upnp_file_close(cache->file);
  for (void*& block : cache->blocks) {
    if (block != nullptr) upnp_free_impl(block);
    block = nullptr;
  }
  upnp_timeseek_free(cache->timeseek);
  upnp_free_impl(cache);
}

}  // namespace tw::http
