// SPDX-License-Identifier: Apache-2.0
// Identification of requests and announcing devices (identify.cpp).
#pragma once

#include <cstdint>

namespace tw::clientdb {

// Prepares the header patterns of the client-type table; upnp_client_db_init calls it once the
// table is split, upnp_client_db_exit frees them (FreeMatcher also forgets the peers known to
// have no hardware address).
void BuildMatcher() noexcept;
void FreeMatcher() noexcept;
// Replaces the millisecond clock of the no-hardware-address memory (null: the system's).
void SetClockForTesting(int64_t (*clock)()) noexcept;

int32_t CheckHeader(const char* head, int32_t* client_type, int32_t* fix, char** pattern,
                    char** second_pattern, char** name) noexcept;
int32_t AddByIp(const char* own_address, const char* ip, const char* head) noexcept;
int32_t AccessAllowed(const char* ip) noexcept;

// What a device description told about the device; strings owned (Clear frees them).
struct DeviceFindings {
  char* friendly_name = nullptr;
  char* second_pattern = nullptr;
  char* pattern = nullptr;
  char* icon_url = nullptr;
  char* icon_mime = nullptr;
  int32_t client_type = 0;
  int32_t fix = 0;
  void Clear() noexcept;
};
int32_t CheckDeviceDescription(const char* url, DeviceFindings* found) noexcept;
// What an alive announcement tells about the announcing device, read from the packet's first
// 1023 bytes: the first "http://" text up to a blank or control byte (at most 255 bytes), its
// host (at most 19 bytes, up to ':' or '/') and the UDN ("uuid:" after "USN:", up to the line end
// or to a ':' from its 10th byte on). Owned copies, freed with the record.
struct Announcement {
  char* location = nullptr;
  char* ip = nullptr;
  char* udn = nullptr;
  Announcement() = default;
  Announcement(const Announcement&) = delete;
  Announcement& operator=(const Announcement&) = delete;
  ~Announcement();
  // False when a part is missing or memory is short, and for a remote UI client's embedded
  // device, which is never examined.
  bool Read(const char* packet) noexcept;
};
// The work of one alive announcement (the packet text is not changed).
void CheckClient(const char* packet) noexcept;

}  // namespace tw::clientdb
