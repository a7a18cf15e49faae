// SPDX-License-Identifier: Apache-2.0
#include "log/log.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "platform/android_log.h"
#include "platform/critical_section.h"
#include "platform/file_handle.h"
#include "platform/log_hook.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace tw::log {
namespace {

struct Named {
  uint32_t value;
  std::string_view name;
};

constexpr std::array<Named, 13> kCategories{{
    {UPNP_LOG_SYSTEM, "LOG_SYSTEM"},
    {UPNP_LOG_SSDP, "LOG_SSDP"},
    {UPNP_LOG_DB, "LOG_DB"},
    {UPNP_LOG_HTTP, "LOG_HTTP"},
    {UPNP_LOG_CLIENT_DB, "LOG_CLIENT_DB"},
    {UPNP_LOG_EVENTING, "LOG_EVENTING"},
    {UPNP_LOG_XML, "LOG_XML"},
    {UPNP_LOG_PLUGIN, "LOG_PLUGIN"},
    {UPNP_LOG_SCAN, "LOG_SCAN"},
    {UPNP_LOG_RMEDIA, "LOG_RMEDIA"},
    {UPNP_LOG_CONFLUX, "LOG_CONFLUX"},
    {UPNP_LOG_CGI, "LOG_CGI"},
    {UPNP_LOG_PERF, "LOG_PERF"},
}};

constexpr std::array<std::string_view, 5> kLevelTags{"[Debug]", "[Info]", "[Problem]", "[Error]",
                                                     "[Critical]"};

constexpr std::string_view kUnknown = "?";

// Timestamp buffer of a line: "HH:MM:SS:mmm " plus room to spare.
constexpr std::size_t kStampSize = 32;

// A log call can log again while it runs (formatting reports its own out-of-memory through the
// log). Past this depth on one thread, further lines are dropped so a persistent shortage cannot
// recurse without end.
constexpr int kMaxNesting = 4;

int RealSecondSink(int priority, const char* tag, const char* text) {
  return platform::AndroidLogWrite(priority, tag, text);
}

// The single log state. Words read without the lock are atomics; the file name is written only
// by Init (before other threads log) and read freely afterwards.
struct State {
  char file_name[kFileNameSize] = {};
  std::atomic<uint32_t> mode{0};
  std::atomic<upnp_log_critical_error_handler> handler{nullptr};
  LazyCriticalSection lock;
  std::atomic<upnp_file*> file{nullptr};
  std::atomic<uint32_t> enabled{1};
  std::atomic<SecondSink> second_sink{&RealSecondSink};
};

State g_state;

// How often this thread holds the log lock through Lock(), and how deep log calls are nested.
thread_local int t_lock_depth = 0;
thread_local int t_nesting = 0;

class NestingScope {
 public:
  NestingScope() noexcept { ++t_nesting; }
  ~NestingScope() { --t_nesting; }
  NestingScope(const NestingScope&) = delete;
  NestingScope& operator=(const NestingScope&) = delete;
  bool TooDeep() const noexcept { return t_nesting > kMaxNesting; }
};

// Holds the log lock for one line, unless this thread holds it already (then the line is written
// under the outer hold instead of re-entering).
class LineLock {
 public:
  LineLock() noexcept : nested_(t_lock_depth > 0), ok_(nested_ || Lock()) {}
  ~LineLock() {
    if (ok_ && !nested_) Unlock();
  }
  LineLock(const LineLock&) = delete;
  LineLock& operator=(const LineLock&) = delete;
  bool ok() const noexcept { return ok_; }

 private:
  bool nested_;
  bool ok_;
};

// The first character is preset so that a failed time lookup still prints something.
void Timestamp(char (&stamp)[kStampSize]) noexcept {
  std::memset(stamp, 0, sizeof(stamp));
  stamp[0] = '0';
  upnp_get_logging_timestamp(stamp, sizeof(stamp));
}

upnp_string* Compose(const char* format, ...) noexcept TW_PRINTF(1, 2);
upnp_string* Compose(const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  upnp_string* line = upnp_string_vsprintf(format, args);
  va_end(args);
  return line;
}

bool HasText(const upnp_string* s) noexcept {
  return s != nullptr && s->buffer != nullptr && s->length > 0;
}

void CloseFile() noexcept {
  // exchange: Puts runs without the lock, so two closers must not both get the handle.
  upnp_file* old = g_state.file.exchange(nullptr);
  if (old != nullptr) platform::ReleaseFile(old, true);
}

}  // namespace

std::string_view LevelTag(int level) noexcept {
  if (level < 0 || level >= static_cast<int>(kLevelTags.size())) return kUnknown;
  return kLevelTags[static_cast<std::size_t>(level)];
}

// By exact value: a combination such as 3 is "?" here although the filter treats it bit by bit.
std::string_view CategoryName(uint32_t category) noexcept {
  for (const Named& entry : kCategories) {
    if (entry.value == category) return entry.name;
  }
  return kUnknown;
}

void SetMode(uint32_t mask) noexcept { g_state.mode.store(mask, std::memory_order_relaxed); }

void SetEnabled(uint32_t flag) noexcept { g_state.enabled.store(flag, std::memory_order_relaxed); }

bool CategoryEnabled(uint32_t category) noexcept {
  return (g_state.mode.load(std::memory_order_relaxed) & category) == category;
}

// Mode 0 silences everything, problems and worse included; otherwise those always pass and
// debug/info (and unknown levels) need all bits of their category in the mode.
bool Admits(uint32_t category, int level) noexcept {
  if (g_state.mode.load(std::memory_order_relaxed) == 0) return false;
  if (level >= UPNP_LOG_LEVEL_PROBLEM && level <= UPNP_LOG_LEVEL_CRITICAL) return true;
  return CategoryEnabled(category);
}

bool CreateLock() noexcept {
  g_state.lock.Create();
  return true;
}

bool DestroyLock() noexcept { return g_state.lock.Destroy(); }

bool LockExists() noexcept { return g_state.lock.Live(); }

bool Lock() noexcept {
  if (!g_state.lock.Enter()) {
    std::puts("lock_log - critical section not initialized!");
    return false;
  }
  ++t_lock_depth;
  return true;
}

void Unlock() noexcept {
  if (!LockExists()) {
    std::puts("unlock_log - critical section not initialized!");
    // A thread whose lock was destroyed while it held it still lets go of the mutex.
    if (!g_state.lock.HeldByCaller()) return;
  }
  if (t_lock_depth > 0) --t_lock_depth;
  g_state.lock.Leave();
}

bool Init(const char* path) noexcept {
  g_state.file_name[0] = '\0';
  // A second init closes the file of the first rather than leaking its handle.
  CloseFile();
  CreateLock();
  if (path == nullptr) return true;

  char* copy = upnp_strdup_impl(path);
  if (copy == nullptr) {
    std::puts("upnp_log_init - out of memory ?");
    return false;
  }
  char* slash = std::strrchr(copy, '/');
  if (slash != nullptr) {
    *slash = '\0';
    // "/x.log" has nothing before its slash to create. Failures show up as a failed open below.
    if (copy[0] != '\0') platform::CreatePath(copy);
  }
  upnp_free_impl(copy);

  upnp_file* file = platform::OpenFile(path, platform::OpenMode::kAppend);
  if (file == nullptr) file = platform::OpenFile(path, platform::OpenMode::kWrite);
  if (file == nullptr) {
    std::printf("can't open log file (%s)\n", path);
    std::fprintf(stderr, "can't open log file (%s)\n", path);
    return false;
  }
  g_state.file.store(file);
  // Cut at the buffer size on purpose: a longer path is kept as its first 1023 characters (and
  // upnp_log_clear reopens that shortened name).
  std::strncpy(g_state.file_name, path, kFileNameSize);
  g_state.file_name[kFileNameSize - 1] = '\0';
  return true;
}

void Exit() noexcept {
  if (g_state.file_name[0] != '\0') CloseFile();
  DestroyLock();
}

void Clear() noexcept {
  if (g_state.file_name[0] == '\0') return;
  LineLock lock;
  if (!lock.ok()) return;
  CloseFile();
  upnp_file_unlink(g_state.file_name);
  // When the reopen fails the file stays null and lines go to standard output.
  g_state.file.store(platform::OpenFile(g_state.file_name, platform::OpenMode::kWrite));
}

void Flush() noexcept {
  upnp_file* file = g_state.file.load();
  if (file != nullptr) {
    upnp_file_flush(file);
  } else {
    std::fflush(stdout);
  }
}

const char* FileName() noexcept {
  return g_state.file_name[0] != '\0' ? g_state.file_name : nullptr;
}

int Puts(const char* text) noexcept {
  upnp_file* file = g_state.file.load();
  if (file == nullptr) return std::printf("%s", text);
  const std::size_t length = std::strlen(text);
  const int32_t written = upnp_file_write(file, text, static_cast<uint32_t>(length));
  if (written < 0 || static_cast<std::size_t>(written) < length) {
    // From here on lines go to standard output, until init or clear opens the file again.
    if (g_state.file.compare_exchange_strong(file, nullptr)) platform::ReleaseFile(file, true);
    std::printf("can't write log file\n%s", text);
  }
  return written;
}

void WriteLine(int level, uint32_t category, const char* text) noexcept {
  if (text == nullptr) text = "";
  if (!LockExists()) {
    std::fprintf(stderr, "upnp_log_message - LogCriticalSection not initialized! (%s)\n", text);
    return;
  }
  if (g_state.enabled.load(std::memory_order_relaxed) == 0) return;
  NestingScope nesting;
  if (nesting.TooDeep()) return;
  LineLock lock;
  if (!lock.ok()) return;

  char stamp[kStampSize];
  Timestamp(stamp);
  // The stamp ends in a blank, so two blanks stand before the level tag.
  upnp_string* line = Compose("%s %s - %s: %s%s", stamp, LevelTag(level).data(),
                              CategoryName(category).data(), text, "\n");
  if (HasText(line)) {
    Puts(line->buffer);
    g_state.second_sink.load()(platform::kAndroidLogInfo, kAndroidTag, line->buffer);
  }
  upnp_string_free(line);
}

void WriteConsoleLine(int level, uint32_t category, const char* text) noexcept {
  if (text == nullptr) text = "";
  NestingScope nesting;
  if (nesting.TooDeep()) return;
  LineLock lock;
  if (!lock.ok()) return;

  char stamp[kStampSize];
  Timestamp(stamp);
  // No blank after the colon here, unlike the file line: two layouts on purpose, and a reader of
  // standard output that splits at ":" would get a leading blank otherwise. Pinned by
  // Log.CriticalWritesBothLinesThenRunsHandlerThenExitsEvenWhenOff (both layouts).
  upnp_string* line = Compose("%s %s - %s:%s\n", stamp, LevelTag(level).data(),
                              CategoryName(category).data(), text);
  if (HasText(line)) {
    std::fwrite(line->buffer, 1, line->length, stdout);
    std::fflush(stdout);
  }
  upnp_string_free(line);
}

void WriteFormatted(int level, uint32_t category, const char* format, va_list args) noexcept {
  // The filter comes first: a silenced debug line costs no formatting.
  if (!Admits(category, level) || format == nullptr) return;
  NestingScope nesting;
  if (nesting.TooDeep()) return;
  upnp_string* text = upnp_string_vsprintf(format, args);
  if (HasText(text)) WriteLine(level, category, text->buffer);
  upnp_string_free(text);
}

void WriteCritical(uint32_t category, const char* format, va_list args) noexcept {
  if (format == nullptr) return;
  // Formatted whatever the mode: the console line below is written even with the log off.
  upnp_string* text = upnp_string_vsprintf(format, args);
  if (!HasText(text)) {
    // No text, no shutdown.
    upnp_string_free(text);
    return;
  }
  // Two separate holds of the lock (file line, then console line), never nested.
  if (Admits(category, UPNP_LOG_LEVEL_CRITICAL)) {
    WriteLine(UPNP_LOG_LEVEL_CRITICAL, category, text->buffer);
  }
  WriteConsoleLine(UPNP_LOG_LEVEL_CRITICAL, category, text->buffer);
  upnp_string_free(text);

  // The handler may act before the shutdown but cannot prevent it.
  const upnp_log_critical_error_handler handler = g_state.handler.load();
  if (handler != nullptr) handler();
  ShutdownOnCriticalError();
}

void SetCriticalHandler(upnp_log_critical_error_handler handler) noexcept {
  g_state.handler.store(handler);
}

void ShutdownOnCriticalError() noexcept { upnp_exit(0); }

namespace {

// The writer of the layers below the log: the same road as the upnp_log_*_impl entries.
void WriteFromBelow(int level, uint32_t category, const char* format, va_list args) noexcept {
  if (level == UPNP_LOG_LEVEL_CRITICAL) {
    WriteCritical(category, format, args);
  } else {
    WriteFormatted(level, category, format, args);
  }
}

// Installed while the library loads, so platform and util code can report from the host's
// first call on.
[[maybe_unused]] const platform::LogWriter g_writer_before_log =
    platform::InstallLogWriter(&WriteFromBelow);

}  // namespace

SecondSink SetSecondSinkForTest(SecondSink sink) noexcept {
  return g_state.second_sink.exchange(sink != nullptr ? sink : &RealSecondSink);
}

}  // namespace tw::log
