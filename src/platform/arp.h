// SPDX-License-Identifier: Apache-2.0
// The kernel's ARP table, for code above the platform layer that needs a peer's hardware address.
#pragma once

#include <cstdint>

namespace tw::platform {

inline constexpr int32_t kHardwareAddressSize = 6;

// Asks the ARP table for peer's entry on the interface whose index is if_index (the SIOCGARP
// request on an IPv4 datagram socket). True with the six bytes in mac when the kernel answered;
// false for an unknown index, bad text, no entry, or a system that refuses the request (qemu's
// user-mode emulation answers EPFNOSUPPORT), all of which mean "no hardware address".
bool ArpQuery(const char* peer, int32_t if_index, uint8_t mac[kHardwareAddressSize]) noexcept;

}  // namespace tw::platform
