// SPDX-License-Identifier: Apache-2.0
// The second log sink on top of liblog.
#include <android/log.h>

#include "platform/android_log.h"

namespace tw::platform {

static_assert(kAndroidLogInfo == ANDROID_LOG_INFO, "priority numbers are liblog's own");

int AndroidLogWrite(int priority, const char* tag, const char* text) noexcept {
  return __android_log_write(priority, tag, text);
}

}  // namespace tw::platform
