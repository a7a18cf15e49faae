// SPDX-License-Identifier: Apache-2.0
#include "log/log.h"

#include "support/test_support.h"

namespace {

using namespace tw::test;

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

std::mutex g_mutex;
std::vector<std::string> g_sink;    // "priority tag text" per Android-log call
std::vector<std::string> g_events;  // critical handler and exit calls, in order
std::atomic<int> g_in_sink{0};
std::atomic<bool> g_sink_overlap{false};

// The log lock is held around each line, so no two threads are ever inside the sink at once;
// the yield widens the window in which a missing lock would show.
int CaptureSink(int priority, const char* tag, const char* text) {
  if (g_in_sink.fetch_add(1) > 0) g_sink_overlap = true;
  {
    std::lock_guard<std::mutex> hold(g_mutex);
    g_sink.push_back(std::to_string(priority) + " " + tag + " " + text);
  }
  std::this_thread::yield();
  g_in_sink.fetch_sub(1);
  return 1;
}
void RecordHandler() { g_events.push_back("handler"); }
void RecordExit(int32_t code) { g_events.push_back("exit " + std::to_string(code)); }

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t start = 0, nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
    lines.push_back(text.substr(start, nl - start + 1));
  }
  return lines;
}

// True when line is "HH:MM:SS:mmm", two blanks, then exactly rest.
bool IsLine(const std::string& line, const std::string& rest) {
  int h = -1, m = -1, sec = -1, ms = -1, used = 0;
  return std::sscanf(line.c_str(), "%2d:%2d:%2d:%3d%n", &h, &m, &sec, &ms, &used) == 4 &&
         used == 12 && line.compare(12, std::string::npos, "  " + rest) == 0;
}

// The process must survive critical messages here, so an exit function is always registered.
class Log : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    g_sink.clear();
    g_events.clear();
    g_sink_overlap = false;
    tw::log::SetSecondSinkForTest(&CaptureSink);
    register_upnp_exit_function(&RecordExit);
    upnp_log_register_critical_error_handler(&RecordHandler);
  }
  void TearDown() override {
    upnp_log_exit();
    upnp_log_set_mode(0);
    upnp_log_enable(1);
    upnp_log_register_critical_error_handler(nullptr);
    register_upnp_exit_function(nullptr);
    tw::log::SetSecondSinkForTest(nullptr);
    LeakCheck::TearDown();
  }
  std::string Init(const std::string& name) {
    const std::string path = dir_.File(name);
    EXPECT_EQ(upnp_log_init(path.c_str()), 1);
    return path;
  }
  TempDir dir_;
};

TEST_F(Log, FilteredLinesReachTheFileAndTheAndroidLogAsInfo) {
  EXPECT_EQ(upnp_log_to_appender(1, UPNP_LOG_LEVEL_CRITICAL), 0);  // mode 0: all off
  const std::string path = Init("t.log");
  upnp_log_set_mode(UPNP_LOG_HTTP | UPNP_LOG_SYSTEM | UPNP_LOG_SSDP);
  EXPECT_EQ(upnp_log_to_appender(UPNP_LOG_DB, 7) + upnp_log_to_appender(12, 0), 0);
  EXPECT_EQ(upnp_log_to_appender(UPNP_LOG_HTTP, -1) + upnp_log_to_appender(UPNP_LOG_DB, 4), 2);
  upnp_log_debug_impl(UPNP_LOG_HTTP, "x=%d %s", 5, "y");
  upnp_log_debug_impl(UPNP_LOG_CLIENT_DB, "filtered");
  upnp_log_info_impl(3, "combined");
  upnp_log_problem_impl(UPNP_LOG_CLIENT_DB, "p");
  upnp_log_err_impl(UPNP_LOG_PERF, "e\n");
  upnp_log_message(7, 1u << 13, "odd");
  upnp_log_info_impl(1, "%s", "");  // no text, no line
  const std::vector<std::string> lines = SplitLines(ReadFile(path));
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_TRUE(IsLine(lines[0], "[Debug] - LOG_HTTP: x=5 y\n")) << lines[0];
  EXPECT_TRUE(IsLine(lines[1], "[Info] - ?: combined\n")) << lines[1];
  EXPECT_TRUE(IsLine(lines[2], "[Problem] - LOG_CLIENT_DB: p\n")) << lines[2];
  EXPECT_TRUE(IsLine(lines[3], "[Error] - LOG_PERF: e\n")) << lines[3];
  EXPECT_EQ(lines[4], "\n");
  EXPECT_TRUE(IsLine(lines[5], "? - ?: odd\n")) << lines[5];
  const std::vector<std::string> written = {lines[0], lines[1], lines[2], lines[3] + lines[4],
                                            lines[5]};
  ASSERT_EQ(g_sink.size(), written.size());
  for (size_t i = 0; i < written.size(); ++i) {
    EXPECT_EQ(g_sink[i], "4 kt-upnp-lib-nmc " + written[i]);
  }
}

TEST_F(Log, FileGetsItsDirectoriesIsAppendedToClearedAndItsNameCut) {
  ASSERT_EQ(mkdir(dir_.File("logs").c_str(), 0700), 0);
  WriteFile(dir_.File("logs/a.log"), "old\n");
  const std::string path = Init("logs/a.log");
  upnp_log_set_mode(1);
  upnp_log_info_impl(1, "appended");
  EXPECT_EQ(ReadFile(path).substr(0, 4), "old\n");
  upnp_log_clear();
  upnp_log_info_impl(1, "fresh");
  EXPECT_EQ(SplitLines(ReadFile(path)).size(), 1u);

  EXPECT_STREQ(upnp_log_get_filename(), Init("logs/b/c.log").c_str());
  std::string longer = dir_.path();
  while (longer.size() < 1100) longer += "/" + std::string(200, 'd');
  std::filesystem::create_directories(longer);
  longer += "/x.log";
  ASSERT_EQ(upnp_log_init(longer.c_str()), 1);
  EXPECT_EQ(std::string(upnp_log_get_filename()), longer.substr(0, 1023));
}

TEST_F(Log, OpenAndWriteFailuresFallBackToStandardOutput) {
  WriteFile(dir_.File("plain"), "");
  const std::string bad = dir_.File("plain/x.log");
  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(upnp_log_init(bad.c_str()), 0);
  EXPECT_EQ(GetCapturedStderr(), "can't open log file (" + bad + ")\n");
  EXPECT_EQ(GetCapturedStdout(), "can't open log file (" + bad + ")\n");
  EXPECT_EQ(upnp_log_get_filename(), nullptr);

  if (!FileExists("/dev/full")) GTEST_SKIP() << "no /dev/full";
  ASSERT_EQ(upnp_log_init("/dev/full"), 1);  // never clear this one
  upnp_log_set_mode(1);
  CaptureStdout();
  upnp_log_info_impl(1, "first");
  upnp_log_info_impl(1, "second");
  EXPECT_EQ(upnp_log_puts("raw\n"), 4);
  const std::vector<std::string> lines = SplitLines(GetCapturedStdout());
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0] + lines[3], "can't write log file\nraw\n");
  EXPECT_TRUE(IsLine(lines[1], "[Info] - LOG_SYSTEM: first\n")) << lines[1];
  EXPECT_TRUE(IsLine(lines[2], "[Info] - LOG_SYSTEM: second\n")) << lines[2];
}

// Lines from a thread that holds the log lock (the host, or a file call made under it that
// reports a failure) are written under that hold instead of re-entering the lock.
TEST_F(Log, ThreadHoldingTheLockStillLogs) {
  const std::string path = Init("held.log");
  upnp_log_set_mode(1);
  ASSERT_EQ(lock_log(), 1);
  upnp_log_info_impl(1, "inside");
  unlock_log();
  EXPECT_EQ(SplitLines(ReadFile(path)).size(), 1u);

  ASSERT_EQ(std::rename(path.c_str(), dir_.File("moved").c_str()), 0);
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);  // the reopen in clear now fails and logs
  CaptureStdout();
  upnp_log_clear();
  upnp_log_info_impl(1, "after");
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("upnp_file_open_write"), std::string::npos) << out;
  EXPECT_NE(out.find("[Info] - LOG_SYSTEM: after\n"), std::string::npos) << out;
}

TEST_F(Log, ConcurrentLinesStayWholeAndInOrderInBothSinks) {
  const std::string path = Init("threads.log");
  upnp_log_set_mode(UPNP_LOG_SSDP);
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        upnp_log_debug_impl(UPNP_LOG_SSDP, "t%d n%d %s", t, i, std::string(i % 200, 'x').c_str());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(g_sink_overlap);
  const std::vector<std::string> lines = SplitLines(ReadFile(path));
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  ASSERT_EQ(g_sink.size(), lines.size());
  std::vector<int> next(kThreads, 0);
  for (size_t i = 0; i < lines.size(); ++i) {
    int t = -1;
    int n = -1;
    ASSERT_EQ(std::sscanf(lines[i].c_str(), "%*12c  [Debug] - LOG_SSDP: t%d n%d", &t, &n), 2);
    ASSERT_TRUE(t >= 0 && t < kThreads && n == next[t]++) << lines[i];
    EXPECT_EQ(lines[i].substr(lines[i].find(" n") + 3 + std::to_string(n).size()),
              std::string(n % 200, 'x') + "\n");
    EXPECT_EQ(g_sink[i], "4 kt-upnp-lib-nmc " + lines[i]);
  }
}

// The console line has no blank after the colon and ignores the mode and the enabled switch.
TEST_F(Log, CriticalWritesBothLinesThenRunsHandlerThenExitsEvenWhenOff) {
  const std::string path = Init("c.log");
  for (uint32_t mode : {1u, 0u, 2u}) {
    g_events.clear();
    upnp_log_set_mode(mode);
    upnp_log_enable(mode != 2);
    CaptureStdout();
    upnp_log_critical_impl(UPNP_LOG_SSDP, "boom %d", 7);
    EXPECT_TRUE(IsLine(GetCapturedStdout(), "[Critical] - LOG_SSDP:boom 7\n"));
    EXPECT_EQ(g_events, (std::vector<std::string>{"handler", "exit 0"}));
  }
  EXPECT_TRUE(IsLine(ReadFile(path), "[Critical] - LOG_SSDP: boom 7\n"));
  EXPECT_EQ(g_sink.size(), 1u);
  ASSERT_EQ(upnp_log_init(nullptr), 1);
  EXPECT_EQ(upnp_log_get_filename(), nullptr);

  CaptureStdout();  // without text nothing happens, not even the shutdown
  upnp_log_critical_impl(1, "%s", "");
  tw::platform::FailAllocAfter(0);
  upnp_log_critical_impl(1, "lost %d", 1);
  tw::platform::ClearAllocFailure();
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(g_events.size(), 2u);
}

TEST_F(Log, ExitFunctionGetsTheCodeOtherwiseTheProcessEnds) {
  upnp_exit(3);
  EXPECT_EQ(g_events, (std::vector<std::string>{"exit 3"}));
  // The default "fast" style forks without exec, which also works for ARM binaries under qemu.
  EXPECT_EXIT(
      {
        register_upnp_exit_function(nullptr);
        upnp_exit(3);
        std::_Exit(99);
      },
      testing::ExitedWithCode(3), "");
}

}  // namespace
