// SPDX-License-Identifier: Apache-2.0
// What the parts of the example server share: its settings and its one output line.
#include "host.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace mediaserver {
namespace {

Settings g_settings;
std::mutex g_say_mutex;

}  // namespace

const Settings& CurrentSettings() { return g_settings; }
void SetSettings(const Settings& settings) { g_settings = settings; }

void Say(const char* format, ...) {
  std::lock_guard<std::mutex> lock(g_say_mutex);
  std::fputs("mediaserver: ", stdout);
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace mediaserver
