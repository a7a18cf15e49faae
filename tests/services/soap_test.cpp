// SPDX-License-Identifier: Apache-2.0
// The UPnP control error and the Connection Manager answers, checked as they leave on a socket.
#include "services/soap.h"

#include "services/services_fixture.h"

namespace tw::test {
namespace {

// The declaration shares the envelope's line.
const std::string kEnvelope =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope "
    "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">";
// The fault's lines end in a bare LF.
const std::string kFault715 =
    kEnvelope +
    "\n <s:Body>\n  <s:Fault>\n   <faultcode>s:Client</faultcode>\n"
    "   <faultstring>UPnPError</faultstring>\n   <detail>\n"
    "    <UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">\n"
    "     <errorCode>715</errorCode>\n     <errorDescription>Content BUSY</errorDescription>\n"
    "    </UPnPError>\n   </detail>\n  </s:Fault>\n </s:Body>\n</s:Envelope>\n";
// A Connection Manager answer is one line, its elements separated by runs of four blanks.
std::string Cms(const std::string& action, const std::string& elements) {
  return kEnvelope + "    <s:Body>    <u:" + action +
         " xmlns:u=\"urn:schemas-upnp-org:service:ConnectionManager:1\">    " + elements +
         "    </u:" + action + ">    </s:Body>    </s:Envelope>";
}
const std::string kInfoAnswer = Cms(
    "GetCurrentConnectionInfoResponse",
    "<RcsID>-1</RcsID>    <AVTransportID>-1</AVTransportID>    <ProtocolInfo></ProtocolInfo>    "
    "<PeerConnectionManager></PeerConnectionManager>    <PeerConnectionID>0</PeerConnectionID>    "
    "<Direction>Output</Direction>    <Status>Unknown</Status>");
const std::string kIdsAnswer =
    Cms("GetCurrentConnectionIDsResponse", "<ConnectionIDs>0</ConnectionIDs>");

// The code and text a fault carries, read back from its XML.
std::string Carried(const std::string& fault) {
  auto inner = [&](const std::string& tag) {
    const size_t start = fault.find("<" + tag + ">") + tag.size() + 2;
    return fault.substr(start, fault.find("</" + tag + ">") - start);
  };
  return inner("errorCode") + " " + inner("errorDescription");
}

using SoapErrors = LeakCheck;

TEST_F(SoapErrors, StatusAndCarriedRowFollowTheCode) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  auto sent = [](const char* code) {
    auto request = GetRequest("/control", "HOST: x\r\n");
    const std::string wire = SendOnPair(*request, [&](HttpRequest* r) {
                               return upnp_send_error(r, std::atoi(code));
                             }).second;
    return wire.substr(9, 3) + " " + Carried(wire);
  };
  // Only 400, 412 and 501 keep their status; unknown and negative codes carry the first row,
  // 400 "Bad request", sent as 500.
  EXPECT_EQ(Results(sent, {"400", "412", "501", "401", "500", "701", "706", "801", "0", "2", "8",
                           "14", "999", "707", "-1"}),
            "400 400 Bad request,412 412 Precondition failed,501 501 Action Failed,"
            "500 401 Invalid Action,500 500 Internal error,500 701 No such object,"
            "500 706 Invalid connection reference.,500 801 Access denied,500 0 Success,"
            "500 2 Bad parameter,500 8 Out of memory,500 14 Failed,500 400 Bad request,"
            "500 400 Bad request,500 400 Bad request,");
}

TEST_F(SoapErrors, HostTableIsSearchedFirstAndEndsAtANegativeCodeOrNullText) {
  static const upnp_errmsg kHost[] = {
      {701, "Host says no"}, {999, "Host only"}, {-2, "past the end"}, {812, "never seen"}};
  upnp_set_errmsgs(kHost);
  EXPECT_EQ(Results([](const char* c) { return Carried(Take(upnp_error(std::atoi(c)))); },
                    {"701", "999", "812", "702", "-2"}),
            "701 Host says no,999 Host only,400 Bad request,702 No contents,400 Bad request,");
  static const upnp_errmsg kNullEnded[] = {{600, "Host 600"}, {603, nullptr}, {604, "not seen"}};
  upnp_set_errmsgs(kNullEnded);
  EXPECT_EQ(Results([](const char* c) { return upnp_get_errmsg(std::atoi(c)); },
                    {"600", "603", "604", "701"}),
            "Host 600,Out of Memory,Human Intervention Required,No such object,");
  upnp_set_errmsgs(nullptr);  // back to the built-in table
  EXPECT_STREQ(upnp_get_errmsg(600), "Argument Value Invalid");
}

TEST_F(SoapErrors, AnswersAreByteExactOnTheWireAndWholeEvenWithoutMemory) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const WireAnswer answers[] = {
      {"/control", [](HttpRequest* r) { return upnp_send_error(r, 715); },
       "500 Internal Server Error", "text/html; charset=utf-8", kFault715, "501"},
      {"/cms/info", &upnp_cms_get_current_connection_info, "200 OK", UPNP_SOAP_CONTENT_TYPE,
       kInfoAnswer, nullptr},
      {"/cms/ids", &upnp_cms_get_current_connectionIDs, "200 OK", UPNP_SOAP_CONTENT_TYPE,
       kIdsAnswer, nullptr}};
  for (const WireAnswer& answer : answers) ExpectWholeAnswerOrNone(answer);
}

}  // namespace
}  // namespace tw::test
