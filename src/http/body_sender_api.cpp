// SPDX-License-Identifier: Apache-2.0
// Entries for body sending, chunked transfer and the TLS, DTCP and file-completed hooks.
#include "base/status.h"
#include "http/body_sender.h"
#include "http/hooks.h"
#include "tarnwick/http.h"

extern "C" {

TW_API int32_t HTTP_send(HttpRequest* request, const char* data) noexcept {
  if (request == nullptr) return tw::kHttpFail;
  if (data == nullptr && request->content_length > 0) return tw::kHttpFail;
  return tw::http::SendInMemory(*request, data);
}

TW_API int32_t HTTP_send_file(HttpRequest* request, int32_t status, upnp_file* file,
                              int64_t offset) noexcept {
  if (request == nullptr || file == nullptr || offset < 0) return tw::kHttpFail;
  return tw::http::SendFile(*request, status, file, offset);
}

TW_API int64_t upnp_send_ssl(HttpRequest* request, const void* data, int64_t length) noexcept {
  if (request == nullptr) return tw::kSysFail;
  if (data == nullptr && length > 0) return tw::kSysFail;
  return tw::http::SendOnConnection(*request, data, length);
}

TW_API int32_t HTTP_send_chunked_header(int32_t socket, const char* content_type) noexcept {
  return tw::http::SendChunkedHeader(socket, content_type) ? tw::kHttpOk : tw::kHttpFail;
}

TW_API int32_t HTTP_send_chunked_part(int32_t socket, upnp_string* text) noexcept {
  return tw::http::SendChunk(socket, text) ? tw::kHttpOk : tw::kHttpFail;
}

TW_API int32_t HTTP_send_chunked_end(int32_t socket) noexcept {
  return tw::http::SendLastChunk(socket) ? tw::kHttpOk : tw::kHttpFail;
}

TW_API void http_server_set_tls_callbacks(
    upnp_tls_startup_fn startup, upnp_tls_shutdown_fn shutdown,
    upnp_tls_session_create_fn session_create, upnp_tls_session_close_fn session_close,
    upnp_tls_send_fn send, upnp_tls_recv_fn recv, upnp_tls_http_get_header_fn http_get_header,
    upnp_tls_http_receive_body_fn http_receive_body) noexcept {
  tw::http::SetTlsHooks(startup, shutdown, session_create, session_close, send, recv,
                        http_get_header, http_receive_body);
}

TW_API void http_dtcp_set_port(int32_t port) noexcept { tw::http::SetDtcpPort(port); }

TW_API void http_set_cb_file_completed(upnp_http_file_completed_fn function) noexcept {
  tw::http::SetFileCompletedHook(function);
}

TW_API void http_file_filecache_free(HttpFileCache* cache) noexcept {
  tw::http::FreeFileCache(cache);
}

}  // extern "C"
