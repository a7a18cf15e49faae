// SPDX-License-Identifier: Apache-2.0
// Device identities: one UDN per announced device, made once from a fixed prefix, a check byte
// of the friendly name and the MAC address, so a host keeps its identities across restarts and
// two hosts (or two differently named instances on one host) never share one.
#include "core/udn.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "platform/critical_section.h"
#include "tarnwick/config.h"
#include "tarnwick/core.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

extern "C" {
TW_API int32_t g_nInstance = 0;
}

namespace tw::core {
namespace {

constexpr size_t kUdnSize = 256;
constexpr char kPrefix[] = "TarnwickS";  // the first nine of the sixteen bytes
constexpr size_t kPrefixBytes = sizeof(kPrefix) - 1;
constexpr size_t kMacBytes = 6;
constexpr uint8_t kUnsetCheckByte = 105;
// The characters overwritten to tell the devices apart: the second hex digit of the first byte
// and the first hex digit of the second.
constexpr size_t kDeviceDigit = 6;
constexpr size_t kVariantDigit = 7;

enum Device : int { kServer, kRenderer, kRenderer2, kRemoteUiServer, kRemoteUiClient, kMtp };

struct DeviceMark {
  char device;
  char variant;  // for the server: '0' plus the instance number instead
};
constexpr DeviceMark kMarks[] = {{'5', '0'}, {'6', '0'}, {'6', '1'},
                                 {'7', '0'}, {'8', '0'}, {'9', '0'}};
constexpr int kDeviceCount = sizeof(kMarks) / sizeof(kMarks[0]);
static_assert(kDeviceCount == kMtp + 1);

static_assert(kPrefixBytes + 1 + kMacBytes == 16);

char g_udns[kDeviceCount][kUdnSize];
std::atomic<bool> g_made[kDeviceCount];

// Guards the first fill of a buffer; taken only around the copy, so it is a leaf lock.
struct UdnLock {
  UdnLock() noexcept { InitializeCriticalSection(&cs); }
  CRITICAL_SECTION cs;
};
CRITICAL_SECTION* Lock() noexcept {
  static UdnLock lock;  // never destroyed: getters may run during process exit
  return &lock.cs;
}

uint8_t CheckByte() noexcept {
  const char* name = upnp_ini_file_getString(UPNP_INI_KEY_FRIENDLYNAME);
  if (name == nullptr) return kUnsetCheckByte;
  uint8_t sum = 0;
  for (const char* p = name; *p != '\0'; ++p)
    sum = static_cast<uint8_t>(sum + static_cast<uint8_t>(*p));
  return sum;
}

const char* Udn(Device device) noexcept {
  if (g_made[device].load(std::memory_order_acquire)) return g_udns[device];
  char* text = static_cast<char*>(upnp_malloc_impl(kUdnSize));
  if (text == nullptr) {
    upnp_log_critical_impl(UPNP_LOG_SYSTEM, "Out of memory creating device UDN");
    return g_udns[device];
  }
  uint8_t b[16];
  std::memcpy(b, kPrefix, kPrefixBytes);
  b[kPrefixBytes] = CheckByte();
  upnp_get_mac(b + kPrefixBytes + 1);
  std::snprintf(text, kUdnSize,
                "uuid:%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0],
                b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
                b[14], b[15]);
  text[kDeviceDigit] = kMarks[device].device;
  if (device == kServer) {
    // Intended: any low byte is added, so instances from 10 on give non-digit characters.
    const int32_t instance = __atomic_load_n(&g_nInstance, __ATOMIC_RELAXED);
    text[kVariantDigit] = static_cast<char>('0' + (instance & 0xff));
  } else {
    text[kVariantDigit] = kMarks[device].variant;
  }
  {
    CsGuard guard(Lock());
    if (!g_made[device].load(std::memory_order_relaxed)) {
      std::memcpy(g_udns[device], text, kUdnSize);
      g_made[device].store(true, std::memory_order_release);
    }
  }
  upnp_free_impl(text);
  return g_udns[device];
}

}  // namespace

void ResetDeviceUdnsForTesting() noexcept {
  CsGuard guard(Lock());
  for (int device = 0; device < kDeviceCount; ++device) {
    g_made[device].store(false);
    g_udns[device][0] = '\0';
  }
}

}  // namespace tw::core

extern "C" {

TW_API const char* upnp_get_server_udn(void) noexcept { return tw::core::Udn(tw::core::kServer); }
TW_API const char* upnp_get_renderer_udn(void) noexcept {
  return tw::core::Udn(tw::core::kRenderer);
}
TW_API const char* upnp_get_renderer2_udn(void) noexcept {
  return tw::core::Udn(tw::core::kRenderer2);
}
TW_API const char* upnp_get_ruis_udn(void) noexcept {
  return tw::core::Udn(tw::core::kRemoteUiServer);
}
TW_API const char* upnp_get_ruic_udn(void) noexcept {
  return tw::core::Udn(tw::core::kRemoteUiClient);
}
TW_API const char* upnp_get_mtp_udn(void) noexcept { return tw::core::Udn(tw::core::kMtp); }

}  // extern "C"
