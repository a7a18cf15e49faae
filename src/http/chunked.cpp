// SPDX-License-Identifier: Apache-2.0
// Chunked transfer coding for responses built piece by piece (event and control answers).
// These take a bare socket and always use the plain send: chunked answers never run over TLS.
#include <cstdio>

#include "http/body_sender.h"
#include "platform/allocator.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace tw::http {
namespace {

constexpr size_t kDateSize = 32;
constexpr char kLastChunk[] = "0\r\n\r\n";
constexpr char kLineEnd[] = "\r\n";

bool SendAll(int32_t socket, const void* data, int64_t length) noexcept {
  return upnp_send(socket, data, length) >= 0;
}

}  // namespace

int FormatChunkedHeader(char* out, size_t size, const char* content_type,
                        const char* date) noexcept {
  return std::snprintf(out, size,
                       "HTTP/1.1 200 OK\r\nCONTENT-TYPE: %s\r\nDATE: %s\r\nConnection: close\r\n"
                       "EXT:\r\nSERVER: %s\r\nTransfer-Encoding: chunked\r\n\r\n",
                       content_type != nullptr ? content_type : kChunkedDefaultType, date,
                       UPNP_SERVER_BANNER);
}

bool SendChunkedHeader(int32_t socket, const char* content_type) noexcept {
  CPtr buffer(static_cast<char*>(upnp_malloc_impl(kChunkedHeaderSize)));
  // Without a buffer nothing is sent, yet the result is success, as http.h documents; the first
  // chunk send then fails on its own. Pinned by HttpBodySender.ChunkedHeaderPartsAndEndAreExact.
  if (buffer == nullptr) return true;
  char date[kDateSize] = "";
  upnp_date_getGMT(date, sizeof(date));
  const int length = FormatChunkedHeader(buffer.get(), kChunkedHeaderSize, content_type, date);
  if (length < 0) return false;
  const size_t kept = static_cast<size_t>(length) < kChunkedHeaderSize ? static_cast<size_t>(length)
                                                                       : kChunkedHeaderSize - 1;
  return SendAll(socket, buffer.get(), static_cast<int64_t>(kept));
}

int FormatChunkSizeLine(char* out, size_t size, uint32_t length) noexcept {
  return std::snprintf(out, size, "%x\r\n", static_cast<unsigned>(length));
}

bool SendChunk(int32_t socket, upnp_string* text) noexcept {
  if (upnp_string_is_empty(text) != 0) return true;
  char size_line[16];
  const int line_length = FormatChunkSizeLine(size_line, sizeof(size_line), text->length);
  if (!SendAll(socket, size_line, line_length)) return false;
  if (!SendAll(socket, text->buffer, text->length)) return false;
  if (!SendAll(socket, kLineEnd, sizeof(kLineEnd) - 1)) return false;
  upnp_string_empty(text);
  return true;
}

bool SendLastChunk(int32_t socket) noexcept {
  return SendAll(socket, kLastChunk, sizeof(kLastChunk) - 1);
}

}  // namespace tw::http
