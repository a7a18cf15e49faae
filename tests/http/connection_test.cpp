// SPDX-License-Identifier: Apache-2.0
#include "http/connection.h"

#include <fcntl.h>

#include <fstream>

#include "http/registry.h"
#include "platform/test_hooks.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

std::string Visible(const char* bytes, size_t length) {
  std::string out;
  for (size_t i = 0; i < length; ++i)
    out += bytes[i] == '\r' ? 'R' : bytes[i] == '\n' ? 'N' : bytes[i];
  return out;
}

// Handlers answer with raw bytes: the fields they saw, one "key=value" per line, and up to 64
// bytes still queued in the socket behind what the server has read.
template <char kTag, int32_t kResult>
int32_t Echo(HttpRequest* r) {
  char queued[64];
  const ssize_t q = recv(r->socket, queued, sizeof(queued), MSG_PEEK | MSG_DONTWAIT);
  const size_t hl = std::strlen(r->header);
  char text[4096];
  const int n = std::snprintf(text, sizeof(text),
                              "tag=%c\nurl=%s\nm=%u\nv=%d\nc=%d\nra=%d\nrp=%d\nbase=%s\nhl=%zu\n"
                              "tail=%s\nq=%s\nlen=%lld\nbody=%s\n",
                              kTag, r->url, r->method, r->http_version, r->close_connection,
                              r->remote_access, r->remote_session_pending, r->base_url, hl,
                              Visible(r->header + (hl >= 4 ? hl - 4 : 0), hl >= 4 ? 4 : hl).c_str(),
                              Visible(queued, q > 0 ? static_cast<size_t>(q) : 0).c_str(),
                              static_cast<long long>(r->content_length),
                              r->body != nullptr ? r->body : "<none>");
  char response[4200];
  const int h = std::snprintf(response, sizeof(response),
                              "HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s", n, text);
  upnp_send(r->socket, response, h);  // one send: no small-segment delays between two writes
  return kResult;
}

std::map<std::string, std::string> Fields(const HttpResponse& response) {
  std::map<std::string, std::string> fields;
  std::istringstream lines(response.body);
  for (std::string line; std::getline(lines, line);) {
    const size_t eq = line.find('=');
    if (eq != std::string::npos) fields[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return fields;
}

constexpr uint32_t kAllMethods = 63;

class HttpWire : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    __atomic_store_n(&g_server_running, 1, __ATOMIC_RELEASE);
    std::strcpy(record_.ip_address, "127.0.0.1");
    record_.http_socket = -1;
  }
  void TearDown() override {
    if (!IsSkipped()) {
      peer_.Close();
      __atomic_add_fetch(&record_.stop_generation, 1, __ATOMIC_ACQ_REL);
      upnp_close_socket(&record_.http_socket);
      EXPECT_TRUE(WaitFor([] {
        return tw::http::LiveAcceptLoops() == 0 && tw::http::LiveConnectionWorkers() == 0;
      })) << "server threads still running";
      __atomic_store_n(&g_server_running, 0, __ATOMIC_RELEASE);
    }
    tw::http::ClearHandlers();
    HTTP_set_server_idle_timeout(0);
    upnp_http_set_default_url(nullptr);
    HTTP_set_dns_and_remote_port(nullptr, 0);
    tw::http::ForgetRemoteBaseUrl();
    LeakCheck::TearDown();
  }
  void StartServer() {
    int32_t port = 0;
    HTTP_create_server_socket(&record_.http_socket, &port, "127.0.0.1");
    ASSERT_NE(record_.http_socket, -1);
    record_.http_port = port;
    upnp_start_thread(HTTP_accept, &record_, 6);
    ASSERT_TRUE(WaitFor([] { return tw::http::LiveAcceptLoops() == 1; }));
    ASSERT_TRUE(peer_.Connect(port));
  }
  HttpResponse Ask(const std::string& request, HttpPeer* peer = nullptr) {
    if (peer == nullptr) peer = &peer_;
    EXPECT_TRUE(peer->Send(request));
    return peer->ReadResponse();
  }
  std::map<std::string, std::string> Echoed(const std::string& request) {
    return Fields(Ask(request));
  }
  std::map<std::string, std::string> AskOnce(const std::string& request) {
    HttpPeer peer;
    EXPECT_TRUE(peer.Connect(record_.http_port));
    return Fields(Ask(request, &peer));
  }
  upnp_server_data record_{};
  HttpPeer peer_;
};

TEST_F(HttpWire, DispatchPicksLongestPrefixThenMethod) {
  upnp_http_register_handler(Echo<'A', 0>, HTTP_METHOD_GET, "/a", 0, 1);
  upnp_http_register_handler(Echo<'B', 0>, HTTP_METHOD_GET, "/ab", 0, 1);
  upnp_http_register_handler(Echo<'E', 0>, HTTP_METHOD_POST, "/m", 0, 1);
  upnp_http_register_handler(Echo<'F', 0>, HTTP_METHOD_GET | HTTP_METHOD_HEAD, "/m", 0, 1);
  StartServer();
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"GET /abc HTTP/1.1\r\n\r\n", "B", "1"}, {"GET /m HTTP/1.1\r\n\r\n", "F", "1"},
      {"POST /m HTTP/1.1\r\n\r\n", "E", "4"},  {"OPTIONS /m HTTP/1.1\r\n\r\n", "F", "2"},
      {"BREW /m HTTP/1.1\r\n\r\n", "F", "0"},
  };
  for (const auto& [request, tag, method] : cases) {  // all on one kept-alive connection
    auto fields = Echoed(request);
    EXPECT_EQ(fields["tag"] + fields["m"], std::string(tag) + method) << request;
  }
  EXPECT_EQ(Ask("SUBSCRIBE /m HTTP/1.1\r\n\r\n").status, 404);
}

TEST_F(HttpWire, TargetsAreRewrittenAndDecoded) {
  upnp_http_set_default_url("/desc.xml");
  upnp_http_register_handler(Echo<'A', 0>, kAllMethods, nullptr, 0, 1);
  StartServer();
  const std::string long_target = "/" + std::string(3000, 'k');
  const std::pair<std::string, std::string> cases[] = {
      {"GET http://127.0.0.1:9000/x/y?q=1 HTTP/1.1\r\n\r\n", "/x/y?q=1"},
      {"GET http://hostonly HTTP/1.1\r\n\r\n", "http://hostonly"},
      {"GET / HTTP/1.1\r\n\r\n", "/desc.xml"},
      {"GET  HTTP/1.1\r\n\r\n", "/desc.xml"},
      {"POST / HTTP/1.1\r\n\r\n", "/ContentDirectory/Control"},
      {"GET /favicon.ico HTTP/1.1\r\n\r\n", "/images/favicon.ico"},
      {"GET /a%20b+c HTTP/1.1\r\n\r\n", "/a b c"},
      {"GET " + long_target + " HTTP/1.1\r\n\r\n", long_target.substr(0, 1023)},
  };
  for (const auto& [request, url] : cases) EXPECT_EQ(Echoed(request)["url"], url) << request;
}

TEST_F(HttpWire, KeepAliveFollowsVersionConnectionHeaderAndHandlerResult) {
  upnp_http_register_handler(Echo<'K', 0>, kAllMethods, "/k", 0, 1);
  upnp_http_register_handler(Echo<'X', 1>, kAllMethods, "/bye", 0, 1);
  StartServer();
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"GET /k HTTP/1.1\r\n\r\n", "0", false},
      {"GET /k HTTP/1.1\r\nconnection: CLOSE\r\n\r\n", "1", true},
      {"GET /k HTTP/1.1\r\nConnection: Upgrade\r\n\r\n", "1", true},
      {"GET /k HTTP/1.1\r\nConnection: TE, close, Keep-Alive\r\n\r\n", "0", false},
      {"GET /k HTTP/1.1\r\nConnection: keep-alive\r\n\r\n", "0", false},
      {"GET /k HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", "1", true},
      {"GET /bye HTTP/1.1\r\n\r\n", "0", true},
  };
  for (const auto& [request, close_flag, server_closes] : cases) {
    HttpPeer peer;
    ASSERT_TRUE(peer.Connect(record_.http_port));
    EXPECT_EQ(Fields(Ask(request, &peer))["c"], close_flag) << request;
    if (server_closes) {
      EXPECT_TRUE(peer.WaitClosed()) << request;
    } else {
      EXPECT_EQ(Fields(Ask("GET /k HTTP/1.1\r\n\r\n", &peer))["tag"], "K") << request;
    }
  }
}

TEST_F(HttpWire, ContinueAndCreateObjectRules) {
  upnp_http_register_handler(Echo<'U', 0>, HTTP_METHOD_POST, "/up", 1, 1);
  StartServer();
  const std::string kContinue = "HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n";
  EXPECT_EQ(Ask("POST /up HTTP/1.1\r\nExpect: 100-Continue\r\nContent-Length: 5\r\n\r\n").head,
            kContinue);
  EXPECT_EQ(Echoed("hello")["body"], "hello");
  // Link-protected uploads get no interim answer.
  EXPECT_EQ(Echoed("POST /up HTTP/1.1\r\nExpect: 100-continue\r\nContent-Type: "
                   "application/x-dtcp1\r\nContent-Length: 2\r\n\r\nhi")["body"],
            "hi");
  // Creating an object without asking to continue is refused before any handler runs.
  const auto refused = Ask("POST /up/createobject HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi");
  EXPECT_EQ(refused.status, 400);
  EXPECT_EQ(Fields(refused).count("tag"), 0u);
  EXPECT_TRUE(peer_.WaitClosed());
  ASSERT_TRUE(peer_.Connect(record_.http_port));
  EXPECT_EQ(Ask("POST /up/createobject HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: "
                "2\r\n\r\n")
                .head,
            kContinue);
  EXPECT_EQ(Echoed("ok")["tag"], "U");
}

TEST_F(HttpWire, HandlersThatTakeBodiesGetThemWhole) {
  upnp_http_register_handler(Echo<'B', 0>, kAllMethods, "/body", 1, 1);
  upnp_http_register_handler(Echo<'N', 0>, kAllMethods, "/nobody", 0, 1);
  StartServer();
  auto fields =
      Echoed("POST /body HTTP/1.1\r\nContent-Length: 5\r\n\r\nhelloGET /nobody HTTP/1.1\r\n\r\n");
  // The pipelined request is left untouched.
  EXPECT_EQ(fields["body"] + fields["len"] + fields["q"], "hello5GET /nobody HTTP/1.1RNRN");
  EXPECT_EQ(Fields(peer_.ReadResponse())["tag"], "N");
  const char* chunked = "Transfer-Encoding: chunked\r\n\r\n4\r\nabcd\r\n3\r\nefg\r\n0\r\n\r\n";
  for (const char* method : {"POST", "NOTIFY", "SUBSCRIBE", "UNSUBSCRIBE"}) {
    fields = Echoed(std::string(method) + " /body HTTP/1.1\r\n" + chunked);
    EXPECT_EQ(fields["body"] + fields["len"], "abcdefg7") << method;
  }
  // Subscriptions only read chunked bodies; a handler without bodies never reads one.
  EXPECT_EQ(Echoed("SUBSCRIBE /body HTTP/1.1\r\nContent-Length: 0\r\n\r\n")["body"], "<none>");
  fields = Echoed("POST /nobody HTTP/1.1\r\nConnection: close\r\nContent-Length: 3\r\n\r\nxyz");
  EXPECT_EQ(fields["body"] + fields["q"], "<none>xyz");
}

TEST_F(HttpWire, HeadsAreReadExactlyWhateverTheirShape) {
  upnp_http_register_handler(Echo<'H', 0>, kAllMethods, nullptr, 0, 1);
  StartServer();
  // Byte by byte, with stray line ends and a control byte before the request line.
  const std::string head =
      "GET /slow HTTP/1.1\r\nHost: a\r\nX-Long: " + std::string(40, 'v') + "\r\n\r\n";
  for (const char byte : "\r\n\r\n\x01" + head) {
    ASSERT_TRUE(peer_.Send(std::string(1, byte)));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  auto fields = Fields(peer_.ReadResponse());
  EXPECT_EQ(fields["url"] + " " + fields["hl"], "/slow " + std::to_string(head.size()));
  // A bare LF LF does not end a head: the answer waits for CR LF CR LF.
  ASSERT_TRUE(peer_.Send("GET /lf HTTP/1.1\nHost: b\n\n"));
  EXPECT_TRUE(peer_.StaysSilent(150));
  EXPECT_EQ(Echoed("X-End: 1\r\n\r\n")["hl"],
            std::to_string(std::strlen("GET /lf HTTP/1.1\nHost: b\n\nX-End: 1\r\n\r\n")));
  // A GET carrying a chunked body: the body is drained up to its "0", nothing further.
  fields = Echoed(
      "GET /g HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"
      "GET /h HTTP/1.1\r\n\r\n");
  EXPECT_EQ(fields["url"] + fields["q"], "/gRNRNGET /h HTTP/1.1RNRN");
  EXPECT_EQ(Fields(peer_.ReadResponse())["url"], "/h");
}

TEST_F(HttpWire, OversizedHeadsAreCutServedAndSkipped) {
  upnp_http_register_handler(Echo<'O', 0>, kAllMethods, nullptr, 0, 1);
  StartServer();
  // Exactly 8191 bytes fit; one more is cut inside the blank line; far more is cut and the rest
  // skipped over several reads. Each time the cut head is served and the next request follows.
  for (size_t total : {size_t{8191}, size_t{8192}, size_t{20000}}) {
    std::string edge = "GET /edge HTTP/1.1\r\nX: ";
    edge += std::string(total - edge.size() - 4, 'e') + "\r\n\r\n";
    auto fields = Echoed(edge + "GET /next HTTP/1.1\r\n\r\n");
    EXPECT_EQ(fields["url"] + fields["hl"] + fields["tail"] + fields["q"] + "|" +
                  Fields(peer_.ReadResponse())["url"],
              "/edge8191RNRNGET /next HTTP/1.1RNRN|/next")
        << total;
  }
}

TEST_F(HttpWire, BadPeersNeverStopTheServer) {
  upnp_http_register_handler(Echo<'G', 0>, HTTP_METHOD_GET, "/", 0, 1);
  upnp_http_register_handler(Echo<'B', 0>, HTTP_METHOD_POST, "/body", 1, 1);
  StartServer();
  // An unfinished head holds its worker; others are served meanwhile.
  ASSERT_TRUE(peer_.Send("GET /held HTTP/1.1\r\nHost: x\r\n"));
  std::mt19937 random(7);
  std::string garbage(6000, '\0');
  for (char& c : garbage) c = static_cast<char>(random());
  const std::vector<std::string> inputs = {
      "GET /x HTTP/1.1\r\nHost: a\r\n",  // never ends, then end of stream
      std::string(20000, 'h'),           // never ends, far beyond the buffer
      garbage + "\r\n\r\n" + garbage,    // binary junk with a blank line inside
      "\r\n\r\n\r\n",                    // only stray line ends
  };
  for (const std::string& input : inputs) {
    HttpPeer peer;
    ASSERT_TRUE(peer.Connect(record_.http_port));
    peer.Send(input);
    peer.ShutdownWrite();
    EXPECT_TRUE(peer.WaitClosed()) << "input of " << input.size() << " bytes";
  }
  // Resets in the middle of a head, of a body, of a chunk and of a chunk's size line, sixteen
  // of each at once: every worker ends, and nothing of theirs stays allocated (the fixture).
  const char* const cut[] = {
      "GET /r HTTP/1.1\r\nHo", "POST /body HTTP/1.1\r\nContent-Length: 99\r\n\r\nab",
      "POST /body HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n10\r\nabc",
      "POST /body HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nabcd\r\n1"};
  std::vector<HttpPeer> peers(4 * 16);
  for (size_t i = 0; i < peers.size(); ++i) {
    ASSERT_TRUE(peers[i].Connect(record_.http_port));
    peers[i].Send(cut[i % 4]);
  }
  ASSERT_TRUE(WaitFor([&] { return tw::http::LiveConnectionWorkers() == 1 + 64; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // into their reads
  for (HttpPeer& peer : peers) peer.Reset();
  EXPECT_TRUE(WaitFor([] { return tw::http::LiveConnectionWorkers() == 1; }))
      << tw::http::LiveConnectionWorkers() - 1 << " workers of reset peers left";
  EXPECT_EQ(AskOnce("GET /fine HTTP/1.1\r\n\r\n")["url"], "/fine");
  EXPECT_EQ(Echoed("\r\n")["url"], "/held");
}

TEST_F(HttpWire, RemoteAccessMarksRequestsLearnsAndRewritesBaseUrls) {
  upnp_http_register_handler(Echo<'P', 0>, HTTP_METHOD_GET, "/pub", 0, 1);
  upnp_http_register_handler(Echo<'R', 0>, HTTP_METHOD_GET, "/private", 0, 0);
  record_.auth_required = 1;
  StartServer();
  EXPECT_EQ(AskOnce("GET /pub HTTP/1.1\r\n\r\n")["ra"], "0");
  HTTP_set_dns_and_remote_port("", record_.http_port);
  auto fields = AskOnce("GET /pub HTTP/1.1\r\n\r\n");
  EXPECT_EQ(fields["ra"] + fields["rp"], "11");
  EXPECT_EQ(AskOnce("GET /pub/auth/ott HTTP/1.1\r\nHost:   media.example:8080\r\n\r\n")["rp"], "0");
  char learnt[128];
  ASSERT_TRUE(tw::http::CopyRemoteBaseUrl(learnt, sizeof(learnt)));
  EXPECT_STREQ(learnt, "http://media.example:8080/");
  // Without a configured remote base only public handlers are reachable remotely.
  HttpPeer peer;
  ASSERT_TRUE(peer.Connect(record_.http_port));
  const HttpResponse refused = Ask("GET /private HTTP/1.1\r\n\r\n", &peer);
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(Fields(refused).count("tag"), 0u);
  // A server that requires authorization hands out the remote base instead of its own.
  const std::tuple<const char*, int32_t, const char*> cases[] = {
      {"http://ext.example/", 0, "http://ext.example/"},
      {"http://ext.example/", 8443, "http://ext.example:8443/"},
      {"http://ext.example/go?", 8443, "http://ext.example/go?/"}};
  for (const auto& [text, port, base] : cases) {
    HTTP_set_dns_and_remote_port(text, port);
    EXPECT_EQ(AskOnce("GET /pub/resources HTTP/1.1\r\n\r\n")["base"], base) << text;
  }
}

// Files served with HTTP_send_file from g_files: "/f/<name>" the whole file or the asked range,
// "/f/short" announcing 1000 bytes more than the file holds.
std::string g_files;
int32_t SendFileFromDisk(HttpRequest* r) {
  const std::string name = r->url + 3;
  upnp_file* file =
      upnp_file_open_read((g_files + "/" + (name == "short" ? "small" : name)).c_str());
  upnp_stat status{};
  if (file == nullptr || upnp_file_get_stat(file, &status) != 0) {
    if (file != nullptr) upnp_file_close(file);
    return HTTP_send_file_not_found(r);
  }
  r->mime_type = "application/octet-stream";
  const auto size = static_cast<int64_t>(status.size) + (name == "short" ? 1000 : 0);
  r->content_length = r->total_size = size;
  HTTP_get_range_header(r);
  int32_t code = 200;
  int64_t offset = 0;
  if (r->range_start >= 0) {
    if (r->range_end < 0 || r->range_end >= size) r->range_end = size - 1;
    offset = r->range_start;
    r->content_length = r->range_end - r->range_start + 1;
    code = 206;
  }
  const int32_t result = HTTP_send_file(r, code, file, offset);
  upnp_file_close(file);
  return result;
}

std::string Pattern(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return bytes;
}

TEST_F(HttpWire, FileBodiesKeepTheFramingOnEveryRoad) {
  TempDir dir;
  g_files = dir.path();
  const std::string small = Pattern(1000), large = Pattern(200000);
  std::ofstream(dir.path() + "/small", std::ios::binary) << small;
  std::ofstream(dir.path() + "/large", std::ios::binary) << large;
  // Big and sparse: the peer below leaves long before it could all be sent.
  const int huge = open((dir.path() + "/huge").c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_EQ(ftruncate(huge, int64_t{1} << 30), 0);
  close(huge);
  upnp_http_register_handler(SendFileFromDisk, HTTP_METHOD_GET | HTTP_METHOD_HEAD, "/f/", 0, 1);
  StartServer();
  // One kept-alive connection: a byte too many or too few and the next answer is garbled.
  const std::tuple<std::string, std::string, int, std::string> cases[] = {
      {"GET /f/small", "", 200, small},  // read and sent with its header
      {"GET /f/small", "Range: bytes=10-19\r\n", 206, small.substr(10, 10)},
      {"GET /f/large", "", 200, large},  // sendfile behind the held-back header
      {"GET /f/large", "Range: bytes=150000-\r\n", 206, large.substr(150000)},
      {"GET /f/large", "Range: bytes=5-9\r\n", 206, large.substr(5, 5)},
  };
  for (const auto& [line, extra, status, body] : cases) {
    const HttpResponse response = Ask(line + " HTTP/1.1\r\nHost: x\r\n" + extra + "\r\n");
    EXPECT_EQ(std::make_tuple(response.status, response.body.size(), response.body == body),
              std::make_tuple(status, body.size(), true))
        << line << " " << extra;
  }
  // A HEAD answer announces the length and sends nothing: the next answer follows at once.
  ASSERT_TRUE(peer_.Send("HEAD /f/large HTTP/1.1\r\nHost: x\r\n\r\n"));
  const HttpResponse head = peer_.ReadResponse(300);
  EXPECT_EQ(HeaderValue(head.head, "Content-Length") + head.body, "200000");
  EXPECT_EQ(Ask("GET /f/small HTTP/1.1\r\nHost: x\r\n\r\n").body, small);
  // A file that ends before the announced length: what there is goes out, then the connection
  // closes, as its framing is lost.
  ASSERT_TRUE(peer_.Send("GET /f/short HTTP/1.1\r\nHost: x\r\n\r\n"));
  const auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(peer_.WaitClosed());
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
  const std::string cut = peer_.ReadAll();
  EXPECT_EQ(cut.substr(cut.find("\r\n\r\n") + 4), small);
  EXPECT_NE(cut.find("Content-Length: 2000\r\n"), std::string::npos);
  // A peer that leaves in the middle of a file costs the server nothing but that connection
  // (sendfile raises SIGPIPE, which would end the whole process).
  for (int i = 0; i < 3; ++i) {
    HttpPeer leaving;
    ASSERT_TRUE(leaving.Connect(record_.http_port));
    ASSERT_TRUE(leaving.Send("GET /f/huge HTTP/1.1\r\nHost: x\r\n\r\n"));
    EXPECT_FALSE(leaving.StaysSilent(2000));
    i == 0 ? leaving.Close() : leaving.Reset();
  }
  HttpPeer after;
  ASSERT_TRUE(after.Connect(record_.http_port));
  EXPECT_EQ(Ask("GET /f/small HTTP/1.1\r\nHost: x\r\n\r\n", &after).body, small);
}

// The request road holds no allocation of its own: the record is the connection's, the head is
// composed on the stack, and lines for a silenced log are never formatted.
TEST_F(HttpWire, KeptAliveRequestsAllocateOnlyWhatTheirHandlerDoes) {
  TempDir dir;
  g_files = dir.path();
  std::ofstream(dir.path() + "/small", std::ios::binary) << Pattern(1024);
  upnp_http_register_handler(SendFileFromDisk, HTTP_METHOD_GET, "/f/", 0, 1);
  StartServer();
  const std::string request = "GET /f/small HTTP/1.1\r\nHost: x\r\nRange: bytes=0-99\r\n\r\n";
  ASSERT_EQ(Ask(request).status, 206);  // the connection's own record is made by now
  // The handler's file handle is the one block per request (the file layer allocates it).
  constexpr int kRequests = 50;
  const uint64_t before = tw::platform::AllocationCount();
  for (int i = 0; i < kRequests; ++i) ASSERT_EQ(Ask(request).body.size(), 100u);
  EXPECT_EQ(tw::platform::AllocationCount() - before, uint64_t{kRequests});
}

// Busy for longer than the idle limit of the tests below before it answers, as a handler that
// streams a long body is.
int32_t SlowEcho(HttpRequest* r) {
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  return Echo<'S', 0>(r);
}

// Ways to hold a connection without completing a head: what the peer sends at once (a whole
// request whose answer it reads first, when `answered`), then what it trickles, a byte a round.
struct HeldConnection {
  const char* what;
  std::string opening;
  bool answered;
  std::string trickle;
};

TEST_F(HttpWire, IdleLimitClosesConnectionsThatHoldTheirHeadBack) {
  upnp_http_register_handler(Echo<'I', 0>, kAllMethods, nullptr, 0, 1);
  upnp_http_register_handler(SlowEcho, kAllMethods, "/slow", 0, 1);
  HTTP_set_server_idle_timeout(1);
  StartServer();
  const std::string trickle = "X-Slow: " + std::string(200, 's');
  const std::vector<HeldConnection> cases = {
      {"silent", "", false, ""},
      {"quiet after a request", "GET /k HTTP/1.1\r\n\r\n", true, ""},
      {"dribbling a head", "GET /d HTTP/1.1\r\n", false, trickle},
      // The limit covers the whole head: also the part skipped behind a full buffer, and the
      // chunked body some clients send with a GET, which the head read drains.
      {"dribbling past the buffer", "GET /o HTTP/1.1\r\nX: " + std::string(9000, 'o'), false,
       trickle},
      {"dribbling a GET's body", "GET /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n", false,
       trickle},
  };
  using Clock = std::chrono::steady_clock;
  std::vector<HttpPeer> peers(cases.size());
  std::vector<Clock::time_point> since(cases.size());
  std::vector<double> closed_after(cases.size(), -1);
  // Its handler outlasts the limit; the request behind it is queued already, so the connection
  // never waits for a head and must be served to the end.
  HttpPeer busy;
  ASSERT_TRUE(busy.Connect(record_.http_port));
  ASSERT_TRUE(busy.Send("GET /slow HTTP/1.1\r\n\r\nGET /again HTTP/1.1\r\n\r\n"));
  for (size_t i = 0; i < cases.size(); ++i) {
    ASSERT_TRUE(peers[i].Connect(record_.http_port));
    if (cases[i].answered) {
      ASSERT_EQ(Fields(Ask(cases[i].opening, &peers[i]))["tag"], "I") << cases[i].what;
    } else if (!cases[i].opening.empty()) {
      ASSERT_TRUE(peers[i].Send(cases[i].opening));
    }
    since[i] = Clock::now();
  }
  // Rounds of about 50 ms: each trickles a byte to each open connection, looks for closes and
  // has the fixture's client ask once, which therefore never idles for long on its connection.
  int rounds = 0;
  int served = 0;
  size_t open = cases.size();
  for (; rounds < 60 && open > 0; ++rounds) {
    for (size_t i = 0; i < cases.size(); ++i) {
      if (closed_after[i] >= 0) continue;
      const std::string& bytes = cases[i].trickle;
      if (static_cast<size_t>(rounds) < bytes.size()) peers[i].Send(bytes.substr(rounds, 1));
      if (peers[i].WaitClosed(0)) {
        closed_after[i] = std::chrono::duration<double>(Clock::now() - since[i]).count();
        --open;
      }
    }
    served += Echoed("GET /alive HTTP/1.1\r\n\r\n")["tag"] == "I" ? 1 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_GE(closed_after[i], 0.75) << cases[i].what;
    EXPECT_LE(closed_after[i], 2.5) << cases[i].what;
    EXPECT_EQ(peers[i].ReadAll(0), "") << cases[i].what << ": closed without an answer";
  }
  EXPECT_EQ(served, rounds);
  EXPECT_EQ(Fields(busy.ReadResponse())["tag"], "S");
  EXPECT_EQ(Fields(busy.ReadResponse())["url"], "/again");
}

TEST_F(HttpWire, WithoutIdleLimitSilentConnectionsStayOpen) {
  upnp_http_register_handler(Echo<'I', 0>, kAllMethods, nullptr, 0, 1);
  HTTP_set_server_idle_timeout(-1);
  StartServer();
  HttpPeer negative;  // its head read starts while the limit is -1
  ASSERT_TRUE(negative.Connect(record_.http_port));
  EXPECT_TRUE(negative.StaysSilent(300));
  HTTP_set_server_idle_timeout(1);
  HTTP_set_server_idle_timeout(0);  // off again after having been on
  HttpPeer zero;
  ASSERT_TRUE(zero.Connect(record_.http_port));
  EXPECT_TRUE(zero.StaysSilent(2500));
  EXPECT_EQ(Fields(Ask("GET /n HTTP/1.1\r\n\r\n", &negative))["url"], "/n");
  EXPECT_EQ(Fields(Ask("GET /z HTTP/1.1\r\n\r\n", &zero))["url"], "/z");
}

int32_t H1(HttpRequest*) { return 0; }
int32_t H2(HttpRequest*) { return 0; }
int32_t H3(HttpRequest*) { return 0; }
int32_t tls_shutdowns = 0;

class HttpRegistry : public LeakCheck {
 protected:
  void TearDown() override {
    tw::http::ClearHandlers();
    LeakCheck::TearDown();
  }
};

TEST_F(HttpRegistry, SameUrlIsRefusedOnlyForOverlappingMethods) {
  upnp_http_register_handler(H1, HTTP_METHOD_GET, "/d", 0, 0);
  upnp_http_register_handler(H2, HTTP_METHOD_POST, "/d", 0, 0);
  upnp_http_register_handler(H3, HTTP_METHOD_GET | HTTP_METHOD_HEAD, "/d", 0, 0);
  EXPECT_EQ(upnp_http_handler_is_registered(H2), 1);
  EXPECT_EQ(upnp_http_handler_is_registered(H3), 0);
  upnp_http_register_handler(H3, HTTP_METHOD_GET, nullptr, 0, 0);
  upnp_http_register_handler(H3, HTTP_METHOD_GET, "", 0, 0);  // collides with the null URL
  upnp_http_register_handler(nullptr, HTTP_METHOD_GET, "/n", 0, 0);
  EXPECT_EQ(tw::http::FindHandler("/anything", HTTP_METHOD_GET)->handler, H3);
  EXPECT_EQ(tw::http::FindHandler("/n", HTTP_METHOD_GET)->handler, H3);
  EXPECT_EQ(upnp_http_handler_is_registered(nullptr), 0);
}

TEST_F(HttpRegistry, LongUrlsAreCutAndEqualLengthsPreferTheNewest) {
  const std::string url = "/" + std::string(2000, 'u');
  EXPECT_THAT(Logged(UPNP_LOG_HTTP,
                     [&] { upnp_http_register_handler(H1, HTTP_METHOD_GET, url.c_str(), 0, 0); }),
              HasSubstr("upnp_http_register_handler URL to int32_t for registration /uuu"));
  EXPECT_EQ(tw::http::FindHandler(url.substr(0, 1023).c_str(), HTTP_METHOD_GET)->handler, H1);
  EXPECT_EQ(tw::http::FindHandler(url.substr(0, 1022).c_str(), HTTP_METHOD_GET), nullptr);
  upnp_http_register_handler(H2, HTTP_METHOD_GET, "/e1", 0, 0);
  upnp_http_register_handler(H3, HTTP_METHOD_GET, "/e", 0, 0);
  upnp_http_register_handler(H1, HTTP_METHOD_GET, "/e2", 0, 0);
  EXPECT_EQ(tw::http::FindHandler("/e1", HTTP_METHOD_GET)->handler, H2);
  EXPECT_EQ(tw::http::FindHandler("/e2", HTTP_METHOD_GET)->handler, H1);
  EXPECT_EQ(tw::http::FindHandler("/e3", HTTP_METHOD_GET)->handler, H3);
  EXPECT_EQ(tw::http::FindHandler("/e1", HTTP_METHOD_POST), nullptr);
}

// Unregisters everything, then this program's header handlers again, in their order.
void UnregisterAllKeepingHeaderHandlers() {
  std::vector<upnp_http_header_handler_fn> kept;
  for (auto* node = tw::http::HeaderHandlers(); node != nullptr; node = node->next) {
    kept.push_back(node->handler);
  }
  http_unregister_all_handlers();
  EXPECT_EQ(tw::http::HeaderHandlers(), nullptr);
  for (auto it = kept.rbegin(); it != kept.rend(); ++it) upnp_http_register_header_handler(*it);
}

TEST_F(HttpRegistry, TlsIsShutDownOnceAfterItStarted) {
  UnregisterAllKeepingHeaderHandlers();  // clears the started mark an accept loop may have set
  tw::http::Tls().shutdown = [] { ++tls_shutdowns; };
  upnp_http_register_handler(H1, HTTP_METHOD_GET, "/t", 0, 0);
  UnregisterAllKeepingHeaderHandlers();
  EXPECT_EQ(upnp_http_handler_is_registered(H1), 0);
  EXPECT_EQ(tls_shutdowns, 0);
  EXPECT_TRUE(tw::http::MarkTlsStarted());
  EXPECT_FALSE(tw::http::MarkTlsStarted());
  UnregisterAllKeepingHeaderHandlers();
  UnregisterAllKeepingHeaderHandlers();
  EXPECT_EQ(tls_shutdowns, 1);
  tw::http::Tls().shutdown = nullptr;
}

}  // namespace
