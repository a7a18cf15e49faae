// SPDX-License-Identifier: Apache-2.0
#include "http/error_pages.h"

#include "support/test_support.h"

namespace {

using namespace tw::test;

const std::string kNotFoundPage =
    "<HTML><HEAD><TITLE>404 Not Found</TITLE></HEAD><BODY><H1>Not Found</H1>The requested URL "
    "was not found on this server.</BODY></HTML>";
const std::string kRestrictedPage =
    "<HTML><HEAD><TITLE>401 Unauthorized</TITLE></HEAD><BODY><H1>Unauthorized</H1>Access to "
    "this page is restricted.</BODY></HTML>";

RequestPtr MakeRequest(int32_t socket) {
  auto request = GetRequest("/missing", "HOST: x\r\n");
  request->socket = socket;
  return request;
}

std::string g_tls_sent;
int64_t FakeTlsSend(int32_t, const void* data, int64_t length) {
  g_tls_sent.append(static_cast<const char*>(data), static_cast<size_t>(length));
  return length;
}

class HttpErrorPages : public LeakCheck {
 protected:
  void TearDown() override {
    HTTP_set_file_not_found_message(nullptr, nullptr);
    HTTP_set_access_restriced_message(nullptr, nullptr);
    http_server_set_tls_callbacks(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                  nullptr);
    LeakCheck::TearDown();
  }
};

TEST_F(HttpErrorPages, PagesGoOutByteExactFromACopyOfTheRequest) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  PeerPair pair;
  ASSERT_TRUE(pair.Open());
  auto request = MakeRequest(pair.server_fd());
  request->content_length = 777;
  EXPECT_EQ(HTTP_send_file_not_found(request.get()), 0);
  EXPECT_EQ(HTTP_send_access_restriced(request.get()), 0);
  // The caller's response fields stay.
  EXPECT_EQ(std::to_string(request->content_length) + request->mime_type + request->extra_headers,
            "777text/html; charset=utf-8");
  const auto found = pair.client().ReadResponse();
  EXPECT_EQ(found.head + found.body,
            "HTTP/1.1 404 Not Found\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: "
            "132\r\nDate: " +
                HeaderValue(found.head, "Date") +
                "\r\nPragma: no-cache\r\n"
                "Cache-control: no-cache\r\nAccept-Ranges: bytes\r\nConnection: keep-alive\r\nEXT:"
                "\r\nServer: " UPNP_SERVER_BANNER "\r\n\r\n" +
                kNotFoundPage);
  // The realm line ends in a bare LF.
  const auto restricted = pair.client().ReadResponse();
  char host[128] = "";
  gethostname(host, sizeof(host) - 1);
  EXPECT_EQ(restricted.head.rfind("HTTP/1.1 401 Unauthorised\r\n", 0), 0u);
  EXPECT_NE(restricted.head.find("\r\nWWW-Authenticate: Basic realm=\"" + std::string(host) +
                                 "\"\nEXT:\r\n"),
            std::string::npos)
      << restricted.head;
  EXPECT_EQ(restricted.body, kRestrictedPage);
}

TEST_F(HttpErrorPages, BareStatusAndTextBodies) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  PeerPair pair;
  ASSERT_TRUE(pair.Open());
  auto request = MakeRequest(pair.server_fd());
  request->content_length = 50;
  request->mime_type = "text/plain";
  EXPECT_EQ(HTTP_send_error_code(request.get(), 400), 0);
  EXPECT_EQ(request->content_length, 0);
  EXPECT_EQ(HTTP_send_error_message(request.get(), 500, "boom"), 0);
  EXPECT_EQ(HTTP_send_error_message(request.get(), 500, nullptr), 0);
  EXPECT_EQ(HTTP_send_service_unavailable(request.get(), std::string(2000, 'd').c_str()), 0);
  const auto bare = pair.client().ReadResponse();
  EXPECT_EQ(bare.head.rfind("HTTP/1.1 400 Bad Request\r\n", 0), 0u);
  EXPECT_EQ(HeaderValue(bare.head, "Content-Length") + bare.body, "0");
  const auto boom = pair.client().ReadResponse();
  EXPECT_EQ(std::to_string(boom.status) + boom.body + pair.client().ReadResponse().body, "500boom");
  const auto busy = pair.client().ReadResponse();  // cut at 1024 with its terminator
  EXPECT_EQ(busy.body, ("<HTML><HEAD><TITLE>503 Service Unavailable</TITLE></HEAD><BODY><H1>"
                        "Service Unavailable</H1>Server can't provide /missing resource now.<br>" +
                        std::string(2000, 'd'))
                           .substr(0, 1023));
  pair.CloseServer();
  EXPECT_EQ(pair.client().ReadAll(), "");
}

TEST_F(HttpErrorPages, FailuresGiveOneAndNeverHalfAResponse) {
  EXPECT_EQ(HTTP_send_error_code(nullptr, 404) + HTTP_send_error_message(nullptr, 500, "x") +
                HTTP_send_file_not_found(nullptr) + HTTP_send_unauthorized(nullptr) +
                HTTP_send_access_restriced(nullptr) + HTTP_send_service_unavailable(nullptr, "") +
                HTTP_send_header(nullptr, 200),
            7);
  EXPECT_EQ(HTTP_send_unauthorized(MakeRequest(-1).get()), 1);
  TW_REQUIRE_LOOPBACK_NAMESPACE();  // every failure of the page or of HTTP_send_header's head
  const auto request = MakeRequest(-1);
  ForEachAllocFailure(
      [&] {
        PeerPair pair;
        EXPECT_TRUE(pair.Open());
        request->socket = pair.server_fd();
        const int32_t result = HTTP_send_file_not_found(request.get());
        pair.CloseServer();
        return std::make_pair(result, pair.client().ReadAll().empty());
      },
      [](const std::pair<int32_t, bool>& sent, bool failed) {
        EXPECT_EQ(sent, std::make_pair(failed ? 1 : 0, failed));
      });
}

TEST_F(HttpErrorPages, OverTlsOnlyThe401PagesUseTheHookForTheirBody) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  http_server_set_tls_callbacks(nullptr, nullptr, nullptr, nullptr, &FakeTlsSend, nullptr, nullptr,
                                nullptr);
  PeerPair pair;
  ASSERT_TRUE(pair.Open());
  auto request = MakeRequest(pair.server_fd());
  request->tls = 1;
  g_tls_sent.clear();
  EXPECT_EQ(HTTP_send_unauthorized(request.get()), 0);
  EXPECT_EQ(g_tls_sent.substr(g_tls_sent.find("\r\n\r\n") + 4), kRestrictedPage);
  g_tls_sent.clear();
  EXPECT_EQ(HTTP_send_file_not_found(request.get()), 0);
  EXPECT_EQ(g_tls_sent.rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u);
  EXPECT_EQ(g_tls_sent.substr(g_tls_sent.find("\r\n\r\n") + 4), "");
  pair.CloseServer();
  EXPECT_EQ(pair.client().ReadAll(), kNotFoundPage);
}

TEST_F(HttpErrorPages, EscapingStopsAtControlBytesAndNeverSplitsAnEntity) {
  char out[64];
  HTTP_escape_body("a\xE9\"b<\x7f>\nnot this", out, sizeof(out));
  EXPECT_STREQ(out, "a&#xE9;&quot;b<\x7f>");
  HTTP_escape_body("ab\xE9", out, 8);  // "ab&#xE9;" needs 9 bytes
  EXPECT_STREQ(out, "ab");
  HTTP_escape_body(nullptr, out, sizeof(out));
  EXPECT_STREQ(out, "");
  HTTP_escape_body("q", out, 0);  // nothing written, no crash
  HTTP_escape_body("q", nullptr, 10);
  EXPECT_STREQ(out, "");
}

}  // namespace
