// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "platform/thread_internal.h"
#include "support/test_support.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace {

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

using PlatformThread = tw::test::LeakCheck;

TEST(PlatformThreadPriority, LevelsMapToTheTableAndOthersToFifty) {
  const int rows[][2] = {{3, 10}, {4, 30}, {5, 50}, {6, 70}, {7, 90}, {2, 50}, {8, 50}, {-1, 50}};
  for (const auto& r : rows) EXPECT_EQ(tw::platform::ThreadPriorityForLevel(r[0]), r[1]) << r[0];
}

TEST_F(PlatformThread, StartRetriesOnShortageAndFallsBackToDefaults) {
  const std::string kTexts[] = {"Not enough resources to start thread - retrying",
                                "Second try to start thread failed - giving up",
                                "Failed to start thread with requested priority and scheduler - "
                                "trying default",
                                "Failed to start thread with defaults - giving up"};
  // {script, calls, started, routine runs, bit i set: kTexts[i] logged}. A successful retry is
  // still followed by the default start, so the routine runs twice (intended).
  const std::tuple<std::vector<int>, std::string, bool, int, int> cases[] = {
      {{}, "S", true, 1, 0},
      {{EAGAIN, EAGAIN}, "SS", false, 0, 0b0011},
      {{EAGAIN}, "SSD", true, 2, 0b0101},
      {{EPERM}, "SD", true, 1, 0b0100},
      {{EAGAIN, EPERM, EINVAL}, "SSD", false, 0, 0b1101}};
  ASSERT_EQ(upnp_log_init(nullptr), 1);
  upnp_log_set_mode(UPNP_LOG_SYSTEM);
  tw::platform::SetThreadCreateForTesting(&ScriptedCreate);
  for (const auto& [script, calls, started, runs, texts] : cases) {
    g_script = script;
    g_calls.clear();
    g_runs = 0;
    testing::internal::CaptureStdout();
    const pthread_t id = upnp_start_joinable_thread(&CountRun, nullptr, 5);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(id != pthread_t{}, started) << log;
    EXPECT_EQ(g_runs.load(), runs) << log;
    EXPECT_EQ(g_calls, calls);
    for (int i = 0; i < 4; ++i) {
      const bool logged = log.find("upnp_start_joinable_thread " + kTexts[i]) != std::string::npos;
      EXPECT_EQ(logged, ((texts >> i) & 1) != 0) << log;
    }
  }
  tw::platform::SetThreadCreateForTesting(nullptr);
  upnp_log_set_mode(0);
  upnp_log_exit();
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
  for (int i = 0; i < 2500 && g_runs < 2; ++i) Sleep(2);
  EXPECT_EQ(g_runs.load(), 2);
  const auto start = std::chrono::steady_clock::now();
  Sleep(1200);  // above a second: the nanosecond part must stay below one second
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
}

}  // namespace
