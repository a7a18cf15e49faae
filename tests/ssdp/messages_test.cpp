// SPDX-License-Identifier: Apache-2.0
#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

class SsdpMessages : public SsdpTest {
 protected:
  std::vector<Datagram> Send(const char* target, int32_t is_notify) {
    SSDP_send_notify(socket_, address_.c_str(), 9000, "127.0.0.1", probe_.port(), target,
                     is_notify);
    return Drain(probe_);
  }
  SsdpProbe probe_{SsdpProbe::kUnicast};
  UdpSocket socket_;
};

TEST_F(SsdpMessages, PacketsAreExactTextsCutAt511Characters) {
  const std::string udn = "uuid:1234", location = "http://10.1.2.3:8200/d.xml";
  const int port = probe_.port();
  const std::string alive = Alive(location, "upnp:rootdevice", udn + "::upnp:rootdevice");
  EXPECT_EQ(SSDP_notify_packet("127.0.0.1", port, socket_, "10.1.2.3", 8200, "upnp:rootdevice",
                               udn.c_str(), "/d.xml"),
            static_cast<int32_t>(alive.size()));
  SSDP_notify_packet("127.0.0.1", port, socket_, "10.1.2.3", 8200, nullptr, udn.c_str(), "/d.xml");
  SSDP_byebye_packet("127.0.0.1", port, socket_, "urn:x:service:Y:1", udn.c_str());
  SSDP_byebye_packet("127.0.0.1", port, socket_, nullptr, udn.c_str());
  SSDP_http_packet("127.0.0.1", port, socket_, "10.1.2.3", 8200, "urn:x", udn.c_str(), "/d.xml");
  SSDP_http_packet("127.0.0.1", port, socket_, "10.1.2.3", 8200, nullptr, udn.c_str(), "/d.xml");
  const std::string path(600, 'p');
  SSDP_notify_packet("127.0.0.1", port, socket_, "10.1.2.3", 80, "t", "u", path.c_str());
  EXPECT_EQ(SSDP_byebye_packet(nullptr, 1900, socket_, nullptr, "u"), -1);
  const std::vector<std::string> got = Fields(probe_.Collect(7, 5s), "");
  ASSERT_EQ(got.size(), 7u);
  EXPECT_EQ(got[0], alive);
  EXPECT_EQ(got[1], Alive(location, udn, udn));
  EXPECT_EQ(got[2], Byebye("urn:x:service:Y:1", udn + "::urn:x:service:Y:1"));
  EXPECT_EQ(got[3], Byebye(udn, udn));
  EXPECT_EQ(got[4], Answer(location, "urn:x", udn + "::urn:x"));
  EXPECT_EQ(got[5], Answer(location, udn, udn));
  EXPECT_EQ(got[6], Alive("http://10.1.2.3:80" + path, "t", "u::t").substr(0, 511));
}

TEST_F(SsdpMessages, TargetsSelectEntriesAnnouncementsCarryAllByebyeListsDiffer) {
  upnp_ssdp_isMediaServer();
  upnp_ssdp_isRenderer();
  const std::string root = "upnp:rootdevice", dev = "urn:schemas-upnp-org:device:",
                    svc = "urn:schemas-upnp-org:service:", cm = svc + "ConnectionManager:1",
                    av = svc + "AVTransport:1", rc = svc + "RenderingControl:1";
  EXPECT_THAT(Fields(Send(root.c_str(), 0), "USN"),
              ElementsAre(kServerUdn + "::" + root, kRendererUdn + "::" + root));
  EXPECT_THAT(Fields(Send(kRendererUdn.c_str(), 0), ""),
              ElementsAre(Answer(Location("TMRDevice"), kRendererUdn, kRendererUdn)));
  EXPECT_TRUE(Send("UPNP:rootdevice", 0).empty() &&
              Send((dev + "MediaServer:2").c_str(), 0).empty() && Send(nullptr, 0).empty());
  upnp_ssdp_hasRemoteUIServer(1);
  upnp_ssdp_hasRemoteUIClient(1);
  upnp_ssdp_hasMediaTransferProtocol(1);
  upnp_ssdp_isControlPoint(1);  // announces nothing
  // clang-format off
  const std::vector<std::string> types = {
      kServerUdn, root, dev + "MediaServer:1", svc + "ContentDirectory:1", cm,
      "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1",
      kRendererUdn, root, dev + "MediaRenderer:1", cm, av, rc,
      kRuisUdn, root, dev + "RemoteUIServer:1", svc + "RemoteUIServer:1",
      kRuicUdn, root, dev + "RemoteUIClient:1", svc + "RemoteUIClient:1",
      kMtpUdn, root, "urn:microsoft-com:device:mtp:1", "urn:microsoft-com:service:MtpNullService:1"};
  EXPECT_THAT(Fields(Send("ssdp:all", 0), "ST"), ElementsAreArray(types));
  const std::vector<Datagram> got = Send(root.c_str(), 1);  // announced: all, whatever the target
  ASSERT_THAT(Fields(got, "NT"), ElementsAreArray(types));
  for (const auto& [i, device] : {std::pair(0, "TMSDevice"), {6, "TMRDevice"},
       {12, "RemoteUIServer"}, {16, "RemoteUIClient"}, {20, "MediaTransferProtocol"}}) {
    EXPECT_EQ(got[i].text, Alive(Location(device), types[i], types[i]));
  }
  // clang-format on
  // The byebye lists are not the alive lists (intended, see src/ssdp/messages.cpp).
  SSDP_send_byebye(socket_, "127.0.0.1", probe_.port());
  // clang-format off
  EXPECT_THAT(Fields(Drain(probe_), "NT"), ElementsAre(
      kServerUdn, root, dev + "MediaServer:1", svc + "ContentDirectory:1", cm,
      kRendererUdn, root, dev + "MediaRenderer:1", rc, cm, av,
      kRuisUdn, root, dev + "RemoteUIServer:1", kRuicUdn, root, dev + "RemoteUIClient:1",
      kMtpUdn, root));
  // clang-format on
}

TEST_F(SsdpMessages, RemoteUiServerSetGoesOutTwiceOnEveryOpenRecord) {
  SsdpProbe group;
  group.OnlyFrom(address_);
  UdpSocket notify;
  ASSERT_EQ(upnp_socket_bind(notify, address_.c_str(), 0), 0);
  const int32_t saved_count = g_nInterfaceCount;
  __atomic_store_n(&g_nInterfaceCount, 1, __ATOMIC_RELEASE);
  upnp_server_data* record = getHTTPServerData(0);
  const upnp_server_data saved = *record;
  *record = record_;
  record->ssdp_notify_socket = notify;
  const auto start = std::chrono::steady_clock::now();
  SSDP_ruis_send_announcement();
  EXPECT_GE(std::chrono::steady_clock::now() - start, 420ms);  // 210 ms after each pass
  std::vector<Datagram> got = Drain(group);
  ASSERT_EQ(got.size(), 8u);
  EXPECT_EQ(got[0].text, Alive(Location("RemoteUIServer"), kRuisUdn, kRuisUdn));
  EXPECT_EQ(got[4].text, got[0].text);
  SSDP_ruis_send_byebye();
  got = Drain(group);
  ASSERT_EQ(got.size(), 6u);
  EXPECT_EQ(got[5].text, Byebye("urn:schemas-upnp-org:device:RemoteUIServer:1",
                                kRuisUdn + "::urn:schemas-upnp-org:device:RemoteUIServer:1"));
  *record = saved;
  __atomic_store_n(&g_nInterfaceCount, saved_count, __ATOMIC_RELEASE);
}

}  // namespace
}  // namespace tw::test
