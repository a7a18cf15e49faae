// SPDX-License-Identifier: Apache-2.0
// C entries of the server core: records, start and stop, the global lock, the restart on
// network change and the callback tables.
#include <cstdint>

#include "server/server_core.h"
#include "tarnwick/server.h"

extern "C" {

TW_API upnp_server_data* getHTTPServerData(int32_t index) noexcept {
  return tw::server::ServerRecord(index);
}

TW_API void upnp_server_start(int32_t* state) noexcept { tw::server::Start(state); }

TW_API void upnp_server_stop(int32_t* state) noexcept { tw::server::Stop(state); }

TW_API void upnp_server_start_heartbeat_late(void) noexcept { tw::server::StartHeartbeatLate(); }

TW_API void M_Search(void) noexcept { tw::server::SearchAll(); }

TW_API int32_t upnp_global_lock(void) noexcept { return tw::server::EnterGlobalLock() ? 1 : 0; }

TW_API void upnp_global_unlock(void) noexcept { tw::server::LeaveGlobalLock(); }

TW_API int32_t upnp_server_is_in_restart(void) noexcept { return tw::server::InRestart() ? 1 : 0; }

TW_API void Server_trigger_NICchange(void) noexcept { tw::server::TriggerNicChange(); }

TW_API void check_NIC_change(int64_t now) noexcept { tw::server::CheckNicChange(now); }

TW_API const char* getHttpServer(void) noexcept { return tw::server::ServerAddressText(); }

TW_API void server_set_remote_port(int32_t port) noexcept { tw::server::SetRemotePort(port); }

TW_API void server_set_dtcp_callbacks(
    upnp_dtcp_init_source_fn init_source, upnp_dtcp_exit_source_fn exit_source,
    upnp_dtcp_start_listen_fn start_listen, upnp_dtcp_nic_change_fn nic_change,
    upnp_hook_fn is_dtcp_uri, upnp_hook_fn receive_file, upnp_hook_fn http_uri_build,
    upnp_hook_fn http_dtcpmimetype_build, upnp_hook_fn http_4thfield_convert,
    upnp_hook_fn add_fields, upnp_hook_fn send_file, upnp_hook_fn content_size,
    upnp_hook_fn support_has_dtcp, upnp_hook_fn support_has_move_source,
    upnp_hook_fn support_has_move_sink, upnp_hook_fn support_has_dis) noexcept {
  tw::server::SetDtcp({init_source, exit_source, start_listen, nic_change, is_dtcp_uri,
                       receive_file, http_uri_build, http_dtcpmimetype_build, http_4thfield_convert,
                       add_fields, send_file, content_size, support_has_dtcp,
                       support_has_move_source, support_has_move_sink, support_has_dis});
}

TW_API void server_set_wmdrm_callbacks(upnp_hook_fn is_wmdrm_request, upnp_hook_fn http_get_content,
                                       upnp_hook_fn soap_authorized, upnp_hook_fn soap_validated,
                                       upnp_hook_fn soap_registered) noexcept {
  tw::server::SetWmdrm(
      {is_wmdrm_request, http_get_content, soap_authorized, soap_validated, soap_registered});
}

TW_API void server_set_cp_callback(upnp_cp_callback_fn fn) noexcept {
  tw::server::SetControlPointCallback(fn);
}

}  // extern "C"
