// SPDX-License-Identifier: Apache-2.0
// Internals of the thread wrappers, visible to the unit tests.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace tw::platform {

// The scheduling priority the library asks for at a priority level (3..7; others mean 5).
int ThreadPriorityForLevel(int32_t level) noexcept;

// The thread-creation call; tests replace it to drive the retry and fallback paths.
using ThreadCreateFn = int (*)(pthread_t* thread, const pthread_attr_t* attr,
                               void* (*routine)(void*), void* arg);
// Installs fn for every later start; null restores pthread_create.
void SetThreadCreateForTesting(ThreadCreateFn fn) noexcept;

}  // namespace tw::platform
