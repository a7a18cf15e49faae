// SPDX-License-Identifier: Apache-2.0
// C entries for the device roles, the search options, the beat time and the packet senders.
#include <cstdint>

#include "ssdp/ssdp_internal.h"
#include "tarnwick/ssdp.h"

using tw::ssdp::Role;
using tw::ssdp::SearchOption;

extern "C" {

TW_API void upnp_ssdp_isMediaServer(void) noexcept { tw::ssdp::SetRole(Role::kMediaServer, 1); }
TW_API int32_t upnp_ssdp_getMediaServer(void) noexcept {
  return tw::ssdp::RoleEnabled(Role::kMediaServer) ? 1 : 0;
}
TW_API void upnp_ssdp_isRenderer(void) noexcept { tw::ssdp::SetRole(Role::kRenderer, 1); }
TW_API int32_t upnp_ssdp_getRenderer(void) noexcept {
  return tw::ssdp::RoleEnabled(Role::kRenderer) ? 1 : 0;
}
TW_API void upnp_ssdp_isControlPoint(int32_t value) noexcept { tw::ssdp::SetControlPoint(value); }
TW_API int32_t upnp_ssdp_getControlPoint(void) noexcept { return tw::ssdp::ControlPoint() ? 1 : 0; }
TW_API void upnp_ssdp_hasRemoteUIServer(int32_t value) noexcept {
  tw::ssdp::SetRole(Role::kRemoteUiServer, value);
}
TW_API int32_t upnp_ssdp_getRemoteUIServer(void) noexcept {
  return tw::ssdp::RoleEnabled(Role::kRemoteUiServer) ? 1 : 0;
}
TW_API void upnp_ssdp_hasRemoteUIClient(int32_t value) noexcept {
  tw::ssdp::SetRole(Role::kRemoteUiClient, value);
}
TW_API int32_t upnp_ssdp_getRemoteUIClient(void) noexcept {
  return tw::ssdp::RoleEnabled(Role::kRemoteUiClient) ? 1 : 0;
}
TW_API int32_t upnp_ssdp_getRemoteUI(void) noexcept {
  return tw::ssdp::RoleEnabled(Role::kRemoteUiServer) ||
                 tw::ssdp::RoleEnabled(Role::kRemoteUiClient)
             ? 1
             : 0;
}
TW_API void upnp_ssdp_hasMediaTransferProtocol(int32_t value) noexcept {
  tw::ssdp::SetRole(Role::kMtp, value);
}
TW_API int32_t upnp_ssdp_getMTP(void) noexcept { return tw::ssdp::RoleEnabled(Role::kMtp) ? 1 : 0; }
TW_API void upnp_ssdp_have_wmdrm(void) noexcept {
  __atomic_store_n(&g_bHaveWMDRM, 1, __ATOMIC_RELAXED);
}

TW_API void upnp_ssdp_enable_search_remoteui_client(int32_t value) noexcept {
  tw::ssdp::SetSearch(SearchOption::kRemoteUiClient, value);
}
TW_API void upnp_ssdp_enable_search_remoteui_server(int32_t value) noexcept {
  tw::ssdp::SetSearch(SearchOption::kRemoteUiServer, value);
}
TW_API void upnp_ssdp_enable_search_igd(int32_t value) noexcept {
  tw::ssdp::SetSearch(SearchOption::kIgd, value);
}
TW_API void upnp_ssdp_set_enable_quick_msearches(int32_t value) noexcept {
  tw::ssdp::SetSearch(SearchOption::kQuick, value != 0 ? 1 : 0);
}
TW_API int32_t upnp_ssdp_get_quick_msearches_enabled(void) noexcept {
  return tw::ssdp::SearchEnabled(SearchOption::kQuick) ? 1 : 0;
}

TW_API void SSDP_set_upnp_beattime(uint32_t seconds) noexcept { tw::ssdp::SetBeatTime(seconds); }

TW_API int32_t SSDP_notify_packet(const char* dest_addr, int32_t dest_port, int32_t socket,
                                  const char* local_addr, int32_t local_port, const char* type,
                                  const char* udn, const char* path) noexcept {
  return tw::ssdp::SendPacket(tw::ssdp::Packet::kAlive, dest_addr, dest_port, socket, local_addr,
                              local_port, type, udn, path);
}

TW_API int32_t SSDP_http_packet(const char* dest_addr, int32_t dest_port, int32_t socket,
                                const char* local_addr, int32_t local_port, const char* type,
                                const char* udn, const char* path) noexcept {
  return tw::ssdp::SendPacket(tw::ssdp::Packet::kAnswer, dest_addr, dest_port, socket, local_addr,
                              local_port, type, udn, path);
}

TW_API int32_t SSDP_byebye_packet(const char* dest_addr, int32_t dest_port, int32_t socket,
                                  const char* type, const char* udn) noexcept {
  return tw::ssdp::SendByebyePacket(dest_addr, dest_port, socket, type, udn);
}

TW_API void SSDP_send_notify(int32_t socket, const char* local_addr, int32_t local_port,
                             const char* dest_addr, int32_t dest_port, const char* target,
                             int32_t is_notify) noexcept {
  tw::ssdp::SendNotify(socket, local_addr, local_port, dest_addr, dest_port, target,
                       is_notify != 0);
}

TW_API void SSDP_send_byebye(int32_t socket, const char* dest_addr, int32_t dest_port) noexcept {
  tw::ssdp::SendByebye(socket, dest_addr, dest_port);
}

TW_API void SSDP_ruis_send_announcement(void) noexcept { tw::ssdp::SendRemoteUiServerSet(true); }

TW_API void SSDP_ruis_send_byebye(void) noexcept { tw::ssdp::SendRemoteUiServerSet(false); }

}  // extern "C"
