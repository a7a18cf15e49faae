// SPDX-License-Identifier: Apache-2.0
// Internals of the device identities, visible to the unit tests.
#pragma once

namespace tw::core {

// Forgets every UDN made so far, so the next getter call makes it again.
void ResetDeviceUdnsForTesting() noexcept;

}  // namespace tw::core
