// SPDX-License-Identifier: Apache-2.0
// The socket time-out watchdog: deadlines armed for single sockets, kept in one list sorted by
// deadline under the global lock, and a background thread that shuts a socket down and closes it
// when its deadline passes first. Runs only while the server runs.
#pragma once

#include <cstdint>

namespace tw::core {

// The opaque handle of the C entries is one of these records (zero-filled, accounted).
struct SocketTimeout {
  int32_t socket;
  uint64_t deadline;  // getSystemTime milliseconds
  SocketTimeout* next;
};

inline constexpr uint32_t kWatchdogPollMs = 250;
inline constexpr int32_t kWatchdogThreadLevel = 5;

// Arms a deadline of now + timeout_ms; null when refused (logged), memory is short or the global
// lock is missing (the socket is left alone then).
SocketTimeout* EnforceSocketTimeout(uint32_t timeout_ms, int32_t socket) noexcept;
// The same at an absolute deadline, for callers that plan on the getSystemTime clock.
SocketTimeout* EnforceSocketTimeoutAt(uint64_t deadline, int32_t socket) noexcept;
// True when the socket is closed now (by the watchdog, or here because close_socket); false
// when it is still open and the caller's. handle may be null (false).
bool ReleaseSocketTimeout(SocketTimeout* handle, bool close_socket) noexcept;

// For tests: copies the sockets of the pending list in list order into out (up to max); their
// count. -1 when the global lock cannot be taken.
int32_t PendingSocketTimeouts(int32_t* out, int32_t max) noexcept;

}  // namespace tw::core
