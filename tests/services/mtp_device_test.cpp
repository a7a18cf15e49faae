// SPDX-License-Identifier: Apache-2.0
// The MTP-over-IP device as a Windows host meets it: announced, described, and gone after release.
#include "services/mtp_device.h"

#include "services/services_fixture.h"

namespace tw::test {
namespace {

const std::string kMtp = "urn:microsoft-com:device:mtp:1";
const std::string kPnpx = " xmlns:pnpx=\"http://schemas.microsoft.com/windows/pnpx/2005/11\">";
// Each PnP-X element declares its prefix itself; the lines end in CR LF.
const std::string kDeviceDescription =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n"
    "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\r\n"
    " <specVersion>\r\n  <major>1</major>\r\n  <minor>0</minor>\r\n </specVersion>\r\n"
    " <device>\r\n  <deviceType>" +
    kMtp +
    "</deviceType>\r\n"
    "  <pnpx:X_hardwareId" +
    kPnpx + kMtp +
    "</pnpx:X_hardwareId>\r\n"
    "  <pnpx:X_compatibleId" +
    kPnpx + kMtp +
    "</pnpx:X_compatibleId>\r\n"
    "  <pnpx:X_deviceCategory" +
    kPnpx +
    "Phones.CellPhone</pnpx:X_deviceCategory>\r\n"
    "  <friendlyName>MTP-IP Unit-Test device</friendlyName>\r\n"
    "  <manufacturer>Microsoft</manufacturer>\r\n"
    "  <manufacturerURL>" TW_MTP_MANUFACTURER_URL
    "</manufacturerURL>\r\n"
    "  <modelDescription>UPnP MTP-IP Device 1.0</modelDescription>\r\n"
    "  <modelName>MTP-IP1.0</modelName>\r\n  <modelNumber>1-00-00</modelNumber>\r\n"
    "  <modelURL>" TW_MTP_MODEL_URL
    "</modelURL>\r\n"
    "  <serialNumber>0000001</serialNumber>\r\n  <UDN>" +
    kMtpUdn +
    "</UDN>\r\n"
    "  <UPC>00000-00001</UPC>\r\n  <serviceList>\r\n   <service>\r\n"
    "    <serviceType>urn:microsoft-com:service:MtpNullService:1</serviceType>\r\n"
    "    <serviceId>urn:microsoft-com:serviceId:MtpNullServiceId</serviceId>\r\n"
    "    <SCPDURL>/MediaTransferProtocol.xml</SCPDURL>\r\n"
    "    <controlURL></controlURL>\r\n    <eventSubURL></eventSubURL>\r\n"
    "   </service>\r\n  </serviceList>\r\n"
    "  <presentationURL>" TW_MTP_PRESENTATION_URL
    "</presentationURL>\r\n"
    " </device>\r\n</root>\r\n";
const std::string kServiceDescription =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n"
    "<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">\r\n"
    " <specVersion>\r\n  <major>1</major>\r\n  <minor>0</minor>\r\n </specVersion>\r\n"
    " <serviceStateTable>\r\n  <stateVariable sendEvents=\"no\">\r\n"
    "   <name>X_MtpNullVariable</name>\r\n   <dataType>string</dataType>\r\n"
    "  </stateVariable>\r\n </serviceStateTable>\r\n</scpd>\r\n";
const char kDevicePath[] = "/MediaTransferProtocolDescription.xml";
const char kServicePath[] = "/MediaTransferProtocol.xml";

class MtpDevice : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (IsSkipped()) return;
    ip_ = ProcessLoopbackAddress();  // tells our announcements from other programs' ones
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, ip_.c_str());
  }
  void TearDown() override {
    upnp_ssdp_hasMediaTransferProtocol(0);
    ServerTest::TearDown();
  }
  int Port() const { return getHTTPServerData(0) ? getHTTPServerData(0)->http_port : 0; }
  // A HEAD answer announces a body that never comes: its reader is given a short time.
  HttpResponse Fetch(int port, const std::string& method, const std::string& path) const {
    HttpPeer peer;
    const bool sent = peer.Connect(port, ip_) &&
                      peer.Send(method + " " + path + " HTTP/1.1\r\nHOST: " + ip_ + "\r\n\r\n");
    return sent ? peer.ReadResponse(method == "HEAD" ? 300 : kPeerTimeoutMs) : HttpResponse{};
  }
  std::string ip_;
};

TEST_F(MtpDevice, InitAnnouncesAndServesAndReleaseStopsAllButTheHandlers) {
  SsdpProbe group;
  ASSERT_TRUE(group.ok());
  group.OnlyFrom(ip_);
  upnp_mtp_init();
  ASSERT_EQ(__atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE), 1);
  EXPECT_EQ(upnp_ini_file_getInt(UPNP_INI_KEY_SSDPTTL), 64);
  const int port = Port();
  const std::vector<Datagram> got = group.Collect(4, 10s);
  ASSERT_FALSE(got.empty());
  EXPECT_EQ(got[0].text,
            Alive("http://" + ip_ + ":" + std::to_string(port) + kDevicePath, kMtpUdn, kMtpUdn));
  EXPECT_THAT(Fields(got, "NT"), ElementsAre(kMtpUdn, "upnp:rootdevice", kMtp,
                                             "urn:microsoft-com:service:MtpNullService:1"));
  for (const auto& [path, body] :
       {std::pair(kDevicePath, kDeviceDescription), std::pair(kServicePath, kServiceDescription)}) {
    const HttpResponse served = Fetch(port, "GET", path);
    EXPECT_EQ(std::to_string(served.status) + " " + served.body, "200 " + body) << path;
    EXPECT_EQ(HeaderValue(Fetch(port, "HEAD", path).head, "Content-Length"),
              std::to_string(body.size()))
        << path;
  }
  EXPECT_EQ(Fetch(port, "POST", kServicePath).status, 404) << "GET and HEAD only";
  upnp_mtp_release();
  EXPECT_EQ(__atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE), 0);
  EXPECT_EQ(upnp_ssdp_getMTP(), 0);
  EXPECT_FALSE(HttpPeer().Connect(port, ip_)) << "still accepting after release";
  EXPECT_TRUE(WaitFor(ThreadsEnded));
  // The handlers stay registered; a second init does not add them twice.
  EXPECT_THAT(Logged(UPNP_LOG_HTTP, [] { upnp_mtp_init(); }),
              Not(HasSubstr("upnp_http_register_handler")));
  EXPECT_EQ(Fetch(Port(), "GET", kServicePath).body, kServiceDescription);
  upnp_mtp_release();
  upnp_ini_file_release();  // the fixture's own reference: each init was paired with a release
  EXPECT_EQ(upnp_ini_file_is_initialized(), 0);
}

TEST_F(MtpDevice, DescriptionsAreByteExactAndWholeEvenWithoutMemory) {
  // A UDN made without memory is a critical error that ends the process; make it first.
  ASSERT_EQ(upnp_get_mtp_udn(), kMtpUdn);
  const WireAnswer answers[] = {{kDevicePath, &upnp_mtp_send_device_description, "200 OK",
                                 UPNP_SOAP_CONTENT_TYPE, kDeviceDescription, "500"},
                                {kServicePath, &upnp_mtp_send_service_description, "200 OK",
                                 UPNP_SOAP_CONTENT_TYPE, kServiceDescription, nullptr}};
  for (const WireAnswer& answer : answers) ExpectWholeAnswerOrNone(answer);
}

}  // namespace
}  // namespace tw::test
