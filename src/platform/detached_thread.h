// SPDX-License-Identifier: Apache-2.0
// A fire-and-forget thread for work that owns its argument.
#pragma once

namespace tw::platform {

// Starts routine(arg) once on a thread nobody joins: true when it runs, false when no thread
// could be started (arg then still belongs to the caller). The exported starters retry in a way
// that can run a routine twice, which a routine that frees its argument must not face. The
// thread runs on a 160 KiB stack of the library's own, unmapped once the thread has ended, so
// a burst of threads leaves no stacks behind.
bool StartDetachedThread(void* (*routine)(void*), void* arg) noexcept;

// Joins and unmaps the threads of StartDetachedThread that have ended (normally done by the
// next one that ends or starts), so tests can see every stack gone.
void ReapEndedThreadsForTesting() noexcept;

}  // namespace tw::platform
