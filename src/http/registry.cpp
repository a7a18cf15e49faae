// SPDX-License-Identifier: Apache-2.0
// The URL-handler registry and the process-wide settings of the HTTP server.
#include "http/registry.h"

#include <atomic>
#include <cstring>

#include "base/fixed_text.h"
#include "platform/allocator.h"
#include "platform/critical_section.h"
#include "tarnwick/log.h"

namespace tw::http {
namespace {

HandlerNode* g_handlers = nullptr;
HeaderHandlerNode* g_header_handlers = nullptr;
upnp_http_cookie_handler_fn g_cookie_handler = nullptr;
TlsHooks g_tls = {};
std::atomic<bool> g_tls_started{false};

char g_default_url[kUrlSize] = "";
char g_remote_base_text[kRemoteBaseSize] = "";
int32_t g_remote_port = 0;
bool g_remote_enabled = false;

// The learnt remote base URL and its lock. The lock is a leaf: nothing is called under it but
// the allocator. Created on first use and never destroyed, so late workers can still use it.
char* g_remote_base_url = nullptr;
struct RemoteUrlLock {
  RemoteUrlLock() noexcept { InitializeCriticalSection(&cs); }
  CRITICAL_SECTION cs;
};
CRITICAL_SECTION* RemoteLock() noexcept {
  static RemoteUrlLock lock;  // trivially destructible: stays usable during process exit
  return &lock.cs;
}

}  // namespace

void RegisterHandler(upnp_http_handler_fn handler, uint32_t methods, const char* url,
                     int32_t receives_body, int32_t is_public) noexcept {
  if (handler == nullptr) {
    upnp_log_err_impl(UPNP_LOG_HTTP,
                      "upnp_http_register_handler Missing handler function for URL %s",
                      url != nullptr ? url : "");
    return;
  }
  for (const HandlerNode* node = g_handlers; node != nullptr; node = node->next) {
    if ((node->methods & methods) == 0) continue;
    const bool same = url != nullptr ? std::strcmp(node->url, url) == 0 : node->url[0] == '\0';
    if (same) {
      upnp_log_err_impl(UPNP_LOG_HTTP,
                        "upnp_http_register_handler handler already registered for URL %s",
                        url != nullptr ? url : "");
      return;
    }
  }
  auto* node = static_cast<HandlerNode*>(upnp_calloc_impl(1, sizeof(HandlerNode)));
  if (node == nullptr) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "upnp_http_register_handler out of memory");
    return;
  }
  if (url != nullptr && CopyCut(node->url, sizeof(node->url), url) >= sizeof(node->url)) {
    // The wording is odd but fixed: log filters match these texts word for word. Pinned by
    // HttpRegistry.LongUrlsAreCutAndEqualLengthsPreferTheNewest.
    upnp_log_err_impl(UPNP_LOG_HTTP,
                      "upnp_http_register_handler URL to int32_t for registration %s", url);
  }
  node->url_length = static_cast<uint32_t>(std::strlen(node->url));
  node->handler = handler;
  node->methods = methods;
  node->receives_body = receives_body;
  node->is_public = is_public;
  upnp_log_info_impl(UPNP_LOG_HTTP, "upnp_http_register_handler registered a handler for %s %d",
                     node->url, static_cast<int>(methods));
  // Longest URL first so the first match is the longest prefix; among equal lengths the newest
  // comes first.
  HandlerNode** link = &g_handlers;
  while (*link != nullptr && (*link)->url_length > node->url_length) link = &(*link)->next;
  node->next = *link;
  *link = node;
}

void RegisterHeaderHandler(upnp_http_header_handler_fn handler) noexcept {
  if (handler == nullptr) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "upnp_http_register_header_handler Missing handler function");
    return;
  }
  auto* node = static_cast<HeaderHandlerNode*>(upnp_calloc_impl(1, sizeof(HeaderHandlerNode)));
  if (node == nullptr) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "upnp_http_register_header_handler out of memory");
    return;
  }
  node->handler = handler;
  node->next = g_header_handlers;
  g_header_handlers = node;
}

bool IsRegistered(upnp_http_handler_fn handler) noexcept {
  for (const HandlerNode* node = g_handlers; node != nullptr; node = node->next) {
    if (node->handler == handler) return true;
  }
  return false;
}

const HandlerNode* FindHandler(const char* url, uint32_t method) noexcept {
  for (const HandlerNode* node = g_handlers; node != nullptr; node = node->next) {
    if (method != 0 && (node->methods & method) == 0) continue;
    if (std::strncmp(url, node->url, node->url_length) == 0) return node;
  }
  return nullptr;
}

const HeaderHandlerNode* HeaderHandlers() noexcept { return g_header_handlers; }

void SetCookieHandler(upnp_http_cookie_handler_fn handler) noexcept { g_cookie_handler = handler; }

upnp_http_cookie_handler_fn CookieHandler() noexcept { return g_cookie_handler; }

void ClearHandlers() noexcept {
  while (g_handlers != nullptr) {
    HandlerNode* next = g_handlers->next;
    upnp_free_impl(g_handlers);
    g_handlers = next;
  }
}

void UnregisterAll() noexcept {
  if (g_tls_started.exchange(false) && g_tls.shutdown != nullptr) g_tls.shutdown();
  ClearHandlers();
  while (g_header_handlers != nullptr) {
    HeaderHandlerNode* next = g_header_handlers->next;
    upnp_free_impl(g_header_handlers);
    g_header_handlers = next;
  }
}

TlsHooks& Tls() noexcept { return g_tls; }

bool MarkTlsStarted() noexcept { return !g_tls_started.exchange(true); }

void SetDefaultUrl(const char* url) noexcept {
  CopyCut(g_default_url, sizeof(g_default_url), url != nullptr ? url : "");
}

const char* DefaultUrl() noexcept { return g_default_url; }

void SetRemoteAccess(const char* text, int32_t port) noexcept {
  CopyCut(g_remote_base_text, sizeof(g_remote_base_text), text != nullptr ? text : "");
  const size_t length = std::strlen(g_remote_base_text);
  if (length >= 2 && g_remote_base_text[length - 1] == '/') g_remote_base_text[length - 1] = '\0';
  g_remote_port = port;
  g_remote_enabled = g_remote_base_text[0] != '\0';
}

bool RemoteAccessEnabled() noexcept { return g_remote_enabled; }

int32_t RemotePort() noexcept { return g_remote_port; }

const char* RemoteBaseText() noexcept { return g_remote_base_text; }

bool LearnRemoteBaseUrl(const char* host, size_t host_length) noexcept {
  constexpr char kScheme[] = "http://";
  constexpr size_t kSchemeLength = sizeof(kScheme) - 1;
  auto* url = static_cast<char*>(upnp_malloc_impl(kSchemeLength + host_length + 2));
  if (url == nullptr) return false;
  std::memcpy(url, kScheme, kSchemeLength);
  std::memcpy(url + kSchemeLength, host, host_length);
  url[kSchemeLength + host_length] = '/';
  url[kSchemeLength + host_length + 1] = '\0';
  // Logged before publishing: once published, another worker may replace and free it.
  upnp_log_info_impl(UPNP_LOG_HTTP, "g_remote_base_url=%s", url);
  char* old;
  {
    CsGuard guard(RemoteLock());
    old = g_remote_base_url;
    g_remote_base_url = url;
  }
  if (old != nullptr) upnp_free_impl(old);
  return true;
}

bool CopyRemoteBaseUrl(char* out, size_t size) noexcept {
  if (out == nullptr || size == 0) return false;
  CsGuard guard(RemoteLock());
  if (g_remote_base_url == nullptr) {
    out[0] = '\0';
    return false;
  }
  CopyCut(out, size, g_remote_base_url);
  return true;
}

void ForgetRemoteBaseUrl() noexcept {
  char* old;
  {
    CsGuard guard(RemoteLock());
    old = g_remote_base_url;
    g_remote_base_url = nullptr;
  }
  if (old != nullptr) upnp_free_impl(old);
}

}  // namespace tw::http
