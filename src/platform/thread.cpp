// SPDX-License-Identifier: Apache-2.0
// Thread start with a priority level, and the Win32-style millisecond sleep.
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "platform/detached_thread.h"
#include "platform/log_hook.h"
#include "platform/memory_release.h"
#include "platform/thread_internal.h"
#include "tarnwick/platform.h"

namespace tw::platform {
namespace {

constexpr int kSchedPolicyNormal = 0;  // SCHED_OTHER on Linux and Android
constexpr size_t kThreadStackBytes = 0x20000;
constexpr int32_t kRetryPauseMs = 20;

struct LevelPriority {
  int32_t level;
  int priority;
};
constexpr LevelPriority kLevelPriorities[] = {{3, 10}, {4, 30}, {5, 50}, {6, 70}, {7, 90}};
static_assert(sizeof(kLevelPriorities) / sizeof(kLevelPriorities[0]) == 5);
constexpr int kDefaultPriority = 50;

std::atomic<ThreadCreateFn> g_create{nullptr};

int CreateThread(pthread_t* thread, const pthread_attr_t* attr, void* (*routine)(void*),
                 void* arg) noexcept {
  ThreadCreateFn fn = g_create.load(std::memory_order_acquire);
  if (fn != nullptr) return fn(thread, attr, routine, arg);
  return pthread_create(thread, attr, routine, arg);
}

}  // namespace

int ThreadPriorityForLevel(int32_t level) noexcept {
  for (const LevelPriority& entry : kLevelPriorities) {
    if (entry.level == level) return entry.priority;
  }
  return kDefaultPriority;
}

void SetThreadCreateForTesting(ThreadCreateFn fn) noexcept {
  g_create.store(fn, std::memory_order_release);
}

void ReleaseUnusedStack() noexcept {
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
  void* base = nullptr;
  size_t size = 0;
  if (pthread_attr_getstack(&attr, &base, &size) == 0 && base != nullptr) {
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto low = reinterpret_cast<uintptr_t>(base);
    // Two pages of margin below this frame: what runs after the call (the return, the thread's
    // exit) grows the stack a little again.
    char here = 0;
    const uintptr_t high = (reinterpret_cast<uintptr_t>(&here) - 2 * page) & ~(page - 1);
    if (high > low) madvise(base, high - low, MADV_DONTNEED);
  }
  pthread_attr_destroy(&attr);
}

bool StartDetachedThread(void* (*routine)(void*), void* arg) noexcept {
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return false;
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attr, kThreadStackBytes);
  pthread_t thread = 0;
  const int rc = CreateThread(&thread, &attr, routine, arg);
  pthread_attr_destroy(&attr);
  return rc == 0;
}

pthread_t StartJoinableThread(void* (*routine)(void*), void* arg, int32_t level) noexcept {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  // glibc refuses a non-zero priority for the normal policy right here (the attribute keeps 0
  // and the first start succeeds); bionic accepts it here and fails the start instead, which
  // leads to the start with default attributes below.
  pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(&attr, kSchedPolicyNormal);
  sched_param param{};
  param.sched_priority = ThreadPriorityForLevel(level);
  pthread_attr_setschedparam(&attr, &param);
  pthread_attr_setstacksize(&attr, kThreadStackBytes);

  pthread_t thread = 0;
  int rc = CreateThread(&thread, &attr, routine, arg);
  if (rc == 0) {
    pthread_attr_destroy(&attr);
    return thread;
  }
  if (rc == EAGAIN) {
    tw::platform::Log(UPNP_LOG_LEVEL_PROBLEM, UPNP_LOG_SYSTEM,
                      "upnp_start_joinable_thread Not enough resources to start thread - "
                      "retrying");
    Sleep(kRetryPauseMs);
    rc = CreateThread(&thread, &attr, routine, arg);
    if (rc == EAGAIN) {
      tw::platform::Log(UPNP_LOG_LEVEL_ERROR, UPNP_LOG_SYSTEM,
                        "upnp_start_joinable_thread Second try to start thread failed - giving up");
      pthread_attr_destroy(&attr);
      return 0;
    }
  }
  // Reached after any other first failure and after a second try that did not end in EAGAIN,
  // successful ones included: the routine then runs twice. Intended: changing the flow changes
  // how often the routine runs and which thread the caller gets back. Pinned by
  // PlatformThread.StartRetriesOnShortageAndFallsBackToDefaults.
  tw::platform::Log(UPNP_LOG_LEVEL_PROBLEM, UPNP_LOG_SYSTEM,
                    "upnp_start_joinable_thread Failed to start thread with requested "
                    "priority and scheduler - trying default");
  thread = 0;
  if (CreateThread(&thread, nullptr, routine, arg) != 0) {
    tw::platform::Log(UPNP_LOG_LEVEL_PROBLEM, UPNP_LOG_SYSTEM,
                      "upnp_start_joinable_thread Failed to start thread with defaults - "
                      "giving up");
    thread = 0;
  }
  pthread_attr_destroy(&attr);
  return thread;
}

}  // namespace tw::platform

extern "C" {

TW_API pthread_t upnp_start_joinable_thread(upnp_thread_routine routine, void* arg,
                                            int32_t level) noexcept {
  if (routine == nullptr) return 0;
  return tw::platform::StartJoinableThread(routine, arg, level);
}

TW_API int upnp_start_thread(upnp_thread_routine routine, void* arg, int32_t level) noexcept {
  const pthread_t thread = upnp_start_joinable_thread(routine, arg, level);
  if (thread == 0) return 0;
  return pthread_detach(thread);
}

TW_API void upnp_init_thread(const char*) noexcept {}

TW_API void upnp_kill_joinable_thread(pthread_t) noexcept {}

TW_API void Sleep(int32_t ms) noexcept {
  timespec request{};
  request.tv_sec = ms / 1000;
  request.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  // A negative ms gives negative fields, which nanosleep refuses at once: no sleep, as meant.
  nanosleep(&request, nullptr);
}

}  // extern "C"
