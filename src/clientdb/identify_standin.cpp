// SPDX-License-Identifier: Apache-2.0
// Temporary answers of the identification entries until request and announcement
// identification lands (identify.cpp replaces this whole file): every request comes from the
// unknown device, nothing is recognised and every device may use the server.
#include "clientdb/clientdb.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/platform.h"

extern "C" {

TW_API int32_t upnp_client_db_check_header(const char*, int32_t*, int32_t*, char** pattern,
                                           char** second_pattern, char** name) noexcept {
  char** const outputs[] = {pattern, second_pattern, name};
  for (char** out : outputs) {
    if (out != nullptr) *out = nullptr;
  }
  return 0;
}

TW_API int32_t upnp_client_db_add_by_ip(const char*, const char*, const char*) noexcept {
  return UPNP_CLIENT_TYPE_UNKNOWN;
}

TW_API void upnp_client_db_add_by_ssdp_alive(const char*) noexcept {}

TW_API void* upnp_client_db_check_client(void* packet) noexcept {
  if (packet != nullptr) upnp_free_impl(packet);
  return nullptr;
}

TW_API int32_t upnp_client_db_check_device_description(const char*, char**, char**, char**, char**,
                                                       char**, int32_t*, int32_t*) noexcept {
  return 0;
}

TW_API int32_t upnp_client_db_access_allowed(const char*) noexcept {
  return tw::clientdb::AutoEnable();
}

}  // extern "C"
