// SPDX-License-Identifier: Apache-2.0
// Connections and complete exchanges of the HTTP client. Every failure closes the connection it
// opened; the status of a response is not examined here, so an error page comes back like any
// other body.
#include "httpclient/exchange.h"

#include <climits>
#include <cstring>

#include "base/ascii.h"
#include "base/fixed_text.h"
#include "httpclient/body_reader.h"
#include "httpclient/head_reader.h"
#include "httpclient/requests.h"
#include "httpclient/settings.h"
#include "tarnwick/core.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "util/helpers.h"

namespace tw::httpclient {
namespace {

constexpr int32_t kModeSoap = 1;
constexpr int32_t kModeGet = 2;
constexpr int32_t kPostReceiveTimeoutMs = 30000;
constexpr size_t kHostNameSize = 256;

struct Scheme {
  const char* prefix;
  int32_t port;
};
constexpr Scheme kSchemes[] = {{"http://", 80}, {"ftp://", 21}};

// Shut down and closed; the slot becomes -1.
void Close(int32_t* socket) noexcept { upnp_close_socket(socket); }

bool SendAll(int32_t socket, const char* bytes, int64_t length) noexcept {
  return length == 0 || upnp_send(socket, bytes, length) >= 0;
}

// "HTTP/1.1 1" and two digits anywhere in the head: an interim response to skip.
bool IsInterim(const char* head) noexcept {
  const char* status = std::strstr(head, "HTTP/1.1 1");
  return status != nullptr && ascii::IsDigit(status[10]) && ascii::IsDigit(status[11]);
}

int32_t ConnectTimeoutMs() noexcept {
  const int32_t seconds = ConnectionTimeout();
  if (seconds <= 0) return 0;
  return seconds < INT32_MAX / 1000 ? seconds * 1000 : INT32_MAX / 1000 * 1000;
}

}  // namespace

int32_t Open(const char* url, int32_t ttl) noexcept {
  if (url == nullptr) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_open: No url specified\n");
    return -1;
  }
  const Scheme* scheme = nullptr;
  for (const Scheme& s : kSchemes) {
    if (std::strncmp(url, s.prefix, std::strlen(s.prefix)) == 0) scheme = &s;
  }
  if (scheme == nullptr) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_open: Malformed url: %s\n", url);
    return -1;
  }
  const char* rest = url + std::strlen(scheme->prefix);
  // User information ends at an '@' that comes before the path.
  const char* slash = std::strchr(rest, '/');
  const char* at = std::strchr(rest, '@');
  if (at != nullptr && (slash == nullptr || at < slash)) rest = at + 1;
  const size_t host_length = std::strcspn(rest, ":/");
  char host[kHostNameSize];
  if (host_length == 0 || host_length >= sizeof(host)) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_open: Failed to parse hostname from url: %s\n", url);
    return -1;
  }
  std::memcpy(host, rest, host_length);
  host[host_length] = '\0';
  int32_t port = scheme->port;
  if (rest[host_length] == ':') port = static_cast<uint16_t>(util::Atoi(rest + host_length + 1));
  char ip[UPNP_ADDRESS_TEXT_SIZE];
  upnp_gethostbyname(host, ip);  // an unknown name gives the loopback address (logged there)

  int32_t socket = upnp_socket_create_tcp();
  if (socket < 0) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_open: Failed to open tcp socket\n");
    return -1;
  }
  setSockOptNoSignal(socket);
  if (ttl != 0) setSockOptTTL(socket, ttl);
  void* deadline = nullptr;
  const int32_t timeout_ms = ConnectTimeoutMs();
  if (timeout_ms > 0) {
    setSockOptSendTimeout(socket, timeout_ms);
    setSockOptReceiveTimeout(socket, timeout_ms);
    deadline = upnp_enforce_socket_timeout(static_cast<uint32_t>(timeout_ms), socket);
  }
  const bool connected = upnp_socket_connect(socket, ip, port) == 0;
  // The release decides: 1 means the socket is gone (the watchdog cut the connect off, or the
  // release closed the failed one), even when the connect itself reported success.
  const bool released_closed =
      deadline != nullptr && upnp_release_socket_timeout(deadline, connected ? 0 : 1) == 1;
  if (!connected || released_closed) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_open: Failed to connect to ip=%s on port=%d\n", ip,
                      port);
    if (!released_closed) Close(&socket);
    return -1;
  }
  return socket;
}

int32_t ReadFinalHead(int32_t socket, char* head, int32_t size) noexcept {
  // Each round consumes a head from the peer, so the peer bounds the loop.
  for (;;) {
    const int32_t length = ReadHead(socket, head, size);
    if (length == 0 || !IsInterim(head)) return length;
  }
}

upnp_string* Talk(int32_t mode, const char* url, const char* soap_action, const char* body,
                  int32_t receive_timeout_ms) noexcept {
  if (url == nullptr || (mode != kModeSoap && mode != kModeGet)) return nullptr;
  int32_t socket = Open(url, 0);
  if (socket == -1) return nullptr;
  if (receive_timeout_ms > 0) setSockOptReceiveTimeout(socket, receive_timeout_ms);
  bool sent;
  if (mode == kModeSoap) {
    sent = SendSoapPost(socket, url, soap_action, body);
    if (sent) {
      upnp_log_debug_impl(UPNP_LOG_HTTP, "HTTP_talk Sending body:\n%s\n",
                          body != nullptr ? body : "");
      sent = body == nullptr || SendAll(socket, body, static_cast<int64_t>(std::strlen(body)));
    }
  } else {
    sent = SendHeadOrGet("GET", socket, url, nullptr, false);
  }
  if (!sent) {
    Close(&socket);
    return nullptr;
  }
  char head[kResponseHeadSize];
  if (ReadFinalHead(socket, head, sizeof(head)) == 0) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_talk received no header in HTTP_talk!");
    Close(&socket);
    return nullptr;
  }
  upnp_string* answer = ReceiveBody(socket, head);
  Close(&socket);
  return answer;
}

bool Post(const char* url, const char* extra_headers, const char* body, int32_t body_length,
          char** answer_out, int32_t* answer_length_out) noexcept {
  if (answer_out != nullptr) *answer_out = nullptr;
  if (answer_length_out != nullptr) *answer_length_out = 0;
  if (url == nullptr || body_length < 0 || (body == nullptr && body_length > 0)) return false;
  int32_t socket = Open(url, 0);
  if (socket == -1) return false;
  setSockOptReceiveTimeout(socket, kPostReceiveTimeoutMs);
  if (!SendXmlPost(socket, url, extra_headers, body_length)) {
    Close(&socket);
    return false;
  }
  upnp_log_debug_impl(UPNP_LOG_HTTP, "HTTP_post Sending body:\n%.*s\n",
                      static_cast<int>(body_length), body != nullptr ? body : "");
  if (!SendAll(socket, body, body_length)) {
    Close(&socket);
    return false;
  }
  char head[kResponseHeadSize];
  if (ReadFinalHead(socket, head, sizeof(head)) == 0) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_post received no header in HTTP_post!");
    Close(&socket);
    return false;
  }
  upnp_log_debug_impl(UPNP_LOG_HTTP, "HTTP_post response header:\n%s", head);
  upnp_string* answer = ReceiveBody(socket, head);
  Close(&socket);
  if (answer == nullptr) return true;
  upnp_log_debug_impl(UPNP_LOG_HTTP, "HTTP_post answer:\n%s", answer->buffer);
  bool kept = true;
  if (answer_out != nullptr) {
    auto* copy = static_cast<char*>(upnp_malloc_impl(answer->length + size_t{1}));
    if (copy != nullptr) {
      std::memcpy(copy, answer->buffer, answer->length + size_t{1});
      *answer_out = copy;
      if (answer_length_out != nullptr) *answer_length_out = static_cast<int32_t>(answer->length);
    }
    kept = copy != nullptr;
  }
  upnp_string_free(answer);
  return kept;
}

void SoapActionUrl(const char* base_url, const char* control_url, char* out, size_t size) noexcept {
  if (control_url[0] != '/') {
    FormatCut(out, size, "%s/%s", base_url, control_url);
    return;
  }
  // Scheme and host of the base: cut at its first '/' behind "http://".
  const char* from = std::strncmp(base_url, "http://", 7) == 0 ? base_url + 7 : base_url;
  const char* slash = std::strchr(from, '/');
  const size_t kept =
      slash != nullptr ? static_cast<size_t>(slash - base_url) : std::strlen(base_url);
  const int prefix = kept < static_cast<size_t>(INT_MAX) ? static_cast<int>(kept) : INT_MAX;
  FormatCut(out, size, "%.*s%s", prefix, base_url, control_url);
}

}  // namespace tw::httpclient
