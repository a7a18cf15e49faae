// SPDX-License-Identifier: Apache-2.0
// Re-entrant critical sections over a plain (non-recursive) mutex: the owner and a depth count
// make re-entry explicit, so every re-entry can be reported.
#include "platform/critical_section.h"

#include <pthread.h>
#include <sched.h>

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

namespace tw {
namespace {

// Rounds a thread yields while another one initialises a mutex (microseconds in practice).
constexpr int kInitialiseWaitRounds = 100000;

}  // namespace

int LazyCriticalSection::SettledState() const noexcept {
  int state = state_.load(std::memory_order_acquire);
  for (int round = 0; state == kInitialising && round < kInitialiseWaitRounds; ++round) {
    sched_yield();
    state = state_.load(std::memory_order_acquire);
  }
  return state;
}

bool LazyCriticalSection::Create() noexcept {
  int state = state_.load(std::memory_order_acquire);
  if (state == kNever &&
      state_.compare_exchange_strong(state, kInitialising, std::memory_order_acq_rel)) {
    InitializeCriticalSection(&cs_);
    state_.store(kLive, std::memory_order_release);
    return true;
  }
  state = SettledState();
  // Dead means no thread holds it as live any more, so it can simply come back.
  return state == kDead && state_.compare_exchange_strong(state, kLive, std::memory_order_acq_rel);
}

bool LazyCriticalSection::Destroy() noexcept {
  if (SettledState() != kLive) return false;
  // Entering waits for the current holder; a caller that holds it marks it dead in place.
  const bool held = HeldByCaller();
  if (!held) EnterCriticalSection(&cs_);
  int expected = kLive;
  const bool done = state_.compare_exchange_strong(expected, kDead, std::memory_order_acq_rel);
  if (!held) LeaveCriticalSection(&cs_);
  return done;
}

bool LazyCriticalSection::Live() const noexcept {
  return state_.load(std::memory_order_acquire) == kLive;
}

bool LazyCriticalSection::HeldByCaller() const noexcept {
  return state_.load(std::memory_order_acquire) >= kDead && LoadOwner(&cs_) == pthread_self();
}

bool LazyCriticalSection::Enter() noexcept {
  if (!Live()) return false;
  EnterCriticalSection(&cs_);
  if (Live()) return true;
  LeaveCriticalSection(&cs_);
  return false;
}

bool LazyCriticalSection::EnterCreating() noexcept {
  Create();
  return Enter();
}

void LazyCriticalSection::Leave() noexcept { LeaveCriticalSection(&cs_); }

}  // namespace tw
