// SPDX-License-Identifier: Apache-2.0
#include "support/test_support.h"

namespace {

using namespace tw::test;

const std::string kAgent = "User-Agent: ktConnect DLNADOC/1.50\r\n";

class HttpClientRequests : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    HTTP_make_user_agent_settable();  // the first request sets the default again
  }
  void TearDown() override {
    HTTP_make_user_agent_settable();
    LeakCheck::TearDown();
  }
  // "<result>|<bytes the request sent>" for send(socket).
  template <typename Send>
  std::string Sent(Send&& send) {
    PeerPair pair;
    if (!pair.Open()) return "<no socket pair>";
    const int32_t result = send(pair.server_fd());
    pair.CloseServer();
    return std::to_string(result) + "|" + pair.client().ReadAll();
  }
};

TEST_F(HttpClientRequests, GetAndHeadHeads) {
  const std::string host_300(300, 'h'), long_url = "http://" + host_300 + "/p";
  // {method (null: GET with HTTP/1.0), url, extra lines, result|bytes}
  const std::tuple<const char*, const char*, const char*, std::string> cases[] = {
      {"GET", "http://192.168.1.2:8080/desc/root.xml", nullptr,
       "0|GET /desc/root.xml HTTP/1.1\r\nAccept: */*\r\nHost: 192.168.1.2:8080\r\n" + kAgent +
           "\r\n"},
      {"HEAD", "http://h/x", "Range: bytes=0-\r\n",
       "0|HEAD /x HTTP/1.1\r\nAccept: */*\r\nHost: h\r\n" + kAgent + "Range: bytes=0-\r\n\r\n"},
      // Extra lines with a User-Agent of their own, in any case, replace the default one.
      {"GET", "http://h/x", "user-agent: Mine/2\r\n",
       "0|GET /x HTTP/1.1\r\nAccept: */*\r\nHost: h\r\nuser-agent: Mine/2\r\n\r\n"},
      {nullptr, "http://h:1/a/b?c=d", "",
       "0|GET /a/b?c=d HTTP/1.0\r\nAccept: */*\r\nHost: h:1\r\n" + kAgent + "\r\n"},
      // Without a path the request goes to "/"; user information stays in the Host line.
      {"GET", "http://hostname", nullptr,
       "0|GET / HTTP/1.1\r\nAccept: */*\r\nHost: hostname\r\n" + kAgent + "\r\n"},
      {"GET", "http://u:p@h:80/", nullptr,
       "0|GET / HTTP/1.1\r\nAccept: */*\r\nHost: u:p@h:80\r\n" + kAgent + "\r\n"},
      // The slash search starts at the ninth character: "http://a/" has an empty path.
      {"GET", "http://a/", nullptr,
       "0|GET / HTTP/1.1\r\nAccept: */*\r\nHost: a\r\n" + kAgent + "\r\n"},
      {"GET", long_url.c_str(), nullptr,
       "0|GET /p HTTP/1.1\r\nAccept: */*\r\nHost: " + host_300.substr(0, 256) + "\r\n" + kAgent +
           "\r\n"},
      // Refused without sending: other schemes, URLs shorter than 9 characters, no URL.
      {"GET", "https://h/x", nullptr, "1|"},
      {"GET", "http://a", nullptr, "1|"},
      {"GET", nullptr, nullptr, "1|"},
  };
  for (const auto& [method, url, extra, expected] : cases) {
    EXPECT_EQ(Sent([&](int32_t s) {
                return method != nullptr ? HTTP_head_or_get_request(method, s, url, extra)
                                         : HTTP_get_request_1_0(s, url, extra);
              }),
              expected)
        << (url != nullptr ? url : "<null>");
  }
  EXPECT_EQ(Sent([](int32_t s) { return HTTP_get_request(s, "http://h/g", nullptr); }),
            "0|GET /g HTTP/1.1\r\nAccept: */*\r\nHost: h\r\n" + kAgent + "\r\n");
  EXPECT_EQ(Sent([](int32_t s) { return HTTP_head_request(s, "http://h/g", nullptr); }),
            "0|HEAD /g HTTP/1.1\r\nAccept: */*\r\nHost: h\r\n" + kAgent + "\r\n");
  EXPECT_EQ(HTTP_get_request(-1, "http://h/g", nullptr), 1);
}

TEST_F(HttpClientRequests, AUserAgentSetByTheHostIsKept) {
  HTTP_set_default_user_agent("Host/3.0");
  EXPECT_EQ(Sent([](int32_t s) { return HTTP_get_request(s, "http://h/g", nullptr); }),
            "0|GET /g HTTP/1.1\r\nAccept: */*\r\nHost: h\r\nUser-Agent: Host/3.0\r\n\r\n");
}

TEST_F(HttpClientRequests, SoapPostHead) {
  EXPECT_EQ(Sent([](int32_t s) {
              return HTTP_post_request(s, "http://10.0.0.1:49152/upnp/control/AVT",
                                       "\"urn:schemas-upnp-org:service:AVTransport:1#Play\"",
                                       "<s:Envelope/>");
            }),
            "0|POST /upnp/control/AVT HTTP/1.1\r\nAccept: */*\r\n" + kAgent +
                "Host: 10.0.0.1:49152\r\nSOAPACTION: "
                "\"urn:schemas-upnp-org:service:AVTransport:1#Play\"\r\nCONTENT-TYPE:  text/xml; "
                "charset=\"utf-8\"\r\nContent-Length: 13\r\n\r\n");
  // Built in 1024 bytes: a longer head is cut.
  const std::string sent = Sent([](int32_t s) {
    return HTTP_post_request(s, "http://h/c", std::string(2000, 'a').c_str(), "");
  });
  EXPECT_EQ(sent.size(), 2 + 1023u);
  EXPECT_EQ(Sent([](int32_t s) { return HTTP_post_request(s, "ftp://h/c", "a", "b"); }), "1|");
}

TEST_F(HttpClientRequests, GeneralPostHead) {
  const std::string start = "0|POST /up/load HTTP/1.1\r\nAccept: */*\r\nHost: h:9\r\n";
  // {length, expect 100-continue, extra lines, result|bytes}
  const std::tuple<int64_t, int32_t, const char*, std::string> cases[] = {
      {0, 0, nullptr, start + "Connection: Close\r\nContent-Type: video/mp4\r\n" + kAgent + "\r\n"},
      {12345678901LL, 1, "X-A: 1\r\n",
       start +
           "Connection: Keep-Alive\r\nContent-Type: video/mp4\r\nContent-Length: "
           "12345678901\r\nExpect: 100-continue\r\n" +
           kAgent + "X-A: 1\r\n\r\n"},
      {7, 0, "User-Agent: Up/1\r\n",
       start + "Connection: Keep-Alive\r\nContent-Type: video/mp4\r\nContent-Length: "
               "7\r\nUser-Agent: Up/1\r\n\r\n"},
      {-1, 0, nullptr, "1|"},
  };
  for (const auto& [length, expect, extra, expected] : cases) {
    EXPECT_EQ(Sent([&](int32_t s) {
                return HTTP_post_header(s, "http://h:9/up/load", "video/mp4", length, expect,
                                        extra);
              }),
              expected)
        << length;
  }
  EXPECT_EQ(
      Sent([](int32_t s) { return HTTP_post_header(s, "http://h/u", nullptr, 1, 0, nullptr); }),
      "1|");
  EXPECT_EQ(Sent([](int32_t s) { return HTTP_post_header(s, nullptr, "a/b", 1, 0, nullptr); }),
            "1|");
  // 1024 bytes hold the head: a longer one goes out cut there, one past 8191 is refused.
  EXPECT_EQ(Sent([](int32_t s) {
              return HTTP_post_header(s, "http://h/u", "a/b", 1, 0,
                                      ("X: " + std::string(2000, 'x') + "\r\n").c_str());
            }).size(),
            2 + 1023u);
  std::string log;
  EXPECT_EQ(Sent([&](int32_t s) {
              int32_t result = -1;
              log = Logged(UPNP_LOG_HTTP, [&] {
                result = HTTP_post_header(s, "http://h/u", "a/b", 1, 0,
                                          ("X: " + std::string(9000, 'x') + "\r\n").c_str());
              });
              return result;
            }),
            "1|");
  EXPECT_THAT(log, HasSubstr("[Error] - LOG_HTTP: HTTP_post_header: Buffer too small for "
                             "request: http://h/u"));
  log = Logged(UPNP_LOG_HTTP, [] { HTTP_post_header(-1, "http://h/u", "a/b", 1, 0, nullptr); });
  EXPECT_THAT(log, HasSubstr("HTTP_post_header: Failed to send request to http://h/u"));
}

TEST_F(HttpClientRequests, OpenRefusesAndLogsBadUrls) {
  // {url, message}
  const std::pair<const char*, std::string> cases[] = {
      {nullptr, "HTTP_open: No url specified"},
      {"https://127.0.0.1/", "HTTP_open: Malformed url: https://127.0.0.1/"},
      {"HTTP://127.0.0.1/", "HTTP_open: Malformed url: HTTP://127.0.0.1/"},
      {"http:///x", "HTTP_open: Failed to parse hostname from url: http:///x"},
      // Nothing listens on port 1 of the loopback address.
      {"http://127.0.0.1:1/x", "HTTP_open: Failed to connect to ip=127.0.0.1 on port=1"},
      {"ftp://me@127.0.0.1:65537/f", "HTTP_open: Failed to connect to ip=127.0.0.1 on port=1"},
  };
  for (const auto& [url, message] : cases) {
    int32_t socket = 0;
    const std::string log = Logged(UPNP_LOG_HTTP, [&] { socket = HTTP_open(url); });
    EXPECT_EQ(socket, -1);
    EXPECT_THAT(log, HasSubstr("[Error] - LOG_HTTP: " + message)) << log;
  }
}

}  // namespace
