// SPDX-License-Identifier: Apache-2.0
// Listening sockets, the accept loop, the per-connection loop and the serving of one request.
#pragma once

#include <cstdint>

#include "tarnwick/http.h"

namespace tw::http {

void CreateServerSocket(int32_t* socket_out, int32_t* port_inout, const char* ip) noexcept;
void SetDefaultPort(int32_t port) noexcept;
int32_t AcceptLoop(upnp_server_data* server) noexcept;
// Runs one connection to its end and frees the context.
void ConnectionLoop(HttpConnection* connection) noexcept;
// 0 keeps the connection, non-zero closes it. A connection's loop passes the record it reuses
// for every request and the peer's address it took once; without them both are made here.
int32_t ServeOne(HttpConnection* connection, HttpRequest* reused = nullptr,
                 const char* peer_ip = nullptr) noexcept;

// Bookkeeping of the threads this code starts, so stop, tests and the benchmark can wait for the
// server to be idle: accept loops running, and connection contexts handed to worker threads that
// have not finished yet.
int32_t LiveAcceptLoops() noexcept;
int32_t LiveConnectionWorkers() noexcept;
void WorkerStarting() noexcept;
void WorkerFinished() noexcept;

}  // namespace tw::http
