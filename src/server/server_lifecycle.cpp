// SPDX-License-Identifier: Apache-2.0
// Start and stop of the servers: per interface an HTTP listening socket with its accept thread,
// optionally a remote-access socket, and the SSDP listener and heartbeat threads; the searches
// at the end of a start. Threads are detached and end by themselves (see server_core.h).
#include <atomic>
#include <cstring>

#include "base/fixed_text.h"
#include "http/connection.h"
#include "server/server_core.h"
#include "tarnwick/config.h"
#include "tarnwick/http.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/ssdp.h"

namespace tw::server {
namespace {

constexpr int32_t kAcceptLevel = 6;
constexpr int32_t kListenLevel = 5;
constexpr int32_t kHeartbeatLevel = 3;
// Time for the threads to notice the stopping state before their sockets go: a heartbeat that
// sees it still has its socket for the byebyes.
constexpr int32_t kStopPauseMs = 200;
// Closing a listening socket wakes its accept loop at once; this bounds the wait for them.
constexpr int32_t kAcceptLoopEndWaitMs = 1000;
constexpr int32_t kAcceptLoopPollMs = 5;

std::atomic<int32_t> g_stop_pause_ms{kStopPauseMs};
std::atomic<InterfaceSource> g_interface_source{nullptr};
std::atomic<int32_t> g_live_threads{0};

int32_t LoadState(const int32_t* state) noexcept {
  return __atomic_load_n(state, __ATOMIC_ACQUIRE);
}
void StoreState(int32_t* state, int32_t value) noexcept {
  __atomic_store_n(state, value, __ATOMIC_RELEASE);
}

// Thread routines of other subsystems run through these, so the core knows how many of the
// threads it started are still inside them (counted before the start, so none is missed).
void* AcceptThread(void* record) noexcept {
  HTTP_accept(record);
  g_live_threads.fetch_sub(1);
  return nullptr;
}

void* ListenThread(void* record) noexcept {
  SSDP_listen(record);
  g_live_threads.fetch_sub(1);
  return nullptr;
}

void* HeartbeatThread(void* record) noexcept {
  SSDP_heartbeat(record);
  g_live_threads.fetch_sub(1);
  return nullptr;
}

void StartCoreThread(upnp_thread_routine routine, upnp_server_data* record,
                     int32_t level) noexcept {
  g_live_threads.fetch_add(1);
  // The thread layer cannot tell a failed start from a good one; a failure is logged there and
  // leaves the count raised, which only the tests read.
  upnp_start_thread(routine, record, level);
}

bool AnnouncingRoleEnabled() noexcept {
  return upnp_ssdp_getMediaServer() != 0 || upnp_ssdp_getRenderer() != 0 ||
         upnp_ssdp_getRemoteUI() != 0 || upnp_ssdp_getMTP() != 0;
}

bool SearchingRoleEnabled() noexcept {
  return upnp_ssdp_getMediaServer() != 0 || upnp_ssdp_getControlPoint() != 0 ||
         upnp_ssdp_getRemoteUI() != 0;
}

// The subnet is the text before the last dot; equal texts mean one network for our purposes.
bool SameSubnet(const char* a, const char* b) noexcept {
  const char* dot_a = std::strrchr(a, '.');
  const char* dot_b = std::strrchr(b, '.');
  const size_t length_a = dot_a != nullptr ? static_cast<size_t>(dot_a - a) : std::strlen(a);
  const size_t length_b = dot_b != nullptr ? static_cast<size_t>(dot_b - b) : std::strlen(b);
  return length_a == length_b && std::strncmp(a, b, length_a) == 0;
}

bool SubnetServedBefore(int32_t index) noexcept {
  for (int32_t earlier = 0; earlier < index; ++earlier) {
    if (SameSubnet(g_IPaddress[index], g_IPaddress[earlier])) return true;
  }
  return false;
}

void StartRemoteServer(int32_t index, const upnp_server_data& local) noexcept {
  upnp_server_data* remote = core::RemoteRecord(index);
  const int32_t remote_port = core::RemotePort();
  if (remote_port == 0) {
    upnp_close_socket(&remote->http_socket);
    return;
  }
  upnp_log_info_impl(UPNP_LOG_SYSTEM, "upnp_server_start remote access port %d",
                     static_cast<int>(remote_port));
  core::ResetRecord(remote, local.ip_address, 1, upnp_ini_file_getBoolean(UPNP_INI_KEY_ENABLETLS));
  __atomic_store_n(&remote->stop_generation,
                   __atomic_load_n(&local.stop_generation, __ATOMIC_ACQUIRE), __ATOMIC_RELEASE);
  int32_t socket = -1;
  int32_t port = remote_port;
  HTTP_create_server_socket(&socket, &port, remote->ip_address);
  core::SetPort(remote, port);
  __atomic_store_n(&remote->http_socket, socket, __ATOMIC_RELEASE);
  if (socket == -1) return;
  // The line names the local record's address and port, not the remote one's: it says which
  // local server the remote one was made beside. Pinned by
  // ServerLifecycle.RemoteAccessRecordGetsItsOwnSocket.
  upnp_log_info_impl(UPNP_LOG_SYSTEM,
                     "upnp_server_start HTTP Server for remote access starting at %s:%d",
                     local.ip_address, static_cast<int>(local.http_port));
  StartCoreThread(AcceptThread, remote, kAcceptLevel);
}

void StartInterface(int32_t index, int32_t count) noexcept {
  const char* address = g_IPaddress[index];
  upnp_log_info_impl(UPNP_LOG_SYSTEM, "upnp_server_start IP init: %s", address);
  upnp_server_data* record = core::LocalRecord(index);
  core::ResetRecord(record, address, 0, 0);
  core::SetRecordInUse(index, true);
  upnp_log_info_impl(UPNP_LOG_SYSTEM, "upnp_server_start server interface %s", address);

  int32_t socket = -1;
  int32_t port = upnp_ini_file_getInt(UPNP_INI_KEY_HTTPPORT);
  HTTP_create_server_socket(&socket, &port, record->ip_address);
  core::SetPort(record, port);
  __atomic_store_n(&record->http_socket, socket, __ATOMIC_RELEASE);
  if (socket != -1) {
    upnp_log_info_impl(UPNP_LOG_SYSTEM, "upnp_server_start HTTP Server starting at %s:%d", address,
                       static_cast<int>(port));
    StartCoreThread(AcceptThread, record, kAcceptLevel);
  } else {
    // The interface keeps its discovery threads all the same.
    upnp_log_err_impl(UPNP_LOG_SYSTEM, "upnp_server_start Ignoring failing IP %s", address);
  }

  StartRemoteServer(index, *record);

  const bool loopback = std::strcmp(address, core::kLoopbackAddress) == 0;
  const bool others = count > 1;
  const bool quiet_loopback =
      loopback && others && upnp_ini_file_getInt(UPNP_INI_KEY_DISABLELOCALSSDP) != 0;
  if (!quiet_loopback) {
    if (AnnouncingRoleEnabled()) StartCoreThread(HeartbeatThread, record, kHeartbeatLevel);
    StartCoreThread(ListenThread, record, kListenLevel);
  }
  if (!(loopback && others)) __atomic_store_n(&g_localPort, record->http_port, __ATOMIC_RELEASE);
}

void CloseRecord(upnp_server_data* record) noexcept {
  upnp_close_socket(&record->http_socket);
  upnp_close_socket(&record->ssdp_listen_socket);
  upnp_close_socket(&record->ssdp_search_socket);
  upnp_close_socket(&record->ssdp_notify_socket);
}

}  // namespace

int32_t EnumerateInterfaces(char (*table)[core::kAddressSize]) noexcept {
  const char* selection = upnp_ini_file_getString(UPNP_INI_KEY_IP);
  const InterfaceSource source = g_interface_source.load();
  int32_t count = 0;
  if (source != nullptr) {
    count = source(table, core::kMaxInterfaces, selection);
  } else {
    upnp_get_interfaces(&count, table, core::kMaxInterfaces, selection);
  }
  if (count < 0) count = 0;
  return count > core::kMaxInterfaces ? core::kMaxInterfaces : count;
}

void Start(int32_t* state) noexcept {
  if (state != nullptr && LoadState(state) == core::kRunning) {
    // A control point started the servers before; only a renderer still needs its heartbeat.
    if (InRestart() || upnp_ssdp_getRenderer() == 0) return;
    upnp_log_info_impl(UPNP_LOG_SYSTEM,
                       "upnp_server_start CP already started internal servers, starting heartbeat "
                       "for renderer only");
    StartHeartbeatLate();
    return;
  }
  core::CreateGlobalLock();
  SSDP_init();
  if (state != nullptr) StoreState(state, core::kRunning);
  const core::DtcpCallbacks dtcp = core::Dtcp();
  if (dtcp.init_source != nullptr) dtcp.init_source();

  char table[core::kMaxInterfaces][core::kAddressSize] = {};
  int32_t count = EnumerateInterfaces(table);
  if (count == 0) {
    CopyCut(table[0], sizeof(table[0]), core::kLoopbackAddress);
    count = 1;
  }
  core::PublishInterfaces(table, count);

  for (int32_t index = 0; index < count; ++index) {
    if (dtcp.start_listen != nullptr) dtcp.start_listen(g_IPaddress[index], index);
    if (SubnetServedBefore(index)) {
      // The record is left as it is, and the entry still counts in g_nInterfaceCount.
      upnp_log_info_impl(
          UPNP_LOG_SYSTEM,
          "upnp_server_start IP skipping, because same subnet as already used IP: %s",
          g_IPaddress[index]);
      core::SetRecordInUse(index, false);
      continue;
    }
    StartInterface(index, count);
  }
  for (int32_t index = count; index < core::kMaxInterfaces; ++index)
    core::SetRecordInUse(index, false);

  if (SearchingRoleEnabled()) SearchAll();
  const upnp_server_data* first = core::LocalRecord(0);
  core::SetServerAddressText(first->ip_address, first->http_port);
}

void Stop(int32_t* state) noexcept {
  if (state != nullptr) {
    const int32_t current = LoadState(state);
    if (current == core::kStopped || current == core::kStopping) return;
    StoreState(state, core::kStopping);
  }
  // A restart keeps the lock, so host threads waiting in it are not turned away.
  if (!InRestart()) core::DestroyGlobalLock();
  Sleep(g_stop_pause_ms.load());

  const int32_t count = core::InterfaceCount();
  for (int32_t index = 0; index < count; ++index) {
    upnp_server_data* record = core::LocalRecord(index);
    upnp_log_info_impl(UPNP_LOG_SYSTEM, "upnp_server_stop Server stopping at %s",
                       record->ip_address);
    CloseRecord(record);
    upnp_server_data* remote = core::RemoteRecord(index);
    upnp_close_socket(&remote->http_socket);
    __atomic_add_fetch(&record->stop_generation, 1, __ATOMIC_ACQ_REL);
    __atomic_add_fetch(&remote->stop_generation, 1, __ATOMIC_ACQ_REL);
  }
  // The accept loops read their record (address, port) up to their last log line; a restart
  // rewrites the records right after this, so let the woken loops finish first (bounded).
  for (int32_t waited = 0; tw::http::LiveAcceptLoops() > 0 && waited < kAcceptLoopEndWaitMs;
       waited += kAcceptLoopPollMs) {
    Sleep(kAcceptLoopPollMs);
  }
  upnp_log_info_impl(UPNP_LOG_SYSTEM, "upnp_server_stop Server terminated");
  const core::DtcpCallbacks dtcp = core::Dtcp();
  if (dtcp.exit_source != nullptr) dtcp.exit_source();
  SSDP_exit();
  if (state != nullptr) StoreState(state, core::kStopped);
}

void StartHeartbeatLate() noexcept {
  if (upnp_ssdp_heartbeat_active() != 0) return;
  const int32_t count = core::InterfaceCount();
  for (int32_t index = 0; index < count; ++index) {
    if (core::RecordInUse(index))
      StartCoreThread(HeartbeatThread, core::LocalRecord(index), kHeartbeatLevel);
  }
}

void SearchAll() noexcept {
  // Only records that were started: a skipped entry's record has no address of this run.
  const int32_t count = core::InterfaceCount();
  for (int32_t index = 0; index < count; ++index) {
    if (core::RecordInUse(index)) SSDP_m_search(core::LocalRecord(index));
  }
}

void SetInterfaceSourceForTesting(InterfaceSource source) noexcept {
  g_interface_source.store(source);
}

void SetStopPauseForTesting(int32_t ms) noexcept {
  g_stop_pause_ms.store(ms >= 0 ? ms : kStopPauseMs);
}

int32_t LiveThreadsForTesting() noexcept { return g_live_threads.load(); }

}  // namespace tw::server
