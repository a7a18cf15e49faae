// SPDX-License-Identifier: Apache-2.0
// Entries of the socket time-out watchdog.
#include "core/socket_watchdog.h"
#include "tarnwick/core.h"

extern "C" {

TW_API void* upnp_enforce_socket_timeout(uint32_t timeout_ms, int32_t socket) noexcept {
  return tw::core::EnforceSocketTimeout(timeout_ms, socket);
}

TW_API uint32_t upnp_release_socket_timeout(void* handle, int32_t close_socket) noexcept {
  return tw::core::ReleaseSocketTimeout(static_cast<tw::core::SocketTimeout*>(handle),
                                        close_socket != 0)
             ? 1u
             : 0u;
}

}  // extern "C"
