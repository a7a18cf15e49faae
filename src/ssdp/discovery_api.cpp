// SPDX-License-Identifier: Apache-2.0
// C entries for the heartbeat, the searches, the host's requests and the answer queue.
#include <cstdint>

#include "ssdp/ssdp_internal.h"
#include "tarnwick/platform.h"
#include "tarnwick/ssdp.h"

namespace {

constexpr int32_t kAliveRequestMs = 500;
constexpr int64_t kMsPerSecond = 1000;

// Seconds to milliseconds, saturated so a huge value cannot overflow the 32-bit store.
int32_t ToMs(int32_t seconds) noexcept {
  const int64_t ms = static_cast<int64_t>(seconds) * kMsPerSecond;
  if (ms > INT32_MAX) return INT32_MAX;
  if (ms < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(ms);
}

}  // namespace

extern "C" {

TW_API void SSDP_init(void) noexcept { tw::ssdp::InitLock(); }

TW_API void SSDP_exit(void) noexcept {
  tw::ssdp::ClearQueue();
  tw::ssdp::ExitLock();
}

TW_API void SSDP_queue_notify_packet(upnp_ssdp_answer* answer) noexcept {
  tw::ssdp::Enqueue(answer);
}

TW_API void SSDP_process_queued_notify_packets(void) noexcept { tw::ssdp::ProcessQueue(); }

TW_API void SSDP_queue_clear(void) noexcept { tw::ssdp::ClearQueue(); }

TW_API void* SSDP_heartbeat(void* server) noexcept {
  tw::ssdp::ThreadEntered();
  return tw::ssdp::CountedHeartbeatThread(server);
}

TW_API int32_t upnp_ssdp_heartbeat_active(void) noexcept {
  return tw::ssdp::HeartbeatActive() ? 1 : 0;
}

TW_API void SSDP_m_search(upnp_server_data* server) noexcept { tw::ssdp::StartSearch(server); }

TW_API void SSDP_trigger_wakeup(void) noexcept { tw::ssdp::TriggerWakeup(); }

TW_API void SSDP_trigger_byebye(void) noexcept { tw::ssdp::TriggerByebye(); }

TW_API void SSDP_trigger_shutdown(void) noexcept { tw::ssdp::TriggerShutdown(); }

TW_API void upnp_ssdp_send_alive(void) noexcept {
  // Long enough for every heartbeat to pass a tick and see the request.
  tw::ssdp::RequestAlive(true);
  Sleep(kAliveRequestMs);
  tw::ssdp::RequestAlive(false);
}

TW_API void upnp_ssdp_set_msearch_interval(int32_t seconds) noexcept {
  tw::ssdp::SetSearchIntervalMs(ToMs(seconds));
}

TW_API int32_t upnp_ssdp_get_msearch_interval(void) noexcept {
  return tw::ssdp::SearchIntervalMs() / static_cast<int32_t>(kMsPerSecond);
}

TW_API void upnp_ssdp_set_msearch_initial_interval(int32_t seconds) noexcept {
  tw::ssdp::SetInitialSearchIntervalMs(ToMs(seconds));
}

TW_API int32_t upnp_ssdp_get_msearch_initial_interval(void) noexcept {
  return tw::ssdp::InitialSearchIntervalMs() / static_cast<int32_t>(kMsPerSecond);
}

}  // extern "C"
