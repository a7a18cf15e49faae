// SPDX-License-Identifier: Apache-2.0
// External programs: started in the background (remembered in a table) or waited for.
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/log_hook.h"
#include "platform/process_internal.h"
#include "tarnwick/platform.h"

namespace tw::platform {
namespace {

constexpr int kMaxActiveProcesses = 50;
// Argument slots: program (or nice and program) plus tokens. One more slot than may be filled
// keeps the vector null-terminated for execv even when all of them are used.
constexpr int kArgSlots = 30;
constexpr const char* kNicePath = "/usr/bin/nice";
constexpr useconds_t kPollPauseUs = 1000000;

struct ActiveProcess {
  pid_t pid;
  char* program;  // owned (upnp_strdup_impl); null when that copy failed
};

// No lock of its own: the process calls are made from one thread at a time.
ActiveProcess g_active[kMaxActiveProcesses];
int32_t g_active_count = 0;

void RemoveActive(int index) {
  if (g_active[index].program != nullptr) upnp_free_impl(g_active[index].program);
  g_active[index] = g_active[g_active_count - 1];
  g_active[g_active_count - 1] = ActiveProcess{0, nullptr};
  --g_active_count;
}

bool HasProc() {
  struct stat st;
  return stat("/proc", &st) == 0;
}

// Returns only in the parent. The child never returns from here.
[[noreturn]] void ExecChild(const char* first, char* const* argv, const char* second,
                            char* const* argv2) {
  execv(first, argv);
  if (second != nullptr) execv(second, argv2);
  std::perror("execv");
  _exit(0);  // no atexit handlers or stdio flushes of the parent's state in the child
}

pid_t WaitNoIntr(pid_t pid, int* status, int flags) {
  pid_t r;
  do {
    r = waitpid(pid, status, flags);
  } while (r < 0 && errno == EINTR);
  return r;
}

}  // namespace

int SplitParams(char* text, char** argv, int used, int capacity) noexcept {
  if (text == nullptr) return used;
  char* p = text;
  while (*p != '\0') {
    while (*p == ' ') ++p;
    if (*p == '\0') break;  // trailing blanks make no empty token
    char delimiter = ' ';
    if (*p == '"') {
      delimiter = '"';
      ++p;
    }
    char* start = p;
    while (*p != '\0' && *p != delimiter) ++p;
    if (used < capacity) argv[used++] = start;
    if (*p == '\0') break;
    *p++ = '\0';
  }
  return used;
}

int ActiveProcessCount() noexcept { return g_active_count; }

pid_t ActiveProcessId(int index) noexcept {
  return index >= 0 && index < g_active_count ? g_active[index].pid : 0;
}

int CheckActiveProcesses(const char* program) noexcept {
  int result = 0;
  const bool have_proc = HasProc();
  for (int i = 0; i < g_active_count;) {
    const pid_t pid = g_active[i].pid;
    bool ended;
    if (!have_proc) {
      ended = WaitNoIntr(pid, nullptr, WNOHANG) == pid;
    } else {
      char path[20];
      std::snprintf(path, sizeof path, "/proc/%d", static_cast<int>(pid));
      WaitNoIntr(pid, nullptr, WNOHANG);  // reaps a zombie, so its /proc entry goes away
      struct stat st;
      ended = stat(path, &st) != 0;
    }
    if (ended) {
      RemoveActive(i);
      continue;  // slot i now holds the former last entry
    }
    if (program != nullptr && g_active[i].program != nullptr &&
        std::strcmp(g_active[i].program, program) == 0) {
      result = 1;
    }
    ++i;
  }
  return result;
}

int StartInBackground(const char* program, char* params) noexcept {
  if (CheckActiveProcesses(program) != 0) return 1;
  if (g_active_count > kMaxActiveProcesses - 1) return 2;
  char* argv[kArgSlots + 1] = {};
  argv[0] = const_cast<char*>(program);
  SplitParams(params, argv, 1, kArgSlots);
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("fork");
    return 0;
  }
  if (pid == 0) ExecChild(program, argv, nullptr, nullptr);
  g_active[g_active_count++] = ActiveProcess{pid, upnp_strdup_impl(program)};
  return 0;
}

int RunAndWait(const char* program, const char* params, upnp_process_callback callback,
               void* callback_arg) noexcept {
  char* copy = nullptr;
  if (params != nullptr) {
    copy = upnp_strdup_impl(params);
    if (copy == nullptr) return -1;
  }
  char* argv[kArgSlots + 1] = {};
  argv[0] = const_cast<char*>(kNicePath);
  argv[1] = const_cast<char*>(program);
  SplitParams(copy, argv, 2, kArgSlots);
  tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SYSTEM, "system_call_waiting strProg %s",
                    program);
  tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SYSTEM, "system_call_waiting strParam %s",
                    params != nullptr ? params : "");

  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("fork");
    if (copy != nullptr) upnp_free_impl(copy);
    return 0;
  }
  // nice without options lowers the child's priority by its default step; where nice is missing
  // the program runs directly with the same arguments.
  if (pid == 0) ExecChild(kNicePath, argv, program, argv + 1);

  tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SYSTEM, "system_call_waiting waitpid %d...",
                    static_cast<int>(pid));
  int result = 0;
  int status = 0;
  if (callback == nullptr) {
    WaitNoIntr(pid, &status, 0);
  } else {
    for (;;) {
      const pid_t r = WaitNoIntr(pid, &status, WNOHANG);
      if (r < 0) {
        result = -1;
        break;
      }
      if (r == pid) {
        result = (status & 0x7f) == 0 ? 0 : -1;
        break;
      }
      const int verdict = callback(callback_arg);
      if (verdict != 0) {
        kill(pid, SIGKILL);
        // A blocking wait: SIGKILL cannot be caught, so the child is gone promptly, and a
        // non-blocking wait right after the kill would usually miss it and leave a zombie.
        WaitNoIntr(pid, &status, 0);
        result = verdict;
        break;
      }
      usleep(kPollPauseUs);
    }
  }
  tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SYSTEM, "system_call_waiting waitpid %d done",
                    static_cast<int>(pid));
  if (copy != nullptr) upnp_free_impl(copy);
  return result;
}

void TerminateActiveProcesses() noexcept {
  for (int i = 0; i < g_active_count; ++i) {
    kill(g_active[i].pid, SIGKILL);
    WaitNoIntr(g_active[i].pid, nullptr, 0);
    if (g_active[i].program != nullptr) upnp_free_impl(g_active[i].program);
    g_active[i] = ActiveProcess{0, nullptr};
  }
  g_active_count = 0;
}

}  // namespace tw::platform

extern "C" {

TW_API int system_call_no_wait(const char* program, char* params) noexcept {
  if (program == nullptr) return 0;
  return tw::platform::StartInBackground(program, params);
}

TW_API int system_call_waiting(const char* program, const char* params) noexcept {
  return system_call_waiting_prio(program, params, 0, nullptr, nullptr);
}

TW_API int system_call_waiting_prio(const char* program, const char* params, int32_t,
                                    upnp_process_callback callback, void* callback_arg) noexcept {
  if (program == nullptr) return -1;
  return tw::platform::RunAndWait(program, params, callback, callback_arg);
}

TW_API int check_active_processes(const char* program) noexcept {
  return tw::platform::CheckActiveProcesses(program);
}

TW_API void terminate_active_processes(void) noexcept { tw::platform::TerminateActiveProcesses(); }

TW_API int is_process_running(const char*) noexcept { return 0; }

}  // extern "C"
