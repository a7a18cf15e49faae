// SPDX-License-Identifier: Apache-2.0
// Bookkeeping of the discovery threads and the view they take of the server state. The state
// word, the stop generation and the socket slots are plain words written by other threads
// (start, stop, the watchdog), so they are read with atomic loads here.
#include <atomic>
#include <cstdint>

#include "ssdp/ssdp_internal.h"
#include "tarnwick/core.h"
#include "tarnwick/platform.h"

namespace tw::ssdp {
namespace {

constexpr int32_t kDefaultTickMs = 100;
constexpr int32_t kRunning = 1;

std::atomic<int32_t> g_threads{0};
std::atomic<int32_t> g_tick_ms{kDefaultTickMs};

}  // namespace

bool ServerRunning() noexcept {
  return __atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE) == kRunning;
}

uint32_t Generation(const upnp_server_data& server) noexcept {
  return __atomic_load_n(&server.stop_generation, __ATOMIC_ACQUIRE);
}

int32_t LoadSocket(const int32_t* slot) noexcept { return __atomic_load_n(slot, __ATOMIC_ACQUIRE); }

bool InstallSocket(int32_t* slot, int32_t socket) noexcept {
  int32_t expected = -1;
  return __atomic_compare_exchange_n(slot, &expected, socket, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE);
}

void ThreadEntered() noexcept { g_threads.fetch_add(1, std::memory_order_acq_rel); }

void ThreadLeft() noexcept { g_threads.fetch_sub(1, std::memory_order_acq_rel); }

void StartCountedThread(void* (*routine)(void*), void* arg, int32_t level) noexcept {
  ThreadEntered();
  // A start that fails outright is logged by the thread layer; its result cannot tell that
  // apart from success, so the count then stays raised (only tests look at it).
  upnp_start_thread(routine, arg, level);
}

int32_t TickMs() noexcept { return g_tick_ms.load(std::memory_order_relaxed); }

void SetTickForTesting(int32_t ms) noexcept {
  g_tick_ms.store(ms > 0 ? ms : kDefaultTickMs, std::memory_order_relaxed);
}

int32_t RunningThreadsForTesting() noexcept { return g_threads.load(std::memory_order_acquire); }

}  // namespace tw::ssdp
