// SPDX-License-Identifier: Apache-2.0
// Client queries answered for a device the library knows nothing about. The HTTP server asks
// these on every request; until client types are loaded from the client-type resource every
// peer is the unknown device (type 1) without quirks, which is what these answers say.
#include "tarnwick/clientdb.h"

namespace tw::clientdb {
namespace {

constexpr int32_t kUnknownClientType = 1;

}  // namespace
}  // namespace tw::clientdb

extern "C" {

TW_API int32_t upnp_client_db_add_by_ip(const char*, const char*, const char*) noexcept {
  return tw::clientdb::kUnknownClientType;
}

TW_API int32_t upnp_client_db_needs_1_0_response(int32_t) noexcept { return 0; }

TW_API int32_t upnp_client_db_redsonic_compliant(int32_t) noexcept { return 0; }

TW_API uint32_t upnp_client_db_DLNA_version(int32_t) noexcept { return 0; }

TW_API const char* upnp_client_db_needs_special_mime_type(int32_t, const char*) noexcept {
  return nullptr;
}

TW_API const char* upnp_client_db_special_mime_type_get_extension(const char*) noexcept {
  return nullptr;
}

}  // extern "C"
