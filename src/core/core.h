// SPDX-License-Identifier: Apache-2.0
// Internals of the shared server state: the record tables, the global lock and the host's
// callback tables, used by the HTTP server, SSDP and the server lifecycle.
//
// Threads read a record's address, port and flags without a lock while start may be preparing
// the next generation. Start therefore writes a plain field only when its value changes, and
// sockets, generations and flags always with atomic stores.
#pragma once

#include <cstdint>

#include "tarnwick/core.h"
#include "tarnwick/types.h"

namespace tw::core {

inline constexpr int32_t kMaxInterfaces = 5;
inline constexpr int32_t kAddressSize = 17;
inline constexpr int32_t kServerTextSize = 128;
inline constexpr int32_t kStopped = 0;
inline constexpr int32_t kRunning = 1;
inline constexpr int32_t kStopping = -1;
inline constexpr char kLoopbackAddress[] = "127.0.0.1";

// ---- Records (records.cpp) ----
// The record of slot index (0..4) whatever the interface count; null outside the table.
upnp_server_data* LocalRecord(int32_t index) noexcept;
upnp_server_data* RemoteRecord(int32_t index) noexcept;
// getHTTPServerData: null when index is not below the interface count.
upnp_server_data* ServerRecord(int32_t index) noexcept;
int32_t InterfaceCount() noexcept;
// Copies count entries into g_IPaddress (only those that differ) and publishes the count.
void PublishInterfaces(const char (*table)[kAddressSize], int32_t count) noexcept;
// Whether the last start made servers on slot index (false for a skipped entry).
bool RecordInUse(int32_t index) noexcept;
void SetRecordInUse(int32_t index, bool in_use) noexcept;
// Prepares a record for a new start: sockets closed (-1), search flags cleared, address and the
// remote flag and option set (authorization is required exactly in remote records); the stop
// generation is kept.
void ResetRecord(upnp_server_data* record, const char* address, int32_t remote,
                 int32_t remote_option) noexcept;
// Plain fields written only on change (see the file comment).
void SetPort(upnp_server_data* record, int32_t port) noexcept;
void SetFlag(int32_t* field, int32_t value) noexcept;
void SetAddress(char* field, const char* address) noexcept;
// "%s:%d" of the first record's address and port, cut at 128 characters.
const char* ServerAddressText() noexcept;
void SetServerAddressText(const char* address, int32_t port) noexcept;

// ---- Global lock (global_lock.cpp) ----
void CreateGlobalLock() noexcept;
void DestroyGlobalLock() noexcept;
// True when the caller now holds the lock; false when there is none or it went away meanwhile.
bool EnterGlobalLock() noexcept;
void LeaveGlobalLock() noexcept;
bool GlobalLockExists() noexcept;
// Holds the global lock for a scope when it could be taken (held() says whether it was).
class GlobalLockGuard {
 public:
  GlobalLockGuard() noexcept : held_(EnterGlobalLock()) {}
  ~GlobalLockGuard() {
    if (held_) LeaveGlobalLock();
  }
  GlobalLockGuard(const GlobalLockGuard&) = delete;
  GlobalLockGuard& operator=(const GlobalLockGuard&) = delete;
  bool held() const noexcept { return held_; }

 private:
  bool held_;
};

// ---- Callback tables (callbacks.cpp) ----
struct DtcpCallbacks {
  upnp_dtcp_init_source_fn init_source;
  upnp_dtcp_exit_source_fn exit_source;
  upnp_dtcp_start_listen_fn start_listen;
  upnp_dtcp_nic_change_fn nic_change;
  upnp_hook_fn is_dtcp_uri;
  upnp_hook_fn receive_file;
  upnp_hook_fn http_uri_build;
  upnp_hook_fn http_dtcpmimetype_build;
  upnp_hook_fn http_4thfield_convert;
  upnp_hook_fn add_fields;
  upnp_hook_fn send_file;
  upnp_hook_fn content_size;
  upnp_hook_fn support_has_dtcp;
  upnp_hook_fn support_has_move_source;
  upnp_hook_fn support_has_move_sink;
  upnp_hook_fn support_has_dis;
};
struct WmdrmCallbacks {
  upnp_hook_fn is_wmdrm_request;
  upnp_hook_fn http_get_content;
  upnp_hook_fn soap_authorized;
  upnp_hook_fn soap_validated;
  upnp_hook_fn soap_registered;
};
// Copies of the tables as set last; the setters run before the servers start.
DtcpCallbacks Dtcp() noexcept;
void SetDtcp(const DtcpCallbacks& table) noexcept;
WmdrmCallbacks Wmdrm() noexcept;
void SetWmdrm(const WmdrmCallbacks& table) noexcept;
upnp_cp_callback_fn ControlPointCallback() noexcept;
void SetControlPointCallback(upnp_cp_callback_fn fn) noexcept;
int32_t RemotePort() noexcept;
void SetRemotePort(int32_t port) noexcept;

}  // namespace tw::core
