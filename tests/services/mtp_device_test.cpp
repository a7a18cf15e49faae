// SPDX-License-Identifier: Apache-2.0
// The MTP-over-IP device as a Windows host meets it: announced, described, and gone after release.
#include "services/mtp_device.h"

#include "services/services_fixture.h"

namespace tw::test {
namespace {

const std::string kPnpx = "xmlns:pnpx=\"http://schemas.microsoft.com/windows/pnpx/2005/11\"";
std::string DeviceDescription(const std::string& udn) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n"
         "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\r\n"
         " <specVersion>\r\n"
         "  <major>1</major>\r\n"
         "  <minor>0</minor>\r\n"
         " </specVersion>\r\n"
         " <device>\r\n"
         "  <deviceType>urn:microsoft-com:device:mtp:1</deviceType>\r\n"
         "  <pnpx:X_hardwareId " +
         kPnpx +
         ">urn:microsoft-com:device:mtp:1</pnpx:X_hardwareId>\r\n"
         "  <pnpx:X_compatibleId " +
         kPnpx +
         ">urn:microsoft-com:device:mtp:1</pnpx:X_compatibleId>\r\n"
         "  <pnpx:X_deviceCategory " +
         kPnpx +
         ">Phones.CellPhone</pnpx:X_deviceCategory>\r\n"
         "  <friendlyName>MTP-IP Unit-Test device</friendlyName>\r\n"
         "  <manufacturer>Microsoft</manufacturer>\r\n"
         "  <manufacturerURL>" TW_MTP_MANUFACTURER_URL
         "</manufacturerURL>\r\n"
         "  <modelDescription>UPnP MTP-IP Device 1.0</modelDescription>\r\n"
         "  <modelName>MTP-IP1.0</modelName>\r\n"
         "  <modelNumber>1-00-00</modelNumber>\r\n"
         "  <modelURL>" TW_MTP_MODEL_URL
         "</modelURL>\r\n"
         "  <serialNumber>0000001</serialNumber>\r\n"
         "  <UDN>" +
         udn +
         "</UDN>\r\n"
         "  <UPC>00000-00001</UPC>\r\n"
         "  <serviceList>\r\n"
         "   <service>\r\n"
         "    <serviceType>urn:microsoft-com:service:MtpNullService:1</serviceType>\r\n"
         "    <serviceId>urn:microsoft-com:serviceId:MtpNullServiceId</serviceId>\r\n"
         "    <SCPDURL>/MediaTransferProtocol.xml</SCPDURL>\r\n"
         "    <controlURL></controlURL>\r\n"
         "    <eventSubURL></eventSubURL>\r\n"
         "   </service>\r\n"
         "  </serviceList>\r\n"
         "  <presentationURL>" TW_MTP_PRESENTATION_URL
         "</presentationURL>\r\n"
         " </device>\r\n"
         "</root>\r\n";
}
const std::string kServiceDescription =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n"
    "<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">\r\n"
    " <specVersion>\r\n"
    "  <major>1</major>\r\n"
    "  <minor>0</minor>\r\n"
    " </specVersion>\r\n"
    " <serviceStateTable>\r\n"
    "  <stateVariable sendEvents=\"no\">\r\n"
    "   <name>X_MtpNullVariable</name>\r\n"
    "   <dataType>string</dataType>\r\n"
    "  </stateVariable>\r\n"
    " </serviceStateTable>\r\n"
    "</scpd>\r\n";

HttpResponse Fetch(const std::string& ip, int port, const std::string& method,
                   const std::string& path) {
  return Exchange(
      port, method + " " + path + " HTTP/1.1\r\nHOST: " + ip + "\r\nContent-Length: 0\r\n\r\n", ip,
      method == "HEAD" ? 300 : kPeerTimeoutMs);
}

class MtpDevice : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (IsSkipped()) return;
    ip_ = ProcessLoopbackAddress();  // tells our announcements from other programs' ones
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, ip_.c_str());
    inits_ = upnp_ini_file_is_initialized();
  }
  void TearDown() override {
    upnp_ssdp_hasMediaTransferProtocol(0);
    ServerTest::TearDown();
  }
  int Port() const {
    const upnp_server_data* record = getHTTPServerData(0);
    return record != nullptr ? record->http_port : 0;
  }
  std::string ip_;
  int32_t inits_ = 0;
};

TEST_F(MtpDevice, InitServesBothDescriptionsByteExact) {
  upnp_mtp_init();
  ASSERT_EQ(__atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE), 1);
  EXPECT_EQ(upnp_ini_file_getInt(UPNP_INI_KEY_SSDPTTL), 64);
  const std::string expected[] = {DeviceDescription(kMtpUdn), kServiceDescription};
  const char* paths[] = {"/MediaTransferProtocolDescription.xml", "/MediaTransferProtocol.xml"};
  for (int i = 0; i < 2; ++i) {
    const HttpResponse got = Fetch(ip_, Port(), "GET", paths[i]);
    EXPECT_EQ(got.status, 200) << paths[i];
    EXPECT_EQ(HeaderValue(got.head, "Content-Type"), " text/xml; charset=\"utf-8\"") << paths[i];
    EXPECT_EQ(got.body, expected[i]) << paths[i];
    const HttpResponse head = Fetch(ip_, Port(), "HEAD", paths[i]);  // HEAD is served too
    EXPECT_EQ(HeaderValue(head.head, "Content-Length"), std::to_string(expected[i].size()));
  }
  EXPECT_EQ(Fetch(ip_, Port(), "POST", paths[1]).status, 404) << "GET and HEAD only";
  upnp_mtp_release();
}

TEST_F(MtpDevice, InitAnnouncesTheMtpRole) {
  SsdpProbe group;
  ASSERT_TRUE(group.ok());
  group.OnlyFrom(ip_);
  upnp_mtp_init();
  EXPECT_EQ(upnp_ssdp_getMTP(), 1);
  const std::vector<Datagram> got = group.Collect(4, 10s);
  ASSERT_FALSE(got.empty());
  const std::string location =
      "http://" + ip_ + ":" + std::to_string(Port()) + "/MediaTransferProtocolDescription.xml";
  EXPECT_EQ(got[0].text, Alive(location, kMtpUdn, kMtpUdn));
  EXPECT_THAT(Fields(got, "NT"),
              ElementsAre(kMtpUdn, "upnp:rootdevice", "urn:microsoft-com:device:mtp:1",
                          "urn:microsoft-com:service:MtpNullService:1"));
  upnp_mtp_release();
}

TEST_F(MtpDevice, ReleaseStopsTheServerAndAReInitServesAgain) {
  upnp_mtp_init();
  const int port = Port();
  ASSERT_EQ(Fetch(ip_, port, "GET", "/MediaTransferProtocol.xml").status, 200);
  upnp_mtp_release();
  EXPECT_EQ(__atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE), 0);
  EXPECT_EQ(upnp_ssdp_getMTP(), 0);
  EXPECT_EQ(upnp_ini_file_is_initialized(), inits_) << "init and release pair up";
  EXPECT_FALSE(HttpPeer().Connect(port, ip_)) << "still accepting after release";
  EXPECT_TRUE(WaitFor(ThreadsEnded));
  // The handlers stay registered; a second init does not add them twice.
  const std::string log = Logged(UPNP_LOG_HTTP, [] { upnp_mtp_init(); });
  EXPECT_THAT(log, Not(HasSubstr("upnp_http_register_handler")));
  EXPECT_EQ(Fetch(ip_, Port(), "GET", "/MediaTransferProtocol.xml").body, kServiceDescription);
  upnp_mtp_release();
}

TEST_F(MtpDevice, HandlersAnswerNullWithOneAndShortMemoryNeverWithHalfADescription) {
  EXPECT_EQ(upnp_mtp_send_device_description(nullptr) + upnp_mtp_send_service_description(nullptr),
            2);
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  // A UDN made without memory is a critical error that ends the process; make it first.
  ASSERT_EQ(upnp_get_mtp_udn(), kMtpUdn);
  // Made before the loop: its own allocation must not be the one that fails.
  auto request = GetRequest("/MediaTransferProtocolDescription.xml", "HOST: x\r\n");
  ForEachAllocFailure(
      [&] {
        PeerPair pair;
        EXPECT_TRUE(pair.Open());
        request->socket = pair.server_fd();
        const int32_t result = upnp_mtp_send_device_description(request.get());
        pair.CloseServer();
        return std::make_pair(result, pair.client().ReadAll());
      },
      [](const std::pair<int32_t, std::string>& sent, bool failed) {
        const std::string& wire = sent.second;
        const std::string body = wire.find("\r\n\r\n") == std::string::npos
                                     ? ""
                                     : wire.substr(wire.find("\r\n\r\n") + 4);
        if (!failed) {
          EXPECT_EQ(sent.first, 0);
          EXPECT_EQ(body, DeviceDescription(kMtpUdn));
        } else if (wire.empty()) {
          EXPECT_EQ(sent.first, 1);
        } else {  // the description could not be built: an empty 500
          EXPECT_EQ(wire.rfind("HTTP/1.1 500 ", 0), 0u) << wire;
          EXPECT_EQ(HeaderValue(wire, "Content-Length") + body, "0");
        }
      });
}

TEST(MtpDescription, CarriesTheUdnItIsGiven) {
  upnp_string* text = services::BuildMtpDeviceDescription("uuid:abc");
  EXPECT_EQ(Take(text), DeviceDescription("uuid:abc"));
}

}  // namespace
}  // namespace tw::test
