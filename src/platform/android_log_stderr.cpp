// SPDX-License-Identifier: Apache-2.0
// Stand-in for the Android log where liblog is absent (e.g. the armhf cross build): one line on
// stderr per call, "tag P text" with P the priority letter logcat uses, so the second sink stays
// observable in tests and on the console.
#include <cstdio>
#include <cstring>

#include "platform/android_log.h"

namespace tw::platform {

namespace {

char PriorityLetter(int priority) noexcept {
  constexpr char kLetters[] = "??VDIWEF";  // index = android_LogPriority value
  if (priority < 0 || priority >= static_cast<int>(sizeof(kLetters) - 1)) return '?';
  return kLetters[priority];
}

}  // namespace

int AndroidLogWrite(int priority, const char* tag, const char* text) noexcept {
  if (tag == nullptr) tag = "";
  if (text == nullptr) text = "";
  const size_t length = std::strlen(text);
  // Log lines already end in a line feed; add one only where a caller's text lacks it. One
  // fprintf call keeps the line whole when several threads write at once.
  const char* end = (length > 0 && text[length - 1] == '\n') ? "" : "\n";
  const int written = std::fprintf(stderr, "%s %c %s%s", tag, PriorityLetter(priority), text, end);
  return written < 0 ? -1 : written;
}

}  // namespace tw::platform
