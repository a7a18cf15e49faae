// SPDX-License-Identifier: Apache-2.0
// The process-wide log behind the upnp_log_* entries: one static state record, the filter, line
// composition and the two sinks (the log file or standard output, and the Android log).
//
// Locking: the log lock is taken once per line. A thread that already holds it (the host called
// lock_log, or a helper that the log calls while writing reports a failure) writes any nested
// line without entering the lock again: re-entering would log a re-entry problem under the very
// lock being re-entered.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string_view>

#include "tarnwick/log.h"

namespace tw::log {

// Tag and priority of every line in the Android log.
inline constexpr const char* kAndroidTag = "kt-upnp-lib-nmc";

// Size of the file name buffer; longer paths are cut to kFileNameSize - 1 characters.
inline constexpr std::size_t kFileNameSize = 1024;

// Names and tags for the line layouts; "?" for anything unknown. Views are made from literals, so
// data() is NUL-terminated.
std::string_view LevelTag(int level) noexcept;
std::string_view CategoryName(uint32_t category) noexcept;

// Mode and switches. Reads are unlocked single-word loads.
void SetMode(uint32_t mask) noexcept;
void SetEnabled(uint32_t flag) noexcept;
bool CategoryEnabled(uint32_t category) noexcept;
bool Admits(uint32_t category, int level) noexcept;

// The lock. Lock/Unlock print the "not initialized" notes when the lock does not exist.
bool CreateLock() noexcept;
bool DestroyLock() noexcept;
bool LockExists() noexcept;
bool Lock() noexcept;
void Unlock() noexcept;

// Lifecycle and the file.
bool Init(const char* path) noexcept;
void Exit() noexcept;
void Clear() noexcept;
void Flush() noexcept;
// The stored path, or null when lines go to standard output.
const char* FileName() noexcept;

// Writing. WriteLine is upnp_log_message; WriteConsoleLine is upnp_print_message_to_console.
void WriteLine(int level, uint32_t category, const char* text) noexcept;
void WriteConsoleLine(int level, uint32_t category, const char* text) noexcept;
int Puts(const char* text) noexcept;
// Filter, format, write (the debug..error entries).
void WriteFormatted(int level, uint32_t category, const char* format, va_list args) noexcept
    TW_PRINTF(3, 0);
// Format, write to the file and the console, run the handler, end the library.
void WriteCritical(uint32_t category, const char* format, va_list args) noexcept TW_PRINTF(2, 0);

void SetCriticalHandler(upnp_log_critical_error_handler handler) noexcept;
void ShutdownOnCriticalError() noexcept;

// Test seam (not exported): replaces the Android sink; null restores the real one. Returns the
// sink that was installed before. The sink is called with the log lock held.
using SecondSink = int (*)(int priority, const char* tag, const char* text);
SecondSink SetSecondSinkForTest(SecondSink sink) noexcept;

}  // namespace tw::log
