// SPDX-License-Identifier: Apache-2.0
// Client quirks as a client sees them: requests to a running server, identified by their heads,
// answered through HTTP_send, and the records the server keeps of them.
#include <cstring>
#include <string>

#include "clientdb_fixture.h"
#include "core/network_match.h"
#include "http/connection.h"
#include "http/registry.h"
#include "support/http_peer.h"

namespace tw::test {
namespace {

const char* const kQuirkTypes =
    ">>NA:zero\n"
    ">>NA:Unknown\n"
    ">>NA:Old box\nHH:OldBox/1\nHP:1.0RESPONSE\n"
    ">>NA:Red\nHH:RedBox\nDX:REDSONIC\n"
    ">>";

// The client type the server gave the request, as the body.
int32_t Answer(HttpRequest* r) {
  static thread_local char body[32];
  std::snprintf(body, sizeof(body), "type=%d", static_cast<int>(r->client_id));
  r->mime_type = "text/plain";
  r->content_length = static_cast<int64_t>(std::strlen(body));
  return HTTP_send(r, body);
}

bool MacFor127002(const char* peer, int32_t, uint8_t mac[6]) {
  if (std::strcmp(peer, "127.0.0.2") != 0) return false;
  const uint8_t planned[6] = {0x02, 0, 0, 0, 0x7F, 0x02};
  std::memcpy(mac, planned, 6);
  return true;
}

class QuirksOnTheWire : public ClientDbTest {
 protected:
  void SetUp() override {
    ClientDbTest::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    Load(kQuirkTypes);
    tw::core::SetArpSourceForTesting(&MacFor127002);
    upnp_http_register_handler(&Answer, HTTP_METHOD_GET, "/", 0, 0);
    __atomic_store_n(&g_server_running, 1, __ATOMIC_RELEASE);
    // Served on 127.0.0.2: its clients come from that address, which has a hardware address
    // in this test, so the server keeps records of them.
    std::strcpy(record_.ip_address, "127.0.0.2");
    int32_t port = 0;
    HTTP_create_server_socket(&record_.http_socket, &port, "127.0.0.2");
    ASSERT_NE(record_.http_socket, -1);
    record_.http_port = port;
    upnp_start_thread(HTTP_accept, &record_, 6);
    ASSERT_TRUE(WaitFor([] { return tw::http::LiveAcceptLoops() == 1; }));
  }
  void TearDown() override {
    if (!IsSkipped()) {
      __atomic_add_fetch(&record_.stop_generation, 1, __ATOMIC_ACQ_REL);
      upnp_close_socket(&record_.http_socket);
      EXPECT_TRUE(WaitFor([] {
        return tw::http::LiveAcceptLoops() == 0 && tw::http::LiveConnectionWorkers() == 0;
      }));
    }
    tw::http::ClearHandlers();
    tw::core::SetArpSourceForTesting(nullptr);
    ClientDbTest::TearDown();
  }
  // One request from 127.0.0.2 (bound explicitly: the kernel would pick 127.0.0.1), read until
  // the server closes.
  HttpResponse Ask(const std::string& request) {
    HttpResponse response;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in from = LoopbackAddress(0, "127.0.0.2");
    const sockaddr_in to = LoopbackAddress(record_.http_port, "127.0.0.2");
    const timeval limit{5, 0};
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&from), sizeof(from)) != 0 ||
        connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0 ||
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(request.size())) {
      ADD_FAILURE() << "no exchange with the server";
      if (fd >= 0) close(fd);
      return response;
    }
    std::string all;
    char buffer[4096];
    for (ssize_t n; all.size() < 65536 && (n = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
      all.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    const size_t end = all.find("\r\n\r\n");
    if (end == std::string::npos) return response;
    response.head = all.substr(0, end + 4);
    response.body = all.substr(end + 4);
    return response;
  }
  static int Records() {
    tw::clientdb::Guard guard;
    int n = 0;
    for (const upnp_client* r = g_pClients; r != nullptr; r = r->next) ++n;
    return n;
  }
  upnp_server_data record_{};
};

TEST_F(QuirksOnTheWire, HeadsChooseTheResponseForm) {
  // An HTTP/1.0 request of a client without the quirk gets HTTP/1.1. (First: a device keeps
  // the type it was detected as while its heads match nothing else.)
  const HttpResponse other = Ask("GET /a HTTP/1.0\r\nHost: h\r\nUser-Agent: Else\r\n\r\n");
  EXPECT_EQ(other.head.substr(0, 17), "HTTP/1.1 200 OK\r\n") << other.head;

  const HttpResponse old_box =
      Ask("GET /a HTTP/1.0\r\nHost: h\r\nUser-Agent: OldBox/1 (kernel)\r\n\r\n");
  EXPECT_EQ(old_box.head.substr(0, 17), "HTTP/1.0 200 OK\r\n") << old_box.head;
  EXPECT_EQ(old_box.body, "type=2");

  // The short head (always HTTP/1.0) for a client that says its name in the request.
  const HttpResponse red =
      Ask("GET /a HTTP/1.1\r\nHost: h\r\nConnection: close\r\nUser-Agent: RedBox redsonic\r\n\r\n");
  EXPECT_EQ(red.head,
            "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 6\r\n"
            "Accept-Range: 0 bytes\r\nUser-Agent: redsonic\r\n\r\n");
  EXPECT_EQ(red.body, "type=3");
}

TEST_F(QuirksOnTheWire, OwnPagesLeaveNoRecordOtherRequestsDo) {
  const HttpResponse own = Ask("GET /rpc/status HTTP/1.0\r\nHost: h\r\n\r\n");
  EXPECT_EQ(own.body, "type=0");
  EXPECT_EQ(Records(), 0);
  EXPECT_FALSE(FileExists(DataPath()));
  const HttpResponse client =
      Ask("GET /a HTTP/1.1\r\nHost: h\r\nConnection: close\r\nUser-Agent: RedBox\r\n\r\n");
  EXPECT_EQ(client.body, "type=3");
  EXPECT_EQ(Records(), 1);
}

}  // namespace
}  // namespace tw::test
