// SPDX-License-Identifier: Apache-2.0
// Composition of response headers: the logic behind response_header_api.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

#include "http/dlna_headers.h"
#include "tarnwick/http.h"

namespace tw::http {

inline constexpr size_t kResponseHeaderSize = 8192;

// What composition asks of the rest of the system: the client's quirks, the clock and the DTCP
// port. The live one asks the client database, the system clock and the DTCP settings; tests
// give their own to reach every quirk path with a fixed date.
struct ResponseEnvironment {
  int32_t (*needs_1_0_response)(int32_t client_type) noexcept;
  int32_t (*redsonic_compliant)(int32_t client_type) noexcept;
  uint32_t (*dlna_version)(int32_t client_type) noexcept;
  char* (*date_now)(char* out, size_t size) noexcept;  // an HTTP date, as upnp_date_getGMT
  int32_t (*dtcp_port)() noexcept;
};
const ResponseEnvironment& LiveEnvironment() noexcept;

// One composed response head: its text, the status that goes out (the checks may turn a 200
// into an error) and the socket priority its transfer mode asks for. Over 8 KiB: meant for the
// sending thread's stack, where it costs no allocation per response.
struct ResponseHead {
  char text[kResponseHeaderSize];
  size_t length = 0;
  int32_t status = 0;
  SocketPriority priority = SocketPriority::kNone;
};

// Composes the header that HTTP_send_header sends for status into *out (at most
// kResponseHeaderSize - 1 bytes), applying every DLNA rule and client quirk. It updates the
// request as sending does (content_length, close_connection, extra_headers; header handlers
// run).
void ComposeResponseHeader(HttpRequest& request, int32_t status, ResponseHead* out,
                           const ResponseEnvironment& env = LiveEnvironment()) noexcept;

// Composes the header, sets the socket priority and logs it: everything but the send, for the
// senders that put the header and the body on the wire together.
void PrepareResponseHeader(HttpRequest& request, int32_t status, ResponseHead* out) noexcept;

// Composes, logs and sends the header; false for a failed send.
bool SendResponseHeader(HttpRequest& request, int32_t status) noexcept;

// Appends lines to extra_headers, never past its last byte, which stays NUL.
void AddHeaderLines(HttpRequest& request, const char* lines) noexcept;

}  // namespace tw::http
