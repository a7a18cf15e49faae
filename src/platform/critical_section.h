// SPDX-License-Identifier: Apache-2.0
// RAII access to critical sections.
//
// Lock order (take them in this order only, never the reverse):
//   global -> configuration -> client database -> SSDP answer queue -> log -> memory
// Memory is a leaf: nothing is called while it is held. Internal code enters a section once per
// call path through CsGuard; a re-entry is legal but logs a problem line, and re-entering the log's
// own section would log under it, so never do that.
#pragma once

#include <atomic>

#include "tarnwick/platform.h"

namespace tw {

class CsGuard {
 public:
  explicit CsGuard(CRITICAL_SECTION* cs) noexcept : cs_(cs) { EnterCriticalSection(cs_); }
  ~CsGuard() { LeaveCriticalSection(cs_); }
  CsGuard(const CsGuard&) = delete;
  CsGuard& operator=(const CsGuard&) = delete;

 private:
  CRITICAL_SECTION* cs_;
};

// The one way a subsystem makes its lock on demand: a critical section that comes and goes with the
// subsystem's init and exit while other threads may still call in.
//
// The mutex lives in static storage, is initialised by the first Create (or EnterCreating) and is
// never torn down: a thread that found the lock live a moment before an exit may still be
// entering it, so its memory must stay valid and initialised for the life of the process. Destroy
// therefore only marks the lock dead, under the lock itself, and Enter checks again once inside,
// so a thread that was waiting learns that it holds nothing. A later Create makes it live again.
// Constant-initialised: usable from any thread, before or after main. The mutex takes no
// accounted memory.
class LazyCriticalSection {
 public:
  constexpr LazyCriticalSection() noexcept = default;
  LazyCriticalSection(const LazyCriticalSection&) = delete;
  LazyCriticalSection& operator=(const LazyCriticalSection&) = delete;

  // Makes the lock live: true when this call did, false when it was live already.
  bool Create() noexcept;
  // Marks the lock dead once its current holder (if any other thread) has left: true when this
  // call did, false when it was not live. The caller may hold it; it still leaves it as usual.
  bool Destroy() noexcept;
  bool Live() const noexcept;
  // True when the calling thread holds the mutex, live or not.
  bool HeldByCaller() const noexcept;
  // Enters when the lock is live: true when the caller now holds it, false (nothing held) when it
  // is not or it died while the caller waited.
  bool Enter() noexcept;
  // Creates the lock when needed, then enters it; for locks that exist from first use on.
  bool EnterCreating() noexcept;
  // Leaves after a successful Enter (whether or not the lock died meanwhile).
  void Leave() noexcept;

 private:
  enum State : int { kNever, kInitialising, kDead, kLive };
  // Waits (bounded) while another thread initialises the mutex; the state it settled on.
  int SettledState() const noexcept;

  CRITICAL_SECTION cs_{};
  std::atomic<int> state_{kNever};
};

// Holds a LazyCriticalSection for a scope when it is live (or, with create, after making it).
class LazyGuard {
 public:
  explicit LazyGuard(LazyCriticalSection& lock, bool create = false) noexcept
      : lock_(lock), held_(create ? lock.EnterCreating() : lock.Enter()) {}
  ~LazyGuard() {
    if (held_) lock_.Leave();
  }
  LazyGuard(const LazyGuard&) = delete;
  LazyGuard& operator=(const LazyGuard&) = delete;
  bool held() const noexcept { return held_; }

 private:
  LazyCriticalSection& lock_;
  bool held_;
};

}  // namespace tw
