// SPDX-License-Identifier: Apache-2.0
// A fire-and-forget thread for work that owns its argument.
#pragma once

namespace tw::platform {

// Starts routine(arg) once on a detached thread with the library's stack size: true when it
// runs, false when no thread could be started (arg then still belongs to the caller). The
// exported starters retry in a way that can run a routine twice, which a routine that frees its
// argument must not face.
bool StartDetachedThread(void* (*routine)(void*), void* arg) noexcept;

}  // namespace tw::platform
