// SPDX-License-Identifier: Apache-2.0
// The served interfaces, the server state word and the per-interface server records (local and
// remote access), and the server address text.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "base/fixed_text.h"
#include "core/core.h"
#include "tarnwick/platform.h"

extern "C" {

TW_API int32_t g_server_running = 0;
TW_API char g_IPaddress[5][17] = {};
TW_API int32_t g_nInterfaceCount = 0;
TW_API int32_t g_localPort = 0;

}  // extern "C"

namespace tw::core {
namespace {

static_assert(sizeof(g_IPaddress) == kMaxInterfaces * kAddressSize);

// Zero-initialised: the socket slots of a record that was never started hold 0, which a stop
// only marks -1 and never closes.
upnp_server_data g_records[kMaxInterfaces];
upnp_server_data g_remote_records[kMaxInterfaces];
std::atomic<bool> g_in_use[kMaxInterfaces];

// Written by start on the caller's thread, read by anyone through getHttpServer; the text is
// replaced only when it changes, like the record fields.
char g_server_text[kServerTextSize] = "";

}  // namespace

upnp_server_data* LocalRecord(int32_t index) noexcept {
  if (index < 0 || index >= kMaxInterfaces) return nullptr;
  return &g_records[index];
}

upnp_server_data* RemoteRecord(int32_t index) noexcept {
  if (index < 0 || index >= kMaxInterfaces) return nullptr;
  return &g_remote_records[index];
}

int32_t InterfaceCount() noexcept { return __atomic_load_n(&g_nInterfaceCount, __ATOMIC_ACQUIRE); }

upnp_server_data* ServerRecord(int32_t index) noexcept {
  if (index >= InterfaceCount()) return nullptr;
  return LocalRecord(index);
}

void PublishInterfaces(const char (*table)[kAddressSize], int32_t count) noexcept {
  if (count < 0) count = 0;
  if (count > kMaxInterfaces) count = kMaxInterfaces;
  for (int32_t i = 0; i < count; ++i) SetAddress(g_IPaddress[i], table[i]);
  __atomic_store_n(&g_nInterfaceCount, count, __ATOMIC_RELEASE);
}

bool RecordInUse(int32_t index) noexcept {
  return index >= 0 && index < kMaxInterfaces && g_in_use[index].load();
}

void SetRecordInUse(int32_t index, bool in_use) noexcept {
  if (index >= 0 && index < kMaxInterfaces) g_in_use[index].store(in_use);
}

void SetAddress(char* field, const char* address) noexcept {
  if (std::strncmp(field, address, kAddressSize - 1) == 0) return;
  char text[kAddressSize] = {};
  CopyCut(text, sizeof(text), address);
  std::memcpy(field, text, sizeof(text));
}

void SetPort(upnp_server_data* record, int32_t port) noexcept {
  if (record->http_port != port) record->http_port = port;
}

void SetFlag(int32_t* field, int32_t value) noexcept {
  if (*field != value) *field = value;
}

void ResetRecord(upnp_server_data* record, const char* address, int32_t remote,
                 int32_t remote_option) noexcept {
  // A socket still in a slot belongs to a thread of the last generation that made it after the
  // stop; closing it (rather than overwriting the slot) ends that thread and leaks nothing.
  upnp_close_socket(&record->http_socket);
  upnp_close_socket(&record->ssdp_listen_socket);
  upnp_close_socket(&record->ssdp_search_socket);
  upnp_close_socket(&record->ssdp_notify_socket);
  __atomic_store_n(&record->search_running, 0, __ATOMIC_RELEASE);
  __atomic_store_n(&record->search_wakeup, 0, __ATOMIC_RELEASE);
  SetAddress(record->ip_address, address);
  SetFlag(&record->remote, remote);
  SetFlag(&record->remote_option, remote_option);
  // Every request on a remote-access port must pass the authorization check.
  SetFlag(&record->auth_required, remote);
  if (record->tls != nullptr) record->tls = nullptr;
}

const char* ServerAddressText() noexcept { return g_server_text; }

void SetServerAddressText(const char* address, int32_t port) noexcept {
  char text[kServerTextSize];
  std::snprintf(text, sizeof(text), "%s:%d", address, static_cast<int>(port));
  if (std::strcmp(text, g_server_text) != 0) std::memcpy(g_server_text, text, sizeof(text));
}

}  // namespace tw::core
