// SPDX-License-Identifier: Apache-2.0
// Entries of the MTP-over-IP device.
#include "base/status.h"
#include "services/mtp_device.h"
#include "tarnwick/services.h"

extern "C" {

TW_API void upnp_mtp_init(void) noexcept { tw::services::MtpInit(); }

TW_API void upnp_mtp_release(void) noexcept { tw::services::MtpRelease(); }

TW_API int32_t upnp_mtp_send_device_description(HttpRequest* connection) noexcept {
  if (connection == nullptr) return tw::kHttpFail;
  return tw::services::SendMtpDeviceDescription(*connection);
}

TW_API int32_t upnp_mtp_send_service_description(HttpRequest* connection) noexcept {
  if (connection == nullptr) return tw::kHttpFail;
  return tw::services::SendMtpServiceDescription(*connection);
}

}  // extern "C"
