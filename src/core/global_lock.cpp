// SPDX-License-Identifier: Apache-2.0
// The global lock: serialises host calls into shared tables. It is made on the heap at the first
// start, survives restarts, and is destroyed by a stop; a thread that waited for it while it was
// being destroyed must learn that it holds nothing.
#include <atomic>

#include "core/core.h"
#include "tarnwick/platform.h"

namespace tw::core {
namespace {

// Gives threads that loaded the pointer just before it was cleared time to get through the
// mutex before it is destroyed and freed.
constexpr int32_t kDestroyGraceMs = 20;

std::atomic<CRITICAL_SECTION*> g_lock{nullptr};

}  // namespace

void CreateGlobalLock() noexcept {
  if (g_lock.load() != nullptr) return;
  auto* lock = static_cast<CRITICAL_SECTION*>(upnp_malloc_impl(sizeof(CRITICAL_SECTION)));
  if (lock == nullptr) return;
  InitializeCriticalSection(lock);
  CRITICAL_SECTION* expected = nullptr;
  if (!g_lock.compare_exchange_strong(expected, lock)) {
    // Another start made one first.
    DeleteCriticalSection(lock);
    upnp_free_impl(lock);
  }
}

void DestroyGlobalLock() noexcept {
  CRITICAL_SECTION* lock = g_lock.load();
  if (lock == nullptr) return;
  EnterCriticalSection(lock);
  CRITICAL_SECTION* expected = lock;
  const bool ours = g_lock.compare_exchange_strong(expected, nullptr);
  LeaveCriticalSection(lock);
  if (!ours) return;  // another stop destroys it
  // The grace period comes before the destruction (not between destruction and free), so a
  // waiter woken by the leave above still finds a valid mutex to leave again.
  Sleep(kDestroyGraceMs);
  DeleteCriticalSection(lock);
  upnp_free_impl(lock);
}

bool EnterGlobalLock() noexcept {
  CRITICAL_SECTION* lock = g_lock.load();
  if (lock == nullptr) return false;
  EnterCriticalSection(lock);
  if (g_lock.load() != lock) {
    LeaveCriticalSection(lock);
    return false;
  }
  return true;
}

void LeaveGlobalLock() noexcept {
  CRITICAL_SECTION* lock = g_lock.load();
  if (lock != nullptr) LeaveCriticalSection(lock);
}

bool GlobalLockExists() noexcept { return g_lock.load() != nullptr; }

}  // namespace tw::core
