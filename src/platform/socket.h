// SPDX-License-Identifier: Apache-2.0
// Socket helpers for library code that need no C entry of their own.
#pragma once

#include <cstdint>

namespace tw::platform {

// The host-order port a socket is bound to (the one the system picked after binding port 0),
// or -1 when the socket is not an IPv4 socket or the query fails.
int32_t SocketLocalPort(int32_t socket) noexcept;

// Parses dotted IPv4 text into a network-order address; false for null or malformed text.
bool ParseIpv4(const char* text, uint32_t* address_out) noexcept;

// Sends small segments at once (TCP_NODELAY). Responses go out as a header send followed by a
// body send; without this, a kept-alive connection waits for the peer's delayed ACK (tens of
// milliseconds) before the second write leaves. Returns the system result.
int32_t SetTcpNoDelay(int32_t socket) noexcept;

}  // namespace tw::platform
