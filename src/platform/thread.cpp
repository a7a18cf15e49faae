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

namespace {

// Threads that own their work (connection workers, one-off checks) run on stacks the library
// maps itself and unmaps once the thread is gone. The C library would keep the stacks of ended
// threads for reuse (about forty megabytes' worth), each with every page its thread touched:
// after a burst of a thousand connections that is megabytes that never come back. Such a thread
// cannot unmap its own stack, so each one, as it ends, joins and unmaps the ones that ended
// before it, and every start does the same. The last of a burst, when others ended alongside
// it, hands that to a short-lived thread: nothing may start or end for a long time after.
constexpr size_t kOwnStackBytes = kDetachedStackBytes;

struct OwnStack {
  void* (*routine)(void*);
  void* arg;
  pthread_t thread;
  void* mapping;
  size_t mapping_size;
  OwnStack* next;  // in the list of ended threads
};

std::atomic<OwnStack*> g_ended{nullptr};
std::atomic<int32_t> g_ended_count{0};  // in g_ended, or taken from it and not yet unmapped
std::atomic<int32_t> g_running{0};      // started and not yet in g_ended
std::atomic<int32_t> g_mapped{0};       // stacks mapped and not yet unmapped
constexpr size_t kReaperStackBytes = 0x10000;
// Stacks kept for the next threads, with their pages: connections that come one after another
// (one request each, as many renderers make them) then cost no mapping, no faults and no
// unmapping, whose flush of the other cores' address caches is the dearest part.
constexpr size_t kCachedStacks = 4;
std::atomic<OwnStack*> g_cached[kCachedStacks] = {};

bool CacheStack(OwnStack* own) noexcept {
  for (std::atomic<OwnStack*>& slot : g_cached) {
    OwnStack* empty = nullptr;
    if (slot.compare_exchange_strong(empty, own, std::memory_order_release,
                                     std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

OwnStack* TakeCachedStack() noexcept {
  for (std::atomic<OwnStack*>& slot : g_cached) {
    if (slot.load(std::memory_order_relaxed) == nullptr) continue;
    OwnStack* own = slot.exchange(nullptr, std::memory_order_acquire);
    if (own != nullptr) return own;
  }
  return nullptr;
}

size_t PageSize() noexcept { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

// The mapping: a guard page, the stack proper, then a page for the record above the stack's
// top, where a stack that overflows downwards cannot reach it.
OwnStack* MapOwnStack() noexcept {
  if (OwnStack* cached = TakeCachedStack()) {
    void* const mapping = cached->mapping;
    const size_t size = cached->mapping_size;
    *cached = OwnStack{};
    cached->mapping = mapping;
    cached->mapping_size = size;
    return cached;
  }
  const size_t page = PageSize();
  const size_t size = 2 * page + kOwnStackBytes;
  void* mapping =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (mapping == MAP_FAILED) return nullptr;
  if (mprotect(mapping, page, PROT_NONE) != 0) {
    munmap(mapping, size);
    return nullptr;
  }
  auto* own = reinterpret_cast<OwnStack*>(static_cast<char*>(mapping) + page + kOwnStackBytes);
  *own = OwnStack{};
  own->mapping = mapping;
  own->mapping_size = size;
  g_mapped.fetch_add(1, std::memory_order_relaxed);
  return own;
}

void UnmapOwnStack(OwnStack* own) noexcept {
  munmap(own->mapping, own->mapping_size);
  g_mapped.fetch_sub(1, std::memory_order_relaxed);
}

void ReapEnded() noexcept {
  OwnStack* ended = g_ended.exchange(nullptr, std::memory_order_acquire);
  while (ended != nullptr) {
    OwnStack* next = ended->next;
    // It has nothing left to do but leave: the join waits for that, then its stack is free.
    pthread_join(ended->thread, nullptr);
    if (!CacheStack(ended)) UnmapOwnStack(ended);
    g_ended_count.fetch_sub(1, std::memory_order_relaxed);
    ended = next;
  }
}

void* ReaperMain(void*) noexcept {
  ReapEnded();
  return nullptr;
}

// A plain detached thread: its small stack is the C library's to keep.
void StartReaper() noexcept {
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return;
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attr, kReaperStackBytes);
  pthread_t thread = 0;
  CreateThread(&thread, &attr, ReaperMain, nullptr);  // failing, the next start reaps instead
  pthread_attr_destroy(&attr);
}

// A thread that ended last and alone waits for the next start to be joined. At the process's
// end nothing starts any more, so it is joined here, and no thread is left unjoined.
struct JoinEndedAtExit {
  ~JoinEndedAtExit() { ReapEnded(); }
};
JoinEndedAtExit g_join_ended_at_exit;

void* OwnStackMain(void* arg) noexcept {
  auto* own = static_cast<OwnStack*>(arg);
  own->thread = pthread_self();  // the reaper's handle; the creator's copy may come too late
  own->routine(own->arg);
  ReapEnded();
  // From here on this thread touches its stack only on its way out, which the join awaits.
  g_ended_count.fetch_add(1, std::memory_order_relaxed);
  OwnStack* head = g_ended.load(std::memory_order_relaxed);
  do {
    own->next = head;
  } while (!g_ended.compare_exchange_weak(head, own, std::memory_order_release,
                                          std::memory_order_relaxed));
  // One thread ending alone (connections one after another) leaves its stack to the next start.
  if (g_running.fetch_sub(1) == 1 && g_ended_count.load(std::memory_order_relaxed) > 1) {
    StartReaper();
  }
  return nullptr;
}

}  // namespace

bool StartDetachedThread(void* (*routine)(void*), void* arg) noexcept {
  ReapEnded();
  OwnStack* own = MapOwnStack();
  if (own == nullptr) return false;
  own->routine = routine;
  own->arg = arg;
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) {
    UnmapOwnStack(own);
    return false;
  }
  const size_t page = PageSize();
  pthread_attr_setstack(&attr, static_cast<char*>(own->mapping) + page, kOwnStackBytes);
  // The thread may end and be reaped before CreateThread returns: the record is not touched
  // after a start that succeeded.
  pthread_t thread = 0;
  g_running.fetch_add(1);
  int rc = CreateThread(&thread, &attr, OwnStackMain, own);
  if (rc == EAGAIN) {  // threads are short for a moment: one more try, as every starter does
    Sleep(kRetryPauseMs);
    rc = CreateThread(&thread, &attr, OwnStackMain, own);
  }
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    g_running.fetch_sub(1);
    UnmapOwnStack(own);
  }
  return rc == 0;
}

int32_t MappedDetachedStacks() noexcept { return g_mapped.load(std::memory_order_relaxed); }

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
