// SPDX-License-Identifier: Apache-2.0
// The Android system log as the log's second sink. The build picks one implementation file:
// android_log_liblog.cpp when liblog is available (NDK builds, or Debian's android-liblog on
// Linux), android_log_stderr.cpp otherwise (a stand-in that keeps the line visible on stderr).
#pragma once

namespace tw::platform {

// Android log priorities used by the library (the values of android_LogPriority).
inline constexpr int kAndroidLogInfo = 4;

// Writes one ready text under tag at priority. Returns what the sink reports (liblog: a
// positive count on success, negative on failure); never blocks on the log's own lock.
int AndroidLogWrite(int priority, const char* tag, const char* text) noexcept;

}  // namespace tw::platform
