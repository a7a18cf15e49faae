// SPDX-License-Identifier: Apache-2.0
// Internals of the MTP-over-IP device: its two descriptions and its start and stop.
#pragma once

#include <cstdint>

#include "tarnwick/services.h"

namespace tw::services {

inline constexpr char kMtpDescriptionPath[] = "/MediaTransferProtocolDescription.xml";
inline constexpr char kMtpServicePath[] = "/MediaTransferProtocol.xml";
// The fixed service description (CR LF line ends).
extern const char kMtpServiceDescription[];

// The device description for udn, or null when memory is short.
upnp_string* BuildMtpDeviceDescription(const char* udn) noexcept;
int32_t SendMtpDeviceDescription(HttpRequest& request) noexcept;
int32_t SendMtpServiceDescription(HttpRequest& request) noexcept;
void MtpInit() noexcept;
void MtpRelease() noexcept;

}  // namespace tw::services
