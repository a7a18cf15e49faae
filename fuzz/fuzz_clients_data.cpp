// SPDX-License-Identifier: Apache-2.0
// The client table file over arbitrary bytes. Whatever the reader took is written and read
// again: the second table must be the first one less the records the writer leaves out
// (detected clients with the default view), in reversed order, since every read puts records
// at the head. Every accounted byte must come back after the release.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "clientdb/clientdb.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/config.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

char g_dir[32];

std::string Text(const char* s) { return s != nullptr ? "1" + std::string(s) : "0"; }

// One line per record: every field the file keeps.
std::vector<std::string> Snapshot(bool stored_only) {
  std::vector<std::string> rows;
  tw::clientdb::Guard guard;
  Check(guard.held());
  for (const upnp_client* r = g_pClients; r != nullptr; r = r->next) {
    if (stored_only && r->assignment < 1 &&
        (r->view == nullptr || std::strcmp(r->view, tw::clientdb::DefaultView()) == 0)) {
      continue;
    }
    rows.push_back(Text(r->friendly_name) + "|" + Text(r->mac) + "|" + Text(r->ip) + "|" +
                   Text(r->udn) + "|" + Text(r->header_pattern) + "|" +
                   Text(r->second_header_pattern) + "|" + Text(r->icon_url) + "|" +
                   Text(r->icon_mime_type) + "|" + std::to_string(r->client_type) + "|" +
                   std::to_string(r->enabled) + "|" + std::to_string(r->assignment) + "|" +
                   Text(r->view) + "|" + std::to_string(r->seen));
  }
  return rows;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint32_t start = upnp_mem_used();
  std::snprintf(g_dir, sizeof(g_dir), "/tmp/fuzz_cdata.XXXXXX");
  Check(mkdtemp(g_dir) != nullptr);
  const std::string path = std::string(g_dir) + "/clients.data";
  {
    FILE* f = std::fopen(path.c_str(), "wb");
    Check(f != nullptr);
    if (size > 0) Check(std::fwrite(data, 1, size, f) == size);
    std::fclose(f);
  }
  upnp_ini_file_init();
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_APPDATA, g_dir);
  upnp_client_db_set_defaultview("all");
  tw::clientdb::CreateLock();
  tw::clientdb::LoadTypes(">>\nNA:zero\n>>\nNA:one\nDV:all\n>>\n");
  client_table_read();
  std::vector<std::string> first = Snapshot(true);
  client_table_write();
  client_table_read();
  const std::vector<std::string> second = Snapshot(false);
  Check(second.size() <= 100);
  std::vector<std::string> expected(first.rbegin(), first.rend());
  if (first.size() > 100) expected.clear();
  Check(second == expected);

  upnp_client_db_exit();
  std::remove(path.c_str());
  Check(rmdir(g_dir) == 0);
  while (upnp_ini_file_is_initialized() != 0) upnp_ini_file_release();
  upnp_log_set_mode(0);
  Check(upnp_mem_used() == start);
  return 0;
}
