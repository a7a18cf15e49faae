// SPDX-License-Identifier: Apache-2.0
// Restart on a change of the network interfaces: when asked to, or every 30 s when property 2
// is set, the interfaces are enumerated again and compared with the served ones by text; a new
// count or a vanished address restarts the servers.
#include <atomic>
#include <cstring>

#include "base/fixed_text.h"
#include "server/server_core.h"
#include "tarnwick/config.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace tw::server {
namespace {

constexpr int64_t kCheckIntervalSeconds = 29;  // "more than 29 s since the last check"
// Lets the interfaces settle and the old threads end before the servers come back.
constexpr int32_t kRestartPauseMs = 1000;

std::atomic<int32_t> g_nic_change_requested{0};
std::atomic<int32_t> g_in_restart{0};
std::atomic<int64_t> g_last_check{0};
std::atomic<int32_t> g_restart_pause_ms{kRestartPauseMs};

bool AllServedAddressesPresent(const char (*found)[core::kAddressSize],
                               int32_t found_count) noexcept {
  const int32_t count = core::InterfaceCount();
  for (int32_t index = 0; index < count; ++index) {
    upnp_log_info_impl(UPNP_LOG_SYSTEM, "check_NIC_change IP verify: %s", g_IPaddress[index]);
    bool present = false;
    for (int32_t other = 0; other < found_count && !present; ++other) {
      present = std::strcmp(g_IPaddress[index], found[other]) == 0;
    }
    if (!present) return false;
  }
  return true;
}

void Restart() noexcept {
  upnp_log_info_impl(UPNP_LOG_SYSTEM, "check_NIC_change Server restarting due to NIC changes");
  g_in_restart.store(1);
  g_nic_change_requested.store(0);
  // Null state words: the host's word stays 1 throughout, and stop keeps the global lock.
  Stop(nullptr);
  const core::DtcpCallbacks dtcp = core::Dtcp();
  if (dtcp.nic_change != nullptr) dtcp.nic_change();
  Sleep(g_restart_pause_ms.load());
  Start(nullptr);
  g_in_restart.store(0);
  const upnp_cp_callback_fn callback = core::ControlPointCallback();
  if (callback != nullptr) callback();
}

}  // namespace

void CheckNicChange(int64_t now) noexcept {
  const bool requested = g_nic_change_requested.load() != 0;
  const bool periodic = upnp_ini_file_isSet(UPNP_INI_KEY_NICRESTART) != 0 &&
                        now - g_last_check.load() > kCheckIntervalSeconds;
  if (!requested && !periodic) return;
  g_nic_change_requested.store(0);
  g_last_check.store(now);

  char found[core::kMaxInterfaces][core::kAddressSize] = {};
  int32_t found_count = EnumerateInterfaces(found);
  // Start serves the loopback address when nothing is found; compare with what it would serve,
  // or a machine without interfaces would restart on every check.
  if (found_count == 0) {
    CopyCut(found[0], sizeof(found[0]), core::kLoopbackAddress);
    found_count = 1;
  }
  const int32_t count = core::InterfaceCount();
  upnp_log_info_impl(UPNP_LOG_SYSTEM, "check_NIC_change IP count: %d / %d",
                     static_cast<int>(found_count), static_cast<int>(count));
  if (found_count == count && AllServedAddressesPresent(found, found_count)) return;
  Restart();
}

void TriggerNicChange() noexcept { g_nic_change_requested.store(1); }

bool InRestart() noexcept { return g_in_restart.load() != 0; }

void SetRestartPauseForTesting(int32_t ms) noexcept {
  g_restart_pause_ms.store(ms >= 0 ? ms : kRestartPauseMs);
}

void ResetForTesting() noexcept {
  g_nic_change_requested.store(0);
  g_in_restart.store(0);
  g_last_check.store(0);
  core::SetDtcp(core::DtcpCallbacks{});
  core::SetWmdrm(core::WmdrmCallbacks{});
  core::SetControlPointCallback(nullptr);
  core::SetRemotePort(0);
}

}  // namespace tw::server
