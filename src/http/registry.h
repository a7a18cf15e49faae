// SPDX-License-Identifier: Apache-2.0
// Process-wide state of the HTTP server that the request loop and the response code share: the
// URL-handler and header-handler lists, the cookie handler, the TLS hooks, the default URL and
// the remote-access settings.
//
// Threading: the lists, hooks and settings are written at start-up (before the servers run) and
// at shutdown (after they stopped) and read by every worker without a lock. The learnt remote
// base URL is the exception: any worker may replace it, so it is only reached through the
// copying accessors below, under a lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/http.h"

namespace tw::http {

inline constexpr size_t kUrlSize = 1024;
inline constexpr size_t kRemoteBaseSize = 128;

struct HandlerNode {
  upnp_http_handler_fn handler;
  uint32_t methods;
  char url[kUrlSize];
  uint32_t url_length;
  int32_t receives_body;
  int32_t is_public;
  HandlerNode* next;
};

struct HeaderHandlerNode {
  upnp_http_header_handler_fn handler;
  HeaderHandlerNode* next;
};

// Hooks of an outside TLS module; null members skip their step.
struct TlsHooks {
  upnp_tls_startup_fn startup;
  upnp_tls_shutdown_fn shutdown;
  upnp_tls_session_create_fn session_create;
  upnp_tls_session_close_fn session_close;
  upnp_tls_send_fn send;
  upnp_tls_recv_fn recv;
  upnp_tls_http_get_header_fn http_get_header;
  upnp_tls_http_receive_body_fn http_receive_body;
};

// ---- Handler lists ----
void RegisterHandler(upnp_http_handler_fn handler, uint32_t methods, const char* url,
                     int32_t receives_body, int32_t is_public) noexcept;
void RegisterHeaderHandler(upnp_http_header_handler_fn handler) noexcept;
bool IsRegistered(upnp_http_handler_fn handler) noexcept;
// The first node (longest URL first) that serves `method` and whose URL is a prefix of `url`;
// a method of 0 matches every node. Null when none matches.
const HandlerNode* FindHandler(const char* url, uint32_t method) noexcept;
// Newest first.
const HeaderHandlerNode* HeaderHandlers() noexcept;
void SetCookieHandler(upnp_http_cookie_handler_fn handler) noexcept;
upnp_http_cookie_handler_fn CookieHandler() noexcept;
// Calls the TLS shutdown hook once when TLS was started, then frees both lists.
void UnregisterAll() noexcept;
// Frees the URL-handler list only (tests share one process-wide header-handler list).
void ClearHandlers() noexcept;

// ---- TLS hooks ----
// The hook table that http_server_set_tls_callbacks fills; read by the connection code.
TlsHooks& Tls() noexcept;
// True for the first caller since the process started or since UnregisterAll.
bool MarkTlsStarted() noexcept;

// ---- Settings ----
void SetDefaultUrl(const char* url) noexcept;
const char* DefaultUrl() noexcept;
void SetRemoteAccess(const char* text, int32_t port) noexcept;
bool RemoteAccessEnabled() noexcept;
int32_t RemotePort() noexcept;
// The configured remote base text (never null, may be empty).
const char* RemoteBaseText() noexcept;

// ---- Remote base URL learnt from requests ----
// Replaces it by "http://" + host + "/"; false when memory is short (the old one stays).
bool LearnRemoteBaseUrl(const char* host, size_t host_length) noexcept;
// Copies it into out (cut at size); false (out emptied) when none has been learnt.
bool CopyRemoteBaseUrl(char* out, size_t size) noexcept;
// Frees it; the next request through /auth/ott learns it again.
void ForgetRemoteBaseUrl() noexcept;

}  // namespace tw::http
