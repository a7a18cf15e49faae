// SPDX-License-Identifier: Apache-2.0
// What main.cpp gives the parts in the program: the settings and the host's output line. The
// tests set the settings themselves; the output goes to standard output as in the program.
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "host.h"

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
