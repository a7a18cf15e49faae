// SPDX-License-Identifier: Apache-2.0
// The client records (g_pClients), the examined UDNs, the lock guarding both, and the edits the
// host makes through the client entries. Every edit that must persist rewrites the whole file
// after the lock is released.
#include "clientdb/records.h"

#include <cstring>

#include "clientdb/clientdb.h"
#include "clientdb/types.h"
#include "platform/allocator.h"
#include "platform/critical_section.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

TW_API upnp_client* g_pClients = nullptr;

namespace tw::clientdb {
namespace {

// Position of the colons in "AA:BB:CC:DD:EE:FF"; the hex digits are not checked.
constexpr size_t kMacLength = 17;
constexpr size_t kMacColons[] = {2, 5, 8, 11, 14};

struct UdnNode {
  char* udn;  // owned
  UdnNode* next;
};

LazyCriticalSection g_lock;
UdnNode* g_udns = nullptr;  // g_pDiscoveredUDNs: guarded by g_lock
int32_t g_auto_enable = 1;

bool ValidMac(const char* mac) noexcept {
  if (std::strlen(mac) != kMacLength) return false;
  for (size_t at : kMacColons) {
    if (mac[at] != ':') return false;
  }
  return true;
}

bool SameText(const char* a, const char* b) noexcept {
  return a != nullptr && b != nullptr && std::strcmp(a, b) == 0;
}

// Header patterns and friendly name from the type's keywords; empty texts where it lacks them.
bool TakeTypeKeywords(upnp_client* record, int32_t client_type) noexcept {
  const char* entry = TypeEntry(client_type);
  bool ok = true;
  struct Field {
    char** field;
    const char* tag;
  };
  const Field fields[] = {{&record->header_pattern, "HH:"},
                          {&record->second_header_pattern, "H2:"},
                          {&record->friendly_name, "NA:"}};
  for (const Field& f : fields) {
    char* value = KeywordCopy(entry, f.tag, true);
    if (*f.field != nullptr) upnp_free_impl(*f.field);
    *f.field = value;
    ok = ok && value != nullptr;
  }
  return ok;
}

const char* KeyField(const upnp_client* record, RecordKey key) noexcept {
  switch (key) {
    case RecordKey::kFriendlyName:
      return record->friendly_name;
    case RecordKey::kUdn:
      return record->udn;
    case RecordKey::kMac:
      return record->mac;
    case RecordKey::kIp:
      return record->ip;
  }
  return nullptr;
}

// An upnp_string that lost its buffer to a failed growth is no answer: free it, give null.
upnp_string* Checked(upnp_string* s) noexcept {
  if (s != nullptr && s->buffer == nullptr) {
    upnp_string_free(s);
    return nullptr;
  }
  return s;
}

// The view edit of upnp_client_add for a record whose type stays: true when it changed.
bool ApplyView(upnp_client* record, const char* view) noexcept {
  if (view == nullptr) return false;
  const char* default_view = DefaultView();
  if (record->view == nullptr) {
    if (std::strcmp(view, default_view) == 0) return false;
    return SetText(&record->view, view);
  }
  if (std::strcmp(record->view, view) == 0) return false;
  // A different view is dropped; the default view is stored as none.
  upnp_free_impl(record->view);
  record->view = nullptr;
  if (std::strcmp(view, default_view) != 0) SetText(&record->view, view);
  return true;
}

}  // namespace

Guard::Guard() noexcept : held_(g_lock.Enter()) {}

Guard::~Guard() {
  if (held_) g_lock.Leave();
}

void CreateLock() noexcept { g_lock.Create(); }

void DestroyLock() noexcept { g_lock.Destroy(); }

int32_t AutoEnable() noexcept { return __atomic_load_n(&g_auto_enable, __ATOMIC_RELAXED); }

void SetAutoEnable(int32_t value) noexcept {
  __atomic_store_n(&g_auto_enable, value, __ATOMIC_RELAXED);
}

bool SetText(char** field, const char* value) noexcept {
  char* copy = value != nullptr ? upnp_strdup_impl(value) : nullptr;
  if (*field != nullptr) upnp_free_impl(*field);
  *field = copy;
  return value == nullptr || copy != nullptr;
}

bool RememberUdn(const char* udn) noexcept {
  if (udn == nullptr) return true;
  Guard guard;
  if (!guard.held()) return true;  // no database: nothing is examined
  for (const UdnNode* node = g_udns; node != nullptr; node = node->next) {
    if (std::strcmp(node->udn, udn) == 0) return true;
  }
  auto* node = static_cast<UdnNode*>(upnp_malloc_impl(sizeof(UdnNode)));
  char* copy = upnp_strdup_impl(udn);
  if (node == nullptr || copy == nullptr) {
    // Not remembered, so a later announcement tries again.
    if (node != nullptr) upnp_free_impl(node);
    if (copy != nullptr) upnp_free_impl(copy);
    return false;
  }
  *node = UdnNode{copy, g_udns};
  g_udns = node;
  return false;
}

upnp_client* NewClientLocked() noexcept {
  auto* record = static_cast<upnp_client*>(upnp_calloc_impl(1, sizeof(upnp_client)));
  if (record == nullptr) return nullptr;
  record->client_type = UPNP_CLIENT_TYPE_UNKNOWN;
  record->enabled = AutoEnable();
  record->next = g_pClients;
  g_pClients = record;
  return record;
}

void FreeRecord(upnp_client* record) noexcept {
  if (record == nullptr) return;
  char* const texts[] = {
      record->ip,  record->header_pattern, record->second_header_pattern, record->friendly_name,
      record->mac, record->icon_url,       record->icon_mime_type,        record->udn,
      record->view};
  for (char* text : texts) {
    if (text != nullptr) upnp_free_impl(text);
  }
  upnp_free_impl(record);
}

void FreeClientsLocked() noexcept {
  while (g_pClients != nullptr) {
    upnp_client* next = g_pClients->next;
    FreeRecord(g_pClients);
    g_pClients = next;
  }
}

void FreeUdnsLocked() noexcept {
  while (g_udns != nullptr) {
    UdnNode* next = g_udns->next;
    upnp_free_impl(g_udns->udn);
    upnp_free_impl(g_udns);
    g_udns = next;
  }
}

void ForgetListsLocked() noexcept {
  g_pClients = nullptr;
  g_udns = nullptr;
}

upnp_string* PrintClient(upnp_string* s, const upnp_client* record) noexcept {
  if (record == nullptr) return s;
  auto text = [](const char* t) { return t != nullptr ? t : ""; };
  return upnp_string_sprintf(s, "%d\n%s\n%s\n%s\n%d\n%s\n%s\n%s\n%s\n%d\n##########\n",
                             record->client_type, text(record->mac), text(record->ip),
                             text(record->udn), record->enabled, text(record->friendly_name),
                             text(record->icon_url), text(record->icon_mime_type),
                             record->view != nullptr ? record->view : DefaultView(),
                             HasDefaultView(record->client_type) ? 1 : 0);
}

upnp_string* AddClient(const char* mac, int32_t client_type, int32_t enabled,
                       const char* view) noexcept {
  if (!ValidMac(mac)) return upnp_string_create("invalid MAC address", 0);
  bool save = false;
  upnp_string* result = nullptr;
  {
    Guard guard;
    if (!guard.held()) return nullptr;
    upnp_client* record = g_pClients;
    while (record != nullptr && !SameText(record->mac, mac)) record = record->next;
    if (record == nullptr) {
      record = NewClientLocked();
      if (record == nullptr) return nullptr;
      record->client_type = client_type;
      record->enabled = enabled;
      record->assignment = UPNP_CLIENT_FIXED;
      if (!SetText(&record->mac, mac) || !TakeTypeKeywords(record, client_type)) {
        g_pClients = record->next;
        FreeRecord(record);
        return nullptr;
      }
      save = true;
    } else {
      if (record->enabled != enabled) {
        record->enabled = enabled;
        save = true;
      }
      if (record->client_type != client_type) {
        record->client_type = client_type;
        record->assignment = UPNP_CLIENT_FIXED;
        TakeTypeKeywords(record, client_type);
        if (record->view != nullptr) upnp_free_impl(record->view);
        record->view = KnownDefaultView(client_type);
        save = true;
      } else if (ApplyView(record, view)) {
        save = true;
      }
    }
    result = Checked(PrintClient(nullptr, record));
  }
  if (save) WriteTable();
  return result;
}

upnp_string* DeleteClient(const char* mac) noexcept {
  bool found = false;
  {
    Guard guard;
    if (!guard.held()) return nullptr;
    for (upnp_client** link = &g_pClients; *link != nullptr; link = &(*link)->next) {
      if (!SameText((*link)->mac, mac)) continue;
      upnp_client* record = *link;
      *link = record->next;
      FreeRecord(record);
      found = true;
      break;
    }
  }
  if (found) WriteTable();
  return upnp_string_create(found ? "deleted!" : "not found!", 0);
}

upnp_string* EnableBy(RecordKey key, const char* value, int32_t enabled) noexcept {
  upnp_string* result = nullptr;
  bool changed = false;
  {
    Guard guard;
    if (!guard.held()) return nullptr;
    for (upnp_client* record = g_pClients; record != nullptr; record = record->next) {
      if (!SameText(KeyField(record, key), value) || record->enabled == enabled) continue;
      record->enabled = enabled;
      changed = true;
      result = PrintClient(result, record);
    }
  }
  if (changed) WriteTable();
  return Checked(result);
}

char* FriendlyNameOfType(int32_t client_type) noexcept {
  Guard guard;
  if (!guard.held()) return nullptr;
  for (const upnp_client* record = g_pClients; record != nullptr; record = record->next) {
    if (record->client_type == client_type && record->friendly_name != nullptr &&
        record->friendly_name[0] != '\0') {
      return upnp_strdup_impl(record->friendly_name);
    }
  }
  return nullptr;
}

char* ViewOfType(int32_t client_type) noexcept {
  Guard guard;
  if (!guard.held()) return nullptr;
  for (const upnp_client* record = g_pClients; record != nullptr; record = record->next) {
    if (record->client_type != client_type) continue;
    return record->view != nullptr ? upnp_strdup_impl(record->view) : nullptr;
  }
  return nullptr;
}

upnp_string* ConnectedList() noexcept {
  Guard guard;
  if (!guard.held()) return nullptr;
  upnp_string* list = nullptr;
  for (const upnp_client* record = g_pClients; record != nullptr; record = record->next) {
    list = PrintClient(list, record);
  }
  return Checked(list);
}

bool HaveClientOfType(int32_t client_type) noexcept {
  Guard guard;
  if (!guard.held()) return false;
  for (const upnp_client* record = g_pClients; record != nullptr; record = record->next) {
    if (record->client_type == client_type) return true;
  }
  return false;
}

}  // namespace tw::clientdb
