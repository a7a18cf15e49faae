// SPDX-License-Identifier: Apache-2.0
// Built only where liblog is present: the log's default second sink really reaches it.
#include <android/log.h>

#include "support/test_support.h"

namespace {

std::vector<std::string> g_received;  // "priority tag text"

void Capture(const struct __android_logger_data* data, const char* message) {
  g_received.push_back(std::to_string(data->priority) + " " + data->tag + " " + message);
}

TEST(AndroidLog, LogLinesReachLiblogAsInfoUnderTheLibraryTag) {
  __android_log_set_logger(&Capture);
  ASSERT_EQ(upnp_log_init(nullptr), 1);
  upnp_log_set_mode(UPNP_LOG_HTTP);
  testing::internal::CaptureStdout();
  upnp_log_debug_impl(UPNP_LOG_HTTP, "to %s", "liblog");
  upnp_log_err_impl(UPNP_LOG_SSDP, "error too");
  const std::string out = testing::internal::GetCapturedStdout();
  upnp_log_exit();
  __android_log_set_logger(&__android_log_stderr_logger);
  ASSERT_EQ(g_received.size(), 2u);
  const size_t first_end = out.find('\n') + 1;
  EXPECT_EQ(g_received[0], "4 kt-upnp-lib-nmc " + out.substr(0, first_end));
  EXPECT_EQ(g_received[1], "4 kt-upnp-lib-nmc " + out.substr(first_end));
}

}  // namespace
