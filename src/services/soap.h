// SPDX-License-Identifier: Apache-2.0
// Internals of the UPnP control error and the fixed Connection Manager answers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/services.h"

namespace tw::services {

// Status of a fault whose code is not itself an HTTP status, and of the header call made for a
// null connection.
inline constexpr int32_t kFaultDefaultStatus = 500;

// The answers are formatted into a buffer of this size, as a host handler would.
inline constexpr size_t kAnswerBufferSize = 4096;

// The row for code: the host table first, then the built-in one; a negative or unknown code
// gives the built-in first row (400 "Bad request"). Never null.
const upnp_errmsg& FindError(int32_t code) noexcept;
void SetHostErrors(const upnp_errmsg* table) noexcept;
// The HTTP status a fault for code goes out with.
int32_t FaultStatus(int32_t code) noexcept;
// The SOAP fault for the row found for code, or null when memory is short.
upnp_string* BuildFault(int32_t code) noexcept;
// See upnp_send_error.
int32_t SendFault(HttpRequest& request, int32_t code) noexcept;

enum class CmsAnswer { kConnectionInfo, kConnectionIds };
// Formats the answer into an accounted buffer and sends it with HTTP_send; 1 without memory.
int32_t SendCmsAnswer(HttpRequest& request, CmsAnswer answer) noexcept;

}  // namespace tw::services
