// SPDX-License-Identifier: Apache-2.0
// A running server on loopback for the service tests, and answers checked on a socket pair.
#pragma once

#include "http/connection.h"
#include "server/server_core.h"
#include "ssdp/ssdp_fixture.h"

namespace tw::test {

// What a sender returns and writes for a request on a socket pair, the server side closed after.
using Sent = std::pair<int32_t, std::string>;
inline Sent SendOnPair(HttpRequest& request, const std::function<int32_t(HttpRequest*)>& send) {
  PeerPair pair;
  EXPECT_TRUE(pair.Open());
  request.socket = pair.server_fd();
  const int32_t result = send(&request);
  pair.CloseServer();
  return {result, pair.client().ReadAll()};
}

// What a sender must write: the whole body under this head, or when memory runs out an empty
// answer with the fallback status (none if null) or nothing at all; never half an answer.
struct WireAnswer {
  const char* path;
  std::function<int32_t(HttpRequest*)> send;
  const char* status;
  const char* type;  // an error status forces HTML whatever the request set
  const std::string& body;
  const char* fallback;
};

inline void ExpectWholeAnswerOrNone(const WireAnswer& a) {
  EXPECT_EQ(a.send(nullptr), 1) << a.path << ": no connection";
  // Made before the loop: its own allocation must not be the one that fails.
  auto request = GetRequest(a.path, "HOST: x\r\n");
  bool fell_back = false;  // a failure that leaves the body unbuilt must still answer
  auto check = [&](const Sent& sent, bool failed) {
    const std::string& wire = sent.second;
    const std::string body = wire.substr(std::min(wire.size(), wire.find("\r\n\r\n") + 4));
    if (!failed) {
      EXPECT_EQ(sent.first, 0) << a.path;
      EXPECT_EQ(wire, std::string("HTTP/1.1 ") + a.status + "\r\nContent-Type: " + a.type +
                          "\r\nContent-Length: " + std::to_string(a.body.size()) +
                          "\r\nDate: " + HeaderValue(wire, "Date") +
                          "\r\nPragma: no-cache\r\nCache-control: no-cache\r\n"
                          "Accept-Ranges: bytes\r\nConnection: keep-alive\r\nEXT:\r\n"
                          "Server: " UPNP_SERVER_BANNER "\r\n\r\n" +
                          a.body);
    } else if (wire.empty()) {
      EXPECT_EQ(sent.first, 1) << a.path;
    } else {
      fell_back = true;
      EXPECT_EQ(wire.substr(0, 12) + "/" + HeaderValue(wire, "Content-Length") + body,
                "HTTP/1.1 " + std::string(a.fallback ? a.fallback : "-") + "/0")
          << a.path << ": " << wire;
    }
  };
  ForEachAllocFailure(
      [&] {
        request->content_length = 4321;  // the request body's length must not leak
        return SendOnPair(*request, a.send);
      },
      check);
  EXPECT_EQ(fell_back, a.fallback != nullptr) << a.path;
}

// Fresh settings; whatever the test started is stopped, and every thread has ended, before the
// leak check.
class ServerTest : public DiscoveryTest {
 protected:
  void SetUp() override {
    DiscoveryTest::SetUp();
    core::ResetDeviceUdnsForTesting();
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "127.0.0.1");
    TW_REQUIRE_LOOPBACK_NAMESPACE();  // after the setup above, which the teardown expects
  }
  void TearDown() override {
    if (__atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE) == 1) {
      upnp_server_stop(&g_server_running);
    }
    EXPECT_TRUE(WaitFor(ThreadsEnded));
    http_unregister_all_handlers();
    server::ResetForTesting();
    core::ResetDeviceUdnsForTesting();
    DiscoveryTest::TearDown();
  }
  static bool ThreadsEnded() {
    return server::LiveThreadsForTesting() == 0 && http::LiveAcceptLoops() == 0 &&
           http::LiveConnectionWorkers() == 0 && ssdp::RunningThreadsForTesting() == 0;
  }
};

}  // namespace tw::test
