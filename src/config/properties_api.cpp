// SPDX-License-Identifier: Apache-2.0
// C entries of the property table: lifecycle, declaring, reading and setting.
#include <cstdlib>

#include "config/config_state.h"
#include "platform/critical_section.h"
#include "tarnwick/config.h"
#include "tarnwick/util.h"

namespace {

using tw::config::g_ini_lock;
using tw::config::LockReady;
using tw::config::Property;

// Runs body(record) under the configuration lock; `missing` when the module is not initialised
// or the key has no property.
template <typename R, typename F>
R WithProperty(uint32_t key, R missing, F&& body) noexcept {
  tw::LazyGuard guard(g_ini_lock);
  if (!guard.held()) return missing;
  Property* p = tw::config::FindByKeyLocked(key);
  return p != nullptr ? body(p) : missing;
}

int32_t TruthOf(const char* text) noexcept {
  return (text != nullptr && text[0] != '\0' && text[0] != '0') ? 1 : 0;
}

}  // namespace

extern "C" {

TW_API void upnp_ini_file_init(void) noexcept { tw::config::Init(); }

TW_API void upnp_ini_file_release(void) noexcept { tw::config::Release(); }

TW_API int32_t upnp_ini_file_is_initialized(void) noexcept {
  return tw::config::g_state.init_count.load(std::memory_order_acquire) > 0 ? 1 : 0;
}

TW_API int32_t upnp_ini_file_create_property(uint32_t key, const char* name,
                                             const char* default_value, const char* description,
                                             int32_t is_list, int32_t hidden, int32_t disabled,
                                             int32_t restart_required) noexcept {
  if (name == nullptr || *name == '\0') return UPNP_INI_NAME_EMPTY;
  tw::LazyGuard guard(g_ini_lock);
  if (!guard.held()) return UPNP_INI_NO_LOCK;
  return tw::config::CreatePropertyLocked(key, name, default_value, description, is_list != 0,
                                          hidden != 0, disabled != 0, restart_required != 0);
}

TW_API const char* upnp_ini_file_getString(uint32_t key) noexcept {
  return WithProperty(key, static_cast<const char*>(nullptr),
                      [](Property* p) { return tw::config::EffectiveValue(*p); });
}

TW_API int32_t upnp_ini_file_getInt(uint32_t key) noexcept {
  return WithProperty(key, int32_t{0}, [](Property* p) {
    const char* text = tw::config::EffectiveValue(*p);
    return text != nullptr && *text != '\0' ? static_cast<int32_t>(std::atoi(text)) : 0;
  });
}

TW_API int32_t upnp_ini_file_getBoolean(uint32_t key) noexcept {
  return WithProperty(key, int32_t{0},
                      [](Property* p) { return TruthOf(tw::config::EffectiveValue(*p)); });
}

TW_API int32_t upnp_ini_file_isSet(uint32_t key) noexcept { return upnp_ini_file_getBoolean(key); }

TW_API int32_t upnp_ini_file_isModified(uint32_t key) noexcept {
  return WithProperty(key, int32_t{0}, [](Property* p) { return p->value != nullptr ? 1 : 0; });
}

TW_API const char* upnp_ini_file_getPropParamName(uint32_t key) noexcept {
  return WithProperty(key, static_cast<const char*>(nullptr),
                      [](Property* p) -> const char* { return p->name; });
}

TW_API int32_t upnp_ini_file_getPropertyKey(const char* name) noexcept {
  if (name == nullptr) return -1;
  tw::LazyGuard guard(g_ini_lock);
  if (!guard.held()) return -1;
  const Property* p = tw::config::FindByNameLocked(name);
  return p != nullptr ? static_cast<int32_t>(p->key) : -1;
}

TW_API int32_t upnp_ini_file_isValidKey(uint32_t key) noexcept {
  // Lock-free by design: the index entries are atomic and -1 whenever the module is down.
  if (key >= tw::config::kMaxKeys || !LockReady()) return 0;
  return tw::config::g_state.key_index[key].load(std::memory_order_relaxed) >= 0 ? 1 : 0;
}

TW_API int32_t upnp_ini_file_propertyIsHidden(uint32_t key) noexcept {
  return WithProperty(key, int32_t{1}, [](Property* p) { return p->hidden; });
}

TW_API int32_t upnp_ini_file_propertyIsDisabled(uint32_t key) noexcept {
  return WithProperty(key, int32_t{1}, [](Property* p) { return p->disabled; });
}

TW_API upnp_string* upnp_ini_file_get_all_properties(void) noexcept {
  tw::LazyGuard guard(g_ini_lock);
  if (!guard.held()) return nullptr;
  upnp_string* all = upnp_string_create("", 256);
  for (int16_t i = 0; all != nullptr && i < tw::config::g_state.count; ++i) {
    const Property& p = tw::config::g_state.records[i];
    const char* value = tw::config::EffectiveValue(p);
    all = value != nullptr ? upnp_string_sprintf(all, "%s=%s\r\n", p.name, value)
                           : upnp_string_sprintf(all, "%s=\r\n", p.name);
  }
  if (all != nullptr && upnp_string_get_cstring(all) == nullptr) {
    upnp_string_free(all);  // a growth failed and lost the text
    all = nullptr;
  }
  return all;
}

TW_API const char* upnp_ini_file_get_next_CSV(uint32_t key, int32_t index) noexcept {
  return WithProperty(key, static_cast<const char*>(nullptr),
                      [index](Property* p) { return tw::config::ListItemLocked(p, index); });
}

TW_API int32_t upnp_ini_file_restartPending(void) noexcept {
  return tw::config::g_state.restart_pending.load(std::memory_order_relaxed);
}

TW_API void upnp_ini_file_reset_restartPending(void) noexcept {
  tw::config::g_state.restart_pending.store(0, std::memory_order_relaxed);
}

TW_API int32_t upnp_ini_file_get_property_origin(uint32_t key) noexcept {
  return WithProperty(key, int32_t{UPNP_INI_ORIGIN_MISSING},
                      [](Property* p) { return static_cast<int32_t>(p->origin); });
}

TW_API void upnp_ini_file_setPropertyByKey(uint32_t key, const char* value) noexcept {
  WithProperty(key, 0, [value](Property* p) {
    tw::config::SetValueLocked(p, value, true, true, tw::config::Origin::kProgram);
    return 0;
  });
}

TW_API void upnp_ini_file_hideProperty(uint32_t key, int32_t flag) noexcept {
  WithProperty(key, 0, [flag](Property* p) {
    p->hidden = flag != 0 ? 1 : 0;
    return 0;
  });
}

TW_API void upnp_ini_file_disableProperty(uint32_t key, int32_t flag) noexcept {
  WithProperty(key, 0, [flag](Property* p) {
    p->disabled = flag != 0 ? 1 : 0;
    return 0;
  });
}

}  // extern "C"
