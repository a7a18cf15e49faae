// SPDX-License-Identifier: Apache-2.0
#include "http/connection.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "http/head_reader.h"
#include "http/registry.h"
#include "support/http_peer.h"
#include "support/test_support.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"
#include "tarnwick/server.h"

namespace {

using tw::test::HttpPeer;
using tw::test::HttpResponse;

bool WaitFor(const std::function<bool()>& done, int timeout_ms = 5000) {
  const int64_t deadline = tw::test::NowMs() + timeout_ms;
  while (!done()) {
    if (tw::test::NowMs() > deadline) return false;
    usleep(1000);
  }
  return true;
}

// Makes CR and LF visible in echoed text.
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
  size_t at = 0;
  while (at < response.body.size()) {
    const size_t end = response.body.find('\n', at);
    const std::string line = response.body.substr(at, end - at);
    const size_t eq = line.find('=');
    if (eq != std::string::npos) fields[line.substr(0, eq)] = line.substr(eq + 1);
    if (end == std::string::npos) break;
    at = end + 1;
  }
  return fields;
}

constexpr uint32_t kAllMethods = 63;

class HttpWire : public tw::test::LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    __atomic_store_n(&g_server_running, 1, __ATOMIC_RELEASE);
    std::memset(&record_, 0, sizeof(record_));
    std::strcpy(record_.ip_address, "127.0.0.1");
    record_.http_socket = -1;
  }
  void TearDown() override {
    if (!IsSkipped()) {
      __atomic_add_fetch(&record_.stop_generation, 1, __ATOMIC_ACQ_REL);
      upnp_close_socket(&record_.http_socket);
      EXPECT_TRUE(WaitFor([] {
        return tw::http::LiveAcceptLoops() == 0 && tw::http::LiveConnectionWorkers() == 0;
      })) << "server threads still running";
      __atomic_store_n(&g_server_running, 0, __ATOMIC_RELEASE);
    }
    tw::http::ClearHandlers();
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
  }
  HttpResponse Ask(HttpPeer& peer, const std::string& request) {
    EXPECT_TRUE(peer.Send(request));
    return peer.ReadResponse();
  }
  // One request on a fresh connection.
  std::map<std::string, std::string> AskOnce(const std::string& request) {
    HttpPeer peer;
    EXPECT_TRUE(peer.Connect(record_.http_port));
    return Fields(Ask(peer, request));
  }
  upnp_server_data record_;
};

TEST_F(HttpWire, DispatchPicksLongestPrefixThenMethod) {
  upnp_http_register_handler(Echo<'A', 0>, HTTP_METHOD_GET, "/a", 0, 1);
  upnp_http_register_handler(Echo<'B', 0>, HTTP_METHOD_GET, "/ab", 0, 1);
  upnp_http_register_handler(Echo<'C', 0>, HTTP_METHOD_GET, "/xy", 0, 1);
  upnp_http_register_handler(Echo<'D', 0>, HTTP_METHOD_GET, "/x", 0, 1);
  upnp_http_register_handler(Echo<'E', 0>, HTTP_METHOD_POST, "/m", 0, 1);
  upnp_http_register_handler(Echo<'F', 0>, HTTP_METHOD_GET | HTTP_METHOD_HEAD, "/m", 0, 1);
  StartServer();
  HttpPeer peer;  // all on one kept-alive connection
  ASSERT_TRUE(peer.Connect(record_.http_port));
  const struct {
    const char* request;
    const char* tag;
    const char* method;
  } cases[] = {
      {"GET /abc HTTP/1.1\r\n\r\n", "B", "1"},   {"GET /ax HTTP/1.1\r\n\r\n", "A", "1"},
      {"GET /xyz HTTP/1.1\r\n\r\n", "C", "1"},   {"GET /xz HTTP/1.1\r\n\r\n", "D", "1"},
      {"GET /m HTTP/1.1\r\n\r\n", "F", "1"},     {"POST /m HTTP/1.1\r\n\r\n", "E", "4"},
      {"OPTIONS /m HTTP/1.1\r\n\r\n", "F", "2"}, {"BREW /m HTTP/1.1\r\n\r\n", "F", "0"},
  };
  for (const auto& c : cases) {
    auto fields = Fields(Ask(peer, c.request));
    EXPECT_EQ(fields["tag"], c.tag) << c.request;
    EXPECT_EQ(fields["m"], c.method) << c.request;
  }
  EXPECT_EQ(Ask(peer, "SUBSCRIBE /m HTTP/1.1\r\n\r\n").status, 404);
  EXPECT_EQ(Ask(peer, "GET /zzz HTTP/1.1\r\n\r\n").status, 404);
}

TEST_F(HttpWire, TargetsAreRewrittenAndDecoded) {
  upnp_http_set_default_url("/desc.xml");
  upnp_http_register_handler(Echo<'A', 0>, kAllMethods, nullptr, 0, 1);
  StartServer();
  HttpPeer peer;
  ASSERT_TRUE(peer.Connect(record_.http_port));
  const std::string long_target = "/" + std::string(3000, 'k');
  const struct {
    std::string request;
    std::string url;
  } cases[] = {
      {"GET http://127.0.0.1:9000/x/y?q=1 HTTP/1.1\r\n\r\n", "/x/y?q=1"},
      {"GET http://hostonly HTTP/1.1\r\n\r\n", "http://hostonly"},
      {"GET / HTTP/1.1\r\n\r\n", "/desc.xml"},
      {"GET  HTTP/1.1\r\n\r\n", "/desc.xml"},
      {"POST / HTTP/1.1\r\n\r\n", "/ContentDirectory/Control"},
      {"GET /favicon.ico HTTP/1.1\r\n\r\n", "/images/favicon.ico"},
      {"GET /a%20b+c HTTP/1.1\r\n\r\n", "/a b c"},
      {"GET " + long_target + " HTTP/1.1\r\n\r\n", long_target.substr(0, 1023)},
  };
  for (const auto& c : cases) EXPECT_EQ(Fields(Ask(peer, c.request))["url"], c.url) << c.request;
  // Broken escapes decode by rule into something; the server answers and keeps serving.
  for (const char* broken :
       {"GET /bad% HTTP/1.1\r\n\r\n", "GET /%4 HTTP/1.1\r\n\r\n", "GET /%zz%%% HTTP/1.1\r\n\r\n"}) {
    EXPECT_EQ(Ask(peer, broken).status, 200) << broken;
  }
  EXPECT_EQ(Fields(Ask(peer, "GET /ok HTTP/1.1\r\n\r\n"))["url"], "/ok");
}

TEST_F(HttpWire, KeepAliveFollowsVersionConnectionHeaderAndHandlerResult) {
  upnp_http_register_handler(Echo<'K', 0>, kAllMethods, "/k", 0, 1);
  upnp_http_register_handler(Echo<'X', 1>, kAllMethods, "/bye", 0, 1);
  StartServer();
  const struct {
    const char* request;
    const char* close_flag;
    bool server_closes;
  } cases[] = {
      {"GET /k HTTP/1.1\r\n\r\n", "0", false},
      {"GET /k HTTP/1.1\r\nConnection: close\r\n\r\n", "1", true},
      {"GET /k HTTP/1.1\r\nconnection: CLOSE\r\n\r\n", "1", true},
      {"GET /k HTTP/1.1\r\nConnection: Upgrade\r\n\r\n", "1", true},
      {"GET /k HTTP/1.1\r\nConnection: TE, close, Keep-Alive\r\n\r\n", "0", false},
      {"GET /k HTTP/1.1\r\nConnection: keep-alive\r\n\r\n", "0", false},
      {"GET /k HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", "1", true},
      {"GET /k HTTP/1.0\r\n\r\n", "1", true},
      {"GET /bye HTTP/1.1\r\n\r\n", "0", true},
  };
  for (const auto& c : cases) {
    HttpPeer peer;
    ASSERT_TRUE(peer.Connect(record_.http_port));
    EXPECT_EQ(Fields(Ask(peer, c.request))["c"], c.close_flag) << c.request;
    if (c.server_closes) {
      EXPECT_TRUE(peer.WaitClosed()) << c.request;
    } else {
      EXPECT_EQ(Fields(Ask(peer, "GET /k HTTP/1.1\r\n\r\n"))["tag"], "K") << c.request;
    }
  }
}

TEST_F(HttpWire, ContinueAndCreateObjectRules) {
  upnp_http_register_handler(Echo<'U', 0>, HTTP_METHOD_POST, "/up", 1, 1);
  StartServer();
  const std::string kContinue = "HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n";
  HttpPeer peer;
  ASSERT_TRUE(peer.Connect(record_.http_port));
  ASSERT_TRUE(peer.Send("POST /up HTTP/1.1\r\nExpect: 100-Continue\r\nContent-Length: 5\r\n\r\n"));
  EXPECT_EQ(peer.ReadExactly(kContinue.size()), kContinue);
  EXPECT_EQ(Fields(Ask(peer, "hello"))["body"], "hello");
  // Link-protected uploads get no interim answer.
  auto response = Ask(peer,
                      "POST /up HTTP/1.1\r\nExpect: 100-continue\r\nContent-Type: "
                      "application/x-dtcp1\r\nContent-Length: 2\r\n\r\nhi");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(Fields(response)["body"], "hi");
  // Creating an object without asking to continue is refused before any handler runs.
  response = Ask(peer, "POST /up/createobject HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi");
  EXPECT_EQ(response.status, 400);
  EXPECT_EQ(Fields(response).count("tag"), 0u);
  EXPECT_TRUE(peer.WaitClosed());
  ASSERT_TRUE(peer.Connect(record_.http_port));
  ASSERT_TRUE(
      peer.Send("POST /up/createobject HTTP/1.1\r\nExpect: 100-continue\r\n"
                "Content-Length: 2\r\n\r\n"));
  EXPECT_EQ(peer.ReadExactly(kContinue.size()), kContinue);
  EXPECT_EQ(Fields(Ask(peer, "ok"))["tag"], "U");
}

TEST_F(HttpWire, HandlersThatTakeBodiesGetThemWhole) {
  upnp_http_register_handler(Echo<'B', 0>, kAllMethods, "/body", 1, 1);
  upnp_http_register_handler(Echo<'N', 0>, kAllMethods, "/nobody", 0, 1);
  StartServer();
  HttpPeer peer;
  ASSERT_TRUE(peer.Connect(record_.http_port));
  auto fields = Fields(Ask(peer,
                           "POST /body HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello"
                           "GET /nobody HTTP/1.1\r\n\r\n"));
  EXPECT_EQ(fields["body"], "hello");
  EXPECT_EQ(fields["len"], "5");
  EXPECT_EQ(fields["q"], "GET /nobody HTTP/1.1RNRN");  // the pipelined request is untouched
  EXPECT_EQ(Fields(peer.ReadResponse())["tag"], "N");
  const char* chunked = "Transfer-Encoding: chunked\r\n\r\n4\r\nabcd\r\n3\r\nefg\r\n0\r\n\r\n";
  for (const char* method : {"POST", "NOTIFY", "SUBSCRIBE", "UNSUBSCRIBE"}) {
    fields = Fields(Ask(peer, std::string(method) + " /body HTTP/1.1\r\n" + chunked));
    EXPECT_EQ(fields["body"], "abcdefg") << method;
    EXPECT_EQ(fields["len"], "7") << method;
  }
  // Subscriptions only read chunked bodies; a handler without bodies never reads one.
  EXPECT_EQ(Fields(Ask(peer, "SUBSCRIBE /body HTTP/1.1\r\nContent-Length: 0\r\n\r\n"))["body"],
            "<none>");
  fields = Fields(Ask(peer,
                      "POST /nobody HTTP/1.1\r\nConnection: close\r\nContent-Length: 3\r\n"
                      "\r\nxyz"));
  EXPECT_EQ(fields["body"], "<none>");
  EXPECT_EQ(fields["q"], "xyz");
}

TEST_F(HttpWire, HeadsAreReadExactlyWhateverTheirShape) {
  upnp_http_register_handler(Echo<'H', 0>, kAllMethods, nullptr, 0, 1);
  StartServer();
  HttpPeer peer;
  ASSERT_TRUE(peer.Connect(record_.http_port));
  // Byte by byte, with stray line ends and a control byte before the request line.
  const std::string head =
      "GET /slow HTTP/1.1\r\nHost: a\r\nX-Long: " + std::string(40, 'v') + "\r\n\r\n";
  ASSERT_TRUE(peer.SendInPieces("\r\n\r\n\x01" + head, 1, 1));
  auto fields = Fields(peer.ReadResponse());
  EXPECT_EQ(fields["url"], "/slow");
  EXPECT_EQ(fields["hl"], std::to_string(head.size()));
  // A bare LF LF does not end a head: the answer waits for CR LF CR LF.
  ASSERT_TRUE(peer.Send("GET /lf HTTP/1.1\nHost: b\n\n"));
  EXPECT_TRUE(peer.StaysSilent(150));
  fields = Fields(Ask(peer, "X-End: 1\r\n\r\n"));
  EXPECT_EQ(fields["hl"],
            std::to_string(std::strlen("GET /lf HTTP/1.1\nHost: b\n\nX-End: 1\r\n\r\n")));
  // A GET carrying a chunked body: the body is drained up to its "0", nothing further.
  fields = Fields(Ask(peer,
                      "GET /g HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n"
                      "0\r\n\r\nGET /h HTTP/1.1\r\n\r\n"));
  EXPECT_EQ(fields["url"], "/g");
  EXPECT_EQ(fields["q"], "RNRNGET /h HTTP/1.1RNRN");
  EXPECT_EQ(Fields(peer.ReadResponse())["url"], "/h");
}

TEST_F(HttpWire, OversizedHeadsAreCutServedAndSkipped) {
  upnp_http_register_handler(Echo<'O', 0>, kAllMethods, nullptr, 0, 1);
  StartServer();
  HttpPeer peer;
  ASSERT_TRUE(peer.Connect(record_.http_port));
  std::string big = "GET /big HTTP/1.1\r\n";
  while (big.size() < 20000) big += "X-Pad: " + std::string(90, 'p') + "\r\n";
  auto fields = Fields(Ask(peer, big + "\r\nGET /after HTTP/1.1\r\n\r\n"));
  EXPECT_EQ(fields["url"], "/big");
  EXPECT_EQ(fields["hl"], "8191");
  EXPECT_EQ(fields["tail"], "RNRN");
  EXPECT_EQ(fields["q"], "GET /after HTTP/1.1RNRN");
  EXPECT_EQ(Fields(peer.ReadResponse())["url"], "/after");
  // Exactly 8191 bytes fit; one more is cut, and the cut lands inside the blank line.
  for (size_t total : {size_t{8191}, size_t{8192}}) {
    std::string head = "GET /edge HTTP/1.1\r\nX: ";
    head += std::string(total - head.size() - 4, 'e') + "\r\n\r\n";
    fields = Fields(Ask(peer, head + "GET /next HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(fields["hl"], "8191") << total;
    EXPECT_EQ(fields["q"], "GET /next HTTP/1.1RNRN") << total;
    EXPECT_EQ(Fields(peer.ReadResponse())["url"], "/next") << total;
  }
}

TEST_F(HttpWire, BadPeersNeverStopTheServer) {
  upnp_http_register_handler(Echo<'G', 0>, HTTP_METHOD_GET, "/", 0, 1);
  StartServer();
  HttpPeer holder;  // an unfinished head holds its worker; others are served meanwhile
  ASSERT_TRUE(holder.Connect(record_.http_port));
  ASSERT_TRUE(holder.Send("GET /held HTTP/1.1\r\nHost: x\r\n"));
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
  for (int i = 0; i < 3; ++i) {  // resets in the middle of a head and of a body
    HttpPeer peer;
    ASSERT_TRUE(peer.Connect(record_.http_port));
    peer.Send(i == 0 ? "GET /r HTTP/1.1\r\nHo" : "POST / HTTP/1.1\r\nContent-Length: 99\r\n\r\nab");
    peer.Reset();
  }
  EXPECT_EQ(AskOnce("GET /fine HTTP/1.1\r\n\r\n")["url"], "/fine");
  EXPECT_EQ(Fields(Ask(holder, "\r\n"))["url"], "/held");
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
  fields = AskOnce("GET /pub/auth/ott HTTP/1.1\r\nHost:   media.example:8080\r\n\r\n");
  EXPECT_EQ(fields["rp"], "0");
  char learnt[128];
  ASSERT_TRUE(tw::http::CopyRemoteBaseUrl(learnt, sizeof(learnt)));
  EXPECT_STREQ(learnt, "http://media.example:8080/");
  // Without a configured remote base only public handlers are reachable remotely.
  HttpPeer peer;
  ASSERT_TRUE(peer.Connect(record_.http_port));
  const HttpResponse refused = Ask(peer, "GET /private HTTP/1.1\r\n\r\n");
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(Fields(refused).count("tag"), 0u);
  // A server that requires authorization hands out the remote base instead of its own.
  const struct {
    const char* text;
    int32_t port;
    const char* base;
  } cases[] = {{"http://ext.example/", 0, "http://ext.example/"},
               {"http://ext.example/", 8443, "http://ext.example:8443/"},
               {"http://ext.example/go?", 8443, "http://ext.example/go?/"}};
  for (const auto& c : cases) {
    HTTP_set_dns_and_remote_port(c.text, c.port);
    EXPECT_EQ(AskOnce("GET /pub/resources HTTP/1.1\r\n\r\n")["base"], c.base) << c.text;
  }
}

// Binds plain sockets (no address reuse, so they clash) to ports first..first+count-1.
bool HoldPorts(int first, int count, std::vector<int>* fds) {
  for (int port = first; port < first + count; ++port) {
    fds->push_back(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fds->back(), reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) return false;
  }
  return true;
}

int32_t g_exit_code = -1;

TEST_F(HttpWire, TakenPortsAreSkippedUpTo1001) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max < 2048 ? limit.rlim_max : 2048;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 2048) GTEST_SKIP() << "needs 2048 descriptors";
  // Below the ephemeral range, so no client socket of another test sits on these ports.
  const int first = 21000 + static_cast<int>(getpid() % 10) * 1100;
  std::vector<int> fds;
  EXPECT_TRUE(HoldPorts(first, 1000, &fds));
  int32_t socket = -1;
  int32_t port = first;
  HTTP_create_server_socket(&socket, &port, "127.0.0.1");
  EXPECT_EQ(port, first + 1000);  // the 1001st attempt
  upnp_close_socket(&socket);
  EXPECT_TRUE(HoldPorts(first + 1000, 1, &fds));
  register_upnp_exit_function([](int32_t code) { g_exit_code = code; });
  port = first;
  HTTP_create_server_socket(&socket, &port, "127.0.0.1");
  register_upnp_exit_function(nullptr);
  EXPECT_EQ(socket, -1);
  EXPECT_EQ(g_exit_code, 0);  // the critical message ended the library through the exit hook
  for (int fd : fds) close(fd);
}

// ---- The head reader on its own ----

class HttpHead : public tw::test::LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    ASSERT_TRUE(pair_.Open());
  }
  int32_t Read(char* buffer, int32_t size) {
    return HTTP_get_header(pair_.server_fd(), buffer, size);
  }
  tw::test::PeerPair pair_;
};

TEST_F(HttpHead, OneSegmentCostsTwoReceivesAndLeavesTheBody) {
  ASSERT_TRUE(pair_.client().Send("GET / HTTP/1.1\r\nHost: h\r\n\r\nBODY"));
  ASSERT_EQ(pair_.QueuedAtServer().size(), 31u);  // all of it has arrived
  char head[8192];
  const uint64_t before = tw::http::ReceiveCalls();
  EXPECT_EQ(Read(head, sizeof(head)), 27);
  EXPECT_EQ(tw::http::ReceiveCalls() - before, 2u);
  EXPECT_STREQ(head, "GET / HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(pair_.QueuedAtServer(), "BODY");
}

// ---- The registry ----

int32_t H1(HttpRequest*) { return 0; }
int32_t H2(HttpRequest*) { return 0; }
int32_t H3(HttpRequest*) { return 0; }
int32_t tls_shutdowns = 0;

class HttpRegistry : public tw::test::LeakCheck {
 protected:
  void TearDown() override {
    tw::http::ClearHandlers();
    upnp_http_set_default_url(nullptr);
    HTTP_set_dns_and_remote_port(nullptr, 0);
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
  upnp_http_register_handler(H1, HTTP_METHOD_GET, url.c_str(), 0, 0);
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

// A full unregister, after which the header handlers that other tests of this program rely on
// are registered again in their old order.
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
