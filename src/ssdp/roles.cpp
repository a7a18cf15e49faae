// SPDX-License-Identifier: Apache-2.0
// Process-wide discovery settings: the device roles, the optional searches, the search
// intervals and the beat time. Hosts write them from any thread while the discovery threads
// read them, so every access is atomic.
#include <atomic>
#include <cstdint>

#include "ssdp/ssdp_internal.h"

extern "C" {
// Exported plain words (hosts read them directly); the library only touches them atomically.
TW_API uint32_t g_UPNP_SSDP_BEAT_TIME = 1810;
TW_API int32_t g_bHaveWMDRM = 0;
}

namespace tw::ssdp {
namespace {

constexpr uint32_t kDefaultBeatTime = 1810;
constexpr uint32_t kMinimumBeatTime = 60;
constexpr int kRoleCount = 5;
constexpr int kSearchOptionCount = 4;

std::atomic<int32_t> g_roles[kRoleCount];
std::atomic<int32_t> g_control_point{0};
std::atomic<int32_t> g_search_options[kSearchOptionCount];
std::atomic<int32_t> g_search_interval_ms{0};
std::atomic<int32_t> g_initial_search_interval_ms{0};

}  // namespace

bool RoleEnabled(Role role) noexcept {
  return g_roles[static_cast<int>(role)].load(std::memory_order_relaxed) != 0;
}

void SetRole(Role role, int32_t value) noexcept {
  g_roles[static_cast<int>(role)].store(value, std::memory_order_relaxed);
}

bool ControlPoint() noexcept { return g_control_point.load(std::memory_order_relaxed) != 0; }

void SetControlPoint(int32_t value) noexcept {
  g_control_point.store(value, std::memory_order_relaxed);
}

bool SearchEnabled(SearchOption option) noexcept {
  return g_search_options[static_cast<int>(option)].load(std::memory_order_relaxed) != 0;
}

void SetSearch(SearchOption option, int32_t value) noexcept {
  g_search_options[static_cast<int>(option)].store(value, std::memory_order_relaxed);
}

int32_t SearchIntervalMs() noexcept { return g_search_interval_ms.load(std::memory_order_relaxed); }

void SetSearchIntervalMs(int32_t ms) noexcept {
  g_search_interval_ms.store(ms, std::memory_order_relaxed);
}

int32_t InitialSearchIntervalMs() noexcept {
  return g_initial_search_interval_ms.load(std::memory_order_relaxed);
}

void SetInitialSearchIntervalMs(int32_t ms) noexcept {
  g_initial_search_interval_ms.store(ms, std::memory_order_relaxed);
}

uint32_t BeatTime() noexcept { return __atomic_load_n(&g_UPNP_SSDP_BEAT_TIME, __ATOMIC_RELAXED); }

void SetBeatTime(uint32_t seconds) noexcept {
  // Shorter beats would flood the network with alives; such values are dropped, not clamped.
  if (seconds < kMinimumBeatTime) return;
  __atomic_store_n(&g_UPNP_SSDP_BEAT_TIME, seconds, __ATOMIC_RELAXED);
}

void ResetSettingsForTesting() noexcept {
  for (auto& role : g_roles) role.store(0);
  for (auto& option : g_search_options) option.store(0);
  g_control_point.store(0);
  g_search_interval_ms.store(0);
  g_initial_search_interval_ms.store(0);
  __atomic_store_n(&g_UPNP_SSDP_BEAT_TIME, kDefaultBeatTime, __ATOMIC_RELAXED);
  __atomic_store_n(&g_bHaveWMDRM, 0, __ATOMIC_RELAXED);
}

}  // namespace tw::ssdp
