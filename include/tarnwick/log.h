/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The process-wide log.
 *
 * A message has a category (a single bit naming the subsystem that speaks, see UPNP_LOG_*) and a
 * level (0 debug, 1 info, 2 problem, 3 error, 4 critical). The log mode is a bit mask: debug and
 * info lines pass when all bits of their category are in the mode; problems, errors and critical
 * lines pass whenever the mode is not 0. The mode starts at 0, so nothing is written until the
 * host sets one (directly or through the `v` property).
 *
 * Each line goes to the log file (standard output when there is none) and to the Android log.
 * A critical message also reaches standard output, runs the registered critical-error handler
 * and then ends the library through upnp_exit(0).
 *
 * Any thread may log; lines never interleave. Call upnp_log_init first and upnp_log_exit last.
 */
#ifndef TARNWICK_LOG_H
#define TARNWICK_LOG_H

#include <stdarg.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* Categories (UPNP_LOG_*) and levels (UPNP_LOG_LEVEL_*) are in tarnwick/types.h. */

typedef void (*upnp_log_critical_error_handler)(void);

/* 1 on success, 0 when the file cannot be opened or memory is short (the lock exists either
 * way). A null path sends every line to standard output. Missing directories are created and an
 * existing file is appended to; a file opened by an earlier call is closed. The name is kept cut
 * to 1023 characters. */
TW_API int upnp_log_init(const char* path) TW_NOEXCEPT;
/* Closes the file and destroys the lock; the remembered file name stays. */
TW_API void upnp_log_exit(void) TW_NOEXCEPT;
TW_API void upnp_log_enable(uint32_t flag) TW_NOEXCEPT;
TW_API void upnp_log_set_mode(uint32_t mask) TW_NOEXCEPT;
/* 1 when every bit of category is in the mode, so category 0 is always enabled. */
TW_API int upnp_log_enabled(uint32_t category) TW_NOEXCEPT;
TW_API int upnp_log_to_appender(uint32_t category, int level) TW_NOEXCEPT;

TW_API void upnp_log_debug_impl(uint32_t category, const char* format, ...) TW_NOEXCEPT
    TW_PRINTF(2, 3);
TW_API void upnp_log_info_impl(uint32_t category, const char* format, ...) TW_NOEXCEPT
    TW_PRINTF(2, 3);
TW_API void upnp_log_problem_impl(uint32_t category, const char* format, ...) TW_NOEXCEPT
    TW_PRINTF(2, 3);
TW_API void upnp_log_err_impl(uint32_t category, const char* format, ...) TW_NOEXCEPT
    TW_PRINTF(2, 3);
/* Formats whatever the mode; writes the file line when the filter admits it and the console
 * line always, runs the critical-error handler, then ends the library (upnp_exit(0)). Returns
 * only when a registered exit function returns, or when formatting produced no text. */
TW_API void upnp_log_critical_impl(uint32_t category, const char* format, ...) TW_NOEXCEPT
    TW_PRINTF(2, 3);

/* Called after a critical message is written, before the shutdown; null removes it. */
TW_API void upnp_log_register_critical_error_handler(upnp_log_critical_error_handler handler)
    TW_NOEXCEPT;
TW_API void upnp_log_shutdown_on_critical_error(void) TW_NOEXCEPT;

/* The common back end: formats and writes one line at level (0..4; others print "?"). */
TW_API void upnp_log_message(int level, uint32_t category, const char* text) TW_NOEXCEPT;
/* One line to standard output only, whatever the mode and the enabled switch. */
TW_API void upnp_print_message_to_console(int level, uint32_t category,
                                          const char* text) TW_NOEXCEPT;
/* Writes a ready text to the log file, or to standard output without one, and returns the
 * count the write reported; 0 for null. A short write closes the file: later lines go to
 * standard output until upnp_log_init or upnp_log_clear opens it again. Takes no lock. */
TW_API int upnp_log_puts(const char* text) TW_NOEXCEPT;
/* Takes no lock: do not race it with upnp_log_clear or upnp_log_exit. */
TW_API void upnp_log_flush(void) TW_NOEXCEPT;
/* Empties the log file under the lock; when the file cannot be reopened lines go to standard
 * output. Nothing happens without a file. */
TW_API void upnp_log_clear(void) TW_NOEXCEPT;
/* The open file's path, owned by the log, or null when logging to standard output. */
TW_API const char* upnp_log_get_filename(void) TW_NOEXCEPT;
TW_API int upnp_log_initialized(void) TW_NOEXCEPT;

/* Creates the lock unless it exists; 1. */
TW_API int log_init_critical_section(void) TW_NOEXCEPT;
/* Destroys the lock: 1, or 0 when there was none. */
TW_API int log_exit_critical_section(void) TW_NOEXCEPT;
/* 1 on success, 0 with a note on standard output when the lock does not exist. A thread holding
 * the lock may still log: its lines are written under that hold. */
TW_API int lock_log(void) TW_NOEXCEPT;
TW_API void unlock_log(void) TW_NOEXCEPT;

TW_EXTERN_C_END

#endif /* TARNWICK_LOG_H */
