// SPDX-License-Identifier: Apache-2.0
// Internal side of the client database, shared by its files: the client-type table, the client
// records and the lock. The extern "C" entries of *_api.cpp call into these.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/clientdb.h"

namespace tw::clientdb {

constexpr int32_t kTypeSlots = UPNP_CLIENT_TYPE_SLOTS;
constexpr std::size_t kKeywordValueSize = 1024;  // values are read up to 1023 bytes

// ---- client-type table (types.cpp): written only by upnp_client_db_init ----
// The entry text of a type, or null for an empty slot or a type outside 0..149.
const char* TypeEntry(int32_t client_type) noexcept;
// A copy (upnp_malloc_impl) of the value behind the three-character tag in entry, up to the
// first byte below 32, or null when the tag is missing (or entry is null). Unlike
// upnp_client_db_getKeyword this never depends on the server state. `empty_when_missing`
// returns "" instead of null for a missing tag.
char* KeywordCopy(const char* entry, const char* tag, bool empty_when_missing) noexcept;
// The type's "DV:" value when it is in the view list, as a copy; else null.
char* KnownDefaultView(int32_t client_type) noexcept;
// True when the type carries the option (substring test on the entry).
bool HasOption(int32_t client_type, const char* option) noexcept;

// ---- client records (records.cpp) ----
// The client database lock, a tw::LazyCriticalSection made by upnp_client_db_init; Guard holds
// it for a scope (held() is false when the database is not initialised: touch nothing then).
class Guard {
 public:
  Guard() noexcept;
  ~Guard();
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
  bool held() const noexcept { return held_; }

 private:
  bool held_;
};
// The auto-enable value.
int32_t AutoEnable() noexcept;
// Replaces *field by a copy of value (null value: null field). False when the copy failed
// (the field is then null).
bool SetText(char** field, const char* value) noexcept;
// Under the lock: true when udn was in the list of examined UDNs; otherwise prepends a copy and
// returns false.
bool RememberUdn(const char* udn) noexcept;

// ---- loading and the tables beside the records (types.cpp, mime_views.cpp, lifecycle.cpp) ----
constexpr int32_t kMaxEntries = kTypeSlots - 1;  // the last slot never takes an entry
constexpr int kMimeSlots = 50;
constexpr std::size_t kDefaultViewSize = 128;

// Replaces the client-type table and the special MIME columns by what `text` (NUL-terminated)
// holds: first every "MT:" keyword is registered, then the ">>" entries fill the slots.
// upnp_client_db_init calls it on the resource; tests and fuzzers call it on their own text.
// Not thread-safe: only while no request is being answered.
void LoadTypes(const char* text) noexcept;
void FreeTypes() noexcept;
void FreeMimeTable() noexcept;
void FreeViews() noexcept;
// The server's default view name (g_strTreeDefaultView); read under the lock.
const char* DefaultView() noexcept;
// The lock's life, for upnp_client_db_init and upnp_client_db_exit.
void CreateLock() noexcept;
void DestroyLock() noexcept;
// Frees every record of g_pClients / every examined UDN; the caller holds the lock.
void FreeClientsLocked() noexcept;
void FreeUdnsLocked() noexcept;
// Appends the printout of record to s (upnp_print_client).
upnp_string* PrintClient(upnp_string* s, const upnp_client* record) noexcept;

}  // namespace tw::clientdb
