// SPDX-License-Identifier: Apache-2.0
// IPv4 interface enumeration and hardware addresses through the classic interface requests on
// an IPv4 socket (SIOCGIFCONF, SIOCGIFFLAGS, SIOCGIFHWADDR), which every Linux and Android
// kernel answers, also under user-mode emulators.
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/ascii.h"
#include "base/fixed_text.h"
#include "platform/log_hook.h"
#include "tarnwick/platform.h"

namespace {

constexpr int32_t kFail = -1;
constexpr int32_t kNameTooLong = -2;
constexpr int32_t kHwInterfaceSlots = 8;
constexpr int32_t kMacScanSlots = 5;
// Enough for any real host; keeps max * record size far from overflowing.
constexpr int32_t kMaxEnumerated = 256;
constexpr size_t kRecordSize = sizeof(ifreq);  // 32 bytes on 32-bit targets, 40 on 64-bit ones
constexpr size_t kFlagsOffset = offsetof(ifreq, ifr_flags);
// The IPv4 address inside the sockaddr_in that SIOCGIFCONF stores in the record's field.
constexpr size_t kAddressOffset = offsetof(ifreq, ifr_addr) + offsetof(sockaddr_in, sin_addr);
constexpr char kNoMac[] = "00:00:00:00:00:00";
constexpr uint8_t kMacFiller = 0x42;

static_assert(kFlagsOffset == offsetof(ifreq, ifr_addr), "flags must share the address field");
static_assert(kAddressOffset + 4 <= kRecordSize, "address bytes must lie inside the record");

int OpenRequestSocket() noexcept { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

// Records are copied in and out with memcpy: the caller's buffer need not be aligned for ifreq.
ifreq ReadRecord(const unsigned char* records, int32_t index) noexcept {
  ifreq record;
  std::memcpy(&record, records + static_cast<size_t>(index) * kRecordSize, kRecordSize);
  record.ifr_name[IFNAMSIZ - 1] = '\0';
  return record;
}

// The kernel fills at most the buffer; when it is full, a second request without a buffer tells
// how many records there really are. -1 when that count is unavailable.
int32_t TotalRecords(int request_socket) noexcept {
  ifconf probe{};
  probe.ifc_len = 0;
  probe.ifc_buf = nullptr;
  if (ioctl(request_socket, SIOCGIFCONF, &probe) != 0) return -1;
  return static_cast<int32_t>(static_cast<size_t>(probe.ifc_len) / kRecordSize);
}

// A socket for a request about one interface; -1 (logged) for an unusable name or no socket.
int InitIfreq(const char* name, ifreq* request) noexcept {
  if (name == nullptr || std::strlen(name) >= IFNAMSIZ) {
    tw::platform::Log(UPNP_LOG_LEVEL_ERROR, UPNP_LOG_SYSTEM,
                      "init_ifreq illegal interface name: %s", name != nullptr ? name : "<null>");
    return -1;
  }
  const int request_socket = OpenRequestSocket();
  if (request_socket < 0) {
    std::perror("socket");
    tw::platform::Log(UPNP_LOG_LEVEL_ERROR, UPNP_LOG_SYSTEM, "init_ifreq: could not create socket");
    return -1;
  }
  *request = ifreq{};
  std::memcpy(request->ifr_name, name, std::strlen(name) + 1);
  return request_socket;
}

}  // namespace

extern "C" {

TW_API int32_t get_interface_addresses(void* buffer, int32_t size) noexcept {
  if (buffer == nullptr || size <= 0) return kFail;
  const int request_socket = OpenRequestSocket();
  if (request_socket < 0) {
    std::perror("socket");
    return kFail;
  }
  ifconf conf{};
  conf.ifc_len = size;
  conf.ifc_buf = static_cast<char*>(buffer);
  if (ioctl(request_socket, SIOCGIFCONF, &conf) != 0) {
    std::perror("ioctl(GetIfConf)");
    tw::platform::Log(UPNP_LOG_LEVEL_ERROR, UPNP_LOG_SYSTEM,
                      "get_interface_addresses Could not get interface configuration");
    close(request_socket);
    return kFail;
  }
  const int32_t requested = static_cast<int32_t>(static_cast<size_t>(size) / kRecordSize);
  int32_t reported = static_cast<int32_t>(static_cast<size_t>(conf.ifc_len) / kRecordSize);
  if (reported >= requested) {
    const int32_t total = TotalRecords(request_socket);
    if (total > reported) reported = total;
  }
  if (reported > requested) {
    // The level tag and channel inside the text are part of the established message.
    tw::platform::Log(UPNP_LOG_LEVEL_PROBLEM, UPNP_LOG_SYSTEM,
                      "[Problem] - LOG_SYSTEM:get_interface_addresses System returned %d "
                      "interfaces,but we requested only %d",
                      static_cast<int>(reported), static_cast<int>(requested));
    reported = requested;
  }
  unsigned char* records = static_cast<unsigned char*>(buffer);
  for (int32_t i = 0; i < reported; ++i) {
    ifreq query = ReadRecord(records, i);
    // Flags replace only the first two bytes of the field (where the address family was), so
    // the address bytes behind them stay readable. An interface whose flags cannot be read
    // counts as down.
    const short flags = ioctl(request_socket, SIOCGIFFLAGS, &query) == 0 ? query.ifr_flags : 0;
    std::memcpy(records + static_cast<size_t>(i) * kRecordSize + kFlagsOffset, &flags,
                sizeof(flags));
  }
  close(request_socket);
  return reported;
}

TW_API int32_t upnp_get_interfaces(int32_t* count_out, char (*table)[UPNP_ADDRESS_TEXT_SIZE],
                                   int32_t max, const char* selection) noexcept {
  int32_t count = 0;
  if (table != nullptr && max > 0) {
    if (selection != nullptr && selection[0] != '\0') {
      // An explicit selection is trusted as given; the host may name an address not yet up.
      tw::CopyCut(table[0], UPNP_ADDRESS_TEXT_SIZE, selection);
      count = 1;
    } else {
      const int32_t slots = max < kMaxEnumerated ? max : kMaxEnumerated;
      auto* records =
          static_cast<unsigned char*>(upnp_calloc_impl(static_cast<size_t>(slots), kRecordSize));
      const int32_t found =
          records == nullptr
              ? kFail
              : get_interface_addresses(records, static_cast<int32_t>(slots * kRecordSize));
      if (found < 0) {
        tw::platform::Log(UPNP_LOG_LEVEL_CRITICAL, UPNP_LOG_SYSTEM,
                          "upnp_get_interfaces Error in get_interface_addresses() "
                          "function.\nPlease use -ip param!");
      }
      for (int32_t i = 0; i < found && count < max; ++i) {
        const ifreq record = ReadRecord(records, i);
        const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
        const uint8_t* address = bytes + kAddressOffset;
        char text[UPNP_ADDRESS_TEXT_SIZE];
        std::snprintf(text, sizeof(text), "%d.%d.%d.%d", address[0], address[1], address[2],
                      address[3]);
        if ((record.ifr_flags & IFF_UP) != 0) {
          tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SYSTEM,
                            "upnp_get_interfaces get_interface_addresses %s", text);
          std::memcpy(table[count], text, sizeof(text));
          ++count;
        } else {
          tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SYSTEM,
                            "upnp_get_interfaces get_interface_addresses - DOWN %s", text);
        }
      }
      if (records != nullptr) upnp_free_impl(records);
    }
  }
  if (count_out != nullptr) *count_out = count;
  return count;
}

TW_API int32_t get_hwinterface(char* name_out, int32_t size, int32_t index) noexcept {
  if (name_out == nullptr || size <= 0) return kFail;
  if (index < 0 || index >= kHwInterfaceSlots) return 0;
  unsigned char records[kHwInterfaceSlots * kRecordSize];
  const int32_t found = get_interface_addresses(records, sizeof(records));
  if (found < 0) return kFail;
  if (index >= found) return 0;
  const ifreq record = ReadRecord(records, index);
  const size_t length = std::strlen(record.ifr_name);
  if (static_cast<size_t>(size) < length + 1) return kNameTooLong;
  std::memcpy(name_out, record.ifr_name, length + 1);
  return 1;
}

TW_API char* get_mac_address(const char* interface_name, char* out, int32_t size) noexcept {
  if (out == nullptr || size <= 0) return nullptr;
  ifreq request;
  const int request_socket = InitIfreq(interface_name, &request);
  if (request_socket < 0) return nullptr;
  const int result = ioctl(request_socket, SIOCGIFHWADDR, &request);
  close(request_socket);
  if (result != 0) {
    std::perror("ioctl(GetHwAddr)");
    tw::platform::Log(UPNP_LOG_LEVEL_ERROR, UPNP_LOG_SYSTEM,
                      "get_mac_address Could not get MAC address of interface %s", interface_name);
    return nullptr;
  }
  const auto* mac = reinterpret_cast<const unsigned char*>(request.ifr_hwaddr.sa_data);
  std::snprintf(out, static_cast<size_t>(size), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1],
                mac[2], mac[3], mac[4], mac[5]);
  out[size - 1] = '\0';
  return out;
}

TW_API void upnp_get_mac(uint8_t* out) noexcept {
  if (out == nullptr) return;
  std::memset(out, kMacFiller, 6);
  // Five records: 160 bytes on the 32-bit targets.
  unsigned char records[kMacScanSlots * kRecordSize];
  const int32_t found = get_interface_addresses(records, sizeof(records));
  for (int32_t i = 0; i < found; ++i) {
    const ifreq record = ReadRecord(records, i);
    char text[sizeof(kNoMac)];
    if (get_mac_address(record.ifr_name, text, sizeof(text)) == nullptr) continue;
    if (std::strcmp(text, kNoMac) == 0) continue;  // loopback and other address-less links
    // get_mac_address writes exactly two hex digits per byte.
    for (int k = 0; k < 6; ++k) {
      out[k] = static_cast<uint8_t>(tw::ascii::HexDigitValue(text[3 * k]) << 4 |
                                    tw::ascii::HexDigitValue(text[3 * k + 1]));
    }
    return;
  }
}

}  // extern "C"
