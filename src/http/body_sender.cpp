// SPDX-License-Identifier: Apache-2.0
// In-memory response bodies with byte ranges, the plain-or-TLS send path and the release of a
// connection's file cache.
#include "http/body_sender.h"

#include <cstdint>

#include "base/status.h"
#include "http/hooks.h"
#include "http/registry.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace tw::http {
namespace {

constexpr int32_t kStatusOk = 200;
constexpr int32_t kStatusPartial = 206;
constexpr int32_t kStatusBadRequest = 400;
constexpr int32_t kStatusNotAcceptable = 406;
constexpr int32_t kStatusRangeNotSatisfiable = 416;
// The TLS module's "connection is gone" result.
constexpr int64_t kTlsConnectionLost = -2;

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

  const int32_t header = HTTP_send_header(&request, status);
  if (header != 0) return header;
  if ((request.method & HTTP_METHOD_HEAD) != 0 || request.content_length <= 0) return kHttpOk;
  if (available > 0 && SendOnConnection(request, data + offset, available) < 0) return kHttpFail;
  // The announced length runs one byte past the handler's data (the range rule above). That byte
  // would be the handler's text terminator, so a NUL goes out: the framing stays right without
  // reading past the caller's buffer. Pinned by the same test.
  static constexpr char kNul[1] = {'\0'};
  if (pad && SendOnConnection(request, kNul, 1) < 0) return kHttpFail;
  return kHttpOk;
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
