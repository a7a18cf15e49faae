// SPDX-License-Identifier: Apache-2.0
// C entries of the shared server state: records, the global lock and the callback tables.
#include <cstdint>

#include "core/core.h"
#include "tarnwick/core.h"

extern "C" {

TW_API upnp_server_data* getHTTPServerData(int32_t index) noexcept {
  return tw::core::ServerRecord(index);
}

TW_API int32_t upnp_global_lock(void) noexcept { return tw::core::EnterGlobalLock() ? 1 : 0; }

TW_API void upnp_global_unlock(void) noexcept { tw::core::LeaveGlobalLock(); }

TW_API const char* getHttpServer(void) noexcept { return tw::core::ServerAddressText(); }

TW_API void server_set_remote_port(int32_t port) noexcept { tw::core::SetRemotePort(port); }

TW_API void server_set_dtcp_callbacks(
    upnp_dtcp_init_source_fn init_source, upnp_dtcp_exit_source_fn exit_source,
    upnp_dtcp_start_listen_fn start_listen, upnp_dtcp_nic_change_fn nic_change,
    upnp_hook_fn is_dtcp_uri, upnp_hook_fn receive_file, upnp_hook_fn http_uri_build,
    upnp_hook_fn http_dtcpmimetype_build, upnp_hook_fn http_4thfield_convert,
    upnp_hook_fn add_fields, upnp_hook_fn send_file, upnp_hook_fn content_size,
    upnp_hook_fn support_has_dtcp, upnp_hook_fn support_has_move_source,
    upnp_hook_fn support_has_move_sink, upnp_hook_fn support_has_dis) noexcept {
  tw::core::SetDtcp({init_source, exit_source, start_listen, nic_change, is_dtcp_uri, receive_file,
                     http_uri_build, http_dtcpmimetype_build, http_4thfield_convert, add_fields,
                     send_file, content_size, support_has_dtcp, support_has_move_source,
                     support_has_move_sink, support_has_dis});
}

TW_API void server_set_wmdrm_callbacks(upnp_hook_fn is_wmdrm_request, upnp_hook_fn http_get_content,
                                       upnp_hook_fn soap_authorized, upnp_hook_fn soap_validated,
                                       upnp_hook_fn soap_registered) noexcept {
  tw::core::SetWmdrm(
      {is_wmdrm_request, http_get_content, soap_authorized, soap_validated, soap_registered});
}

TW_API void server_set_cp_callback(upnp_cp_callback_fn fn) noexcept {
  tw::core::SetControlPointCallback(fn);
}

}  // extern "C"
