// SPDX-License-Identifier: Apache-2.0
// The host's callback tables and the remote-access port. They are set before the servers start
// and read by start, stop and the restart (and, for the later hooks, by the HTTP code on its
// threads), so every entry is stored and loaded atomically.
#include <atomic>

#include "core/core.h"

namespace tw::core {
namespace {

DtcpCallbacks g_dtcp{};
WmdrmCallbacks g_wmdrm{};
std::atomic<upnp_cp_callback_fn> g_cp_callback{nullptr};
std::atomic<int32_t> g_remote_port{0};

template <typename Fn>
Fn Load(const Fn& slot) noexcept {
  return __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
}

template <typename Fn>
void Store(Fn& slot, Fn value) noexcept {
  __atomic_store_n(&slot, value, __ATOMIC_RELEASE);
}

}  // namespace

DtcpCallbacks Dtcp() noexcept {
  DtcpCallbacks copy{};
  copy.init_source = Load(g_dtcp.init_source);
  copy.exit_source = Load(g_dtcp.exit_source);
  copy.start_listen = Load(g_dtcp.start_listen);
  copy.nic_change = Load(g_dtcp.nic_change);
  copy.is_dtcp_uri = Load(g_dtcp.is_dtcp_uri);
  copy.receive_file = Load(g_dtcp.receive_file);
  copy.http_uri_build = Load(g_dtcp.http_uri_build);
  copy.http_dtcpmimetype_build = Load(g_dtcp.http_dtcpmimetype_build);
  copy.http_4thfield_convert = Load(g_dtcp.http_4thfield_convert);
  copy.add_fields = Load(g_dtcp.add_fields);
  copy.send_file = Load(g_dtcp.send_file);
  copy.content_size = Load(g_dtcp.content_size);
  copy.support_has_dtcp = Load(g_dtcp.support_has_dtcp);
  copy.support_has_move_source = Load(g_dtcp.support_has_move_source);
  copy.support_has_move_sink = Load(g_dtcp.support_has_move_sink);
  copy.support_has_dis = Load(g_dtcp.support_has_dis);
  return copy;
}

void SetDtcp(const DtcpCallbacks& table) noexcept {
  Store(g_dtcp.init_source, table.init_source);
  Store(g_dtcp.exit_source, table.exit_source);
  Store(g_dtcp.start_listen, table.start_listen);
  Store(g_dtcp.nic_change, table.nic_change);
  Store(g_dtcp.is_dtcp_uri, table.is_dtcp_uri);
  Store(g_dtcp.receive_file, table.receive_file);
  Store(g_dtcp.http_uri_build, table.http_uri_build);
  Store(g_dtcp.http_dtcpmimetype_build, table.http_dtcpmimetype_build);
  Store(g_dtcp.http_4thfield_convert, table.http_4thfield_convert);
  Store(g_dtcp.add_fields, table.add_fields);
  Store(g_dtcp.send_file, table.send_file);
  Store(g_dtcp.content_size, table.content_size);
  Store(g_dtcp.support_has_dtcp, table.support_has_dtcp);
  Store(g_dtcp.support_has_move_source, table.support_has_move_source);
  Store(g_dtcp.support_has_move_sink, table.support_has_move_sink);
  Store(g_dtcp.support_has_dis, table.support_has_dis);
}

WmdrmCallbacks Wmdrm() noexcept {
  WmdrmCallbacks copy{};
  copy.is_wmdrm_request = Load(g_wmdrm.is_wmdrm_request);
  copy.http_get_content = Load(g_wmdrm.http_get_content);
  copy.soap_authorized = Load(g_wmdrm.soap_authorized);
  copy.soap_validated = Load(g_wmdrm.soap_validated);
  copy.soap_registered = Load(g_wmdrm.soap_registered);
  return copy;
}

void SetWmdrm(const WmdrmCallbacks& table) noexcept {
  Store(g_wmdrm.is_wmdrm_request, table.is_wmdrm_request);
  Store(g_wmdrm.http_get_content, table.http_get_content);
  Store(g_wmdrm.soap_authorized, table.soap_authorized);
  Store(g_wmdrm.soap_validated, table.soap_validated);
  Store(g_wmdrm.soap_registered, table.soap_registered);
}

upnp_cp_callback_fn ControlPointCallback() noexcept { return g_cp_callback.load(); }

void SetControlPointCallback(upnp_cp_callback_fn fn) noexcept { g_cp_callback.store(fn); }

int32_t RemotePort() noexcept { return g_remote_port.load(); }

void SetRemotePort(int32_t port) noexcept { g_remote_port.store(port); }

}  // namespace tw::core
