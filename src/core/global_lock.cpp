// SPDX-License-Identifier: Apache-2.0
// The global lock: serialises host calls into shared tables. The first start makes it, it
// survives restarts, and a stop outside a restart destroys it; a thread that waited for it while
// it was being destroyed learns that it holds nothing. Its storage is static and never freed, so
// no thread can touch it after it went away (LazyCriticalSection).
#include "core/core.h"
#include "platform/critical_section.h"

namespace tw::core {
namespace {

LazyCriticalSection g_lock;

}  // namespace

void CreateGlobalLock() noexcept { g_lock.Create(); }

void DestroyGlobalLock() noexcept { g_lock.Destroy(); }

bool EnterGlobalLock() noexcept { return g_lock.Enter(); }

// A holder leaves even when a stop destroyed the lock meanwhile; anyone else only while it lives,
// so an unlock after the stop touches nothing.
void LeaveGlobalLock() noexcept {
  if (g_lock.Live() || g_lock.HeldByCaller()) g_lock.Leave();
}

bool GlobalLockExists() noexcept { return g_lock.Live(); }

}  // namespace tw::core
