// SPDX-License-Identifier: Apache-2.0
// The INI reader over arbitrary file contents (UTF-8, or UTF-16 behind FF FE, of any length or
// parity). Checks that whatever the reader took into the table is written back and read again
// to the same table, that list values split without harm, and that every accounted byte comes
// back after the release.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "config/config_state.h"
#include "tarnwick/config.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace {

constexpr uint32_t kListKey = 20;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

// A directory for this input's INI file, removed again at its end (libFuzzer may leave the
// process without running exit handlers).
char g_dir[32];

void StartTable() {
  upnp_ini_file_init();
  Check(upnp_ini_file_create_property(kListKey, "list", "a,b", "a list", 1, 0, 0, 0) ==
        UPNP_INI_OK);
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_INIPATH, g_dir);
}

std::string Snapshot() {
  upnp_string* all = upnp_ini_file_get_all_properties();
  Check(all != nullptr);
  std::string text = upnp_string_get_cstring(all);
  upnp_string_free(all);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint32_t start = upnp_mem_used();
  std::snprintf(g_dir, sizeof(g_dir), "/tmp/fuzz_ini.XXXXXX");
  Check(mkdtemp(g_dir) != nullptr);
  StartTable();
  {
    // The reader's own buffer layout: the bytes, then zero padding.
    char* buffer = static_cast<char*>(upnp_malloc_impl(size + tw::config::kIniPadding));
    Check(buffer != nullptr);
    if (size > 0) std::memcpy(buffer, data, size);
    std::memset(buffer + size, 0, tw::config::kIniPadding);
    tw::config::ApplyIniBuffer(buffer, size);
    upnp_free_impl(buffer);
  }
  for (int32_t i = -1; i < 64; ++i) (void)upnp_ini_file_get_next_CSV(kListKey, i);
  const std::string before = Snapshot();
  upnp_ini_file_write_properties();
  upnp_ini_file_release();

  StartTable();
  upnp_ini_file_read_properties();
  Check(Snapshot() == before);
  upnp_ini_file_reset();
  upnp_ini_file_release();
  Check(rmdir(g_dir) == 0);
  upnp_log_set_mode(0);
  Check(upnp_mem_used() == start);
  return 0;
}
