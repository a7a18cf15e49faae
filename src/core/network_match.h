// SPDX-License-Identifier: Apache-2.0
// Which served interface a peer belongs to, and a peer's hardware address.
#pragma once

#include <cstdint>

#include "base/status.h"

namespace tw::core {

inline constexpr int32_t kMacTextSize = 18;

struct LocalMatch {
  int32_t status = kStatusNotFound;  // kStatusOk, kStatusInvalidArgument or kStatusNotFound
  int32_t index = -1;                // record of the peer's network when status is kStatusOk
};

// The first served record whose address begins with peer's text up to and including its last dot.
LocalMatch MatchLocalServer(const char* peer) noexcept;
// Index of the first record whose address text occurs in text (first occurrence only, not
// followed by a digit), or -1.
int32_t UsedLocalAddress(const char* text) noexcept;
bool IsLocalAddress(const char* address) noexcept;
// Five attempts of ARP lookup, resolve datagram and 100 ms sleep; out gets the address in
// upper-case hex, or the empty text.
bool PeerHardwareAddress(const char* peer, char (&out)[kMacTextSize]) noexcept;

// The ARP lookup of one interface index; replaceable in tests (null restores the system's).
using ArpSource = bool (*)(const char* peer, int32_t if_index, uint8_t mac[6]);
void SetArpSourceForTesting(ArpSource source) noexcept;
// Pause between two attempts; a negative value restores 100 ms.
void SetMacRetryPauseForTesting(int32_t ms) noexcept;

}  // namespace tw::core
