// SPDX-License-Identifier: Apache-2.0
// A running server on loopback for the service tests, and one-shot exchanges with it.
#pragma once

#include "http/connection.h"
#include "server/server_core.h"
#include "ssdp/ssdp_fixture.h"

namespace tw::test {

// One request on a fresh connection; the first response. A HEAD answer announces a body that
// never comes, so its reader is given a short time.
inline HttpResponse Exchange(int port, const std::string& request,
                             const std::string& ip = "127.0.0.1", int timeout_ms = kPeerTimeoutMs) {
  HttpPeer peer;
  if (!peer.Connect(port, ip) || !peer.Send(request)) return {};
  return peer.ReadResponse(timeout_ms);
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
