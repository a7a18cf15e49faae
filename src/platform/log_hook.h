// SPDX-License-Identifier: Apache-2.0
// How the layers below the log (platform, util) write log lines. They cannot call the log
// directly: the log is built on them (its lines are formatted by the dynamic string and written
// through the file and lock wrappers). The log installs its writer here while the library loads,
// before any host call can reach code that reports, so a line written through Log() behaves
// exactly like the same upnp_log_*_impl call: same filter, same layout, and a critical line ends
// the library.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "tarnwick/export.h"
#include "tarnwick/types.h"  // UPNP_LOG_* categories and levels

namespace tw::platform {

// level is UPNP_LOG_LEVEL_*; category a UPNP_LOG_* bit.
using LogWriter = void (*)(int level, uint32_t category, const char* format, va_list args);

// Replaces the writer (null drops every line). Returns the writer installed before.
LogWriter InstallLogWriter(LogWriter writer) noexcept;

// Writes one line through the installed writer; nothing happens before one is installed.
void Log(int level, uint32_t category, const char* format, ...) noexcept TW_PRINTF(3, 4);

}  // namespace tw::platform
