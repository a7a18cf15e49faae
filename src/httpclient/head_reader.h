// SPDX-License-Identifier: Apache-2.0
// Reading an HTTP head off a socket without reading past it, and the receive primitive shared
// by the head and body readers.
#pragma once

#include <cstdint>

namespace tw::httpclient {

// One upnp_recv, counted (see ReceiveCalls).
int32_t Receive(int32_t socket, void* buffer, int32_t length, int32_t flags) noexcept;

// Receive calls made by the head and body readers since the process started; tests and the
// benchmark use it to see how many system calls a request costs.
uint64_t ReceiveCalls() noexcept;

// Reads one head into buffer (size bytes, NUL-terminated) and returns its length; 0 when the
// peer closed or a receive failed before the head was complete. Every byte after the blank line
// stays in the socket, except the chunked body of a GET, which is drained. An over-long head is
// cut to size - 1 bytes ending in a blank line, and the rest of it is discarded.
// deadline_ms 0 waits as long as the peer likes. Otherwise (a getSystemTime value) everything
// this reads, the whole head and what it discards or drains, must have arrived by then: each
// peek first waits with the time left (one poll more per peek), and the read gives up with 0
// when the time runs out. Bytes already taken are then lost; the caller closes the connection.
int32_t ReadHead(int32_t socket, char* buffer, int32_t size, int64_t deadline_ms = 0) noexcept;

}  // namespace tw::httpclient
