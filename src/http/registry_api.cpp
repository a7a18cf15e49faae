// SPDX-License-Identifier: Apache-2.0
// Entries for the handler registry and the HTTP server's settings.
#include "http/registry.h"
#include "tarnwick/http.h"

extern "C" {

TW_API void upnp_http_register_handler(upnp_http_handler_fn handler, uint32_t methods,
                                       const char* url, int32_t receives_body,
                                       int32_t is_public) noexcept {
  tw::http::RegisterHandler(handler, methods, url, receives_body, is_public);
}

TW_API void upnp_http_register_header_handler(upnp_http_header_handler_fn handler) noexcept {
  tw::http::RegisterHeaderHandler(handler);
}

TW_API void upnp_http_register_cookie_handler(upnp_http_cookie_handler_fn handler) noexcept {
  tw::http::SetCookieHandler(handler);
}

TW_API int32_t upnp_http_handler_is_registered(upnp_http_handler_fn handler) noexcept {
  if (handler == nullptr) return 0;
  return tw::http::IsRegistered(handler) ? 1 : 0;
}

TW_API void http_unregister_all_handlers(void) noexcept { tw::http::UnregisterAll(); }

TW_API void upnp_http_set_default_url(const char* url) noexcept { tw::http::SetDefaultUrl(url); }

TW_API void HTTP_set_dns_and_remote_port(const char* text, int32_t port) noexcept {
  tw::http::SetRemoteAccess(text, port);
}

}  // extern "C"
