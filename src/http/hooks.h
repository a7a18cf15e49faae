// SPDX-License-Identifier: Apache-2.0
// Process-wide hooks of body sending that the connection and header code read: the DTCP port
// and the file-completed hook. The TLS hooks live in the registry (http/registry.h, Tls()), and
// http_server_set_tls_callbacks fills that table.
//
// Threading: written before the servers start, read by the workers without a lock.
#pragma once

#include <cstdint>

#include "tarnwick/http.h"

namespace tw::http {

// The port announced in the DTCP content type of protected responses; 0 until set.
int32_t DtcpPort() noexcept;
void SetDtcpPort(int32_t port) noexcept;

// Called with a connection's file cache when the cache is released; null when none is set.
upnp_http_file_completed_fn FileCompletedHook() noexcept;
void SetFileCompletedHook(upnp_http_file_completed_fn hook) noexcept;

// Fills the registry's TLS hook table, in the argument order of http_server_set_tls_callbacks.
void SetTlsHooks(upnp_tls_startup_fn startup, upnp_tls_shutdown_fn shutdown,
                 upnp_tls_session_create_fn session_create, upnp_tls_session_close_fn session_close,
                 upnp_tls_send_fn send, upnp_tls_recv_fn recv,
                 upnp_tls_http_get_header_fn http_get_header,
                 upnp_tls_http_receive_body_fn http_receive_body) noexcept;

}  // namespace tw::http
