// SPDX-License-Identifier: Apache-2.0
// Entries: the resource registry.
#include "core/resource.h"
#include "tarnwick/config.h"
#include "tarnwick/core.h"

extern "C" {

TW_API void upnp_resource_init(void) noexcept { tw::core::InitResources(); }

TW_API void upnp_resource_exit(void) noexcept { tw::core::ExitResources(); }

TW_API void register_upnp_resource_get_function(upnp_resource_get_function fn) noexcept {
  tw::core::SetResourceGetter(fn);
}

TW_API int upnp_resource_get(char* name, uint32_t* size_out, void** data_out) noexcept {
  if (size_out != nullptr) *size_out = 0;
  if (data_out != nullptr) *data_out = nullptr;
  if (name == nullptr || size_out == nullptr || data_out == nullptr) return 0;
  const char* base_dir = upnp_ini_file_get_EXE_Dir();
  return tw::core::GetResource(base_dir != nullptr ? base_dir : "", name, size_out, data_out) ? 1
                                                                                              : 0;
}

}  // extern "C"
