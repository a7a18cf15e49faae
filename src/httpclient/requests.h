// SPDX-License-Identifier: Apache-2.0
// Request heads of the HTTP client, written byte for byte as other devices expect them, and the
// small text helpers the client's exchanges share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/export.h"

namespace tw::httpclient {

// Set as the User-Agent by the first request when the host set none.
inline constexpr char kDefaultUserAgent[] = "ktConnect DLNADOC/1.50";
// The Host value of a request is cut at this many characters.
inline constexpr size_t kMaxRequestHost = 256;

// Host (the text after "http://" up to the first '/', cut at 256 characters) and path (after
// the first '/' from the ninth character on, "" when none) of an "http://" URL of at least 9
// characters; false for any other URL.
struct RequestTarget {
  char host[kMaxRequestHost + 1];
  const char* path;  // points into the URL
};
bool SplitRequestUrl(const char* url, RequestTarget* out) noexcept;

// A formatted text in a new accounted block sized to fit; null when memory is short.
TW_PRINTF(1, 2) char* FormatNew(const char* format, ...) noexcept;

// Each sends one request head and is true when it went out; false for a refused URL (nothing
// sent) or a failed send. The User-Agent line is left out when extra_headers (complete CR LF
// lines or null) mention a User-Agent themselves.
bool SendHeadOrGet(const char* method, int32_t socket, const char* url, const char* extra_headers,
                   bool http_1_0) noexcept;
// SOAP POST of body (its length announced; the body is the caller's to send).
bool SendSoapPost(int32_t socket, const char* url, const char* soap_action,
                  const char* body) noexcept;
// Plain XML POST of body_length bytes with "Connection: close", extra_headers before the length.
bool SendXmlPost(int32_t socket, const char* url, const char* extra_headers,
                 int32_t body_length) noexcept;
// General POST head; refuses a null url or content type and a negative length.
bool SendPostHeader(int32_t socket, const char* url, const char* content_type,
                    int64_t content_length, bool expect_continue,
                    const char* extra_headers) noexcept;

}  // namespace tw::httpclient
