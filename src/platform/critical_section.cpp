// SPDX-License-Identifier: Apache-2.0
// Re-entrant critical sections over a plain (non-recursive) mutex: the owner and a depth count
// make re-entry explicit, so every re-entry can be reported.
#include <pthread.h>

#include <cstdio>

#include "platform/log_hook.h"
#include "tarnwick/platform.h"

namespace {

// The owner is read by threads that do not hold the mutex (to detect re-entry), so every access
// is atomic; a thread only ever finds its own id there if it stored it itself.
inline pthread_t LoadOwner(const CRITICAL_SECTION* cs) noexcept {
  return __atomic_load_n(&cs->owner, __ATOMIC_RELAXED);
}
inline void StoreOwner(CRITICAL_SECTION* cs, pthread_t owner) noexcept {
  __atomic_store_n(&cs->owner, owner, __ATOMIC_RELAXED);
}

}  // namespace

extern "C" {

TW_API void InitializeCriticalSection(CRITICAL_SECTION* cs) noexcept {
  if (cs == nullptr) return;
  if (pthread_mutex_init(&cs->mutex, nullptr) != 0) std::fputs("can't init mutex\n", stderr);
  StoreOwner(cs, 0);
  cs->depth = 0;
}

TW_API void DeleteCriticalSection(CRITICAL_SECTION* cs) noexcept {
  if (cs == nullptr) return;
  pthread_mutex_destroy(&cs->mutex);
}

TW_API void EnterCriticalSection(CRITICAL_SECTION* cs) noexcept {
  if (cs == nullptr) return;
  const pthread_t self = pthread_self();
  if (LoadOwner(cs) == self) {
    ++cs->depth;
    tw::platform::Log(UPNP_LOG_LEVEL_PROBLEM, UPNP_LOG_SYSTEM,
                      "Thread entered critical section for the %d. time",
                      static_cast<int>(cs->depth + 1));
    return;
  }
  pthread_mutex_lock(&cs->mutex);
  StoreOwner(cs, self);
}

TW_API void LeaveCriticalSection(CRITICAL_SECTION* cs) noexcept {
  if (cs == nullptr) return;
  const pthread_t self = pthread_self();
  const pthread_t owner = LoadOwner(cs);
  if (owner == self && cs->depth > 0) {
    --cs->depth;
    return;
  }
  if (owner != self)
    tw::platform::Log(UPNP_LOG_LEVEL_PROBLEM, UPNP_LOG_SYSTEM,
                      "Thread leaves critical section not owning");
  StoreOwner(cs, 0);
  pthread_mutex_unlock(&cs->mutex);
}

}  // extern "C"
