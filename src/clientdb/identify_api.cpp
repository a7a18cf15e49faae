// SPDX-License-Identifier: Apache-2.0
// Exported entries of identification.
#include <cstring>

#include "clientdb/identify.h"
#include "platform/detached_thread.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/platform.h"

namespace {

// Hands a finding over to an output pointer the caller may have left null.
void Give(char** out, char* value) noexcept {
  if (out != nullptr) {
    *out = value;
  } else if (value != nullptr) {
    upnp_free_impl(value);
  }
}

}  // namespace

extern "C" {

TW_API int32_t upnp_client_db_check_header(const char* headers, int32_t* client_type, int32_t* fix,
                                           char** pattern, char** second_pattern,
                                           char** name) noexcept {
  if (headers == nullptr) return 0;
  return tw::clientdb::CheckHeader(headers, client_type, fix, pattern, second_pattern, name);
}

TW_API int32_t upnp_client_db_add_by_ip(const char* own_address, const char* client_ip,
                                        const char* headers) noexcept {
  return tw::clientdb::AddByIp(own_address, client_ip, headers);
}

TW_API void upnp_client_db_add_by_ssdp_alive(const char* packet) noexcept {
  if (packet == nullptr) return;
  char* copy = upnp_strdup_impl(packet);
  if (copy == nullptr) return;
  // The thread owns the copy and frees it; it must run exactly once.
  if (!tw::platform::StartDetachedThread(upnp_client_db_check_client, copy)) upnp_free_impl(copy);
}

TW_API void* upnp_client_db_check_client(void* packet) noexcept {
  if (packet != nullptr) {
    tw::clientdb::CheckClient(static_cast<const char*>(packet));
    upnp_free_impl(packet);
  }
  return nullptr;
}

TW_API int32_t upnp_client_db_check_device_description(const char* url, char** friendly_name,
                                                       char** second_pattern, char** pattern,
                                                       char** icon_url, char** icon_mime,
                                                       int32_t* client_type,
                                                       int32_t* fix) noexcept {
  if (url == nullptr) return 0;
  tw::clientdb::DeviceFindings found;
  found.client_type = client_type != nullptr ? *client_type : -1;
  found.fix = fix != nullptr ? *fix : 0;
  const int32_t fetched = tw::clientdb::CheckDeviceDescription(url, &found);
  Give(friendly_name, found.friendly_name);
  Give(second_pattern, found.second_pattern);
  Give(pattern, found.pattern);
  Give(icon_url, found.icon_url);
  Give(icon_mime, found.icon_mime);
  if (client_type != nullptr) *client_type = found.client_type;
  if (fix != nullptr) *fix = found.fix;
  return fetched;
}

TW_API int32_t upnp_client_db_access_allowed(const char* client_ip) noexcept {
  return tw::clientdb::AccessAllowed(client_ip);
}

}  // extern "C"
