// SPDX-License-Identifier: Apache-2.0
// Loading the time-zone rules for code above the platform layer.
#pragma once

namespace tw::platform {

// Reads the time-zone rules of the process (tzset), so local times and date headers are right.
void LoadTimeZone() noexcept;

}  // namespace tw::platform
