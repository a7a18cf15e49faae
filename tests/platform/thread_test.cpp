// SPDX-License-Identifier: Apache-2.0
#include <pthread.h>
#include <unistd.h>

#include "platform/detached_thread.h"
#include "platform/thread_internal.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

std::atomic<int> g_runs{0};
void* CountRun(void* arg) {
  g_runs.fetch_add(1);
  return arg;
}

// Stand-in for pthread_create: answers with the scripted results; past the script it runs a
// real thread to its end. Records each call: 'S' with the library's stack size, 'D' defaults.
std::vector<int> g_script;
std::string g_calls;
int ScriptedCreate(pthread_t* thread, const pthread_attr_t* attr, void* (*routine)(void*),
                   void* arg) {
  size_t stack = 0;
  if (attr != nullptr) pthread_attr_getstacksize(attr, &stack);
  g_calls += attr == nullptr ? 'D' : stack == 0x20000 ? 'S' : '?';
  if (g_calls.size() <= g_script.size()) return g_script[g_calls.size() - 1];
  const int rc = pthread_create(thread, nullptr, routine, arg);
  return rc != 0 ? rc : pthread_join(*thread, nullptr);
}

using PlatformThread = LeakCheck;

TEST_F(PlatformThread, StartRetriesOnShortageAndFallsBackToDefaults) {
  // {script, calls, started, routine runs}: one retry on a shortage, then the defaults. A
  // successful retry is still followed by the default start, so the routine runs twice
  // (intended).
  const std::tuple<std::vector<int>, std::string, bool, int> cases[] = {
      {{}, "S", true, 1},
      {{EAGAIN, EAGAIN}, "SS", false, 0},
      {{EAGAIN}, "SSD", true, 2},
      {{EPERM}, "SD", true, 1},
      {{EAGAIN, EPERM, EINVAL}, "SSD", false, 0}};
  tw::platform::SetThreadCreateForTesting(&ScriptedCreate);
  for (const auto& [script, calls, started, runs] : cases) {
    g_script = script;
    g_calls.clear();
    g_runs = 0;
    const pthread_t id = upnp_start_joinable_thread(&CountRun, nullptr, 5);
    EXPECT_EQ(std::make_tuple(id != pthread_t{}, g_runs.load(), g_calls),
              std::make_tuple(started, runs, calls));
  }
  tw::platform::SetThreadCreateForTesting(nullptr);
}

std::atomic<int> g_stage{0};
void* EndEarly(void*) {
  g_stage = 1;
  upnp_end_thread();
  g_stage = 2;  // never reached
  return nullptr;
}

TEST_F(PlatformThread, RealThreadsRunAndEndEarlyAndSleepTakesSeconds) {
  int token = 7;
  g_runs = 0;
  pthread_t id = upnp_start_joinable_thread(&CountRun, &token, 6);
  ASSERT_NE(id, pthread_t{});
  void* result = nullptr;
  ASSERT_EQ(pthread_join(id, &result), 0);
  EXPECT_EQ(result, &token);
  EXPECT_EQ(upnp_start_joinable_thread(nullptr, nullptr, 5), pthread_t{});
  id = upnp_start_joinable_thread(&EndEarly, nullptr, 3);
  ASSERT_NE(id, pthread_t{});
  ASSERT_EQ(pthread_join(id, &result), 0);
  EXPECT_EQ(g_stage.load(), 1) << "upnp_end_thread ends the calling thread at once";
  EXPECT_EQ(upnp_start_thread(&CountRun, nullptr, 3), 0);  // detached: nobody joins it
  EXPECT_TRUE(WaitFor([] { return g_runs.load() == 2; }));
  const auto start = std::chrono::steady_clock::now();
  Sleep(1200);  // above a second: the nanosecond part must stay below one second
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
}

std::atomic<bool> g_release{false};
void* DeepThenWait(void* started) {
  // Most of the stack is there to use: a connection's request record and a handler's frames.
  volatile char deep[96 * 1024];
  deep[0] = deep[sizeof(deep) - 1] = 1;
  static_cast<std::atomic<int>*>(started)->fetch_add(1);
  for (int i = 0; i < 10000 && !g_release.load(); ++i) usleep(1000);
  return nullptr;
}

// A burst of threads that end together leaves its stacks behind no longer than it runs.
TEST_F(PlatformThread, DetachedThreadsLeaveNoStacksOnceABurstHasEnded) {
  constexpr int kThreads = 64;
  std::atomic<int> started{0};
  g_release = false;
  for (int i = 0; i < kThreads; ++i) {
    ASSERT_TRUE(tw::platform::StartDetachedThread(&DeepThenWait, &started)) << i;
  }
  ASSERT_TRUE(WaitFor([&] { return started.load() == kThreads; }));
  EXPECT_GE(tw::platform::MappedDetachedStacks(), kThreads);
  g_release = true;
  // Four stacks are kept for the next threads, and the one of a thread that ended last and
  // alone may wait for the next start.
  EXPECT_TRUE(WaitFor([] { return tw::platform::MappedDetachedStacks() <= 5; }))
      << tw::platform::MappedDetachedStacks() << " stacks left";
}

// CsGuard, the RAII form every subsystem uses, is exercised by their threaded tests.
TEST(CriticalSection, OwnerReentersByDepthLoggedAndMustLeaveAsOften) {
  CRITICAL_SECTION cs;
  InitializeCriticalSection(&cs);
  const std::string log = Logged(UPNP_LOG_SYSTEM, [&] {
    for (int depth = 0; depth < 3; ++depth) {
      EnterCriticalSection(&cs);
      EXPECT_EQ(cs.depth, depth);
    }
  });
  EXPECT_THAT(log, HasSubstr("[Problem] - LOG_SYSTEM: Thread entered critical section for the 2. "
                             "time"));
  EXPECT_THAT(log, HasSubstr("Thread entered critical section for the 3. time"));
  std::atomic<bool> entered{false};
  std::thread other([&] {
    EnterCriticalSection(&cs);
    entered = true;
    LeaveCriticalSection(&cs);
  });
  LeaveCriticalSection(&cs);
  LeaveCriticalSection(&cs);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(entered.load()) << "another thread got in before the third leave";
  LeaveCriticalSection(&cs);
  other.join();
  EXPECT_TRUE(entered.load());
  EXPECT_EQ(cs.depth, 0);
  DeleteCriticalSection(&cs);
}

// Leaving from a thread that does not own the section releases the mutex all the same. That is
// undefined for a POSIX mutex (glibc's normal mutex simply unlocks), so the thread sanitizer
// rightly objects; the behaviour is checked in the other builds.
TEST(CriticalSection, ForeignLeaveIsLoggedAndReleases) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "non-owner unlock is flagged by the thread sanitizer by design";
#else
  CRITICAL_SECTION cs;
  InitializeCriticalSection(&cs);
  EnterCriticalSection(&cs);
  EXPECT_THAT(
      Logged(UPNP_LOG_SYSTEM, [&] { std::thread([&] { LeaveCriticalSection(&cs); }).join(); }),
      HasSubstr("Thread leaves critical section not owning"));
  EnterCriticalSection(&cs);  // released anyway: this thread takes it again without blocking
  EXPECT_EQ(cs.depth, 0);
  LeaveCriticalSection(&cs);
  DeleteCriticalSection(&cs);
#endif
}

}  // namespace
