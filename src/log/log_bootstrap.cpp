// SPDX-License-Identifier: Apache-2.0
// Temporary bootstrap until the log lands: prints problem lines to stdout.
#include <cstdarg>
#include <cstdio>
#include "tarnwick/log.h"
static unsigned g_mode;
extern "C" {
TW_API int upnp_log_init(const char*) noexcept { return 1; }
TW_API void upnp_log_exit(void) noexcept {}
TW_API void upnp_log_set_mode(uint32_t m) noexcept { g_mode = m; }
TW_API void upnp_log_problem_impl(uint32_t, const char* f, ...) noexcept {
  if (!g_mode) return;
  va_list a; va_start(a, f); std::printf("00:00:00:000  [Problem] - LOG_SYSTEM: "); std::vprintf(f, a); std::printf("\n"); va_end(a);
}
}
