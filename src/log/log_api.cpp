// SPDX-License-Identifier: Apache-2.0
// C entries of the log. Null texts and formats are treated as empty: nothing is written and
// nothing crashes.
#include <cstdarg>

#include "log/log.h"
#include "tarnwick/log.h"

extern "C" {

TW_API int upnp_log_init(const char* path) noexcept { return tw::log::Init(path) ? 1 : 0; }

TW_API void upnp_log_exit(void) noexcept { tw::log::Exit(); }

TW_API void upnp_log_enable(uint32_t flag) noexcept { tw::log::SetEnabled(flag); }

TW_API void upnp_log_set_mode(uint32_t mask) noexcept { tw::log::SetMode(mask); }

TW_API int upnp_log_enabled(uint32_t category) noexcept {
  return tw::log::CategoryEnabled(category) ? 1 : 0;
}

TW_API int upnp_log_to_appender(uint32_t category, int level) noexcept {
  return tw::log::Admits(category, level) ? 1 : 0;
}

TW_API void upnp_log_debug_impl(uint32_t category, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  tw::log::WriteFormatted(UPNP_LOG_LEVEL_DEBUG, category, format, args);
  va_end(args);
}

TW_API void upnp_log_info_impl(uint32_t category, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  tw::log::WriteFormatted(UPNP_LOG_LEVEL_INFO, category, format, args);
  va_end(args);
}

TW_API void upnp_log_problem_impl(uint32_t category, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  tw::log::WriteFormatted(UPNP_LOG_LEVEL_PROBLEM, category, format, args);
  va_end(args);
}

TW_API void upnp_log_err_impl(uint32_t category, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  tw::log::WriteFormatted(UPNP_LOG_LEVEL_ERROR, category, format, args);
  va_end(args);
}

TW_API void upnp_log_critical_impl(uint32_t category, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  tw::log::WriteCritical(category, format, args);
  va_end(args);
}

TW_API void upnp_log_register_critical_error_handler(
    upnp_log_critical_error_handler handler) noexcept {
  tw::log::SetCriticalHandler(handler);
}

TW_API void upnp_log_shutdown_on_critical_error(void) noexcept {
  tw::log::ShutdownOnCriticalError();
}

TW_API void upnp_log_message(int level, uint32_t category, const char* text) noexcept {
  tw::log::WriteLine(level, category, text);
}

TW_API void upnp_print_message_to_console(int level, uint32_t category, const char* text) noexcept {
  tw::log::WriteConsoleLine(level, category, text);
}

TW_API int upnp_log_puts(const char* text) noexcept {
  if (text == nullptr) return 0;
  return tw::log::Puts(text);
}

TW_API void upnp_log_flush(void) noexcept { tw::log::Flush(); }

TW_API void upnp_log_clear(void) noexcept { tw::log::Clear(); }

TW_API const char* upnp_log_get_filename(void) noexcept { return tw::log::FileName(); }

TW_API int upnp_log_initialized(void) noexcept { return tw::log::LockExists() ? 1 : 0; }

TW_API int log_init_critical_section(void) noexcept { return tw::log::CreateLock() ? 1 : 0; }

TW_API int log_exit_critical_section(void) noexcept { return tw::log::DestroyLock() ? 1 : 0; }

TW_API int lock_log(void) noexcept { return tw::log::Lock() ? 1 : 0; }

TW_API void unlock_log(void) noexcept { tw::log::Unlock(); }

}  // extern "C"
