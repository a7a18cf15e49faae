// SPDX-License-Identifier: Apache-2.0
// Internals of body sending: the single send path (plain or TLS), in-memory bodies with byte
// ranges, chunked transfer coding and the release of a connection's file cache.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/http.h"

namespace tw::http {

// The content type of a chunked response when the caller names none. The leading blank is part
// of the fixed text, so the header line reads "CONTENT-TYPE:  text/xml..." (two blanks); pinned
// by HttpBodySender.ChunkedHeaderPartsAndEndAreExact.
inline constexpr char kChunkedDefaultType[] = " text/xml; charset=\"utf-8\"";
inline constexpr size_t kChunkedHeaderSize = 8192;

// Sends on the request's connection: the TLS send hook for a TLS request (a hook result of -2
// also marks the connection for closing), else the plain socket. -1 on failure.
int64_t SendOnConnection(HttpRequest& request, const void* data, int64_t length) noexcept;

// The error status that the parsed range of request earns for an in-memory body of
// content_length bytes (400, 406 or 416), or 0 when the body may be sent. Unset ranges are
// checked before refused ones, and both before the bounds.
int32_t RangeErrorStatus(const HttpRequest& request) noexcept;

// The whole response for an in-memory body of request.content_length bytes at data.
// 0 when sent; the header's or error page's result, or 1 when the body send failed.
int32_t SendInMemory(HttpRequest& request, const char* data) noexcept;

// The header composed for status, then request.content_length bytes of file from offset (none
// for a HEAD). 0 when sent; 1 when a send failed or the file ended early, which also marks the
// connection for closing (its framing is lost).
int32_t SendFile(HttpRequest& request, int32_t status, upnp_file* file, int64_t offset) noexcept;

// Writes the header of a chunked response for content_type and date into out (cut at size);
// returns the length of the full text, as snprintf does.
int FormatChunkedHeader(char* out, size_t size, const char* content_type,
                        const char* date) noexcept;
bool SendChunkedHeader(int32_t socket, const char* content_type) noexcept;
// Writes the chunk-size line "%x\r\n" of length into out; returns its length.
int FormatChunkSizeLine(char* out, size_t size, uint32_t length) noexcept;
bool SendChunk(int32_t socket, upnp_string* text) noexcept;
bool SendLastChunk(int32_t socket) noexcept;

void FreeFileCache(HttpFileCache* cache) noexcept;

}  // namespace tw::http
