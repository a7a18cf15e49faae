// SPDX-License-Identifier: Apache-2.0
// Listening sockets, the accept loop, the per-connection loop and the serving of one request.
#pragma once

#include <cstdint>

#include "tarnwick/http.h"

namespace tw::http {

void CreateServerSocket(int32_t* socket_out, int32_t* port_inout, const char* ip) noexcept;
void SetDefaultPort(int32_t port) noexcept;
// Seconds a plain connection may take to deliver its next request head, counted from the moment
// the worker starts waiting for it; 0 or less: no limit. Read by each head read as it starts.
void SetIdleLimit(int32_t seconds) noexcept;
int32_t AcceptLoop(upnp_server_data* server) noexcept;
// Runs one connection to its end and frees the context. The request record it reuses is record
// when given (the worker's own stack), else taken from the heap.
void ConnectionLoop(HttpConnection* connection, HttpRequest* record = nullptr) noexcept;
// Ends a connection's TLS session, closes its socket, frees its file cache and the context.
void EndConnection(HttpConnection* connection) noexcept;
// What a connection's loop takes once and hands to each of its requests: the request record it
// reuses, and the texts that stay the same for every request (the peer's address and the base
// URL of the server record the connection came in on).
struct ConnectionScratch {
  HttpRequest* request;
  char peer_ip[sizeof(HttpRequest::client_ip)];
  char base_url[sizeof(HttpRequest::base_url)];
};
// 0 keeps the connection, non-zero closes it. Without scratch everything is made here.
int32_t ServeOne(HttpConnection* connection, ConnectionScratch* scratch = nullptr) noexcept;

// Bookkeeping of the threads this code starts, so stop, tests and the benchmark can wait for the
// server to be idle: accept loops running, and connection contexts handed to worker threads that
// have not finished yet.
int32_t LiveAcceptLoops() noexcept;
int32_t LiveConnectionWorkers() noexcept;
void WorkerStarting() noexcept;
void WorkerFinished() noexcept;

}  // namespace tw::http
