// SPDX-License-Identifier: Apache-2.0
// The SSDP handler registry and the multicast listener of one server record.
#include <atomic>
#include <cstdint>

#include "ssdp/ssdp_internal.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace tw::ssdp {
namespace {

constexpr int32_t kMaxHandlers = 19;
constexpr int32_t kRestartPauseMs = 50;

// Written by registration (before the servers start) and read by every listener and search
// thread; slot then count are published with release/acquire, so no lock is needed.
std::atomic<upnp_ssdp_handler_fn> g_handlers[kMaxHandlers];
std::atomic<int32_t> g_handler_count{0};

bool StillServing(const upnp_server_data& server, uint32_t generation) noexcept {
  return ServerRunning() && LoadSocket(&server.ssdp_listen_socket) != -1 &&
         Generation(server) == generation;
}

}  // namespace

void RegisterHandler(upnp_ssdp_handler_fn handler, const char* name) noexcept {
  const int32_t count = g_handler_count.load(std::memory_order_acquire);
  if (count >= kMaxHandlers) {
    upnp_log_err_impl(UPNP_LOG_SSDP,
                      "upnp_ssdp_register_handler Too many callback handlers registered");
    return;
  }
  if (handler == nullptr) {
    upnp_log_err_impl(UPNP_LOG_SSDP, "upnp_ssdp_register_handler missing handler function for");
    return;
  }
  g_handlers[count].store(handler, std::memory_order_relaxed);
  g_handler_count.store(count + 1, std::memory_order_release);
  upnp_log_info_impl(UPNP_LOG_SSDP, "upnp_ssdp_register_handler registered handler %s",
                     name != nullptr ? name : "");
}

bool HandlerRegistered(upnp_ssdp_handler_fn handler) noexcept {
  const int32_t count = g_handler_count.load(std::memory_order_acquire);
  for (int32_t i = 0; i < count; ++i) {
    if (g_handlers[i].load(std::memory_order_relaxed) == handler) return true;
  }
  return false;
}

void CallHandlers(const char* message, upnp_server_data* server, const char* address,
                  int32_t port) noexcept {
  const int32_t count = g_handler_count.load(std::memory_order_acquire);
  for (int32_t i = 0; i < count; ++i) {
    upnp_ssdp_handler_fn handler = g_handlers[i].load(std::memory_order_relaxed);
    if (handler != nullptr) handler(message, server, address, port);
  }
}

void HandleDatagram(const char* message, upnp_server_data* server, const char* address,
                    int32_t port) noexcept {
  CallHandlers(message, server, address, port);
  ProcessQueue();
}

void ClearHandlersForTesting() noexcept {
  g_handler_count.store(0, std::memory_order_release);
  for (auto& handler : g_handlers) handler.store(nullptr);
}

void RunListener(upnp_server_data* server) noexcept {
  if (!ServerRunning()) return;
  const uint32_t generation = Generation(*server);
  const int32_t made = upnp_create_listen_socket(server->ip_address);
  if (made < 0) {
    upnp_log_info_impl(UPNP_LOG_SSDP, "Could not create listen socket for IP %s!",
                       server->ip_address);
    // Whether the address was added or not, this listener is done; without a socket there is
    // nothing to restart.
    AddToBlacklist(server->ip_address);
    upnp_log_info_impl(UPNP_LOG_SSDP, "SSDP terminated listen thread");
    return;
  }
  __atomic_store_n(&server->ssdp_listen_socket, made, __ATOMIC_RELEASE);

  char buffer[kReceiveSize + 1];
  char sender[UPNP_ADDRESS_TEXT_SIZE];
  bool bad_receive = false;
  while (StillServing(*server, generation)) {
    int32_t sender_port = 0;
    const int32_t received = upnp_recvfrom(LoadSocket(&server->ssdp_listen_socket), buffer,
                                           kReceiveSize, sender, &sender_port);
    if (received < 1) {
      upnp_log_info_impl(UPNP_LOG_SSDP, "socket received bad value: %i bytes", received);
      bad_receive = true;
      break;
    }
    buffer[received] = '\0';
    HandleDatagram(buffer, server, sender, sender_port);
  }

  if (bad_receive) {
    // A closed socket also ends the receive; the pause lets a stop finish marking the record,
    // so only a listener that is still wanted starts over on a fresh socket.
    Sleep(kRestartPauseMs);
    if (StillServing(*server, generation)) {
      upnp_close_socket(&server->ssdp_listen_socket);
      StartCountedThread(CountedListenThread, server, kListenLevel);
    }
  }
  upnp_log_info_impl(UPNP_LOG_SSDP, "SSDP terminated listen thread");
}

// Runs one listener on a thread that is already counted.
void* CountedListenThread(void* arg) noexcept {
  if (arg != nullptr) {
    upnp_log_info_impl(UPNP_LOG_SSDP, "starting SSDP listen thread");
    RunListener(static_cast<upnp_server_data*>(arg));
  }
  ThreadLeft();
  return nullptr;
}

}  // namespace tw::ssdp
