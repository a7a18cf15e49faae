// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

class SsdpMessages : public SsdpTest {
 protected:
  void SetUp() override {
    SsdpTest::SetUp();
    socket_ = upnp_socket_create_udp();
  }
  void TearDown() override {
    upnp_close_socket(&socket_);
    SsdpTest::TearDown();
  }
  // What SSDP_send_notify sends for target to the unicast probe.
  std::vector<Datagram> Send(const char* target, int32_t is_notify) {
    SSDP_send_notify(socket_, address_.c_str(), 9000, "127.0.0.1", probe_.port(), target,
                     is_notify);
    return probe_.Collect(100, 5s, 300ms);
  }
  SsdpProbe probe_{SsdpProbe::kUnicast};
  int32_t socket_ = -1;
};

TEST_F(SsdpMessages, PacketsAreExactTextsCutAt511Characters) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
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
  const std::vector<Datagram> got = probe_.Collect(7, 5s);
  ASSERT_EQ(got.size(), 7u);
  EXPECT_EQ(got[0].text, alive);
  EXPECT_EQ(got[1].text, Alive(location, udn, udn));
  EXPECT_EQ(got[2].text, Byebye("urn:x:service:Y:1", udn + "::urn:x:service:Y:1"));
  EXPECT_EQ(got[3].text, Byebye(udn, udn));
  EXPECT_EQ(MaskDate(got[4].text), Answer(location, "urn:x", udn + "::urn:x"));
  EXPECT_EQ(MaskDate(got[5].text), Answer(location, udn, udn));
  EXPECT_EQ(got[6].text, Alive("http://10.1.2.3:80" + path, "t", "u::t").substr(0, 511));
}

TEST_F(SsdpMessages, TargetSelectsEntriesOfEnabledRolesExactly) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_isMediaServer();
  std::vector<Datagram> got = Send("upnp:rootdevice", 0);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(MaskDate(got[0].text), Answer(Location("/TMSDeviceDescription.xml"), "upnp:rootdevice",
                                          kServerUdn + "::upnp:rootdevice"));
  upnp_ssdp_isRenderer();
  const std::string cm = "urn:schemas-upnp-org:service:ConnectionManager:1";
  got = Send(cm.c_str(), 0);
  EXPECT_THAT(Fields(got, "USN"), ElementsAre(kServerUdn + "::" + cm, kRendererUdn + "::" + cm));
  EXPECT_THAT(Fields(got, "LOCATION"), ElementsAre(Location("/TMSDeviceDescription.xml"),
                                                   Location("/TMRDeviceDescription.xml")));
  got = Send(kRendererUdn.c_str(), 0);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(MaskDate(got[0].text),
            Answer(Location("/TMRDeviceDescription.xml"), kRendererUdn, kRendererUdn));
  EXPECT_TRUE(Send("UPNP:rootdevice", 0).empty());
  EXPECT_TRUE(Send("urn:schemas-upnp-org:device:MediaServer:2", 0).empty());
  StartLog();
  EXPECT_TRUE(Send(nullptr, 0).empty());
  EXPECT_THAT(StopLog(), ::testing::HasSubstr("SSDP_send_notify called with invalid argument"));
}

TEST_F(SsdpMessages, RolesAnnounceTheirListsAndByebyeListsDiffer) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_hasMediaTransferProtocol(1);
  SSDP_send_byebye(socket_, "127.0.0.1", probe_.port());
  std::vector<Datagram> got = probe_.Collect(100, 5s, 300ms);
  EXPECT_THAT(Fields(got, "USN"), ElementsAre(kMtpUdn, kMtpUdn + "::upnp:rootdevice"));

  upnp_ssdp_isMediaServer();
  upnp_ssdp_isRenderer();
  upnp_ssdp_hasRemoteUIServer(1);
  upnp_ssdp_hasRemoteUIClient(1);
  upnp_ssdp_isControlPoint(1);  // announces nothing
  const std::string root = "upnp:rootdevice",
                    dev = "urn:schemas-upnp-org:device:", svc = "urn:schemas-upnp-org:service:";
  // clang-format off
  const std::vector<std::string> types = {
      kServerUdn, root, dev + "MediaServer:1", svc + "ContentDirectory:1",
      svc + "ConnectionManager:1", "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1",
      kRendererUdn, root, dev + "MediaRenderer:1", svc + "ConnectionManager:1",
      svc + "AVTransport:1", svc + "RenderingControl:1",
      kRuisUdn, root, dev + "RemoteUIServer:1", svc + "RemoteUIServer:1",
      kRuicUdn, root, dev + "RemoteUIClient:1", svc + "RemoteUIClient:1",
      kMtpUdn, root, "urn:microsoft-com:device:mtp:1", "urn:microsoft-com:service:MtpNullService:1"};
  // clang-format on
  EXPECT_THAT(Fields(Send("ssdp:all", 0), "ST"), ElementsAreArray(types));
  // Announcements carry the whole set whatever the target.
  got = Send("upnp:rootdevice", 1);
  EXPECT_THAT(Fields(got, "NT"), ElementsAreArray(types));
  ASSERT_EQ(got.size(), types.size());
  EXPECT_EQ(got[12].text, Alive(Location("/RemoteUIServerDescription.xml"), kRuisUdn, kRuisUdn));
  EXPECT_EQ(got[23].text, Alive(Location("/MediaTransferProtocolDescription.xml"), types[23],
                                kMtpUdn + "::" + types[23]));
  EXPECT_EQ(Field(got[16].text, "LOCATION"), Location("/RemoteUIClientDescription.xml"));

  upnp_ssdp_hasMediaTransferProtocol(0);
  SSDP_send_byebye(socket_, "127.0.0.1", probe_.port());
  EXPECT_THAT(Fields(probe_.Collect(100, 5s, 300ms), "NT"),
              ElementsAre(kServerUdn, root, dev + "MediaServer:1", svc + "ContentDirectory:1",
                          svc + "ConnectionManager:1", kRendererUdn, root, dev + "MediaRenderer:1",
                          svc + "RenderingControl:1", svc + "ConnectionManager:1",
                          svc + "AVTransport:1", kRuisUdn, root, dev + "RemoteUIServer:1", kRuicUdn,
                          root, dev + "RemoteUIClient:1"));
}

TEST_F(SsdpMessages, RemoteUiServerSetGoesOutTwiceOnEveryOpenRecord) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  SsdpProbe group;
  group.OnlyFrom(address_);
  const int32_t saved_count = g_nInterfaceCount;
  __atomic_store_n(&g_nInterfaceCount, 1, __ATOMIC_RELEASE);
  upnp_server_data* record = getHTTPServerData(0);
  const upnp_server_data saved = *record;
  *record = record_;
  record->ssdp_notify_socket = upnp_socket_create_udp();
  ASSERT_EQ(upnp_socket_bind(record->ssdp_notify_socket, address_.c_str(), 0), 0);
  const auto start = std::chrono::steady_clock::now();
  SSDP_ruis_send_announcement();
  EXPECT_GE(std::chrono::steady_clock::now() - start, 420ms);  // 210 ms after each pass
  std::vector<Datagram> got = group.Collect(100, 5s, 300ms);
  ASSERT_EQ(got.size(), 8u);
  EXPECT_EQ(got[0].text, Alive(Location("/RemoteUIServerDescription.xml"), kRuisUdn, kRuisUdn));
  EXPECT_EQ(got[4].text, got[0].text);
  SSDP_ruis_send_byebye();
  got = group.Collect(100, 5s, 300ms);
  ASSERT_EQ(got.size(), 6u);
  EXPECT_EQ(got[5].text, Byebye("urn:schemas-upnp-org:device:RemoteUIServer:1",
                                kRuisUdn + "::urn:schemas-upnp-org:device:RemoteUIServer:1"));
  upnp_close_socket(&record->ssdp_notify_socket);
  *record = saved;
  __atomic_store_n(&g_nInterfaceCount, saved_count, __ATOMIC_RELEASE);
}

}  // namespace
}  // namespace tw::test
