// SPDX-License-Identifier: Apache-2.0
#include "platform/log_hook.h"

#include <atomic>

namespace tw::platform {
namespace {

// Constant-initialised, so it is null (not garbage) for any code that runs before the log's
// installer.
std::atomic<LogWriter> g_writer{nullptr};

}  // namespace

LogWriter InstallLogWriter(LogWriter writer) noexcept { return g_writer.exchange(writer); }

void Log(int level, uint32_t category, const char* format, ...) noexcept {
  const LogWriter writer = g_writer.load(std::memory_order_acquire);
  if (writer == nullptr) return;
  va_list args;
  va_start(args, format);
  writer(level, category, format, args);
  va_end(args);
}

}  // namespace tw::platform
