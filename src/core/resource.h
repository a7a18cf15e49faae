// SPDX-License-Identifier: Apache-2.0
// Internal side of the resource registry entries (resource_api.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/core.h"

namespace tw::core {

inline constexpr size_t kResourceCacheEntries = 100;

void InitResources() noexcept;
void ExitResources() noexcept;
void SetResourceGetter(upnp_resource_get_function getter) noexcept;
// Cuts `name` at its last '?' in place, then looks it up in the cache, as
// "<base_dir>/resources/<name>", and through the host's getter. The outputs are already cleared.
bool GetResource(const char* base_dir, char* name, uint32_t* size_out, void** data_out) noexcept;

}  // namespace tw::core
