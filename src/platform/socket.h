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

// Sends small segments at once (TCP_NODELAY). Some responses still go out as a header send
// followed by a body send (TLS, chunked bodies, hosts writing their own); without this, a
// kept-alive connection waits for the peer's delayed ACK (tens of milliseconds) before the second
// write leaves. Returns the system result.
int32_t SetTcpNoDelay(int32_t socket) noexcept;

// Waits until a receive on socket would not block (bytes queued, end of stream or an error) or
// the monotonic clock of getSystemTime reaches deadline_ms. True when a receive may go ahead;
// false when the time ran out first (a deadline already passed costs no system call) or the wait
// itself failed. One poll call; a signal that interrupts it neither shortens nor stretches the
// wait. Lets a blocking reader bound how long one peer may hold it.
bool WaitReadableUntil(int32_t socket, int64_t deadline_ms) noexcept;

// Sends two buffers in one write (a response's header and a small body: one system call, and
// they leave together). With more_follows the kernel holds the bytes back for the write that
// comes next (MSG_MORE), so a header in front of SendFileRange fills the same segments.
// Transient errors are retried as upnp_send retries them. The total sent, or -1.
int64_t SendPair(int32_t socket, const void* first, int64_t first_length, const void* second,
                 int64_t second_length, bool more_follows = false) noexcept;

// Sends count bytes of the file descriptor fd, from offset, on socket (sendfile: no copy through
// user space, and the descriptor's own position is left alone). The bytes sent, fewer when the
// file ends first, or -1 when the socket fails.
int64_t SendFileRange(int32_t socket, int32_t fd, int64_t offset, int64_t count) noexcept;

// sendfile has no MSG_NOSIGNAL: a peer that goes away mid-body raises SIGPIPE, whose default
// action ends the process. Threads that send files block it once (the connection workers do, at
// their start), and SendFileRange drops the pending signal its failure leaves behind.
void BlockBrokenPipeSignal() noexcept;
void DropPendingBrokenPipe() noexcept;

}  // namespace tw::platform
