// SPDX-License-Identifier: Apache-2.0
// A client database over a temporary appdata directory, with client types loaded from the
// test's own text.
#pragma once

#include "clientdb/clientdb.h"
#include "clientdb/records.h"
#include "support/test_support.h"

namespace tw::test {

class ClientDbTest : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    upnp_ini_file_init();
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_APPDATA, dir_.path().c_str());
    upnp_client_db_set_defaultview("");
    upnp_client_db_set_autoenable(1);
    upnp_client_db_init();
  }
  void TearDown() override {
    upnp_client_db_exit();
    register_upnp_resource_get_function(nullptr);
    __atomic_store_n(&g_server_running, 0, __ATOMIC_RELEASE);
    while (upnp_ini_file_is_initialized() != 0) upnp_ini_file_release();
    upnp_log_set_mode(0);
    LeakCheck::TearDown();
  }
  static void Load(const std::string& text) { tw::clientdb::LoadTypes(text.c_str()); }
  std::string DataPath() const { return dir_.File("clients.data"); }
  // The MAC addresses of the client table, head first, each followed by ','.
  static std::string Macs() {
    tw::clientdb::Guard guard;
    std::string macs;
    for (const upnp_client* r = g_pClients; r != nullptr; r = r->next) {
      macs += std::string(r->mac != nullptr ? r->mac : "<null>") + ",";
    }
    return macs;
  }
  // A record made the way identification makes them (the caller must not hold the lock).
  static void AddDetected(const char* mac, int32_t type, int32_t assignment, const char* view,
                          const char* ip = nullptr) {
    tw::clientdb::Guard guard;
    upnp_client* r = upnp_client_db_add_new_client();
    ASSERT_NE(r, nullptr);
    r->client_type = type;
    r->assignment = assignment;
    tw::clientdb::SetText(&r->mac, mac);
    tw::clientdb::SetText(&r->view, view);
    tw::clientdb::SetText(&r->ip, ip);
  }
  TempDir dir_;
};

// One record of clients.data from its 13 field texts.
inline std::string DataRecord(const std::vector<std::string>& fields) {
  std::string bytes;
  char length[8];
  for (const std::string& f : fields) {
    std::snprintf(length, sizeof(length), "%03zu", f.size());
    bytes += length + f + "\n";
  }
  return bytes;
}

inline std::string NamedRecord(const std::string& name, const std::string& mac) {
  return DataRecord({name, mac, "10.0.0.9", "", "", "", "", "", "003", "1", "001", "", "0"});
}

}  // namespace tw::test
