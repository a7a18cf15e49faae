// SPDX-License-Identifier: Apache-2.0
// The front door of the HTTP server: listening sockets, accept loops, one worker thread per
// connection, and the serving of one request (head, classification, access rules, dispatch).
#include "http/connection.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/ascii.h"
#include "base/fixed_text.h"
#include "http/registry.h"
#include "httpclient/head_reader.h"
#include "platform/detached_thread.h"
#include "platform/memory_release.h"
#include "platform/socket.h"
#include "platform/time_zone.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/core.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace tw::http {
namespace {

constexpr int32_t kDefaultPort = 9000;
constexpr int32_t kBindAttempts = 1001;
// A failing accept (for instance out of descriptors) is retried; the pause keeps that from
// spinning a core while the condition lasts.
constexpr int32_t kAcceptRetryPauseMs = 10;
constexpr int32_t kHttp10 = 10;
constexpr int32_t kHttp11 = 11;
constexpr uint8_t kDlna10 = 10;
constexpr uint8_t kDlna15 = 15;
constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n";
static_assert(sizeof(kContinue) - 1 == 44);
constexpr char kControlUrl[] = "/ContentDirectory/Control";
constexpr char kNoBody[] = "- NO BODY RECEIVED -";

struct MethodPrefix {
  std::string_view text;
  uint32_t bit;
};
// Tested in this order against the start of the head, case-sensitively.
constexpr MethodPrefix kMethods[] = {
    {"GET", HTTP_METHOD_GET},
    {"HEAD", HTTP_METHOD_HEAD},
    {"OPTIONS", HTTP_METHOD_HEAD},
    {"POST", HTTP_METHOD_POST},
    {"SUBSCRIBE", HTTP_METHOD_SUBSCRIBE},
    {"UNSUBSCRIBE", HTTP_METHOD_UNSUBSCRIBE},
    {"NOTIFY", HTTP_METHOD_NOTIFY},
};
static_assert(sizeof(kMethods) / sizeof(kMethods[0]) == 7);

std::atomic<int32_t> g_default_port{kDefaultPort};
// Seconds a connection may take to deliver its next head; 0 or less waits for ever (the default).
std::atomic<int32_t> g_idle_limit_seconds{0};
std::atomic<int32_t> g_live_accept_loops{0};
std::atomic<int32_t> g_live_workers{0};

// The state word and a record's socket and generation are changed by the server core on other
// threads; every read here is an atomic load of the plain exported fields.
bool ServerRunning() noexcept { return __atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE) == 1; }
int32_t ListeningSocket(const upnp_server_data* server) noexcept {
  return __atomic_load_n(&server->http_socket, __ATOMIC_ACQUIRE);
}
uint32_t Generation(const upnp_server_data* server) noexcept {
  return __atomic_load_n(&server->stop_generation, __ATOMIC_ACQUIRE);
}

bool StartsWith(const char* text, std::string_view prefix) noexcept {
  return std::strncmp(text, prefix.data(), prefix.size()) == 0;
}

bool StartsWithNoCase(const char* text, std::string_view prefix) noexcept {
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (text[i] == '\0' || ascii::ToLower(text[i]) != ascii::ToLower(prefix[i])) return false;
  }
  return true;
}

bool ContainsNoCase(const char* text, const char* needle) noexcept {
  return upnp_istrstr(text, needle) != nullptr;
}

uint32_t MethodOf(const char* head) noexcept {
  for (const MethodPrefix& method : kMethods) {
    if (StartsWith(head, method.text)) return method.bit;
  }
  return 0;
}

// Request line: the target after the method's space up to the next space (cut at the buffer),
// and the version behind it.
void ParseRequestLine(HttpRequest* request) noexcept {
  const char* target = std::strchr(request->header, ' ');
  request->http_version = kHttp10;
  if (target == nullptr) return;
  ++target;
  const char* end = target;
  while (*end != '\0' && *end != ' ') ++end;
  size_t length = static_cast<size_t>(end - target);
  if (length > sizeof(request->url) - 1) length = sizeof(request->url) - 1;
  std::memcpy(request->url, target, length);
  request->url[length] = '\0';
  if (*end == ' ' && StartsWith(end + 1, "HTTP/1.1")) request->http_version = kHttp11;
  // An absolute target ("http://host:port/path") is served by its path.
  if (StartsWith(request->url, "http://") && std::strlen(request->url) > 8) {
    const char* path = std::strchr(request->url + 8, '/');
    if (path != nullptr) std::memmove(request->url, path, std::strlen(path) + 1);
  }
}

void RewriteUrl(HttpRequest* request) noexcept {
  char* url = request->url;
  if (url[0] == '\0' || std::strcmp(url, "/") == 0) {
    CopyCut(url, sizeof(request->url),
            StartsWith(request->header, "POST") ? kControlUrl : DefaultUrl());
  }
  if (std::strcmp(url, "/favicon.ico") == 0) {
    CopyCut(url, sizeof(request->url), "/images/favicon.ico");
  }
}

uint8_t DlnaVersionOf(const char* head) noexcept {
  if (std::strstr(head, "DLNADOC/1.00") != nullptr) return kDlna10;
  if (std::strstr(head, "DLNADOC/1.50") != nullptr) return kDlna15;
  return 0;
}

int32_t CloseConnectionFor(const char* head, int32_t http_version) noexcept {
  int32_t close = http_version == kHttp10 ? 1 : 0;
  const char* header = upnp_istrstr(head, "\nConnection:");
  if (header != nullptr) {
    const char* rest = header + std::strlen("\nConnection:");
    const char* value = std::strchr(header, ' ');
    if (value != nullptr && StartsWithNoCase(value, " close")) {
      close = 1;
    } else if (value != nullptr && StartsWithNoCase(value, " Keep-Alive")) {
      close = 0;
    } else if (!(ContainsNoCase(rest, "close") && ContainsNoCase(rest, "Keep-Alive"))) {
      close = 1;
    }
  }
  // HTTP/1.0 always closes, whatever the header said (the Redsonic exception comes later).
  if (http_version == kHttp10) close = 1;
  return close;
}

void LearnRemoteBaseFromHost(const char* head) noexcept {
  const char* host = upnp_istrstr(head, "Host:");
  if (host == nullptr) return;
  host += std::strlen("Host:");
  while (*host == ' ' || *host == '\t') ++host;
  const char* end = std::strstr(host, "\r\n");
  const size_t length = end != nullptr ? static_cast<size_t>(end - host) : std::strlen(host);
  LearnRemoteBaseUrl(host, length);
}

void RewriteBaseUrlForRemote(HttpRequest* request) noexcept {
  const char* text = RemoteBaseText();
  const size_t length = std::strlen(text);
  const bool ends_with_slash = length > 0 && text[length - 1] == '/';
  const int32_t port = RemotePort();
  if (port == 0) {
    std::snprintf(request->base_url, sizeof(request->base_url), "%s%s", text,
                  ends_with_slash ? "" : "/");
  } else if (length > 0 && text[length - 1] == '?') {
    std::snprintf(request->base_url, sizeof(request->base_url), "%s/", text);
  } else {
    std::snprintf(request->base_url, sizeof(request->base_url), "%s:%d/", text,
                  static_cast<int>(port));
  }
}

void UseHttpsScheme(HttpRequest* request) noexcept {
  char* base = request->base_url;
  if (!StartsWith(base, "http://")) return;
  const size_t length = std::strlen(base);
  const size_t keep = length + 1 < sizeof(request->base_url) ? length : length - 1;
  std::memmove(base + 5, base + 4, keep - 4);
  base[4] = 's';
  base[keep + 1] = '\0';
}

bool WantsBody(const HandlerNode& node, const HttpRequest& request) noexcept {
  if (node.receives_body == 0) return false;
  switch (request.method) {
    case HTTP_METHOD_POST:
    case HTTP_METHOD_NOTIFY:
      return true;
    case HTTP_METHOD_SUBSCRIBE:
    case HTTP_METHOD_UNSUBSCRIBE:
      return HTTP_parse_header_chunked(request.header) != 0;
    default:
      return false;
  }
}

upnp_string* ReadBody(const HttpRequest& request) noexcept {
  if (request.tls == 0) return HTTP_receive_body(request.socket, request.header);
  upnp_tls_http_receive_body_fn hook = Tls().http_receive_body;
  return hook != nullptr ? hook(request.tls_session, request.header) : nullptr;
}

int32_t Dispatch(HttpRequest* request, upnp_string** body_out) noexcept {
  const HandlerNode* node = FindHandler(request->url, request->method);
  if (node == nullptr) return HTTP_send_file_not_found(request);
  if (WantsBody(*node, *request)) {
    upnp_string* body = ReadBody(*request);
    *body_out = body;
    if (body != nullptr) {
      const char* text = upnp_string_get_cstring(body);
      request->body = const_cast<char*>(text);
      request->content_length = body->length;
      upnp_log_info_impl(UPNP_LOG_HTTP, "HTTP_send_receive %s",
                         text != nullptr && text[0] != '\0' ? text : kNoBody);
    }
  }
  if (node->is_public == 0 && request->remote_access != 0 && RemoteBaseText()[0] == '\0') {
    return HTTP_send_unauthorized(request);
  }
  return node->handler(request);
}

bool ReadRequestHead(HttpRequest* request) noexcept {
  if (request->tls == 0) {
    // The limit is read once per head, and only a set limit costs a clock read (and a poll per
    // peek): without it the head read is the bare peek and take.
    const int32_t limit = g_idle_limit_seconds.load(std::memory_order_relaxed);
    const int64_t deadline = limit > 0 ? getSystemTime() + int64_t{limit} * 1000 : 0;
    if (httpclient::ReadHead(request->socket, request->header, sizeof(request->header), deadline) !=
        0) {
      return true;
    }
    if (deadline != 0 && getSystemTime() >= deadline) {
      upnp_log_debug_impl(
          UPNP_LOG_HTTP,
          "HTTP_send_receive idle limit of %d s reached, closing the connection of %s",
          static_cast<int>(limit), request->client_ip);
    }
    return false;
  }
  // A TLS head is read by the outside module, which may hold decrypted bytes the socket no
  // longer shows; the idle limit does not apply there.
  upnp_tls_http_get_header_fn hook = Tls().http_get_header;
  if (hook == nullptr) return false;
  return hook(request->tls_session, request->header, sizeof(request->header)) >= 0;
}

// Everything from the head read to the handler's result; the caller owns the cleanup.
int32_t Serve(HttpConnection* connection, HttpRequest* request, upnp_string** body) noexcept {
  const upnp_server_data* server = connection->server;
  if (!ReadRequestHead(request)) return 1;
  const char* head = request->header;

  // Creating objects needs the client to wait for a 100 Continue; a POST that does not ask for
  // one is refused outright. The connection closes, since its body was never read.
  if (StartsWith(head, "POST") && std::strstr(head, "createobject") != nullptr &&
      !ContainsNoCase(head, "100-continue")) {
    HTTP_send_error_code(request, 400);
    return 1;
  }
  // The interim answer is a fixed text on the plain socket, also for TLS connections.
  if (ContainsNoCase(head, "100-continue") && !ContainsNoCase(head, "application/x-dtcp1")) {
    upnp_send(request->socket, kContinue, sizeof(kContinue) - 1);
  }

  ParseRequestLine(request);
  HTTP_unescape_url(request->url);
  RewriteUrl(request);
  request->dlna_version = DlnaVersionOf(head);
  request->close_connection = CloseConnectionFor(head, request->http_version);
  request->client_id = upnp_client_db_add_by_ip(request->base_url, request->client_ip, head);
  request->method = MethodOf(head);
  upnp_log_info_impl(UPNP_LOG_HTTP, "HTTP_send_receive %s", head);
  // These clients keep HTTP/1.0 connections alive.
  if (upnp_client_db_redsonic_compliant(request->client_id) != 0 &&
      request->http_version == kHttp10) {
    request->close_connection = 0;
  }

  request->auth_required = server->auth_required;
  const int32_t remote_port = RemotePort();
  if (remote_port != 0 && server->http_port == remote_port) {
    request->remote_access = 1;
    if (std::strstr(request->url, "/auth/ott") == nullptr) {
      request->remote_session_pending = 1;
    } else {
      LearnRemoteBaseFromHost(head);
    }
  }
  if (request->auth_required != 0) {
    if (std::strstr(request->url, "resources") == nullptr && HTTP_has_authorization(request) == 0) {
      return HTTP_send_access_restriced(request);
    }
    if (RemoteAccessEnabled()) RewriteBaseUrlForRemote(request);
  }
  if (request->tls != 0) UseHttpsScheme(request);
  return Dispatch(request, body);
}

}  // namespace

void SetDefaultPort(int32_t port) noexcept { g_default_port.store(port); }
void SetIdleLimit(int32_t seconds) noexcept {
  g_idle_limit_seconds.store(seconds, std::memory_order_relaxed);
}

void CreateServerSocket(int32_t* socket_out, int32_t* port_inout, const char* ip) noexcept {
  // The date headers of the responses need the time-zone rules.
  platform::LoadTimeZone();
  int32_t socket = upnp_socket_create_tcp();
  *socket_out = -1;
  if (socket == -1) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_create_server_socket cannot create a socket for IP: %s",
                      ip);
    return;
  }
  setSockOptReuseAddr(socket);
  setSockOptNoSignal(socket);
  int32_t port = *port_inout != 0 ? *port_inout : g_default_port.load();
  bool bound = false;
  for (int32_t attempt = 0; attempt < kBindAttempts && !bound; ++attempt) {
    bound = upnp_socket_bind(socket, ip, port) >= 0;
    if (!bound) ++port;
  }
  if (!bound) {
    // The descriptor is deliberately left open here; the caller only ever sees -1.
    upnp_log_critical_impl(UPNP_LOG_HTTP,
                           "HTTP_create_server_socket no free port for HTTP server found on IP: %s",
                           ip);
    return;
  }
  if (upnp_socket_listen(socket) < 0) {
    upnp_close_socket(&socket);
    upnp_log_critical_impl(
        UPNP_LOG_HTTP, "HTTP_create_server_socket Failure on listen on HTTP server port for IP: %s",
        ip);
    return;
  }
  *socket_out = socket;
  *port_inout = port;
}

int32_t AcceptLoop(upnp_server_data* server) noexcept {
  if (server == nullptr) return 0;
  const int32_t first_socket = ListeningSocket(server);
  if (first_socket == -1 || first_socket == 0) return 0;
  g_live_accept_loops.fetch_add(1);
  const uint32_t generation = Generation(server);
  if (MarkTlsStarted() && Tls().startup != nullptr) Tls().startup();
  upnp_log_info_impl(UPNP_LOG_HTTP, "HTTP_accept HTTP server started at http://%s:%d/",
                     server->ip_address, static_cast<int>(server->http_port));
  // Ends when the server stops, the socket is closed (the close also wakes the blocked accept)
  // or a restart moves the generation on.
  for (;;) {
    const int32_t listening = ListeningSocket(server);
    if (!ServerRunning() || listening == -1 || Generation(server) != generation) break;
    int32_t socket = upnp_socket_accept(listening);
    if (socket == -1) {
      Sleep(kAcceptRetryPauseMs);
      continue;
    }
    setSockOptNoSignal(socket);
    tw::platform::SetTcpNoDelay(socket);
    auto* connection = static_cast<HttpConnection*>(upnp_calloc_impl(1, sizeof(HttpConnection)));
    if (connection == nullptr) {
      upnp_close_socket(&socket);
      continue;
    }
    connection->server = server;
    connection->socket = socket;
    connection->tls = server->tls;
    upnp_log_debug_impl(UPNP_LOG_HTTP, "HTTP entering receive module");
    if (connection->tls != nullptr) {
      upnp_tls_session_create_fn create = Tls().session_create;
      const int32_t session = create != nullptr ? create(socket, connection->tls) : -1;
      if (session < 0) {
        // Only the socket goes: the context belongs to the server record and serves every
        // later connection on it.
        upnp_close_socket(&socket);
        continue;
      }
      connection->tls_session = session;
    }
    WorkerStarting();
    if (!platform::StartDetachedThread(HTTP_receive, connection)) {
      upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_accept could not start a connection thread");
      EndConnection(connection);
      WorkerFinished();
    }
  }
  upnp_log_info_impl(UPNP_LOG_HTTP, "HTTP_accept HTTP server terminated at http://%s:%d/",
                     server->ip_address, static_cast<int>(server->http_port));
  g_live_accept_loops.fetch_sub(1);
  return 0;
}

namespace {

// Clears a reused record for the next request. The three big texts (17 KiB of the record) are
// C strings to every reader, so a terminator clears them; the rest is zeroed as a fresh record
// would be.
void ClearForNextRequest(HttpRequest* request) noexcept {
  char* const base = reinterpret_cast<char*>(request);
  const auto zero = [base](size_t from, size_t to) { std::memset(base + from, 0, to - from); };
  zero(0, offsetof(HttpRequest, url));
  zero(offsetof(HttpRequest, url) + sizeof(request->url), offsetof(HttpRequest, header));
  zero(offsetof(HttpRequest, header) + sizeof(request->header),
       offsetof(HttpRequest, extra_headers));
  zero(offsetof(HttpRequest, extra_headers) + sizeof(request->extra_headers), sizeof(HttpRequest));
  request->url[0] = '\0';
  request->header[0] = '\0';
  request->extra_headers[0] = '\0';
}

void FormatBaseUrl(const upnp_server_data* server, char* out, size_t size) noexcept {
  std::snprintf(out, size, "http://%s:%d/", server->ip_address,
                static_cast<int>(server->http_port));
}

}  // namespace

int32_t ServeOne(HttpConnection* connection, ConnectionScratch* scratch) noexcept {
  HttpRequest* request = scratch != nullptr ? scratch->request : nullptr;
  if (request != nullptr) {
    ClearForNextRequest(request);
  } else {
    request = static_cast<HttpRequest*>(upnp_calloc_impl(1, sizeof(HttpRequest)));
    if (request == nullptr) return 1;
  }
  const upnp_server_data* server = connection->server;
  if (scratch != nullptr) {
    CopyCut(request->client_ip, sizeof(request->client_ip), scratch->peer_ip);
    CopyCut(request->base_url, sizeof(request->base_url), scratch->base_url);
  } else {
    int32_t peer_port = 0;
    upnp_util_get_peername(connection->socket, request->client_ip, &peer_port);
    FormatBaseUrl(server, request->base_url, sizeof(request->base_url));
  }
  request->socket = connection->socket;
  request->tls = connection->tls != nullptr ? 1 : 0;
  request->tls_session = connection->tls_session;
  request->file_cache = connection->file_cache;

  upnp_string* body = nullptr;
  const int32_t result = Serve(connection, request, &body);

  if (body != nullptr) upnp_string_free(body);
  connection->file_cache = request->file_cache;
  const bool close = request->socket != -1 && request->close_connection != 0;
  if (scratch == nullptr || request != scratch->request) upnp_free_impl(request);
  return close ? 1 : result;
}

void ConnectionLoop(HttpConnection* connection, HttpRequest* record) noexcept {
  // The peer stays the same and the request record can be reused: both are taken once per
  // connection, not once per request. Unless an idle limit is set (SetIdleLimit), a kept-alive
  // connection waits in the head read until the peer sends or closes.
  // File bodies go out with sendfile, which cannot be told not to raise SIGPIPE.
  tw::platform::BlockBrokenPipeSignal();
  ConnectionScratch scratch{};
  scratch.request =
      record != nullptr ? record : static_cast<HttpRequest*>(upnp_malloc_impl(sizeof(HttpRequest)));
  if (scratch.request != nullptr) {
    int32_t peer_port = 0;
    upnp_util_get_peername(connection->socket, scratch.peer_ip, &peer_port);
    FormatBaseUrl(connection->server, scratch.base_url, sizeof(scratch.base_url));
    // The first clear must reach every byte: nothing else writes the texts' tails.
    std::memset(scratch.request, 0, sizeof(HttpRequest));
    while (ServeOne(connection, &scratch) == 0 && ServerRunning()) {
    }
    if (scratch.request != record) upnp_free_impl(scratch.request);
  }
  EndConnection(connection);
}

void EndConnection(HttpConnection* connection) noexcept {
  if (connection->tls != nullptr && Tls().session_close != nullptr) {
    Tls().session_close(connection->tls_session, connection->tls);
  }
  upnp_close_socket(&connection->socket);
  if (connection->file_cache != nullptr) http_file_filecache_free(connection->file_cache);
  upnp_free_impl(connection);
}

int32_t LiveAcceptLoops() noexcept { return g_live_accept_loops.load(); }
int32_t LiveConnectionWorkers() noexcept { return g_live_workers.load(); }
void WorkerStarting() noexcept { g_live_workers.fetch_add(1); }
void WorkerFinished() noexcept {
  // The last connection of a burst gives the heap's free parts back: a thousand connections'
  // request records otherwise stay resident in the per-thread heaps they came from.
  if (g_live_workers.fetch_sub(1) == 1) platform::ReleaseFreeHeap();
}

}  // namespace tw::http
