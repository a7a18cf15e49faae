// SPDX-License-Identifier: Apache-2.0
// Connections and complete exchanges of the HTTP client: one new TCP connection per request,
// closed when the response has been read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/types.h"

namespace tw::httpclient {

// Room for one response head, NUL included.
inline constexpr int32_t kResponseHeadSize = 8192;

// Connects to the host of an "http://" or "ftp://" URL: the socket, or -1 (logged). With a
// connection time-out set, the connect is armed with the socket watchdog.
int32_t Open(const char* url, int32_t ttl) noexcept;
// Reads a response head into head, skipping interim "HTTP/1.1 1xx" heads: its length, or 0
// when none arrived.
int32_t ReadFinalHead(int32_t socket, char* head, int32_t size) noexcept;
// One exchange: mode 1 a SOAP POST, mode 2 a GET. The body, or null.
upnp_string* Talk(int32_t mode, const char* url, const char* soap_action, const char* body,
                  int32_t receive_timeout_ms) noexcept;
// Posts an XML body; true when an answer head was read (see HTTP_post).
bool Post(const char* url, const char* extra_headers, const char* body, int32_t body_length,
          char** answer_out, int32_t* answer_length_out) noexcept;
// The URL a SOAP action goes to, cut at size (see HTTP_soap_action).
void SoapActionUrl(const char* base_url, const char* control_url, char* out, size_t size) noexcept;
inline constexpr size_t kSoapUrlSize = 1024;

}  // namespace tw::httpclient
