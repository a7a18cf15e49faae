// SPDX-License-Identifier: Apache-2.0
// C entries of the server lifecycle: start and stop, and the restart on network change.
#include <cstdint>

#include "server/server_core.h"
#include "tarnwick/server.h"

extern "C" {

TW_API void upnp_server_start(int32_t* state) noexcept { tw::server::Start(state); }

TW_API void upnp_server_stop(int32_t* state) noexcept { tw::server::Stop(state); }

TW_API void upnp_server_start_heartbeat_late(void) noexcept { tw::server::StartHeartbeatLate(); }

TW_API void M_Search(void) noexcept { tw::server::SearchAll(); }

TW_API int32_t upnp_server_is_in_restart(void) noexcept { return tw::server::InRestart() ? 1 : 0; }

TW_API void Server_trigger_NICchange(void) noexcept { tw::server::TriggerNicChange(); }

TW_API void check_NIC_change(int64_t now) noexcept { tw::server::CheckNicChange(now); }

}  // extern "C"
