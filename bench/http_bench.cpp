// SPDX-License-Identifier: Apache-2.0
// A minimal HTTP server on the library for load tests: one registered handler answers every GET
// with a 1 KiB body. /bench answers from a prebuilt response (one raw upnp_send per request, so
// the figure measures the connection layer); /send answers through HTTP_send, i.e. the library's
// full response path (range check, header composition with its DLNA rules, date, body).
//
//   tw_http_bench serve [port]   serves on 127.0.0.1 until SIGINT/SIGTERM, then prints the
//                                request count and receive calls per request
//   tw_http_bench idle [count]   opens count kept-alive connections to itself and prints the
//                                accounted memory and threads that each idle connection holds
//
// Both refuse to run outside a loopback-only network namespace (run via scripts/bench-http.sh).
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "http/connection.h"
#include "httpclient/head_reader.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/config.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"
#include "tarnwick/server.h"

namespace {

constexpr size_t kBodySize = 1024;
std::string g_response;
std::atomic<uint64_t> g_requests{0};

int32_t Serve1KiB(HttpRequest* request) {
  g_requests.fetch_add(1, std::memory_order_relaxed);
  if (upnp_send(request->socket, g_response.data(), static_cast<int64_t>(g_response.size())) < 0) {
    return 1;
  }
  return 0;
}

std::string g_body;

int32_t ServeViaLibrary(HttpRequest* request) {
  g_requests.fetch_add(1, std::memory_order_relaxed);
  request->mime_type = "application/octet-stream";
  request->content_length = static_cast<int64_t>(g_body.size());
  return HTTP_send(request, g_body.data());
}

bool LoopbackOnly() {
  struct if_nameindex* names = if_nameindex();
  if (names == nullptr) return false;
  bool only_lo = true;
  for (struct if_nameindex* it = names; it->if_index != 0; ++it) {
    if (std::strcmp(it->if_name, "lo") != 0) only_lo = false;
  }
  if_freenameindex(names);
  return only_lo;
}

int Threads() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Threads:", 0) == 0) return std::atoi(line.c_str() + 8);
  }
  return -1;
}

bool StartServer(upnp_server_data* record, int32_t port) {
  g_response =
      "HTTP/1.1 200 OK\r\nServer: tw_http_bench\r\nContent-Type: application/octet-stream"
      "\r\nContent-Length: " +
      std::to_string(kBodySize) + "\r\nConnection: keep-alive\r\n\r\n";
  g_response.append(kBodySize, 'x');
  g_body.assign(kBodySize, 'x');
  upnp_http_register_handler(Serve1KiB, HTTP_METHOD_GET, "/", 0, 1);
  upnp_http_register_handler(ServeViaLibrary, HTTP_METHOD_GET, "/send", 0, 1);
  __atomic_store_n(&g_server_running, 1, __ATOMIC_RELEASE);
  std::memset(record, 0, sizeof(*record));
  std::strcpy(record->ip_address, "127.0.0.1");
  HTTP_create_server_socket(&record->http_socket, &port, "127.0.0.1");
  if (record->http_socket == -1) return false;
  record->http_port = port;
  upnp_start_thread(HTTP_accept, record, 6);
  for (int i = 0; i < 2000 && tw::http::LiveAcceptLoops() == 0; ++i) usleep(1000);
  return tw::http::LiveAcceptLoops() == 1;
}

void StopServer(upnp_server_data* record) {
  __atomic_add_fetch(&record->stop_generation, 1, __ATOMIC_ACQ_REL);
  upnp_close_socket(&record->http_socket);
  __atomic_store_n(&g_server_running, 0, __ATOMIC_RELEASE);
}

// The client-type table for "serve PORT CLIENTS_DB": read from the given file whenever the
// library asks for its resource.
std::string g_clients_db;
int ClientsDbResource(const char* name, uint32_t* size_out, void** data_out) {
  if (std::strcmp(name, "clients.db") != 0 || g_clients_db.empty()) return 0;
  void* data = upnp_malloc_impl(g_clients_db.size() + 1);
  if (data == nullptr) return 0;
  std::memcpy(data, g_clients_db.c_str(), g_clients_db.size() + 1);
  *size_out = static_cast<uint32_t>(g_clients_db.size() + 1);
  *data_out = data;
  return 1;
}

// With a client-type table the server identifies the client of every request as a product
// does; without one every request is the unknown device, which costs nothing.
bool StartClientDatabase(const char* clients_db) {
  std::ifstream file(clients_db, std::ios::binary);
  g_clients_db.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  if (g_clients_db.empty()) return false;
  char appdata[] = "/tmp/tw_http_bench.XXXXXX";
  if (mkdtemp(appdata) == nullptr) return false;
  upnp_ini_file_init();
  upnp_ini_file_setPropertyByKey(13, appdata);
  register_upnp_resource_get_function(ClientsDbResource);
  upnp_client_db_init();
  return true;
}

int Serve(int32_t port, const char* clients_db) {
  if (clients_db != nullptr && !StartClientDatabase(clients_db)) {
    std::fprintf(stderr, "tw_http_bench: cannot load the client-type table %s\n", clients_db);
    return 1;
  }
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // inherited by the server threads
  upnp_server_data record;
  if (!StartServer(&record, port)) {
    std::fprintf(stderr, "tw_http_bench: cannot listen on 127.0.0.1:%d\n", port);
    return 1;
  }
  std::printf("listening 127.0.0.1:%d\n", record.http_port);
  std::fflush(stdout);
  int signal_number = 0;
  sigwait(&stop, &signal_number);
  const uint64_t requests = g_requests.load();
  const uint64_t receives = tw::httpclient::ReceiveCalls();
  std::printf("requests %llu receive_calls %llu receive_calls_per_request %.3f\n",
              static_cast<unsigned long long>(requests), static_cast<unsigned long long>(receives),
              requests > 0 ? static_cast<double>(receives) / static_cast<double>(requests) : 0.0);
  StopServer(&record);
  return 0;
}

int Idle(int count) {
  upnp_server_data record;
  if (!StartServer(&record, 0)) return 1;
  const uint32_t memory_before = upnp_mem_used();
  const int threads_before = Threads();
  const std::string request = "GET /idle HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  std::vector<int> peers;
  std::vector<char> answer(g_response.size());
  for (int i = 0; i < count; ++i) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(record.http_port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        send(fd, request.data(), request.size(), 0) != static_cast<ssize_t>(request.size()) ||
        recv(fd, answer.data(), answer.size(), MSG_WAITALL) !=
            static_cast<ssize_t>(answer.size())) {
      std::fprintf(stderr, "tw_http_bench: connection %d failed\n", i);
      return 1;
    }
    peers.push_back(fd);
  }
  // Every worker is back in its head read once the memory figure stops moving.
  uint32_t memory = upnp_mem_used();
  for (int i = 0; i < 200; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const uint32_t now = upnp_mem_used();
    if (now == memory && tw::http::LiveConnectionWorkers() == count) break;
    memory = now;
  }
  const int threads = Threads();
  std::printf(
      "idle_connections %d accounted_bytes_per_connection %.0f threads_per_connection %.2f\n",
      count, static_cast<double>(memory - memory_before) / count,
      static_cast<double>(threads - threads_before) / count);
  for (int fd : peers) close(fd);
  for (int i = 0; i < 500 && tw::http::LiveConnectionWorkers() > 0; ++i) usleep(10000);
  StopServer(&record);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (!LoopbackOnly()) {
    std::fprintf(stderr,
                 "tw_http_bench: run inside the loopback-only namespace "
                 "(sh scripts/netns-run.sh ...)\n");
    return 2;
  }
  const std::string mode = argc > 1 ? argv[1] : "serve";
  if (mode == "serve") {
    return Serve(argc > 2 ? std::atoi(argv[2]) : 18080, argc > 3 ? argv[3] : nullptr);
  }
  if (mode == "idle") return Idle(argc > 2 ? std::atoi(argv[2]) : 64);
  std::fprintf(stderr, "usage: tw_http_bench serve [port [clients.db]] | idle [count]\n");
  return 2;
}
