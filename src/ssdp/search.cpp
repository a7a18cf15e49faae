// SPDX-License-Identifier: Apache-2.0
// Searches of one server record: the search thread owns the search socket and hands every
// answer to the SSDP handlers; the sender thread sends the M-SEARCH bursts in rounds.
#include <cstdint>
#include <string_view>

#include "ssdp/ssdp_internal.h"
#include "tarnwick/config.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace tw::ssdp {
namespace {

constexpr int32_t kFirstSearchPort = 1030;
constexpr int32_t kLastSearchPort = 2000;
constexpr int32_t kBurstPauseMs = 100;
constexpr int32_t kSendPauseMs = 10;
constexpr int32_t kWaitStepMs = 100;
constexpr int kBurstsPerRound = 2;
constexpr int kInitialRounds = 3;
// How long the search thread waits at its end for the sender to stop: 200 steps of 10 ms.
constexpr int kSenderStopSteps = 200;
constexpr int32_t kSenderStopStepMs = 10;

bool SearchSocketOpen(const upnp_server_data& server) noexcept {
  return LoadSocket(&server.ssdp_search_socket) != -1;
}

void SendSearch(const upnp_server_data& server, Search kind) noexcept {
  const std::string_view text = SearchText(kind);
  SendDatagram(LoadSocket(&server.ssdp_search_socket), text.data(),
               static_cast<int32_t>(text.size()), kGroupAddress, kGroupPort);
  Sleep(kSendPauseMs);
}

void SendBurst(const upnp_server_data& server) noexcept {
  if (SearchEnabled(SearchOption::kQuick)) {
    SendSearch(server, Search::kRendererMx3);
    SendSearch(server, Search::kServerMx3);
  }
  SendSearch(server, Search::kRendererMx10);
  SendSearch(server, Search::kServerMx10);
  if (SearchEnabled(SearchOption::kRemoteUiServer)) SendSearch(server, Search::kRemoteUiServerMx3);
  if (SearchEnabled(SearchOption::kRemoteUiClient)) SendSearch(server, Search::kRemoteUiClientMx3);
  if (SearchEnabled(SearchOption::kIgd)) SendSearch(server, Search::kGatewayMx10);
}

// Sleeps up to ms in steps, ending early on a wake-up request or a closed socket.
void WaitInterval(upnp_server_data& server, int32_t ms) noexcept {
  for (int32_t waited = 0; waited < ms; waited += kWaitStepMs) {
    if (__atomic_load_n(&server.search_wakeup, __ATOMIC_ACQUIRE) != 0) return;
    if (!SearchSocketOpen(server)) return;
    Sleep(ms - waited < kWaitStepMs ? ms - waited : kWaitStepMs);
  }
}

// Returns false when the socket closed during the round.
bool SendRound(const upnp_server_data& server) noexcept {
  for (int burst = 0; burst < kBurstsPerRound; ++burst) {
    Sleep(kBurstPauseMs);
    if (!SearchSocketOpen(server)) return false;
    SendBurst(server);
  }
  return true;
}

void RunSender(upnp_server_data& server) noexcept {
  int rounds_left = kInitialRounds;
  while (SearchSocketOpen(server)) {
    if (!SendRound(server)) break;
    __atomic_store_n(&server.search_wakeup, 0, __ATOMIC_RELEASE);
    if (rounds_left != 0) --rounds_left;
    const int32_t initial_ms = InitialSearchIntervalMs();
    if (rounds_left != 0 && initial_ms > 0) {
      WaitInterval(server, initial_ms);
      continue;
    }
    const int32_t regular_ms = SearchIntervalMs();
    // A negative interval counts as none: it would send rounds back to back.
    if (regular_ms <= 0) break;
    WaitInterval(server, regular_ms);
  }
}

void* CountedSenderThread(void* arg) noexcept {
  auto* server = static_cast<upnp_server_data*>(arg);
  RunSender(*server);
  __atomic_store_n(&server->search_running, 0, __ATOMIC_RELEASE);
  ThreadLeft();
  return nullptr;
}

// A socket bound to the interface on the first free port from 1030, or -1.
int32_t OpenSearchSocket(const upnp_server_data& server) noexcept {
  int32_t socket = upnp_socket_create_udp();
  if (socket < 0) return -1;
  int32_t port = kFirstSearchPort;
  while (upnp_socket_bind(socket, server.ip_address, port) != 0) {
    upnp_log_info_impl(UPNP_LOG_SSDP, "failed to get free port for %s:%d, reason: %s - retrying",
                       server.ip_address, port, getLastSocketError());
    ++port;
    if (port > kLastSearchPort) {
      upnp_log_info_impl(UPNP_LOG_SSDP, "SSDP terminated M-Search thread - no free port found");
      upnp_close_socket(&socket);
      return -1;
    }
  }
  setSockOptNoSignal(socket);
  setSockOptMulticast(socket, upnp_ini_file_getInt(UPNP_INI_KEY_SSDPTTL), server.ip_address);
  return socket;
}

void Receive(upnp_server_data& server) noexcept {
  char buffer[kReceiveSize + 1];
  while (ServerRunning()) {
    int32_t sender_port = 0;
    const int32_t received = upnp_recvfrom(LoadSocket(&server.ssdp_search_socket), buffer,
                                           kReceiveSize, nullptr, &sender_port);
    if (received < 1) break;
    buffer[received] = '\0';
    // Intended: handlers get the record's own address here, not the answering device's.
    HandleDatagram(buffer, &server, server.ip_address, sender_port);
  }
  // The slot is emptied first, so the sender stops at its next step; the descriptor itself is
  // closed once the sender no longer sends on it (bounded: a sender stuck elsewhere is not
  // waited for), so no send ever races the close.
  int32_t socket = __atomic_exchange_n(&server.ssdp_search_socket, -1, __ATOMIC_ACQ_REL);
  for (int step = 0; step < kSenderStopSteps; ++step) {
    if (__atomic_load_n(&server.search_running, __ATOMIC_ACQUIRE) == 0) break;
    Sleep(kSenderStopStepMs);
  }
  upnp_close_socket(&socket);
  upnp_log_info_impl(UPNP_LOG_SSDP, "SSDP terminated M-Search thread");
}

void RunSearch(upnp_server_data& server) noexcept {
  bool receiving_elsewhere = SearchSocketOpen(server);
  if (!receiving_elsewhere) {
    int32_t socket = OpenSearchSocket(server);
    if (socket < 0) return;
    // Two searches started together: the first socket in place wins, the other is dropped.
    if (!InstallSocket(&server.ssdp_search_socket, socket)) {
      upnp_close_socket(&socket);
      receiving_elsewhere = true;
    }
  }
  int32_t idle = 0;
  if (__atomic_compare_exchange_n(&server.search_running, &idle, 1, false, __ATOMIC_ACQ_REL,
                                  __ATOMIC_ACQUIRE)) {
    StartCountedThread(CountedSenderThread, &server, kSearchLevel);
  } else {
    __atomic_store_n(&server.search_wakeup, 1, __ATOMIC_RELEASE);
  }
  if (receiving_elsewhere) return;
  Receive(server);
}

void* CountedSearchThread(void* arg) noexcept {
  RunSearch(*static_cast<upnp_server_data*>(arg));
  ThreadLeft();
  return nullptr;
}

}  // namespace

void StartSearch(upnp_server_data* server) noexcept {
  if (server == nullptr) return;
  StartCountedThread(CountedSearchThread, server, kSearchLevel);
}

}  // namespace tw::ssdp
