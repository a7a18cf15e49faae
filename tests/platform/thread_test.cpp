// SPDX-License-Identifier: Apache-2.0
#include <dirent.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/thread_internal.h"
#include "support/test_support.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace {

using Clock = std::chrono::steady_clock;

template <typename F>
bool WaitFor(F done) {
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (!done() && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return done();
}

int ThreadsInProcess() {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  while (dir != nullptr && readdir(dir) != nullptr) ++count;
  if (dir != nullptr) closedir(dir);
  return count;
}

std::atomic<int> g_runs{0};
void* CountRun(void* arg) {
  g_runs.fetch_add(1);
  return arg;
}

// Stand-in for pthread_create: answers calls with the scripted results (past the script: start
// a real thread) and records each call's stack size (0 for default attributes).
std::vector<int> g_script;
std::vector<size_t> g_calls;
std::vector<pthread_t> g_started;

int ScriptedCreate(pthread_t* thread, const pthread_attr_t* attr, void* (*routine)(void*),
                   void* arg) {
  size_t stack = 0;
  if (attr != nullptr) pthread_attr_getstacksize(attr, &stack);
  g_calls.push_back(stack);
  const size_t n = g_calls.size() - 1;
  if (n < g_script.size() && g_script[n] != 0) return g_script[n];
  const int rc = pthread_create(thread, nullptr, routine, arg);
  if (rc == 0) g_started.push_back(*thread);
  return rc;
}

class PlatformThread : public tw::test::LeakCheck {
 protected:
  void SetUp() override {
    tw::test::LeakCheck::SetUp();
    ASSERT_EQ(upnp_log_init(nullptr), 1);
    upnp_log_set_mode(UPNP_LOG_SYSTEM);
  }
  void TearDown() override {
    upnp_log_set_mode(0);
    upnp_log_exit();
    tw::test::LeakCheck::TearDown();
  }
  // Runs one start through the script; returns whether a thread id came back, and the log.
  bool Start(std::vector<int> script, std::string* log) {
    g_script = std::move(script);
    g_calls.clear();
    g_runs = 0;
    tw::platform::SetThreadCreateForTesting(&ScriptedCreate);
    testing::internal::CaptureStdout();
    const pthread_t id = upnp_start_joinable_thread(&CountRun, nullptr, 5);
    *log = testing::internal::GetCapturedStdout();
    tw::platform::SetThreadCreateForTesting(nullptr);
    for (pthread_t t : g_started) pthread_join(t, nullptr);
    g_started.clear();
    return id != pthread_t{};
  }
};

TEST(PlatformThreadPriority, LevelsMapToTheTableAndOthersToFifty) {
  const int expected[][2] = {{3, 10}, {4, 30}, {5, 50}, {6, 70},
                             {7, 90}, {2, 50}, {8, 50}, {-1, 50}};
  for (const auto& row : expected) {
    EXPECT_EQ(tw::platform::ThreadPriorityForLevel(row[0]), row[1]) << "level " << row[0];
  }
}

TEST_F(PlatformThread, StartRetriesOnShortageAndFallsBackToDefaults) {
  const char* const kTexts[] = {
      "upnp_start_joinable_thread Not enough resources to start thread - retrying",
      "upnp_start_joinable_thread Second try to start thread failed - giving up",
      "upnp_start_joinable_thread Failed to start thread with requested priority and scheduler - "
      "trying default",
      "upnp_start_joinable_thread Failed to start thread with defaults - giving up"};
  struct Case {
    std::vector<int> script;
    bool started;
    int runs;       // a successful retry is still followed by the default start (intended)
    int texts;      // bit i: kTexts[i] is logged
    bool fallback;  // the last call used default attributes
  };
  const Case cases[] = {{{}, true, 1, 0, false},
                        {{EAGAIN, EAGAIN}, false, 0, 0b0011, false},
                        {{EAGAIN}, true, 2, 0b0101, true},
                        {{EPERM}, true, 1, 0b0100, true},
                        {{EAGAIN, EPERM, EINVAL}, false, 0, 0b1101, true}};
  for (const Case& c : cases) {
    std::string log;
    EXPECT_EQ(Start(c.script, &log), c.started) << log;
    EXPECT_EQ(g_runs.load(), c.runs) << log;
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(log.find(kTexts[i]) != std::string::npos, ((c.texts >> i) & 1) != 0) << log;
    }
    for (size_t i = 0; i < g_calls.size(); ++i) {
      const bool is_default = c.fallback && i + 1 == g_calls.size();
      EXPECT_EQ(g_calls[i], is_default ? 0u : 0x20000u) << "call " << i;
    }
  }
}

std::atomic<int> g_stage{0};
void* EndEarly(void*) {
  g_stage = 1;
  upnp_end_thread();
  g_stage = 2;  // never reached
  return nullptr;
}

TEST_F(PlatformThread, RealThreadsRunJoinableAndDetached) {
  int token = 7;
  g_runs = 0;
  const pthread_t id = upnp_start_joinable_thread(&CountRun, &token, 6);
  ASSERT_NE(id, pthread_t{});
  void* result = nullptr;
  ASSERT_EQ(pthread_join(id, &result), 0);
  EXPECT_EQ(result, &token);
  EXPECT_EQ(g_runs.load(), 1);
  EXPECT_EQ(upnp_start_joinable_thread(nullptr, nullptr, 5), pthread_t{});

  // The detached thread ends itself through upnp_end_thread and leaves the process.
  const int before = ThreadsInProcess();
  EXPECT_EQ(upnp_start_thread(&EndEarly, nullptr, 3), 0);
  ASSERT_TRUE(WaitFor([] { return g_stage.load() != 0; }));
  ASSERT_TRUE(WaitFor([&] { return ThreadsInProcess() <= before; }));
  EXPECT_EQ(g_stage.load(), 1);
}

TEST(PlatformSleep, SplitsMillisecondsIntoSecondsAndNanoseconds) {
  auto start = Clock::now();
  Sleep(1200);  // above a second: the nanosecond part must stay below one second
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1200));
}

}  // namespace
