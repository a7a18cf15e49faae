// SPDX-License-Identifier: Apache-2.0
// A fire-and-forget thread for work that owns its argument.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tw::platform {

// The stack of a thread of StartDetachedThread: room for a connection's request record and a
// handler's frames. The thread sanitizer keeps close to a megabyte of its own state on every
// thread's stack, so its builds get that much more.
#if defined(__SANITIZE_THREAD__)
inline constexpr size_t kDetachedStackBytes = 0x28000 + 0x200000;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr size_t kDetachedStackBytes = 0x28000 + 0x200000;
#else
inline constexpr size_t kDetachedStackBytes = 0x28000;
#endif
#else
inline constexpr size_t kDetachedStackBytes = 0x28000;
#endif

// Starts routine(arg) once on a thread nobody joins: true when it runs, false when no thread
// could be started (arg then still belongs to the caller). The exported starters retry in a way
// that can run a routine twice, which a routine that frees its argument must not face. The
// thread runs on a stack of the library's own (kDetachedStackBytes), unmapped once the thread
// has ended, so a burst of threads leaves no stacks behind. The routine must return: a thread
// ended early (upnp_end_thread) would never give its stack back.
bool StartDetachedThread(void* (*routine)(void*), void* arg) noexcept;

// Stacks of those threads mapped now: the running ones, the ended ones not yet unmapped and the
// few kept for reuse (for tests and diagnostics).
int32_t MappedDetachedStacks() noexcept;

}  // namespace tw::platform
