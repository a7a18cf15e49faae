// SPDX-License-Identifier: Apache-2.0
// Every SSDP datagram the library sends: NOTIFY alive and byebye, search answers and the
// M-SEARCH requests, with the device roles and the entries each role announces.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/fixed_text.h"
#include "ssdp/ssdp_internal.h"
#include "tarnwick/core.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace tw::ssdp {
namespace {

using std::string_view_literals::operator""sv;

constexpr char kServerValue[] =
    "Linux/2.x.x, UPnP/1.0, ktConnect UPnP SDK/1.0, Tarnwick UPnP SDK/1.1";
constexpr char kAll[] = "ssdp:all";
constexpr int32_t kDateSize = 32;
constexpr int32_t kPassPauseMs = 210;

// An empty view stands for the entry whose NT/ST is the device's UDN itself. The other entries
// are literals, so data() is a NUL-terminated text.
constexpr std::string_view kUdnEntry{};
constexpr std::string_view kRootDevice = "upnp:rootdevice"sv;

constexpr std::string_view kServerAlive[] = {
    kUdnEntry,
    kRootDevice,
    "urn:schemas-upnp-org:device:MediaServer:1"sv,
    "urn:schemas-upnp-org:service:ContentDirectory:1"sv,
    "urn:schemas-upnp-org:service:ConnectionManager:1"sv,
    "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1"sv,
};
constexpr std::string_view kRendererAlive[] = {
    kUdnEntry,
    kRootDevice,
    "urn:schemas-upnp-org:device:MediaRenderer:1"sv,
    "urn:schemas-upnp-org:service:ConnectionManager:1"sv,
    "urn:schemas-upnp-org:service:AVTransport:1"sv,
    "urn:schemas-upnp-org:service:RenderingControl:1"sv,
};
constexpr std::string_view kRemoteUiServerAlive[] = {
    kUdnEntry,
    kRootDevice,
    "urn:schemas-upnp-org:device:RemoteUIServer:1"sv,
    "urn:schemas-upnp-org:service:RemoteUIServer:1"sv,
};
constexpr std::string_view kRemoteUiClientAlive[] = {
    kUdnEntry,
    kRootDevice,
    "urn:schemas-upnp-org:device:RemoteUIClient:1"sv,
    "urn:schemas-upnp-org:service:RemoteUIClient:1"sv,
};
constexpr std::string_view kMtpAlive[] = {
    kUdnEntry,
    kRootDevice,
    "urn:microsoft-com:device:mtp:1"sv,
    "urn:microsoft-com:service:MtpNullService:1"sv,
};

// The byebye lists are not the alive lists: the server leaves out the registrar service, the
// renderer orders its services differently, the others name no services. Intended: these are
// the exact packets every control point sees when a device leaves; making the lists match the
// alive ones would change their number and order. Pinned by
// SsdpMessages.TargetsSelectEntriesAnnouncementsCarryAllByebyeListsDiffer.
constexpr std::string_view kServerByebye[] = {
    kUdnEntry,
    kRootDevice,
    "urn:schemas-upnp-org:device:MediaServer:1"sv,
    "urn:schemas-upnp-org:service:ContentDirectory:1"sv,
    "urn:schemas-upnp-org:service:ConnectionManager:1"sv,
};
constexpr std::string_view kRendererByebye[] = {
    kUdnEntry,
    kRootDevice,
    "urn:schemas-upnp-org:device:MediaRenderer:1"sv,
    "urn:schemas-upnp-org:service:RenderingControl:1"sv,
    "urn:schemas-upnp-org:service:ConnectionManager:1"sv,
    "urn:schemas-upnp-org:service:AVTransport:1"sv,
};
constexpr std::string_view kRemoteUiServerByebye[] = {
    kUdnEntry,
    kRootDevice,
    "urn:schemas-upnp-org:device:RemoteUIServer:1"sv,
};
constexpr std::string_view kRemoteUiClientByebye[] = {
    kUdnEntry,
    kRootDevice,
    "urn:schemas-upnp-org:device:RemoteUIClient:1"sv,
};
constexpr std::string_view kMtpByebye[] = {kUdnEntry, kRootDevice};

struct EntryList {
  const std::string_view* entries;
  size_t count;
  template <size_t N>
  constexpr EntryList(const std::string_view (&list)[N]) noexcept  // NOLINT(runtime/explicit)
      : entries(list), count(N) {}
  const std::string_view* begin() const noexcept { return entries; }
  const std::string_view* end() const noexcept { return entries + count; }
};

struct RoleInfo {
  Role role;
  const char* (*udn)() noexcept;
  const char* path;
  EntryList alive;
  EntryList byebye;
};

// In sending order. The control point announces nothing and has no row.
constexpr RoleInfo kRoles[] = {
    {Role::kMediaServer, upnp_get_server_udn, "/TMSDeviceDescription.xml", kServerAlive,
     kServerByebye},
    {Role::kRenderer, upnp_get_renderer_udn, "/TMRDeviceDescription.xml", kRendererAlive,
     kRendererByebye},
    {Role::kRemoteUiServer, upnp_get_ruis_udn, "/RemoteUIServerDescription.xml",
     kRemoteUiServerAlive, kRemoteUiServerByebye},
    {Role::kRemoteUiClient, upnp_get_ruic_udn, "/RemoteUIClientDescription.xml",
     kRemoteUiClientAlive, kRemoteUiClientByebye},
    {Role::kMtp, upnp_get_mtp_udn, "/MediaTransferProtocolDescription.xml", kMtpAlive, kMtpByebye},
};
constexpr const RoleInfo& kRemoteUiServerRole = kRoles[2];
static_assert(sizeof(kRoles) / sizeof(kRoles[0]) == 5);

constexpr std::string_view kSearchTexts[] = {
    "M-SEARCH * HTTP/1.1\r\nMX: 3\r\nST: urn:schemas-upnp-org:device:MediaRenderer:1\r\n"
    "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n"sv,
    "M-SEARCH * HTTP/1.1\r\nMX: 3\r\nST: urn:schemas-upnp-org:device:MediaServer:1\r\n"
    "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n"sv,
    "M-SEARCH * HTTP/1.1\r\nMX: 10\r\nST: urn:schemas-upnp-org:device:MediaRenderer:1\r\n"
    "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n"sv,
    "M-SEARCH * HTTP/1.1\r\nMX: 10\r\nST: urn:schemas-upnp-org:device:MediaServer:1\r\n"
    "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n"sv,
    "M-SEARCH * HTTP/1.1\r\nMX: 3\r\nST: urn:schemas-upnp-org:device:RemoteUIServer:1\r\n"
    "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n"sv,
    "M-SEARCH * HTTP/1.1\r\nMX: 3\r\nST: urn:schemas-upnp-org:device:RemoteUIClient:1\r\n"
    "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n"sv,
    "M-SEARCH * HTTP/1.1\r\nMX: 10\r\nST: urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\n"
    "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n"sv,
};
static_assert(sizeof(kSearchTexts) / sizeof(kSearchTexts[0]) ==
              static_cast<size_t>(Search::kGatewayMx10) + 1);

std::atomic<SendFn> g_send{nullptr};

const char* OrEmpty(const char* text) noexcept { return text != nullptr ? text : ""; }

const char* EntryType(std::string_view entry) noexcept {
  return entry.empty() ? nullptr : entry.data();
}

// The USN: the UDN alone for the UDN entry, else "<udn>::<type>"; cut at the packet size.
void FormatUsn(char (&usn)[kPacketSize], const char* udn, const char* type) noexcept {
  if (type == nullptr) {
    CopyCut(usn, sizeof(usn), udn);
  } else {
    FormatCut(usn, sizeof(usn), "%s::%s", udn, type);
  }
}

int32_t Send(int32_t socket, const char* packet, const char* dest_addr,
             int32_t dest_port) noexcept {
  return SendDatagram(socket, packet, static_cast<int32_t>(std::strlen(packet)), dest_addr,
                      dest_port);
}

}  // namespace

int32_t SendDatagram(int32_t socket, const char* data, int32_t length, const char* address,
                     int32_t port) noexcept {
  const SendFn send = g_send.load(std::memory_order_acquire);
  if (send != nullptr) return send(socket, data, length, address, port);
  return upnp_sendto(socket, data, length, address, port);
}

void SetSendForTesting(SendFn send) noexcept { g_send.store(send, std::memory_order_release); }

int32_t SendPacket(Packet kind, const char* dest_addr, int32_t dest_port, int32_t socket,
                   const char* local_addr, int32_t local_port, const char* type, const char* udn,
                   const char* path) noexcept {
  if (dest_addr == nullptr) return -1;
  udn = OrEmpty(udn);
  local_addr = OrEmpty(local_addr);
  path = OrEmpty(path);
  char usn[kPacketSize];
  FormatUsn(usn, udn, type);
  const char* nt = type != nullptr ? type : udn;
  const unsigned beat = BeatTime();
  // Packets are cut at their buffer: a long USN or location loses its tail rather than making a
  // datagram of more than 511 bytes. Pinned by SsdpMessages.PacketsAreExactTextsCutAt511Characters.
  char packet[kPacketSize];
  if (kind == Packet::kAlive) {
    FormatCut(packet, sizeof(packet),
              "NOTIFY * HTTP/1.1\r\nHOST: %s:%d\r\nCACHE-CONTROL: max-age=%u\r\n"
              "LOCATION: http://%s:%d%s\r\nNT: %s\r\nNTS: ssdp:alive\r\nSERVER: %s\r\n"
              "USN: %s\r\n\r\n",
              kGroupAddress, kGroupPort, beat, local_addr, local_port, path, nt, kServerValue, usn);
    upnp_log_info_impl(UPNP_LOG_SSDP, "SSDP_notify_packet ### SSDP sending:\n%s", packet);
  } else {
    char date[kDateSize] = "";
    upnp_date_getGMT(date, sizeof(date));
    FormatCut(packet, sizeof(packet),
              "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=%u\r\nDATE: %s\r\nEXT:\r\n"
              "LOCATION: http://%s:%d%s\r\nSERVER: %s\r\nST: %s\r\nUSN: %s\r\n"
              "Content-Length: 0\r\n\r\n",
              beat, date, local_addr, local_port, path, kServerValue, nt, usn);
    upnp_log_info_impl(UPNP_LOG_SSDP, "SSDP_http_packet ### SSDP sending:\n%s", packet);
  }
  return Send(socket, packet, dest_addr, dest_port);
}

int32_t SendByebyePacket(const char* dest_addr, int32_t dest_port, int32_t socket, const char* type,
                         const char* udn) noexcept {
  if (dest_addr == nullptr) return -1;
  udn = OrEmpty(udn);
  char usn[kPacketSize];
  FormatUsn(usn, udn, type);
  char packet[kPacketSize];
  FormatCut(packet, sizeof(packet),
            "NOTIFY * HTTP/1.1\r\nHOST: %s:%d\r\nNT: %s\r\nNTS: ssdp:byebye\r\nUSN: %s\r\n\r\n",
            kGroupAddress, kGroupPort, type != nullptr ? type : udn, usn);
  upnp_log_info_impl(UPNP_LOG_SSDP, "SSDP_byebye_packet ### SSDP sending:\n%s", packet);
  return Send(socket, packet, dest_addr, dest_port);
}

void SendNotify(int32_t socket, const char* local_addr, int32_t local_port, const char* dest_addr,
                int32_t dest_port, const char* target, bool is_notify) noexcept {
  if (target == nullptr) {
    upnp_log_err_impl(UPNP_LOG_SSDP, "SSDP_send_notify called with invalid argument");
    return;
  }
  // Announcements always carry the whole set, whatever target the caller passed.
  const bool all = is_notify || std::strcmp(target, kAll) == 0;
  const Packet kind = is_notify ? Packet::kAlive : Packet::kAnswer;
  for (const RoleInfo& role : kRoles) {
    if (!RoleEnabled(role.role)) continue;
    const char* udn = role.udn();
    for (std::string_view entry : role.alive) {
      const char* type = EntryType(entry);
      if (!all && std::strcmp(target, type != nullptr ? type : udn) != 0) continue;
      SendPacket(kind, dest_addr, dest_port, socket, local_addr, local_port, type, udn, role.path);
    }
  }
}

void SendByebye(int32_t socket, const char* dest_addr, int32_t dest_port) noexcept {
  for (const RoleInfo& role : kRoles) {
    if (!RoleEnabled(role.role)) continue;
    const char* udn = role.udn();
    for (std::string_view entry : role.byebye) {
      SendByebyePacket(dest_addr, dest_port, socket, EntryType(entry), udn);
    }
  }
}

void SendRemoteUiServerSet(bool alive) noexcept {
  const RoleInfo& role = kRemoteUiServerRole;
  const char* udn = role.udn();
  for (int pass = 0; pass < 2; ++pass) {
    for (int32_t index = 0;; ++index) {
      upnp_server_data* server = getHTTPServerData(index);
      if (server == nullptr) break;
      const int32_t socket = LoadSocket(&server->ssdp_notify_socket);
      if (socket == -1 || socket == 0) continue;
      if (alive) {
        for (std::string_view entry : role.alive) {
          SendPacket(Packet::kAlive, kGroupAddress, kGroupPort, socket, server->ip_address,
                     server->http_port, EntryType(entry), udn, role.path);
        }
      } else {
        for (std::string_view entry : role.byebye) {
          SendByebyePacket(kGroupAddress, kGroupPort, socket, EntryType(entry), udn);
        }
      }
    }
    Sleep(kPassPauseMs);
  }
}

void PrepareUdns() noexcept {
  for (const RoleInfo& role : kRoles) {
    if (RoleEnabled(role.role)) role.udn();
  }
}

std::string_view SearchText(Search kind) noexcept { return kSearchTexts[static_cast<int>(kind)]; }

}  // namespace tw::ssdp
