// SPDX-License-Identifier: Apache-2.0
// Network matching by text over the served records, and the peer MAC lookup through the ARP
// table. Addresses are compared as text on purpose: no netmask is consulted, so a match of the
// first three dotted parts stands for "same network".
#include "core/network_match.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "base/ascii.h"
#include "core/core.h"
#include "platform/arp.h"
#include "tarnwick/platform.h"

namespace tw::core {
namespace {

constexpr int kMacAttempts = 5;
constexpr int32_t kInterfaceIndexes = 16;  // interface indexes 0..15 are asked
constexpr int32_t kMacRetryPauseMs = 100;
constexpr int32_t kResolveDatagramSize = 8;
constexpr char kZeroMac[] = "00:00:00:00:00:00";

std::atomic<ArpSource> g_arp_source{nullptr};
std::atomic<int32_t> g_retry_pause_ms{kMacRetryPauseMs};

// One attempt over every interface index; true with the text of the first non-zero answer.
bool LookUp(const char* peer, char (&out)[kMacTextSize]) noexcept {
  const ArpSource source = g_arp_source.load();
  for (int32_t index = 0; index < kInterfaceIndexes; ++index) {
    uint8_t mac[platform::kHardwareAddressSize] = {};
    const bool answered =
        source != nullptr ? source(peer, index, mac) : platform::ArpQuery(peer, index, mac);
    if (!answered) continue;
    char text[kMacTextSize];
    std::snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    if (std::strcmp(text, kZeroMac) == 0) continue;
    std::memcpy(out, text, sizeof(text));
    return true;
  }
  return false;
}

// The loopback address never has a neighbour entry; text that does not parse is refused by the
// platform's query itself.
bool Lookable(const char* peer) noexcept {
  return peer != nullptr && peer[0] != '\0' && std::strcmp(peer, kLoopbackAddress) != 0;
}

// A datagram makes the kernel resolve the peer's hardware address. Linux refuses port 0 with
// EINVAL before anything is sent; the attempt is kept for kernels that resolve on it, and on
// Linux the entry normally exists already because the peer has just talked to us.
void SendResolveDatagram(const char* peer) noexcept {
  const int32_t socket = upnp_socket_create_udp();
  if (socket < 0) return;
  const char zeros[kResolveDatagramSize] = {};
  upnp_sendto(socket, zeros, kResolveDatagramSize, peer, 0);
  int32_t slot = socket;
  upnp_close_socket(&slot);
}

}  // namespace

LocalMatch MatchLocalServer(const char* peer) noexcept {
  LocalMatch match;
  if (peer == nullptr || !ascii::IsDigit(peer[0])) {
    match.status = kStatusInvalidArgument;
    return match;
  }
  const char* last_dot = std::strrchr(peer, '.');
  if (last_dot == nullptr) return match;  // not found
  const size_t prefix = static_cast<size_t>(last_dot - peer) + 1;
  const int32_t count = InterfaceCount();
  for (int32_t index = 0; index < count; ++index) {
    if (std::strncmp(LocalRecord(index)->ip_address, peer, prefix) == 0) {
      match.status = kStatusOk;
      match.index = index;
      return match;
    }
  }
  return match;
}

int32_t UsedLocalAddress(const char* text) noexcept {
  if (text == nullptr || text[0] == '\0') return -1;
  const int32_t count = InterfaceCount();
  for (int32_t index = 0; index < count; ++index) {
    const char* address = LocalRecord(index)->ip_address;
    if (address[0] == '\0') continue;
    // Only the first occurrence counts, and only when no digit follows, so 192.168.1.1 is not
    // found inside 192.168.1.10.
    const char* at = std::strstr(text, address);
    if (at != nullptr && !ascii::IsDigit(at[std::strlen(address)])) return index;
  }
  return -1;
}

bool IsLocalAddress(const char* address) noexcept {
  if (address == nullptr) return false;
  const int32_t count = InterfaceCount();
  for (int32_t index = 0; index < count; ++index) {
    if (std::strcmp(g_IPaddress[index], address) == 0) return true;
  }
  return false;
}

bool PeerHardwareAddress(const char* peer, char (&out)[kMacTextSize]) noexcept {
  out[0] = '\0';
  for (int attempt = 0; attempt < kMacAttempts; ++attempt) {
    if (Lookable(peer) && LookUp(peer, out)) return true;
    SendResolveDatagram(peer);
    Sleep(g_retry_pause_ms.load());
  }
  return false;
}

void SetArpSourceForTesting(ArpSource source) noexcept { g_arp_source.store(source); }

void SetMacRetryPauseForTesting(int32_t ms) noexcept {
  g_retry_pause_ms.store(ms >= 0 ? ms : kMacRetryPauseMs);
}

}  // namespace tw::core
