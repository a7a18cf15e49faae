// SPDX-License-Identifier: Apache-2.0
// The command line, the executable's name and directory, the data directory and the default INI
// files that seed a first run.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "config/config_state.h"
#include "platform/allocator.h"
#include "platform/critical_section.h"
#include "tarnwick/log.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace tw::config {

namespace {

constexpr char kDefaultAppName[] = "tarnwick";
// The name buffer holds 1024 bytes, but only 1022 characters are ever kept.
constexpr size_t kAppNameKept = kAppNameSize - 2;

bool IsIgnoredLocked(const char* arg) noexcept {
  for (int32_t i = 0; i < g_state.ignored_count; ++i) {
    if (std::strcmp(g_state.ignored[i], arg) == 0) return true;
  }
  return false;
}

// "-inifile path": the directory goes to inipath, the file name to ininame.
void ApplyIniFileOption(const char* value) noexcept {
  char* dir = nullptr;
  char* name = nullptr;
  upnp_file_split_path(value, &dir, &name);
  CPtr dir_owner(dir);
  CPtr name_owner(name);
  LazyGuard guard(g_ini_lock);
  if (!guard.held()) return;
  if (dir != nullptr) {
    SetValueLocked(FindByKeyLocked(kKeyIniPath), dir, true, true, Origin::kCommandLine);
  }
  if (name != nullptr) {
    SetValueLocked(FindByKeyLocked(kKeyIniName), name, true, true, Origin::kCommandLine);
  }
}

// Run only when no INI file exists yet. Every name is tried, newest first, without stopping at
// a success, so the oldest name that is found is the copy that stays.
void CopyDefaultIniFiles() noexcept {
  LazyGuard guard(g_ini_lock);
  if (!guard.held()) return;
  const char* destination = IniPathLocked();
  if (destination == nullptr || upnp_file_exists(destination)) return;
  const Property* ini_dir_property = FindByKeyLocked(kKeyIniPath);
  const char* ini_dir = ini_dir_property != nullptr ? EffectiveValue(*ini_dir_property) : nullptr;
  const char* exe_dir = ExeDirLocked();
  for (const NameNode* node = g_state.default_files; node != nullptr; node = node->next) {
    CPtr beside_ini(upnp_file_build_path(ini_dir, node->name));
    if (beside_ini && upnp_file_exists(beside_ini.get())) {
      // A source that is the INI path itself (a name equal to ininame, copied into place by an
      // earlier name) would truncate the file it reads.
      if (std::strcmp(beside_ini.get(), destination) != 0) {
        upnp_file_copy(beside_ini.get(), destination);
        upnp_log_info_impl(kLogSystem, "existing ini file %s copied to %s", beside_ini.get(),
                           destination);
      }
      continue;
    }
    CPtr beside_exe(upnp_file_build_path(exe_dir, node->name));
    if (beside_exe && upnp_file_exists(beside_exe.get()) &&
        std::strcmp(beside_exe.get(), destination) != 0) {
      upnp_file_copy(beside_exe.get(), destination);
      // "exisiting" is spelled so on purpose: it tells this source apart in the log.
      upnp_log_info_impl(kLogSystem, "exisiting ini file %s copied to %s", beside_exe.get(),
                         destination);
    }
  }
}

}  // namespace

const char* ExeDirLocked() noexcept {
  if (g_state.exe_dir != nullptr) return g_state.exe_dir;
  const char* name = g_state.exe_name;
  const char* slash = name != nullptr ? std::strrchr(name, '/') : nullptr;
  g_state.exe_dir =
      DupToC(slash != nullptr ? std::string_view(name, static_cast<size_t>(slash - name))
                              : std::string_view());
  return g_state.exe_dir;
}

void PrintUsage(const char* program_name) noexcept {
  const char* name = program_name != nullptr ? program_name : "";
  std::printf("\nusage: %s\n\n", name);
  std::puts("       all params from the .ini file can be used as an option, preceded by a -");
  std::printf("       e.g. %s -v 255\n", name);
  std::puts("       -inifile path and filename of ini file");
  std::puts("       -inipath path to ini file");
  std::puts("       -ininame filename of ini file");
  std::fflush(stdout);
}

int32_t ParseCommandLine(int32_t argc, char* const* argv) noexcept {
  if (!LockReady()) return 0;
  if (argv != nullptr && argc > 0 && argv[0] != nullptr) {
    LazyGuard guard(g_ini_lock);
    if (!guard.held()) return 0;
    if (g_state.exe_name == nullptr) {
      g_state.exe_name = upnp_strdup_impl(argv[0]);
      if (g_state.exe_dir != nullptr) upnp_free_impl(g_state.exe_dir);
      g_state.exe_dir = nullptr;
      ExeDirLocked();
    }
  }
  for (int32_t i = 1; argv != nullptr && i < argc; ++i) {
    const char* arg = argv[i];
    if (arg == nullptr) continue;
    if (std::strchr(arg, '?') != nullptr || std::strstr(arg, "help") != nullptr) {
      // Stops the walk: what was applied before stays, nothing after it is.
      PrintUsage(argv[0]);
      return 1;
    }
    if (arg[0] != '-') continue;
    {
      LazyGuard guard(g_ini_lock);
      if (!guard.held()) return 0;
      // An ignored parameter's value is met next as an argument without a dash and skipped.
      if (IsIgnoredLocked(arg)) continue;
    }
    const char* name = arg + 1;
    if (*name == '-') ++name;
    const char* value = "";
    if (i + 1 < argc && argv[i + 1] != nullptr && argv[i + 1][0] != '-') value = argv[++i];
    if (EqualsIgnoreCase(name, "inifile")) {
      ApplyIniFileOption(value);
    } else {
      LazyGuard guard(g_ini_lock);
      if (!guard.held()) return 0;
      SetValueLocked(FindByNameLocked(name), value, true, true, Origin::kCommandLine);
    }
  }
  InitDataDir();
  CopyDefaultIniFiles();
  ReadIniFile();
  g_state.restart_pending.store(0, std::memory_order_relaxed);
  return 0;
}

bool AddIgnoredParam(const char* text) noexcept {
  if (text == nullptr) return false;
  LazyGuard guard(g_ini_lock);
  if (!guard.held()) return false;
  if (g_state.ignored_count >= kMaxIgnoredParams) return false;
  char* copy = upnp_strdup_impl(text);
  if (copy == nullptr) return false;
  g_state.ignored[g_state.ignored_count++] = copy;
  return true;
}

void SetDefaultAppName(const char* name) noexcept {
  if (name == nullptr) return;
  auto store = [name] {
    const size_t length = std::strlen(name) < kAppNameKept ? std::strlen(name) : kAppNameKept;
    std::memcpy(g_state.app_name, name, length);
    g_state.app_name[length] = '\0';
  };
  // Before the first init nothing else can look at the buffer yet, so it is stored unguarded.
  LazyGuard guard(g_ini_lock);
  store();
}

void AddDefaultFile(const char* name) noexcept {
  if (name == nullptr || !LockReady()) return;
  auto* node = static_cast<NameNode*>(upnp_malloc_impl(sizeof(NameNode)));
  char* copy = upnp_strdup_impl(name);
  if (node == nullptr || copy == nullptr) {
    if (node != nullptr) upnp_free_impl(node);
    if (copy != nullptr) upnp_free_impl(copy);
    return;
  }
  LazyGuard guard(g_ini_lock);
  if (!guard.held()) {
    upnp_free_impl(node);
    upnp_free_impl(copy);
    return;
  }
  node->name = copy;
  node->next = g_state.default_files;
  g_state.default_files = node;
}

void InitDataDir() noexcept {
  if (!LockReady()) return;
  CPtr base(getAppDataDir());
  LazyGuard guard(g_ini_lock);
  if (!guard.held()) return;
  if (g_state.app_name[0] == '\0') {
    std::memcpy(g_state.app_name, kDefaultAppName, sizeof(kDefaultAppName));
  }
  CPtr candidate;
  if (base) {
    const size_t size = std::strlen(base.get()) + 1 + std::strlen(g_state.app_name) + 1;
    candidate.reset(static_cast<char*>(upnp_malloc_impl(size)));
    if (candidate)
      std::snprintf(candidate.get(), size, "%s%c%s", base.get(), '/', g_state.app_name);
  } else {
    const char* exe_dir = ExeDirLocked();
    if (exe_dir != nullptr) candidate.reset(upnp_strdup_impl(exe_dir));
  }
  Property* appdata = FindByKeyLocked(kKeyAppData);
  if (appdata == nullptr) return;
  const char* current = EffectiveValue(*appdata);
  if ((current == nullptr || *current == '\0') && candidate) {
    SetValueLocked(appdata, candidate.get(), true, true, Origin::kProgram);
  }
  current = EffectiveValue(*appdata);
  if (current != nullptr && *current != '\0') upnp_file_mkdir(current);  // one level only

  Property* ini_dir = FindByKeyLocked(kKeyIniPath);
  const char* ini_dir_value = ini_dir != nullptr ? EffectiveValue(*ini_dir) : nullptr;
  if (ini_dir != nullptr && (ini_dir_value == nullptr || *ini_dir_value == '\0') &&
      current != nullptr) {
    SetValueLocked(ini_dir, current, true, true, Origin::kProgram);
  }
}

void FreeCommandLineStateLocked() noexcept {
  if (g_state.exe_name != nullptr) upnp_free_impl(g_state.exe_name);
  if (g_state.exe_dir != nullptr) upnp_free_impl(g_state.exe_dir);
  g_state.exe_name = nullptr;
  g_state.exe_dir = nullptr;
  for (int32_t i = 0; i < g_state.ignored_count; ++i) upnp_free_impl(g_state.ignored[i]);
  g_state.ignored_count = 0;
}

}  // namespace tw::config
