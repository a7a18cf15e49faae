// SPDX-License-Identifier: Apache-2.0
// The UPnP control error and the Connection Manager answers, checked as they leave on a socket.
#include "services/soap.h"

#include "services/services_fixture.h"

namespace tw::test {
namespace {

std::string Fault(int code, const std::string& text) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope "
         "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
         "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\n"
         " <s:Body>\n"
         "  <s:Fault>\n"
         "   <faultcode>s:Client</faultcode>\n"
         "   <faultstring>UPnPError</faultstring>\n"
         "   <detail>\n"
         "    <UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">\n"
         "     <errorCode>" +
         std::to_string(code) +
         "</errorCode>\n"
         "     <errorDescription>" +
         text +
         "</errorDescription>\n"
         "    </UPnPError>\n"
         "   </detail>\n"
         "  </s:Fault>\n"
         " </s:Body>\n"
         "</s:Envelope>\n";
}

// The code and text a fault carries, read back from its XML.
std::string Carried(const std::string& fault) {
  auto inner = [&](const std::string& tag) {
    const size_t from = fault.find("<" + tag + ">");
    if (from == std::string::npos) return std::string("<none>");
    const size_t start = from + tag.size() + 2;
    return fault.substr(start, fault.find("</" + tag + ">") - start);
  };
  return inner("errorCode") + " " + inner("errorDescription");
}

class SoapErrors : public LeakCheck {
 protected:
  void TearDown() override {
    upnp_set_errmsgs(nullptr);
    LeakCheck::TearDown();
  }
};

TEST_F(SoapErrors, FaultForAKnownCodeIsByteExact) {
  EXPECT_EQ(Take(upnp_error(701)), Fault(701, "No such object"));
}

TEST_F(SoapErrors, EachCodeGoesOutWithItsStatusAndItsRow) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  struct Row {
    int32_t code;
    int status;
    const char* carried;  // errorCode and errorDescription of the fault
  };
  // Unknown and negative codes fall back to the first row: 400 "Bad request", sent as 500.
  const Row rows[] = {
      {400, 400, "400 Bad request"},
      {412, 412, "412 Precondition failed"},
      {501, 501, "501 Action Failed"},
      {401, 500, "401 Invalid Action"},
      {500, 500, "500 Internal error"},
      {701, 500, "701 No such object"},
      {706, 500, "706 Invalid connection reference."},
      {801, 500, "801 Access denied"},
      {0, 500, "0 Success"},
      {2, 500, "2 Bad parameter"},
      {8, 500, "8 Out of memory"},
      {14, 500, "14 Failed"},
      {999, 500, "400 Bad request"},
      {707, 500, "400 Bad request"},
      {-5, 500, "400 Bad request"},
      {-1, 500, "400 Bad request"},
  };
  PeerPair pair;
  ASSERT_TRUE(pair.Open());
  for (const Row& row : rows) {
    auto request = GetRequest("/control", "HOST: x\r\n");
    request->socket = pair.server_fd();
    request->content_length = 4321;  // the request body's length must not leak into the answer
    EXPECT_EQ(upnp_send_error(request.get(), row.code), 0) << row.code;
    const HttpResponse got = pair.client().ReadResponse();
    const std::string text = row.carried;
    EXPECT_EQ(std::to_string(got.status) + " " + Carried(got.body),
              std::to_string(row.status) + " " + text)
        << row.code;
    EXPECT_EQ(upnp_get_errmsg(row.code), text.substr(text.find(' ') + 1)) << row.code;
    EXPECT_TRUE(got.complete) << row.code;
    // The request names the SOAP type, but the header of an error status forces HTML.
    EXPECT_STREQ(request->mime_type, UPNP_SOAP_CONTENT_TYPE);
    EXPECT_EQ(HeaderValue(got.head, "Content-Type"), "text/html; charset=utf-8");
  }
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
  upnp_set_errmsgs(nullptr);
  EXPECT_STREQ(upnp_get_errmsg(600), "Argument Value Invalid");
}

TEST_F(SoapErrors, WithoutMemoryOnlyAnEmpty501GoesOut) {
  EXPECT_EQ(upnp_send_error(nullptr, 701), 1);
  auto closed = GetRequest("/control");
  closed->socket = -1;
  EXPECT_EQ(upnp_send_error(closed.get(), 701), 1) << "no socket: the header fails";
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  // Made before the loop: its own allocation must not be the one that fails.
  auto request = GetRequest("/control", "HOST: x\r\n");
  ForEachAllocFailure(
      [&] {
        PeerPair pair;
        EXPECT_TRUE(pair.Open());
        request->socket = pair.server_fd();
        request->content_length = 99;
        const int32_t result = upnp_send_error(request.get(), 701);
        pair.CloseServer();
        return std::make_pair(result, pair.client().ReadAll());
      },
      [](const std::pair<int32_t, std::string>& sent, bool failed) {
        if (!failed) {
          EXPECT_EQ(sent.first, 0);
          EXPECT_THAT(sent.second, HasSubstr("<errorCode>701</errorCode>"));
          return;
        }
        // Either the fault could not be built (an empty 501) or the header could not be
        // composed (nothing at all); never a fault with a wrong status or half a response.
        if (sent.second.empty()) {
          EXPECT_EQ(sent.first, 1);
        } else {
          EXPECT_EQ(sent.second.rfind("HTTP/1.1 501 ", 0), 0u) << sent.second;
          EXPECT_EQ(HeaderValue(sent.second, "Content-Length"), "0");
          EXPECT_EQ(sent.second.substr(sent.second.find("\r\n\r\n") + 4), "");
        }
      });
}

// ---- The Connection Manager answers through a running server --------------------------------

const std::string kEnvelope =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope "
    "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">    <s:Body>    ";
const std::string kCms = " xmlns:u=\"urn:schemas-upnp-org:service:ConnectionManager:1\">    ";
const std::string kInfoAnswer =
    kEnvelope + "<u:GetCurrentConnectionInfoResponse" + kCms +
    "<RcsID>-1</RcsID>    <AVTransportID>-1</AVTransportID>    <ProtocolInfo></ProtocolInfo>    "
    "<PeerConnectionManager></PeerConnectionManager>    <PeerConnectionID>0</PeerConnectionID>    "
    "<Direction>Output</Direction>    <Status>Unknown</Status>    "
    "</u:GetCurrentConnectionInfoResponse>    </s:Body>    </s:Envelope>";
const std::string kIdsAnswer = kEnvelope + "<u:GetCurrentConnectionIDsResponse" + kCms +
                               "<ConnectionIDs>0</ConnectionIDs>    "
                               "</u:GetCurrentConnectionIDsResponse>    </s:Body>    </s:Envelope>";

int32_t FaultHandler(HttpRequest* request) {
  return upnp_send_error(request, std::atoi(request->url + std::strlen("/fault/")));
}

class CmsAnswers : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (IsSkipped()) return;
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_DISABLELOCALSSDP, "1");
    upnp_http_register_handler(&upnp_cms_get_current_connection_info, HTTP_METHOD_POST, "/cms/info",
                               1, 0);
    upnp_http_register_handler(&upnp_cms_get_current_connectionIDs, HTTP_METHOD_POST, "/cms/ids", 1,
                               0);
    upnp_http_register_handler(&FaultHandler, HTTP_METHOD_POST, "/fault/", 1, 0);
    upnp_server_start(&g_server_running);
    port_ = getHTTPServerData(0) != nullptr ? getHTTPServerData(0)->http_port : 0;
  }
  HttpResponse Post(const std::string& path) {
    const std::string body = "<s:Envelope/>";
    return Exchange(port_, "POST " + path +
                               " HTTP/1.1\r\nHOST: 127.0.0.1\r\nSOAPACTION: \"x\"\r\n"
                               "CONTENT-LENGTH: " +
                               std::to_string(body.size()) + "\r\n\r\n" + body);
  }
  // A SOAP answer's head; error statuses carry the HTML type whatever the request set.
  static std::string Head(size_t length, const std::string& status_line, const std::string& type,
                          const std::string& date) {
    return status_line + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(length) + "\r\nDate: " + date +
           "\r\nPragma: no-cache\r\nCache-control: no-cache\r\nAccept-Ranges: bytes\r\n"
           "Connection: keep-alive\r\nEXT:\r\nServer: " UPNP_SERVER_BANNER "\r\n\r\n";
  }
  int port_ = 0;
};

TEST_F(CmsAnswers, BothAnswersAreByteExactOnTheWire) {
  ASSERT_NE(port_, 0);
  for (const auto& [path, answer] : {std::pair(std::string("/cms/info"), kInfoAnswer),
                                     std::pair(std::string("/cms/ids"), kIdsAnswer)}) {
    const HttpResponse got = Post(path);
    EXPECT_EQ(got.head, Head(answer.size(), "HTTP/1.1 200 OK", UPNP_SOAP_CONTENT_TYPE,
                             HeaderValue(got.head, "Date")))
        << path;
    EXPECT_EQ(got.body, answer) << path;
  }
}

TEST_F(CmsAnswers, FaultsOnTheWireCarryTheirStatus) {
  ASSERT_NE(port_, 0);
  const HttpResponse busy = Post("/fault/715");
  EXPECT_EQ(busy.head, Head(Fault(715, "Content BUSY").size(), "HTTP/1.1 500 Internal Server Error",
                            "text/html; charset=utf-8", HeaderValue(busy.head, "Date")));
  EXPECT_EQ(busy.body, Fault(715, "Content BUSY"));
  const HttpResponse failed = Post("/fault/412");
  EXPECT_EQ(std::to_string(failed.status) + " " + Carried(failed.body),
            "412 412 Precondition failed");
}

TEST_F(SoapErrors, CmsAnswerWithoutConnectionOrMemoryGivesOneAndSendsNothing) {
  EXPECT_EQ(
      upnp_cms_get_current_connection_info(nullptr) + upnp_cms_get_current_connectionIDs(nullptr),
      2);
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  // Made before the loop: its own allocation must not be the one that fails.
  auto request = GetRequest("/cms/info", "HOST: x\r\n");
  ForEachAllocFailure(
      [&] {
        PeerPair pair;
        EXPECT_TRUE(pair.Open());
        request->socket = pair.server_fd();
        const int32_t result = upnp_cms_get_current_connection_info(request.get());
        pair.CloseServer();
        return std::make_pair(result, pair.client().ReadAll());
      },
      [](const std::pair<int32_t, std::string>& sent, bool failed) {
        EXPECT_EQ(sent.first, failed ? 1 : 0);
        if (failed) {
          EXPECT_EQ(sent.second, "");
        } else {
          EXPECT_EQ(sent.second.substr(sent.second.find("\r\n\r\n") + 4), kInfoAnswer);
        }
      });
}

}  // namespace
}  // namespace tw::test
