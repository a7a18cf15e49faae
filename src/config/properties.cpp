// SPDX-License-Identifier: Apache-2.0
// The property table: records, lookup, the setting routine, list caches, init and release.
#include <cstdlib>
#include <cstring>

#include "base/ascii.h"
#include "config/config_state.h"
#include "platform/critical_section.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace tw::config {

LazyCriticalSection g_ini_lock;
State g_state;

namespace {

char* DupOrNull(const char* s) noexcept { return s != nullptr ? upnp_strdup_impl(s) : nullptr; }

void FreeIfSet(void* p) noexcept {
  if (p != nullptr) upnp_free_impl(p);
}

bool SameText(const char* a, const char* b) noexcept {
  return a != nullptr && b != nullptr && std::strcmp(a, b) == 0;
}

bool SetFromInterface(Origin origin) noexcept {
  return origin == Origin::kCommandLine || origin == Origin::kProgram;
}

void FreeProperty(Property* p) noexcept {
  DropListCache(p);
  FreeIfSet(p->name);
  FreeIfSet(p->value);
  FreeIfSet(p->default_value);
  FreeIfSet(p->description);
  *p = Property{};
}

}  // namespace

bool EqualsIgnoreCase(const char* a, const char* b) noexcept {
  if (a == nullptr || b == nullptr) return false;
  for (; *a != '\0' && *b != '\0'; ++a, ++b) {
    if (ascii::ToLower(*a) != ascii::ToLower(*b)) return false;
  }
  return *a == *b;
}

Property* FindByKeyLocked(uint32_t key) noexcept {
  if (key >= kMaxKeys) return nullptr;
  const int16_t pos = g_state.key_index[key].load(std::memory_order_relaxed);
  if (pos < 0 || pos >= g_state.count) return nullptr;
  return &g_state.records[pos];
}

Property* FindByNameLocked(const char* name) noexcept {
  if (name == nullptr) return nullptr;
  for (int16_t i = 0; i < g_state.count; ++i) {
    if (EqualsIgnoreCase(g_state.records[i].name, name)) return &g_state.records[i];
  }
  return nullptr;
}

const char* EffectiveValue(const Property& p) noexcept {
  return p.value != nullptr ? p.value : p.default_value;
}

void DropListCache(Property* p) noexcept {
  if (p->list_items != nullptr) {
    FreeIfSet(p->list_items[0]);
    upnp_free_impl(p->list_items);
  }
  p->list_items = nullptr;
  p->list_count = 0;
}

void SetValueLocked(Property* p, const char* value, bool forced, bool from_interface,
                    Origin origin) noexcept {
  if (p == nullptr || p->disabled) return;
  if (!forced && p->hidden) return;
  // The INI file is read after the command line, so it must not replace what the program or
  // the command line said. That includes a value they gave that equals the default and was
  // therefore never stored: their word still beats the file.
  if (!from_interface && (p->value != nullptr || SetFromInterface(p->origin))) return;
  if (value != nullptr) {
    const bool unchanged =
        p->value != nullptr ? std::strcmp(value, p->value) == 0 : SameText(value, p->default_value);
    if (unchanged) {
      if (from_interface) p->origin = origin;
      return;
    }
  } else if (p->value == nullptr) {
    if (from_interface) p->origin = Origin::kDefault;
    return;
  }

  if (p->key == kKeyVerbose) {
    upnp_log_set_mode(static_cast<uint32_t>(value != nullptr ? std::atoi(value) : 0));
  }
  if (p->key == kKeyIniName || p->key == kKeyIniPath) DropIniPathLocked();

  DropListCache(p);
  FreeIfSet(p->value);
  p->value = nullptr;
  if (p->restart_required) g_state.restart_pending.store(1, std::memory_order_relaxed);

  if (!from_interface && SameText(value, p->default_value)) {
    // A value equal to the default is never stored from the file.
  } else if (value != nullptr && (from_interface || *value != '\0')) {
    // The interface may store an empty string; the file cannot.
    p->value = upnp_strdup_impl(value);
  }
  p->origin = p->value != nullptr ? origin : Origin::kDefault;
}

int32_t CreatePropertyLocked(uint32_t key, const char* name, const char* default_value,
                             const char* description, bool is_list, bool hidden, bool disabled,
                             bool restart_required) noexcept {
  if (key >= kMaxKeys) return UPNP_INI_KEY_INVALID;
  if (g_state.key_index[key].load(std::memory_order_relaxed) >= 0) return UPNP_INI_KEY_IN_USE;
  if (FindByNameLocked(name) != nullptr) return UPNP_INI_NAME_IN_USE;
  if (g_state.count >= kMaxProperties) return UPNP_INI_TABLE_FULL;

  Property fresh{};
  fresh.key = key;
  fresh.name = upnp_strdup_impl(name);
  fresh.default_value = DupOrNull(default_value);
  fresh.description = DupOrNull(description);
  fresh.is_list = is_list ? 1 : 0;
  fresh.hidden = hidden ? 1 : 0;
  fresh.disabled = disabled ? 1 : 0;
  fresh.restart_required = restart_required ? 1 : 0;
  fresh.origin = Origin::kDefault;
  // The array grows by exactly one record: a new array, the old records copied over.
  const size_t count = static_cast<size_t>(g_state.count);
  auto* grown = static_cast<Property*>(upnp_malloc_impl((count + 1) * sizeof(Property)));
  if (fresh.name == nullptr || (default_value != nullptr && fresh.default_value == nullptr) ||
      (description != nullptr && fresh.description == nullptr) || grown == nullptr) {
    FreeIfSet(grown);
    FreeProperty(&fresh);
    return UPNP_INI_OUT_OF_MEMORY;
  }
  if (count > 0) std::memcpy(grown, g_state.records, count * sizeof(Property));
  grown[count] = fresh;
  FreeIfSet(g_state.records);
  g_state.records = grown;
  g_state.key_index[key].store(static_cast<int16_t>(count), std::memory_order_relaxed);
  g_state.count = static_cast<int16_t>(count + 1);
  return UPNP_INI_OK;
}

const char* ListItemLocked(Property* p, int32_t index) noexcept {
  if (!p->is_list) return index == 0 ? p->value : nullptr;
  if (p->list_count == 0) {
    // Built from the set value only, never from the default.
    int32_t items_count = 1;
    if (p->value != nullptr) {
      for (const char* c = p->value; *c != '\0'; ++c) items_count += (*c == ',') ? 1 : 0;
    }
    if (items_count > 1) {
      auto** items =
          static_cast<char**>(upnp_calloc_impl(static_cast<size_t>(items_count), sizeof(char*)));
      char* copy = upnp_strdup_impl(p->value);
      if (items == nullptr || copy == nullptr) {
        FreeIfSet(items);
        FreeIfSet(copy);
        return nullptr;  // the cache stays empty; a later call tries again
      }
      items[0] = copy;
      int32_t next = 1;
      for (char* c = copy; *c != '\0'; ++c) {
        if (*c != ',') continue;
        *c = '\0';
        char* item = c + 1;
        while (*item == ' ') ++item;  // only blanks, and only behind the comma
        items[next++] = *item != '\0' ? item : nullptr;
        c = item - 1;  // an adjacent comma is looked at next (giving an empty item)
      }
      p->list_items = items;
    }
    p->list_count = items_count;
  }
  if (index < 0 || index >= p->list_count) return nullptr;
  if (p->list_count == 1) return p->value;
  return p->list_items[index];
}

void Init() noexcept {
  if (g_state.init_count.fetch_add(1, std::memory_order_acq_rel) != 0) return;
  g_ini_lock.Create();
  {
    LazyGuard guard(g_ini_lock);
    if (!guard.held()) return;  // released again by another thread meanwhile
    for (auto& slot : g_state.key_index) slot.store(-1, std::memory_order_relaxed);
    g_state.records = nullptr;
    g_state.count = 0;
    CreateBuiltinsLocked();
  }
  g_state.restart_pending.store(0, std::memory_order_relaxed);
}

void Release() noexcept {
  int32_t count = g_state.init_count.load(std::memory_order_acquire);
  do {
    if (count <= 0) return;  // unbalanced release: nothing to do
  } while (!g_state.init_count.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel));
  if (count != 1) return;
  LazyGuard guard(g_ini_lock);
  if (!guard.held()) return;
  while (g_state.default_files != nullptr) {
    NameNode* node = g_state.default_files;
    g_state.default_files = node->next;
    FreeIfSet(node->name);
    upnp_free_impl(node);
  }
  for (int16_t i = 0; i < g_state.count; ++i) FreeProperty(&g_state.records[i]);
  FreeIfSet(g_state.records);
  g_state.records = nullptr;
  g_state.count = 0;
  for (auto& slot : g_state.key_index) slot.store(-1, std::memory_order_relaxed);
  DropIniPathLocked();
  FreeCommandLineStateLocked();
  g_state.utf16 = false;
  g_state.app_name[0] = '\0';
  g_state.restart_pending.store(0, std::memory_order_relaxed);
  // Dead from here on: accessors that wait for the lock now get their "missing" result.
  g_ini_lock.Destroy();
}

}  // namespace tw::config
