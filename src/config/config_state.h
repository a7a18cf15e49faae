// SPDX-License-Identifier: Apache-2.0
// Process-wide state of the configuration: the property table, its caches and the lists of the
// command line. Internal to src/config.
//
// Locking: g_ini_lock guards every field of State except the atomics. It is live from the first
// init to the last release; accessors hold it through LazyGuard and give their "missing" result
// when it is not held. Functions named ...Locked expect the caller to hold it (taken once per
// call path); the lock is never re-entered, because a re-entry logs a problem line. Lock order: the
// configuration lock may be held while files are touched and while logging (config -> log ->
// memory).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/critical_section.h"
#include "tarnwick/config.h"
#include "tarnwick/platform.h"

namespace tw::config {

inline constexpr uint32_t kMaxKeys = UPNP_INI_MAX_KEYS;
inline constexpr int kMaxProperties = UPNP_INI_MAX_PROPERTIES;
inline constexpr int kMaxIgnoredParams = 20;
inline constexpr size_t kAppNameSize = 1024;
inline constexpr uint32_t kLogSystem = 1;

// Keys the module itself reacts to.
inline constexpr uint32_t kKeyVerbose = UPNP_INI_KEY_V;
inline constexpr uint32_t kKeyIniName = UPNP_INI_KEY_ININAME;
inline constexpr uint32_t kKeyIniPath = UPNP_INI_KEY_INIPATH;
inline constexpr uint32_t kKeyReadOnly = UPNP_INI_KEY_READ_ONLY;
inline constexpr uint32_t kKeyAppData = UPNP_INI_KEY_APPDATA;

enum class Origin : int32_t {
  kDefault = UPNP_INI_ORIGIN_DEFAULT,
  kIniFile = UPNP_INI_ORIGIN_INI_FILE,
  kCommandLine = UPNP_INI_ORIGIN_COMMAND_LINE,
  kProgram = UPNP_INI_ORIGIN_PROGRAM,
};

// One property. All strings are owned accounted blocks.
struct Property {
  uint32_t key;
  char* name;
  char* value;          // null: not set, the default applies
  char* default_value;  // may be null
  int32_t is_list;
  int32_t list_count;  // 0: list cache empty
  char** list_items;   // item 0 owns the cut copy of the value; the others point into it
  char* description;   // may be null
  int32_t hidden;
  int32_t disabled;
  int32_t restart_required;
  Origin origin;
};

struct NameNode {
  char* name;  // owned
  NameNode* next;
};

struct State {
  std::atomic<int32_t> init_count{0};
  // Position of each key's record, or -1. Atomic so that upnp_ini_file_isValidKey may answer
  // without the lock; written only under it.
  std::atomic<int16_t> key_index[kMaxKeys] = {};
  // Read without the lock by the restart-pending accessors.
  std::atomic<int32_t> restart_pending{0};

  Property* records = nullptr;  // creation order, grows by one record per property
  int16_t count = 0;
  char* exe_name = nullptr;
  char* exe_dir = nullptr;
  char* ini_path = nullptr;  // cached join of inipath and ininame
  char app_name[kAppNameSize] = {};
  NameNode* default_files = nullptr;  // newest first
  char* ignored[kMaxIgnoredParams] = {};
  int32_t ignored_count = 0;
  bool utf16 = false;  // a UTF-16 file was read: write UTF-16 from then on
};

extern LazyCriticalSection g_ini_lock;
extern State g_state;

// True while the module is initialised (the lock is live): a cheap early exit before work that
// needs the lock; the lock itself is taken through LazyGuard.
inline bool LockReady() noexcept { return g_ini_lock.Live(); }

// ASCII-only case-insensitive equality of two NUL-terminated strings.
bool EqualsIgnoreCase(const char* a, const char* b) noexcept;

// ---- properties.cpp ----
Property* FindByKeyLocked(uint32_t key) noexcept;
Property* FindByNameLocked(const char* name) noexcept;
// The value if set, else the default (may be null).
const char* EffectiveValue(const Property& p) noexcept;
// The one setting routine. forced lets hidden properties be set; from_interface marks the
// program and the command line (which beat the INI file). origin is recorded for a stored value.
void SetValueLocked(Property* p, const char* value, bool forced, bool from_interface,
                    Origin origin) noexcept;
int32_t CreatePropertyLocked(uint32_t key, const char* name, const char* default_value,
                             const char* description, bool is_list, bool hidden, bool disabled,
                             bool restart_required) noexcept;
void DropListCache(Property* p) noexcept;
const char* ListItemLocked(Property* p, int32_t index) noexcept;
void Init() noexcept;
void Release() noexcept;

// ---- property_table.cpp ----
// Creates every built-in property; failures are logged.
void CreateBuiltinsLocked() noexcept;

// ---- ini_file.cpp ----
// The cached INI path, built on first use (null when inipath is unset or memory is short).
const char* IniPathLocked() noexcept;
void DropIniPathLocked() noexcept;
void ReadIniFile() noexcept;
void WriteIniFile() noexcept;
void DeleteIniFile() noexcept;
// Bytes of zeros a file buffer carries behind its data: two terminate the text, two more keep
// the last UTF-16 unit of a file with an odd number of bytes inside the block.
inline constexpr size_t kIniPadding = 4;
// Applies INI text (UTF-8) line by line; text is cut in place.
void ApplyIniText(char* text, size_t length) noexcept;
// Applies the bytes of a whole INI file (UTF-16 behind FF FE); buffer[length] .. buffer[length +
// kIniPadding - 1] must be zero.
void ApplyIniBuffer(char* buffer, size_t length) noexcept;

// ---- command_line.cpp ----
int32_t ParseCommandLine(int32_t argc, char* const* argv) noexcept;
void PrintUsage(const char* program_name) noexcept;
bool AddIgnoredParam(const char* text) noexcept;
void SetDefaultAppName(const char* name) noexcept;
void AddDefaultFile(const char* name) noexcept;
const char* ExeDirLocked() noexcept;
void InitDataDir() noexcept;
// Frees what the command line stored (called at the last release, under the lock).
void FreeCommandLineStateLocked() noexcept;

}  // namespace tw::config
