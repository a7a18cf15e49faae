// SPDX-License-Identifier: Apache-2.0
// The stderr stand-in for builds without liblog, tested on its own.
#include <gtest/gtest.h>

#include "platform/android_log.h"

TEST(AndroidLogStandIn, WritesOneWholeStderrLinePerCall) {
  testing::internal::CaptureStderr();
  tw::platform::AndroidLogWrite(4, "kt-upnp-lib-nmc", "12:00:00:000  [Info] - LOG_SYSTEM: a\n");
  tw::platform::AndroidLogWrite(6, "tag", "no line feed");
  tw::platform::AndroidLogWrite(42, nullptr, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "kt-upnp-lib-nmc I 12:00:00:000  [Info] - LOG_SYSTEM: a\n"
            "tag E no line feed\n"
            " ? \n");
}
