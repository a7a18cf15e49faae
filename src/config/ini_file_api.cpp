// SPDX-License-Identifier: Apache-2.0
// C entries of the INI file, the command line and the program's directories.
#include "config/config_state.h"
#include "platform/critical_section.h"
#include "tarnwick/config.h"

namespace {

using tw::config::g_ini_lock;
using tw::config::LockReady;

}  // namespace

extern "C" {

TW_API void upnp_ini_file_read_properties(void) noexcept { tw::config::ReadIniFile(); }

TW_API void upnp_ini_file_write_properties(void) noexcept { tw::config::WriteIniFile(); }

TW_API void upnp_ini_file_reset(void) noexcept { tw::config::DeleteIniFile(); }

TW_API const char* upnp_ini_file_get_ini_path(void) noexcept {
  tw::LazyGuard guard(g_ini_lock);
  if (!guard.held()) return nullptr;
  return tw::config::IniPathLocked();
}

TW_API int32_t upnp_ini_file_parse_cmdline(int32_t argc, char* const* argv) noexcept {
  return tw::config::ParseCommandLine(argc, argv);
}

TW_API void usage(const char* program_name) noexcept { tw::config::PrintUsage(program_name); }

TW_API int32_t upnp_ini_file_add_ignored_cmdline_param(const char* text) noexcept {
  return tw::config::AddIgnoredParam(text) ? 1 : 0;
}

TW_API void upnp_ini_file_set_default_appname(const char* name) noexcept {
  tw::config::SetDefaultAppName(name);
}

TW_API void upnp_ini_file_add_default_file(const char* name) noexcept {
  tw::config::AddDefaultFile(name);
}

TW_API const char* upnp_ini_file_get_EXE_Name(void) noexcept {
  tw::LazyGuard guard(g_ini_lock);
  if (!guard.held()) return nullptr;
  return tw::config::g_state.exe_name;
}

TW_API const char* upnp_ini_file_get_EXE_Dir(void) noexcept {
  tw::LazyGuard guard(g_ini_lock);
  if (!guard.held()) return nullptr;
  return tw::config::ExeDirLocked();
}

TW_API void upnp_ini_file_init_DATA_Dir(void) noexcept { tw::config::InitDataDir(); }

}  // extern "C"
