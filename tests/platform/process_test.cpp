// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/process_internal.h"
#include "support/test_support.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace {

using tw::platform::ActiveProcessCount;
using tw::platform::ActiveProcessId;
using Tokens = std::vector<std::string>;

template <typename F>
bool WaitFor(F done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return done();
}

// Ended but not yet reaped by anybody.
bool IsZombie(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const size_t paren = line.rfind(')');
  return paren != std::string::npos && line.compare(paren, 3, ") Z") == 0;
}

Tokens Split(std::string text, int capacity = 30) {
  char* argv[40] = {};
  const int used = tw::platform::SplitParams(text.data(), argv, 0, capacity);
  EXPECT_EQ(argv[used], nullptr);
  return Tokens(argv, argv + used);
}

TEST(PlatformParams, BlanksSeparateDoubleQuotesGroupInPlace) {
  EXPECT_EQ(Split("a \"b c\" d"), (Tokens{"a", "b c", "d"}));
  EXPECT_EQ(Split("  one   two  "), (Tokens{"one", "two"}));
  // Only the space is a blank; quotes inside a token are plain; an open quote runs to the end.
  EXPECT_EQ(Split("x\ty a\"b \"\" \"open end"), (Tokens{"x\ty", "a\"b", "", "open end"}));
  EXPECT_EQ(Split("p q r s", 2), (Tokens{"p", "q"})) << "tokens beyond the slots are dropped";
  char text[] = "p \"r s\" t";
  char* argv[3] = {};
  EXPECT_EQ(tw::platform::SplitParams(text, argv, 1, 3), 3);
  EXPECT_EQ(argv[1], text);
  static const char kExpected[] = "p\0\"r s\0 t";  // an array, so its size includes the NULs
  static_assert(sizeof kExpected == sizeof text);
  EXPECT_EQ(std::memcmp(text, kExpected, sizeof text), 0) << "delimiters become NULs";
  EXPECT_EQ(tw::platform::SplitParams(nullptr, argv, 2, 3), 2);
}

class PlatformProcess : public tw::test::LeakCheck {
 protected:
  void TearDown() override {
    terminate_active_processes();
    EXPECT_EQ(ActiveProcessCount(), 0);
    tw::test::LeakCheck::TearDown();
  }
  static int Start(const char* program, const char* params = "30") {
    std::string copy = params;
    return system_call_no_wait(program, copy.data());
  }
};

TEST_F(PlatformProcess, RunningProgramIsRefusedAndEndedOnesAreReaped) {
  ASSERT_EQ(Start("/bin/sleep"), 0);
  ASSERT_EQ(Start("/bin//sleep"), 0);
  ASSERT_EQ(Start("/bin///sleep"), 0);
  EXPECT_EQ(Start("/bin/sleep"), 1);
  ASSERT_EQ(ActiveProcessCount(), 3);
  // End the first and the last: removing the first moves the last into its slot, which must be
  // examined in the same pass.
  const pid_t first = ActiveProcessId(0), middle = ActiveProcessId(1), last = ActiveProcessId(2);
  kill(first, SIGKILL);
  kill(last, SIGKILL);
  ASSERT_TRUE(WaitFor([&] { return IsZombie(first) && IsZombie(last); }));
  EXPECT_EQ(check_active_processes("/bin//sleep"), 1);
  ASSERT_EQ(ActiveProcessCount(), 1);
  EXPECT_EQ(ActiveProcessId(0), middle);
  EXPECT_EQ(check_active_processes("/bin/sleep"), 0) << "exact path comparison";

  // An ended program is reaped by the next start, which runs it again.
  kill(middle, SIGKILL);
  ASSERT_TRUE(WaitFor([&] { return IsZombie(middle); }));
  EXPECT_EQ(Start("/bin//sleep"), 0);
  ASSERT_EQ(ActiveProcessCount(), 1);
  EXPECT_NE(ActiveProcessId(0), middle);
}

TEST_F(PlatformProcess, FullTableRefusesWithoutStarting) {
  std::vector<std::string> paths;  // fifty spellings of one program, none "already running"
  for (int i = 1; i <= 51; ++i) paths.push_back("/bin" + std::string(i, '/') + "sleep");
  for (int i = 0; i < 50; ++i) ASSERT_EQ(Start(paths[i].c_str()), 0) << i;
  EXPECT_EQ(Start(paths[50].c_str()), 2);
  EXPECT_EQ(ActiveProcessCount(), 50);
  std::vector<pid_t> pids;
  for (int i = 0; i < 50; ++i) pids.push_back(ActiveProcessId(i));
  terminate_active_processes();
  EXPECT_EQ(ActiveProcessCount(), 0);
  for (pid_t pid : pids) EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "already reaped";
}

TEST_F(PlatformProcess, BackgroundChildGetsQuotedArguments) {
  tw::test::TempDir dir;
  const std::string out = dir.File("args");
  // $0 is "zero"; the quoted "two words" must arrive as one argument, so $# is 2.
  ASSERT_EQ(
      Start("/bin/sh", ("-c \"printf %s: $# $1 > " + out + "\" zero \"two words\" three").c_str()),
      0);
  ASSERT_TRUE(WaitFor([] { return check_active_processes("/bin/sh") == 0; }));
  EXPECT_EQ(tw::test::ReadFile(out), "2:two:words:");
}

TEST_F(PlatformProcess, WaitingCallRunsThroughNiceAndWaits) {
  tw::test::TempDir dir;
  const std::string out = dir.File("nice");
  // nice without options prints the niceness it runs at: the child's lowered priority.
  const std::string params = "-c \"/usr/bin/nice > " + out + "\"";
  ASSERT_EQ(upnp_log_init(nullptr), 1);
  upnp_log_set_mode(UPNP_LOG_SYSTEM);
  testing::internal::CaptureStdout();
  EXPECT_EQ(system_call_waiting("/bin/sh", params.c_str()), 0);
  const std::string log = testing::internal::GetCapturedStdout();
  upnp_log_set_mode(0);
  upnp_log_exit();
  EXPECT_EQ(std::stoi(tw::test::ReadFile(out)), std::min(getpriority(PRIO_PROCESS, 0) + 10, 19));
  EXPECT_NE(log.find("system_call_waiting strParam " + params), std::string::npos) << log;
  EXPECT_EQ(system_call_waiting(nullptr, nullptr), -1);
}

int CountCalls(void* arg) {
  ++*static_cast<int*>(arg);
  return 0;
}
int StopAtOnce(void*) { return 42; }

TEST_F(PlatformProcess, CallbackPollsAndCanKillTheChild) {
  int calls = 0;
  EXPECT_EQ(system_call_waiting_prio("/bin/sh", "-c \"sleep 0.2\"", 9, &CountCalls, &calls), 0);
  EXPECT_GE(calls, 1);
  EXPECT_EQ(system_call_waiting_prio("/bin/sh", "-c \"kill -9 $$\"", 0, &CountCalls, &calls), -1)
      << "ended by a signal";
  EXPECT_EQ(system_call_waiting_prio("/bin/sleep", "30", 0, &StopAtOnce, nullptr), 42);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "the killed child was reaped";
}

}  // namespace
