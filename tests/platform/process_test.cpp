// SPDX-License-Identifier: Apache-2.0
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "platform/process_internal.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

using tw::platform::ActiveProcessCount;
using tw::platform::ActiveProcessId;
using Tokens = std::vector<std::string>;

bool IsZombie(pid_t pid) {  // ended but not yet reaped (WNOWAIT leaves it so)
  siginfo_t info{};
  return waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
}

Tokens Split(std::string text, int capacity = 30) {
  char* argv[40] = {};
  const int used = tw::platform::SplitParams(text.data(), argv, 0, capacity);
  EXPECT_EQ(argv[used], nullptr);
  return Tokens(argv, argv + used);
}

TEST(PlatformParams, BlanksSeparateDoubleQuotesGroupInPlace) {
  EXPECT_EQ(Split("  a \"b c\"   d  "), (Tokens{"a", "b c", "d"}));
  // Only the space is a blank; quotes inside a token are plain; an open quote runs to the end.
  EXPECT_EQ(Split("x\ty a\"b \"\" \"open end"), (Tokens{"x\ty", "a\"b", "", "open end"}));
  EXPECT_EQ(Split("p q r s", 2), (Tokens{"p", "q"})) << "tokens beyond the slots are dropped";
  char text[] = "p \"r s\" t";
  char* argv[3] = {};
  EXPECT_EQ(tw::platform::SplitParams(text, argv, 1, 3), 3);
  EXPECT_EQ(argv[1], text);
  EXPECT_EQ(std::string(text, sizeof text), std::string("p\0\"r s\0 t", 10)) << "NUL delimiters";
  EXPECT_EQ(tw::platform::SplitParams(nullptr, argv, 2, 3), 2);
}

class PlatformProcess : public LeakCheck {
 protected:
  void TearDown() override {
    terminate_active_processes();
    LeakCheck::TearDown();
  }
  static int Start(const std::string& program, std::string params = "30") {
    return system_call_no_wait(program.c_str(), params.data());
  }
};

TEST_F(PlatformProcess, RunningProgramIsRefusedEndedOnesAreReapedArgumentsArriveQuoted) {
  for (const char* path : {"/bin/sleep", "/bin//sleep", "/bin///sleep"}) ASSERT_EQ(Start(path), 0);
  EXPECT_EQ(Start("/bin/sleep"), 1);
  ASSERT_EQ(ActiveProcessCount(), 3);
  // Removing the ended first moves the ended last into its slot: the same pass must see it.
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

  TempDir dir;  // $0 is "zero"; the quoted "two words" is one argument, so $# is 2
  ASSERT_EQ(Start("/bin/sh",
                  "-c \"printf %s: $# $1 > " + dir.File("args") + "\" zero \"two words\" three"),
            0);
  ASSERT_TRUE(WaitFor([] { return check_active_processes("/bin/sh") == 0; }));
  EXPECT_EQ(ReadFile(dir.File("args")), "2:two:words:");
}

TEST_F(PlatformProcess, FullTableRefusesWithoutStarting) {
  // Fifty spellings of one program, none "already running".
  for (int i = 1; i <= 50; ++i) ASSERT_EQ(Start("/bin" + std::string(i, '/') + "sleep"), 0) << i;
  EXPECT_EQ(Start("/bin" + std::string(51, '/') + "sleep"), 2);
  EXPECT_EQ(ActiveProcessCount(), 50);
  terminate_active_processes();
  EXPECT_EQ(ActiveProcessCount(), 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "every child ended and reaped";
}

int CountCalls(void* arg) { return (++*static_cast<int*>(arg), 0); }  // keeps the child running
int StopAtOnce(void*) { return 42; }

TEST_F(PlatformProcess, WaitingCallsRunThroughNiceAndCallbacksCanKillTheChild) {
  TempDir dir;
  // nice without options prints the niceness it runs at: the child's lowered priority.
  const std::string params = "-c \"/usr/bin/nice > " + dir.File("nice") + "\"";
  EXPECT_EQ(system_call_waiting("/bin/sh", params.c_str()), 0);
  EXPECT_EQ(std::stoi(ReadFile(dir.File("nice"))), std::min(getpriority(PRIO_PROCESS, 0) + 10, 19));
  EXPECT_EQ(system_call_waiting(nullptr, nullptr), -1);

  int calls = 0;
  EXPECT_EQ(system_call_waiting_prio("/bin/sh", "-c \"sleep 0.2\"", 9, &CountCalls, &calls), 0);
  EXPECT_GE(calls, 1);
  EXPECT_EQ(system_call_waiting_prio("/bin/sh", "-c \"kill -9 $$\"", 0, &CountCalls, &calls), -1)
      << "ended by a signal";
  EXPECT_EQ(system_call_waiting_prio("/bin/sleep", "30", 0, &StopAtOnce, nullptr), 42);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "the killed child was reaped";
}

}  // namespace
