// SPDX-License-Identifier: Apache-2.0
#include "core/core.h"
#include "httpclient/scripted_server.h"

namespace {

using namespace tw::test;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlackMs = 200;
#else
constexpr int kSlackMs = 0;
#endif

const std::string kAgent = "User-Agent: ktConnect DLNADOC/1.50\r\n";
const std::string kOk = "HTTP/1.1 200 OK\r\n";
const std::string kChunked = kOk + "Transfer-Encoding: chunked\r\n\r\n";

class HttpClientExchange : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    HTTP_make_user_agent_settable();
  }
  void TearDown() override {
    HTTP_make_user_agent_settable();
    LeakCheck::TearDown();
  }
  // The body HTTP_get brings back for one scripted reply.
  std::string Get(const std::string& reply, std::string* request = nullptr) {
    ScriptedServer server({reply});
    std::string body = Take(HTTP_get(server.Url("/d.xml").c_str()));
    if (request != nullptr) *request = server.Requests().at(0);
    return body;
  }
};

TEST_F(HttpClientExchange, GetWithUserInformationAndPort) {
  ScriptedServer server({kOk + "Content-Length: 5\r\n\r\nhello"});
  const std::string authority = "me:pw@127.0.0.1:" + std::to_string(server.port());
  EXPECT_EQ(Take(HTTP_get(("http://" + authority + "/dev/desc.xml").c_str())), "hello");
  EXPECT_EQ(server.Requests().at(0), "GET /dev/desc.xml HTTP/1.1\r\nAccept: */*\r\nHost: " +
                                         authority + "\r\n" + kAgent + "\r\n");
}

TEST_F(HttpClientExchange, InterimAnswersAreSkippedAndTheStatusIsNotExamined) {
  // {reply, body}
  const std::pair<std::string, std::string> cases[] = {
      {"HTTP/1.1 100 Continue\r\n\r\n" + kOk + "Content-Length: 5\r\n\r\nhello", "hello"},
      {"HTTP/1.1 102 Processing\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n" + kOk +
           "Content-Length: 2\r\n\r\nok",
       "ok"},
      // Only an HTTP/1.1 interim head is recognised; this one is read as a 1.0 answer.
      {"HTTP/1.0 100 Continue\r\n\r\n" + kOk + "Content-Length: 2\r\n\r\nok",
       kOk + "Content-Length: 2\r\n\r\nok"},
      {"HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found", "not found"},
      {kOk + "Server: x\r\n\r\nignored", "<null>"},  // HTTP/1.1 without framing: no body
  };
  for (const auto& [reply, body] : cases) EXPECT_EQ(Get(reply), body) << reply;
}

// Peers that lie about sizes or never end their heads: the client takes only what its buffers
// hold, reserves memory only for bytes that really came, and comes back once the peer closes.
TEST_F(HttpClientExchange, HostilePeers) {
  const std::string endless_head = kOk + std::string(1 << 20, 'X');
  const std::string size_line(100000, '1');  // the first 19 bytes are the size 0x11111111
  // {reply, body}
  const std::pair<std::string, std::string> cases[] = {
      {endless_head, "<null>"},
      {"HTTP/1.0 200 OK\r\nX-Junk: " + std::string(1 << 20, 'j'), "<null>"},
      {kChunked + size_line, size_line.substr(19)},
      {kChunked + "7FFFFFFFFFFFFFF0\r\n0123456789", "0123456789"},
      {kChunked + "7FFFFFFF\r\nabc", "abc"},
      {kChunked + "10000000\r\n" + std::string(70000, 'm'), std::string(70000, 'm')},
      {kChunked + "a\r\n12345", "12345"},  // closed inside a chunk
      // A negative size is not an end; a size line is read in 19 bytes, the rest is data.
      {kChunked + "FFFFFFFF\r\n\r\n5\r\nhello\r\n0\r\n\r\n", "hello"},
      {kChunked + "3" + std::string(18, ' ') + "abc\r\n0\r\n\r\n", "abc"},
      {kOk + "Content-Length: 2000000000\r\n\r\n0123456789", "0123456789"},
      {kOk + "Content-Length: 99999999999\r\n\r\ntoo big", "<null>"},
  };
  for (const auto& [reply, body] : cases) {
    const std::string got = Get(reply);
    EXPECT_EQ(got.size(), body.size()) << reply.substr(0, 80);
    EXPECT_TRUE(got == body) << reply.substr(0, 80);
  }
  // A 256 MiB chunk announced with 70000 bytes sent must not have reserved the announcement.
  EXPECT_LT(upnp_max_mem_used(), 64u << 20);
}

TEST_F(HttpClientExchange, HostileChunksOneByOne) {
  // {wire, chunk reads as "size:bytes" or "size:-"}
  const std::pair<std::string, std::string> cases[] = {
      {"7FFFFFFFFFFFFFF0\r\n0123456789", "10:0123456789,-1:-,"},
      {"10000000\r\n" + std::string(5, 'q'), "5:qqqqq,-1:-,"},
      {std::string(30, 'F'), "0:-,-1:-,"},  // 19 F's: size -1, an end for a single chunk
  };
  for (const auto& [wire, reads] : cases) {
    PeerPair pair;
    ASSERT_TRUE(pair.Open() && pair.client().Send(wire));
    pair.client().ShutdownWrite();
    std::string got;
    for (int i = 0; i < 2; ++i) {
      char* data = nullptr;
      const int32_t n = HTTP_receive_chunk(pair.server_fd(), &data);
      got += std::to_string(n) + ":" + (data != nullptr ? std::string(data, n) : "-") + ",";
      if (data != nullptr) upnp_free_impl(data);
    }
    EXPECT_EQ(got, reads) << wire.substr(0, 40);
  }
  EXPECT_LT(upnp_max_mem_used(), 64u << 20);
}

TEST_F(HttpClientExchange, SoapActionUrlsAndBody) {
  // {base (the port is appended to 127.0.0.1:), control URL, request line}
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"/dev/desc.xml", "/ctl", "POST /ctl HTTP/1.1\r\n"},
      {"/dev/desc.xml", "ctl", "POST /dev/desc.xml/ctl HTTP/1.1\r\n"},
      {"", "/upnp/control", "POST /upnp/control HTTP/1.1\r\n"},
  };
  const std::string body = "<s:Envelope>play</s:Envelope>";
  for (const auto& [base_path, control, line] : cases) {
    ScriptedServer server({kOk + "Content-Length: 4\r\n\r\ndone"});
    EXPECT_EQ(Take(HTTP_soap_action(server.Url(base_path).c_str(), control.c_str(), "\"u#Play\"",
                                    body.c_str())),
              "done");
    const std::string request = server.Requests().at(0);
    EXPECT_EQ(request.substr(0, line.size()), line);
    const std::string tail = "Content-Length: 29\r\n\r\n" + body;
    EXPECT_EQ(request.substr(request.size() - std::min(request.size(), tail.size())), tail);
  }
  EXPECT_EQ(HTTP_soap_action(nullptr, "/c", "a", "b"), nullptr);
  EXPECT_EQ(HTTP_soap_action("http://h/", "/c", "a", nullptr), nullptr);
}

TEST_F(HttpClientExchange, TalkRefusesAndLogsAMissingHead) {
  EXPECT_EQ(HTTP_talk(3, "http://127.0.0.1/", nullptr, nullptr), nullptr);
  EXPECT_EQ(_HTTP_talk(2, nullptr, nullptr, nullptr, 100), nullptr);
  ScriptedServer server({"", kOk + "Content-Length: 1\r\n\r\nx"});
  std::string log = Logged(UPNP_LOG_HTTP, [&] {
    EXPECT_EQ(HTTP_get_with_timeout(server.Url("/").c_str(), 2000), nullptr);
  });
  EXPECT_THAT(log, HasSubstr("[Error] - LOG_HTTP: HTTP_talk received no header in HTTP_talk!"));
  EXPECT_EQ(Take(HTTP_get_with_timeout(server.Url("/").c_str(), 2000)), "x");
}

TEST_F(HttpClientExchange, PostSendsTheBodyAndHandsBackTheAnswer) {
  const std::string body = "<a>1</a>";
  // {reply, result, answer, answer length}
  const std::tuple<std::string, int32_t, std::string, int32_t> cases[] = {
      {"HTTP/1.1 100 Continue\r\n\r\n" + kOk + "Content-Length: 6\r\n\r\n<ok/>\n", 1, "<ok/>\n", 6},
      {kOk + "\r\n", 1, "<null>", 0},
      {"", 0, "<null>", 0},
  };
  for (const auto& [reply, result, answer, length] : cases) {
    ScriptedServer server({reply});
    char* got = reinterpret_cast<char*>(1);
    int32_t got_length = -1;
    EXPECT_EQ(HTTP_post(server.Url("/post/it").c_str(), "X-Extra: 1\r\n", body.c_str(),
                        static_cast<int32_t>(body.size()), &got, &got_length),
              result);
    EXPECT_EQ(Str(got), answer);
    EXPECT_EQ(got_length, length);
    EXPECT_EQ(server.Requests().at(0),
              "POST /post/it HTTP/1.1\r\nAccept: */*\r\n" + kAgent +
                  "Host: 127.0.0.1:" + std::to_string(server.port()) +
                  "\r\nCONTENT-TYPE: text/xml ; charset=\"utf-8\"\r\nX-Extra: 1\r\nContent-Length: "
                  "8\r\nConnection: close\r\n\r\n" +
                  body);
  }
  EXPECT_EQ(HTTP_post(nullptr, nullptr, "x", 1, nullptr, nullptr), 0);
}

// With the server running, a connect that is never answered is cut off by the connection
// time-out: the watchdog's deadline plus at most one poll.
TEST_F(HttpClientExchange, ConnectNeverAnsweredIsCutOff) {
  tw::core::CreateGlobalLock();
  __atomic_store_n(&g_server_running, 1, __ATOMIC_RELEASE);
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof(address);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(listener, 0), 0);  // one queued connection fills it; later SYNs are dropped
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
  HttpPeer queued;
  ASSERT_TRUE(queued.Connect(ntohs(address.sin_port)));
  const int32_t before = HTTP_set_connection_timeout(1);
  const auto start = Clock::now();
  const int32_t socket =
      HTTP_open(("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/").c_str());
  const auto took =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  HTTP_set_connection_timeout(before);
  EXPECT_EQ(socket, -1);
  EXPECT_GE(took, 990);
  EXPECT_LE(took, 1000 + 300 + kSlackMs) << "cut off after " << took << " ms";
  RecordProperty("cut_off_ms", std::to_string(took));
  close(listener);
  __atomic_store_n(&g_server_running, 0, __ATOMIC_RELEASE);
  tw::core::DestroyGlobalLock();
}

}  // namespace
