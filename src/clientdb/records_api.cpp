// SPDX-License-Identifier: Apache-2.0
// Entries of the client database's life, its client records, views and listings.
#include "clientdb/clientdb.h"
#include "clientdb/records.h"
#include "clientdb/types.h"
#include "tarnwick/clientdb.h"

namespace cdb = tw::clientdb;

extern "C" {

// ---- Lifecycle, tables and the client table file ----

TW_API void upnp_client_db_init(void) noexcept { cdb::Init(); }

TW_API void upnp_client_db_exit(void) noexcept { cdb::Exit(); }

TW_API void init_client_table(void) noexcept { cdb::InitClientTable(); }

TW_API void client_table_read(void) noexcept { cdb::ReadTable(); }

TW_API void client_table_write(void) noexcept { cdb::WriteTable(); }

TW_API void exit_client_table(void) noexcept {
  cdb::Guard guard;
  if (guard.held()) cdb::FreeClientsLocked();
}

TW_API void exit_client_udn_table(void) noexcept {
  cdb::Guard guard;
  if (guard.held()) cdb::FreeUdnsLocked();
}

TW_API void client_table_free(upnp_client* record) noexcept { cdb::FreeRecord(record); }

TW_API void reset_clients(void) noexcept { cdb::ResetClients(); }

TW_API void clear_clients(void) noexcept { cdb::ResetClients(); }

// ---- Editing clients ----

TW_API upnp_string* upnp_client_add(const char* mac, int32_t client_type, int32_t enabled,
                                    const char* view) noexcept {
  if (mac == nullptr) return nullptr;
  return cdb::AddClient(mac, client_type, enabled, view);
}

TW_API upnp_string* upnp_client_delete(const char* mac) noexcept {
  if (mac == nullptr) return nullptr;
  return cdb::DeleteClient(mac);
}

TW_API upnp_string* upnp_client_enable_by_friendlyname(const char* name, int32_t enabled) noexcept {
  if (name == nullptr) return nullptr;
  return cdb::EnableBy(cdb::RecordKey::kFriendlyName, name, enabled);
}

TW_API upnp_string* upnp_client_enable_by_udn(const char* udn, int32_t enabled) noexcept {
  if (udn == nullptr) return nullptr;
  return cdb::EnableBy(cdb::RecordKey::kUdn, udn, enabled);
}

TW_API upnp_string* upnp_client_enable_by_mac(const char* mac, int32_t enabled) noexcept {
  if (mac == nullptr) return nullptr;
  return cdb::EnableBy(cdb::RecordKey::kMac, mac, enabled);
}

TW_API upnp_string* upnp_client_enable_by_ip(const char* ip, int32_t enabled) noexcept {
  if (ip == nullptr) return nullptr;
  return cdb::EnableBy(cdb::RecordKey::kIp, ip, enabled);
}

TW_API upnp_client* upnp_client_db_add_new_client(void) noexcept { return cdb::NewClientLocked(); }

TW_API void upnp_client_db_set_autoenable(int32_t value) noexcept { cdb::SetAutoEnable(value); }

TW_API char* upnp_client_db_get_table(void) noexcept { return cdb::TypeTable(); }

TW_API char* upnp_client_get_friendlyname(int32_t client_type) noexcept {
  return cdb::FriendlyNameOfType(client_type);
}

// ---- Views ----

TW_API void upnp_client_db_add_view(const char* name) noexcept {
  if (name == nullptr) return;
  cdb::AddView(name);
}

TW_API void upnp_client_db_set_defaultview(const char* name) noexcept {
  if (name == nullptr) return;
  cdb::SetDefaultView(name);
}

TW_API char* upnp_client_db_get_updated_view(int32_t client_type) noexcept {
  return cdb::ViewOfType(client_type);
}

// ---- Listing ----

TW_API upnp_string* upnp_print_client(upnp_string* string, const upnp_client* record) noexcept {
  if (record == nullptr) return string;
  return cdb::PrintClient(string, record);
}

TW_API upnp_string* upnp_get_connected_client_list(void) noexcept { return cdb::ConnectedList(); }

TW_API int32_t upnp_client_db_have_netgear_rtp_client(void) noexcept {
  return cdb::HaveClientOfType(UPNP_CLIENT_TYPE_RTP) ? 1 : 0;
}

}  // extern "C"
