// SPDX-License-Identifier: Apache-2.0
// The client records and the file that keeps them (records.cpp, table_file.cpp), for the entries
// of records_api.cpp. Functions named *Locked expect the caller to hold the client database lock;
// the others take it themselves and never hold it across WriteTable.
#pragma once

#include <cstdint>

#include "tarnwick/clientdb.h"

namespace tw::clientdb {

enum class RecordKey { kFriendlyName, kUdn, kMac, kIp };

// A cleared record at the head of g_pClients: type 1, enabled = the auto-enable value.
upnp_client* NewClientLocked() noexcept;
// Frees the record's strings and the record (it must be unlinked already, or the list dropped).
void FreeRecord(upnp_client* record) noexcept;
// Drops both lists without freeing them (init_client_table: the lists are expected empty).
void ForgetListsLocked() noexcept;
void SetAutoEnable(int32_t value) noexcept;

upnp_string* AddClient(const char* mac, int32_t client_type, int32_t enabled,
                       const char* view) noexcept;
upnp_string* DeleteClient(const char* mac) noexcept;
upnp_string* EnableBy(RecordKey key, const char* value, int32_t enabled) noexcept;
char* FriendlyNameOfType(int32_t client_type) noexcept;
char* ViewOfType(int32_t client_type) noexcept;
upnp_string* ConnectedList() noexcept;
bool HaveClientOfType(int32_t client_type) noexcept;

// ---- table_file.cpp ----
// Replaces g_pClients by the records of "clients.data"; more than kMaxStoredRecords discard
// the table and the file.
void ReadTable() noexcept;
void WriteTable() noexcept;
// Frees both lists and deletes the file.
void ResetClients() noexcept;
constexpr int kMaxStoredRecords = 100;

// ---- lifecycle.cpp ----
void Init() noexcept;
void InitClientTable() noexcept;
void Exit() noexcept;

}  // namespace tw::clientdb
