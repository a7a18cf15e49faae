// SPDX-License-Identifier: Apache-2.0
// Entries for listening sockets, the accept and connection threads, and the head reader.
#include "http/connection.h"
#include "platform/memory_release.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"

extern "C" {

TW_API void HTTP_create_server_socket(int32_t* socket_out, int32_t* port_inout,
                                      const char* ip) noexcept {
  if (socket_out == nullptr || port_inout == nullptr || ip == nullptr) return;
  tw::http::CreateServerSocket(socket_out, port_inout, ip);
}

TW_API void HTTP_set_default_port(int32_t port) noexcept { tw::http::SetDefaultPort(port); }

TW_API void HTTP_set_server_idle_timeout(int32_t seconds) noexcept {
  tw::http::SetIdleLimit(seconds);
}

// Thread routines return instead of calling upnp_end_thread: ending a thread from inside a
// noexcept frame would abort the process on unwinding platforms, and returning ends it the same.
TW_API void* HTTP_accept(void* server) noexcept {
  upnp_init_thread("HTTP_accept");
  tw::http::AcceptLoop(static_cast<upnp_server_data*>(server));
  return nullptr;
}

TW_API int32_t HTTP_accept_Impl(upnp_server_data* server) noexcept {
  return tw::http::AcceptLoop(server);
}

// Started by the accept loop only, which counted the worker in before the start.
TW_API void* HTTP_receive(void* connection) noexcept {
  upnp_init_thread("HTTP_receive");
  // The request record lives on the worker's stack, which the library unmaps whole when the
  // thread has ended; from the heap it would stay resident in the thread's malloc arena after a
  // burst of connections.
  HttpRequest record;
  if (connection != nullptr) {
    tw::http::ConnectionLoop(static_cast<HttpConnection*>(connection), &record);
  }
  tw::http::WorkerFinished();
  return nullptr;
}

TW_API int32_t HTTP_receive_Impl(HttpConnection* connection) noexcept {
  if (connection != nullptr) tw::http::ConnectionLoop(connection);
  return 0;
}

TW_API int32_t HTTP_send_receive(HttpConnection* connection) noexcept {
  if (connection == nullptr || connection->server == nullptr) return 1;
  return tw::http::ServeOne(connection);
}

}  // extern "C"
