// SPDX-License-Identifier: Apache-2.0
// Storage of the DTCP port and the file-completed hook; the TLS hooks are kept by the registry.
#include "http/hooks.h"

#include <atomic>

#include "http/registry.h"

namespace tw::http {
namespace {

// Atomics only so that a late setter never tears a value a worker is reading; the contract is
// still "set before the servers start".
std::atomic<int32_t> g_dtcp_port{0};
std::atomic<upnp_http_file_completed_fn> g_cb_file_completed{nullptr};

}  // namespace

int32_t DtcpPort() noexcept { return g_dtcp_port.load(std::memory_order_relaxed); }

void SetDtcpPort(int32_t port) noexcept { g_dtcp_port.store(port, std::memory_order_relaxed); }

upnp_http_file_completed_fn FileCompletedHook() noexcept {
  return g_cb_file_completed.load(std::memory_order_acquire);
}

void SetFileCompletedHook(upnp_http_file_completed_fn hook) noexcept {
  g_cb_file_completed.store(hook, std::memory_order_release);
}

void SetTlsHooks(upnp_tls_startup_fn startup, upnp_tls_shutdown_fn shutdown,
                 upnp_tls_session_create_fn session_create, upnp_tls_session_close_fn session_close,
                 upnp_tls_send_fn send, upnp_tls_recv_fn recv,
                 upnp_tls_http_get_header_fn http_get_header,
                 upnp_tls_http_receive_body_fn http_receive_body) noexcept {
  TlsHooks& hooks = Tls();
  hooks.startup = startup;
  hooks.shutdown = shutdown;
  hooks.session_create = session_create;
  hooks.session_close = session_close;
  hooks.send = send;
  hooks.recv = recv;
  hooks.http_get_header = http_get_header;
  hooks.http_receive_body = http_receive_body;
}

}  // namespace tw::http
