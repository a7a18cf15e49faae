// SPDX-License-Identifier: Apache-2.0
// C entries of the network matching and the peer MAC lookup.
#include <cstdint>
#include <cstring>

#include "base/status.h"
#include "core/core.h"
#include "core/network_match.h"
#include "tarnwick/core.h"
#include "tarnwick/platform.h"

extern "C" {

TW_API char* upnp_get_used_local_ip(const char* text) noexcept {
  const int32_t index = tw::core::UsedLocalAddress(text);
  if (index < 0) return nullptr;
  return upnp_strdup_impl(tw::core::LocalRecord(index)->ip_address);
}

TW_API int32_t upnp_get_matching_local_server(const char* peer, char** local_out, int32_t* port_out,
                                              int32_t* reserved_out) noexcept {
  if (local_out != nullptr) *local_out = nullptr;
  if (port_out != nullptr) *port_out = 0;
  if (reserved_out != nullptr) *reserved_out = 0;
  const tw::core::LocalMatch match = tw::core::MatchLocalServer(peer);
  if (match.status != tw::kStatusOk) return match.status;
  const upnp_server_data* record = tw::core::LocalRecord(match.index);
  if (port_out != nullptr) *port_out = record->http_port;
  if (local_out != nullptr) {
    *local_out = upnp_strdup_impl(record->ip_address);
    if (*local_out == nullptr) return tw::kStatusOutOfMemory;
  }
  return tw::kStatusOk;
}

TW_API int32_t upnp_server_is_local_network(const char* peer) noexcept {
  return upnp_get_matching_local_server(peer, nullptr, nullptr, nullptr) <= 0 ? 1 : 0;
}

TW_API char* upnp_get_matching_local_ip(const char* peer) noexcept {
  char* local = nullptr;
  upnp_get_matching_local_server(peer, &local, nullptr, nullptr);
  return local;
}

TW_API int32_t is_local_ip(const char* address) noexcept {
  return tw::core::IsLocalAddress(address) ? 1 : 0;
}

TW_API int32_t GetMACaddress(const char* peer, char* out) noexcept {
  if (out == nullptr) return 0;
  char text[tw::core::kMacTextSize];
  const bool found = tw::core::PeerHardwareAddress(peer, text);
  std::memcpy(out, text, std::strlen(text) + 1);
  return found ? 1 : 0;
}

}  // extern "C"
