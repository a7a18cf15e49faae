// SPDX-License-Identifier: Apache-2.0
// The heartbeat of one server record: the first announcements, the periodic alive sets, the
// host's wake-up, byebye, shutdown and alive requests, and the byebyes at the end. Marker files
// tell the next run that this one ended without its byebyes.
#include <atomic>
#include <cstdint>
#include <cstdio>

#include "base/fixed_text.h"
#include "ssdp/ssdp_internal.h"
#include "tarnwick/config.h"
#include "tarnwick/log.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace tw::ssdp {
namespace {

constexpr int32_t kPathSize = 1024;
constexpr int32_t kFirstPort = 1900;
constexpr int32_t kLastPort = 2899;
constexpr int32_t kMarkerPauseMs = 500;
constexpr int32_t kStartDelayMs = 10000;
constexpr int32_t kAlivePauseMs = 210;
constexpr uint32_t kMaxTicksBetweenAlives = 600;
constexpr char kServerMarker[] = "tmsbyebye";
constexpr char kRendererMarker[] = "tmrbyebye";

// Request flags, process-wide: one host call reaches the heartbeats of every interface.
std::atomic<int32_t> g_wakeup{0};
std::atomic<int32_t> g_suspended{0};
std::atomic<int32_t> g_byebye{0};
std::atomic<int32_t> g_shutdown{0};
std::atomic<int32_t> g_alive{0};
std::atomic<int32_t> g_active{0};
std::atomic<uint32_t> g_last_alive_ticks{0};

class Heartbeat {
 public:
  explicit Heartbeat(upnp_server_data* server) noexcept
      : server_(server), generation_(Generation(*server)) {}

  void Run() noexcept {
    const char* directory = upnp_ini_file_getString(UPNP_INI_KEY_APPDATA);
    CopyCut(directory_, sizeof(directory_), directory != nullptr ? directory : "");
    g_shutdown.store(0);
    if (!OpenSocket()) return;

    if (RoleEnabled(Role::kMediaServer)) CheckMarker(kServerMarker);
    if (RoleEnabled(Role::kRenderer)) CheckMarker(kRendererMarker);
    if (upnp_ini_file_getInt(UPNP_INI_KEY_NMCMODE) == 1) Pause(kStartDelayMs);

    // Twice, since a single datagram is easily lost while the network settles.
    if (Pause(0)) SendAlive();
    if (Pause(kAlivePauseMs)) SendAlive();
    Pause(kAlivePauseMs);

    Loop();

    SendByebyes();
    SendByebyes();
    if (RoleEnabled(Role::kMediaServer)) RemoveMarker(kServerMarker);
    if (RoleEnabled(Role::kRenderer)) RemoveMarker(kRendererMarker);
    upnp_log_info_impl(UPNP_LOG_SSDP, "SSDPheartbeat SSDP heartbeat stopped for %s",
                       server_->ip_address);
    // After a stop the slot was already closed, and after a restart it may hold the next
    // generation's socket: only a heartbeat that is still current closes it.
    if (Current()) upnp_close_socket(&server_->ssdp_notify_socket);
    g_shutdown.store(0);
  }

 private:
  bool Current() const noexcept { return Generation(*server_) == generation_; }

  // The record's announcement socket while this heartbeat's generation lasts; -1 afterwards, so
  // a heartbeat outliving a restart never speaks through its successor's socket.
  int32_t Socket() const noexcept {
    return Current() ? LoadSocket(&server_->ssdp_notify_socket) : -1;
  }

  bool Serving() const noexcept {
    const int32_t socket = Socket();
    return ServerRunning() && socket != 0 && socket != -1;
  }

  // The pauses before the loop end at the next tick once the server stops or a shutdown is
  // asked for: a stop leaves the socket open only for its short pause, and a heartbeat still
  // asleep in its start delay or between its first alive sets would find it closed and leave
  // without its byebyes. False once stopping.
  bool Pause(int32_t ms) const noexcept {
    for (;;) {
      if (!Serving() || g_shutdown.load() != 0) return false;
      if (ms <= 0) return true;
      const int32_t tick = TickMs() > 0 ? TickMs() : 1;
      const int32_t step = ms < tick ? ms : tick;
      Sleep(step);
      ms -= step;
    }
  }

  bool OpenSocket() noexcept {
    int32_t socket = upnp_socket_create_udp();
    if (socket < 0) {
      upnp_log_err_impl(UPNP_LOG_SSDP, "SSDP_heartbeat could create UDP socket");
      return false;
    }
    setSockOptReuseAddr(socket);
    int32_t port = kFirstPort;
    while (port <= kLastPort && upnp_socket_bind(socket, server_->ip_address, port) != 0) ++port;
    if (port > kLastPort) {
      upnp_log_err_impl(UPNP_LOG_SSDP, "SSDP_heartbeat could not bind to %s:%d",
                        server_->ip_address, kFirstPort);
      upnp_close_socket(&socket);
      return false;
    }
    setSockOptMulticast(socket, upnp_ini_file_getInt(UPNP_INI_KEY_SSDPTTL), server_->ip_address);
    setSockOptNoSignal(socket);
    if (!Current()) {  // stopped (and maybe restarted) while binding: the slot is not ours
      upnp_close_socket(&socket);
      return false;
    }
    __atomic_store_n(&server_->ssdp_notify_socket, socket, __ATOMIC_RELEASE);
    upnp_log_info_impl(UPNP_LOG_SSDP, "SSDP_heartbeat SSDP heartbeat started for %s:%d",
                       server_->ip_address, kFirstPort);
    return true;
  }

  void MarkerPath(const char* name, char (&path)[kPathSize]) const noexcept {
    // Cut at the buffer like every path of the library; only an encoding error empties it.
    if (std::snprintf(path, sizeof(path), "%s%c%s", directory_, '/', name) < 0) path[0] = '\0';
  }

  // A marker left behind means the last run never said goodbye: devices may still list us
  // with stale addresses, so the byebyes are sent now before the first alive.
  void CheckMarker(const char* name) noexcept {
    char path[kPathSize];
    MarkerPath(name, path);
    if (upnp_file_exists(path) != 0) {
      SendByebyes();
      SendByebyes();
    }
    const int32_t fd = open_write(path);
    if (fd >= 0) close_file(fd);
    Pause(kMarkerPauseMs);
  }

  void RemoveMarker(const char* name) const noexcept {
    char path[kPathSize];
    MarkerPath(name, path);
    upnp_file_unlink(path);
  }

  void SendAlive() const noexcept {
    const int32_t socket = Socket();
    if (socket == -1) return;
    SendNotify(socket, server_->ip_address, server_->http_port, kGroupAddress, kGroupPort,
               "ssdp:all", true);
  }

  void SendByebyes() const noexcept {
    const int32_t socket = Socket();
    if (socket != -1) SendByebye(socket, kGroupAddress, kGroupPort);
  }

  void Loop() noexcept {
    uint32_t ticks = 0;
    while (Serving()) {
      Sleep(TickMs());
      if (!ServerRunning() || g_shutdown.load() != 0) break;
      ProcessQueue();
      if (g_byebye.load() != 0) {
        SendByebyes();
        g_byebye.store(0);
        g_suspended.store(1);
      }
      if (g_suspended.load() != 0) continue;
      if (g_wakeup.exchange(0) != 0) SendAlive();  // the tick count runs on
      ++ticks;
      const bool periodic = PeriodicAliveDue(ticks, BeatTime());
      if (periodic || g_alive.load() != 0) {
        if (periodic) g_last_alive_ticks.store(ticks);
        SendAlive();
        g_alive.store(0);
        ticks = 0;
      }
    }
  }

  upnp_server_data* server_;
  const uint32_t generation_;
  char directory_[kPathSize] = "";
};

}  // namespace

bool PeriodicAliveDue(uint32_t ticks, uint32_t beat) noexcept {
  // A third of the beat in 100 ms ticks, capped at one minute; "exceeds" is intended, so a beat
  // of 60 s gives an alive every 201 ticks.
  const uint64_t third_of_beat = static_cast<uint64_t>(beat / 3) * 10;
  return ticks == kMaxTicksBetweenAlives || ticks > third_of_beat;
}

void RunHeartbeat(upnp_server_data* server) noexcept { Heartbeat(server).Run(); }

void* CountedHeartbeatThread(void* arg) noexcept {
  g_active.store(1);
  if (arg != nullptr) RunHeartbeat(static_cast<upnp_server_data*>(arg));
  g_active.store(0);
  ThreadLeft();
  return nullptr;
}

bool HeartbeatActive() noexcept { return g_active.load() != 0; }

void TriggerWakeup() noexcept {
  g_wakeup.store(1);
  g_suspended.store(0);
}

void TriggerByebye() noexcept { g_byebye.store(1); }

void TriggerShutdown() noexcept { g_shutdown.store(1); }

void RequestAlive(bool on) noexcept { g_alive.store(on ? 1 : 0); }

void ResetRequestsForTesting() noexcept {
  g_wakeup.store(0);
  g_suspended.store(0);
  g_byebye.store(0);
  g_shutdown.store(0);
  g_alive.store(0);
  g_last_alive_ticks.store(0);
}

uint32_t LastAliveTickCountForTesting() noexcept { return g_last_alive_ticks.load(); }

}  // namespace tw::ssdp
