// SPDX-License-Identifier: Apache-2.0
#include "httpclient/scripted_server.h"

namespace {

using namespace tw::test;
using Call = std::function<std::string(const std::string& base)>;
using Send = std::function<int32_t(int32_t)>;

const std::string kChunked = kOk + "Transfer-Encoding: chunked\r\n\r\n";

// "<result>|<bytes sent>" for a request written to one end of a loopback pair.
std::string Sent(const Send& send) {
  PeerPair pair;
  EXPECT_TRUE(pair.Open());
  const int32_t result = send(pair.server_fd());
  pair.CloseServer();
  return std::to_string(result) + "|" + pair.client().ReadAll();
}

TEST_F(ClientTest, RequestHeadsByteForByte) {
  const std::string post = "0|POST /up/load HTTP/1.1\r\nAccept: */*\r\nHost: h:9\r\nConnection: ";
  const std::string huge = "X: " + std::string(9000, 'x') + "\r\n";
  // {request, result|bytes}
  const std::pair<Send, std::string> cases[] = {
      {[](int32_t s) {
         return HTTP_get_request(s, "http://u:p@10.0.0.2:8080/d/root.xml", nullptr);
       },
       "0|GET /d/root.xml HTTP/1.1\r\nAccept: */*\r\nHost: u:p@10.0.0.2:8080\r\n" + kAgent +
           "\r\n"},
      {[](int32_t s) { return HTTP_head_request(s, "http://h/x", "Range: bytes=0-\r\n"); },
       "0|HEAD /x HTTP/1.1\r\nAccept: */*\r\nHost: h\r\n" + kAgent + "Range: bytes=0-\r\n\r\n"},
      {[](int32_t s) { return HTTP_get_request_1_0(s, "http://h:1/a/b?c=d", ""); },
       "0|GET /a/b?c=d HTTP/1.0\r\nAccept: */*\r\nHost: h:1\r\n" + kAgent + "\r\n"},
      // A User-Agent among the extra lines, in any case, replaces the default one.
      {[](int32_t s) { return HTTP_get_request(s, "http://hh", "user-agent: Mine/2\r\n"); },
       "0|GET / HTTP/1.1\r\nAccept: */*\r\nHost: hh\r\nuser-agent: Mine/2\r\n\r\n"},
      {[](int32_t s) { return HTTP_get_request(s, "https://h/x", nullptr); }, "1|"},
      {[](int32_t s) {
         return HTTP_post_request(s, "http://10.0.0.1:49152/ctl/AVT", "\"u#Play\"", "<s:E/>");
       },
       "0|POST /ctl/AVT HTTP/1.1\r\nAccept: */*\r\n" + kAgent +
           "Host: 10.0.0.1:49152\r\nSOAPACTION: \"u#Play\"\r\nCONTENT-TYPE:  text/xml; "
           "charset=\"utf-8\"\r\nContent-Length: 6\r\n\r\n"},
      {[](int32_t s) { return HTTP_post_header(s, "http://h:9/up/load", "a/b", 0, 0, nullptr); },
       post + "Close\r\nContent-Type: a/b\r\n" + kAgent + "\r\n"},
      // With a length, an expectation and a User-Agent of the caller's.
      {[](int32_t s) {
         return HTTP_post_header(s, "http://h:9/up/load", "a/b", 12345678901LL, 1,
                                 "User-Agent: U\r\nX-A: 1\r\n");
       },
       post + "Keep-Alive\r\nContent-Type: a/b\r\nContent-Length: 12345678901\r\nExpect: "
              "100-continue\r\nUser-Agent: U\r\nX-A: 1\r\n\r\n"},
      {[](int32_t s) { return HTTP_post_header(s, "http://h/u", "a/b", -1, 0, nullptr); }, "1|"},
      // A head past 8191 bytes is refused.
      {[&](int32_t s) { return HTTP_post_header(s, "http://h/u", "a/b", 1, 0, huge.c_str()); },
       "1|"},
  };
  for (const auto& [send, expected] : cases) EXPECT_EQ(Sent(send), expected);
  HTTP_make_user_agent_settable();  // a user agent the host sets before any request is kept
  HTTP_set_default_user_agent("Host/3.0");
  EXPECT_EQ(Sent([](int32_t s) { return HTTP_get_request(s, "http://h/g", nullptr); }),
            "0|GET /g HTTP/1.1\r\nAccept: */*\r\nHost: h\r\nUser-Agent: Host/3.0\r\n\r\n");
}

TEST_F(ClientTest, GetSoapPostAndUploadExchanges) {
  const std::string soap = "<s:Envelope>play</s:Envelope>", xml = "<a>1</a>";
  const auto soap_to = [&](const char* control) -> Call {
    return [&, control](const std::string& base) {
      return Take(HTTP_soap_action((base + "/d/desc.xml").c_str(), control, "a", soap.c_str()));
    };
  };
  const Call post = [&](const std::string& base) {
    char* answer = reinterpret_cast<char*>(1);
    int32_t length = -1;
    const int32_t result =
        HTTP_post((base + "/p").c_str(), "X-E: 1\r\n", xml.c_str(), 8, &answer, &length);
    return std::to_string(result) + " " + Str(answer) + " " + std::to_string(length);
  };
  TempDir dir;
  std::string content(20000, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
  WriteFile(dir.File("p.jpg"), content);
  const Call post_file = [&](const std::string& base) {
    int32_t status = -1;
    const int32_t result = HTTP_post_file((base + "/up/p.jpg").c_str(), "X-N: p\r\n",
                                          dir.File("p.jpg").c_str(), "image/jpeg", &status);
    return std::to_string(result) + " " + std::to_string(status);
  };
  const std::string upload =
      "POST /up/p.jpg HTTP/1.1\r\nAccept: */*\r\nHost: HOST\r\nConnection: "
      "Keep-Alive\r\nContent-Type: image/jpeg\r\nContent-Length: 20000\r\n" +
      kAgent + "X-N: p\r\n\r\n" + content;
  const std::string soap_head = " HTTP/1.1\r\nAccept: */*\r\n" + kAgent +
                                "Host: HOST\r\nSOAPACTION: a\r\nCONTENT-TYPE:  text/xml; "
                                "charset=\"utf-8\"\r\nContent-Length: 29\r\n\r\n" +
                                soap;
  const std::string post_request = "POST /p HTTP/1.1\r\nAccept: */*\r\n" + kAgent +
                                   "Host: HOST\r\nCONTENT-TYPE: text/xml ; charset=\"utf-8\"\r\n"
                                   "X-E: 1\r\nContent-Length: 8\r\nConnection: close\r\n\r\n" +
                                   xml;
  // {reply, call on the server's base URL, answer|request}
  const std::tuple<std::string, Call, std::string> cases[] = {
      // User information is no part of where the client connects, only of the Host line.
      {kOk + "Content-Length: 5\r\n\r\nhello",
       [](const std::string& base) {
         return Take(HTTP_get(("http://me:pw@" + base.substr(7) + "/dev/d.xml").c_str()));
       },
       "hello|GET /dev/d.xml HTTP/1.1\r\nAccept: */*\r\nHost: me:pw@HOST\r\n" + kAgent + "\r\n"},
      {kOk + "Content-Length: 4\r\n\r\ndone", soap_to("/ctl"), "done|POST /ctl" + soap_head},
      {kOk + "Content-Length: 4\r\n\r\ndone", soap_to("ctl"),
       "done|POST /d/desc.xml/ctl" + soap_head},
      {"HTTP/1.1 100 Continue\r\n\r\n" + kOk + "Content-Length: 6\r\n\r\n<ok/>\n", post,
       "1 <ok/>\n 6|" + post_request},
      {"", post, "0 <null> 0|" + post_request},
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 204 No Content\r\n\r\n", post_file,
       "0 204|" + upload},
      {"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n", post_file,
       "1 500|" + upload},
  };
  for (const auto& [reply, call, expected] : cases) {
    ScriptedServer server(reply);
    const std::string answer = call(server.Url(""));
    EXPECT_EQ(answer + "|" + server.Request(), expected);
  }
}

// Interim answers are skipped and the status is not examined. Hostile peers: the client takes
// only what its buffers hold, reserves memory only for bytes that came, and returns once the peer
// closes.
TEST_F(ClientTest, GetBodiesFromHonestAndHostilePeers) {
  const std::string size_line(100000, '1');  // 19 bytes of it are the size, the rest data
  // {reply, body}
  const std::pair<std::string, std::string> cases[] = {
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n" + kOk +
           "Content-Length: 2\r\n\r\nok",
       "ok"},
      {"HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found", "not found"},
      {kOk + std::string(1 << 20, 'X'), "<null>"},
      {kChunked + size_line, size_line.substr(19)},
      {kChunked + "10000000\r\n" + std::string(70000, 'm'), std::string(70000, 'm')},
      {kOk + "Content-Length: 2000000000\r\n\r\n0123456789", "0123456789"},
      {kOk + "Content-Length: 99999999999\r\n\r\ntoo big", "<null>"},
  };
  for (const auto& [reply, body] : cases) {
    ScriptedServer server(reply);
    EXPECT_TRUE(Take(HTTP_get(server.Url("/d.xml").c_str())) == body) << reply.substr(0, 60);
  }
  // The same announcement chunk by chunk, its data past the first block of 64 KiB.
  PeerPair pair;
  ASSERT_TRUE(pair.Open() && pair.client().Send("10000000\r\n" + std::string(70000, 'q')));
  pair.client().ShutdownWrite();
  char* data = nullptr;
  EXPECT_EQ(HTTP_receive_chunk(pair.server_fd(), &data), 70000);
  EXPECT_TRUE(data != nullptr && std::string(data, 70000) == std::string(70000, 'q'));
  if (data != nullptr) upnp_free_impl(data);
  EXPECT_LT(upnp_max_mem_used(), 64u << 20) << "a 256 MiB announcement reserved memory";
}

// A download lands under its name only when complete; a broken one leaves the directory as it
// was, an earlier file included.
TEST_F(ClientTest, DownloadIsAllOrNothing) {
  TempDir dir;
  const std::string big(300000, 'b'), target = dir.File("desc.xml");
  // {reply, result, file content afterwards ("<none>": no file) and length}
  const std::tuple<std::string, int32_t, std::string, int64_t> cases[] = {
      {kOk + "Content-Length: 300000\r\n\r\n" + big, 0, big, 300000},
      {kOk + "Content-Length: 0\r\n\r\n", 0, "", 0},
      {kOk + "Content-Length: 100000\r\n\r\n" + std::string(5000, 'p'), 1, "<none>", 0},
      {kOk + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n", 1, "<none>", 0},
      {"HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone", 1, "<none>", 0},
  };
  for (const bool earlier : {false, true}) {
    for (const auto& [reply, result, content, length] : cases) {
      std::filesystem::remove(target);
      if (earlier) WriteFile(target, "earlier");
      ScriptedServer server(reply);
      int64_t got = -1;
      EXPECT_EQ(HTTP_download_file(server.Url("/d").c_str(), nullptr, target.c_str(), &got),
                result);
      const std::string expected = result != 0 && earlier ? "earlier" : content;
      EXPECT_TRUE((FileExists(target) ? ReadFile(target) : "<none>") == expected) << reply;
      EXPECT_EQ(got, length);
      const auto files = std::distance(std::filesystem::directory_iterator(dir.path()), {});
      EXPECT_EQ(files, expected == "<none>" ? 0 : 1) << "a partial file was left";
    }
  }
}

TEST_F(ClientTest, OpenRefusesOtherSchemes) {
  const std::string log =
      Logged(UPNP_LOG_HTTP, [] { EXPECT_EQ(HTTP_open("https://127.0.0.1/"), -1); });
  EXPECT_THAT(log, HasSubstr("[Error] - LOG_HTTP: HTTP_open: Malformed url: https://127.0.0.1/"));
}

}  // namespace
