// SPDX-License-Identifier: Apache-2.0
// Start, stop and restart against real loopback sockets: no thread outlives its generation.

#include "http/connection.h"
#include "server/server_core.h"
#include "ssdp/ssdp_fixture.h"

namespace {

using namespace tw::test;

using tw::core::LocalRecord;
using tw::core::RemoteRecord;

int32_t Load(const int32_t& field) { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); }
uint32_t Load(const uint32_t& field) { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); }

std::vector<int> Threads() {  // core, accept loops, workers, discovery
  return {tw::server::LiveThreadsForTesting(), tw::http::LiveAcceptLoops(),
          tw::http::LiveConnectionWorkers(), tw::ssdp::RunningThreadsForTesting()};
}
bool AllThreadsEnded() { return Threads() == std::vector<int>(4, 0); }
std::string ThreadReport() { return ::testing::PrintToString(Threads()); }

int CountOpenDescriptors() {
  const std::filesystem::directory_iterator fds("/proc/self/fd");
  return static_cast<int>(std::distance(begin(fds), end(fds)));
}

// A TCP socket bound to 127.0.0.1 on a free port, listening when asked; its port in *port.
int BoundSocket(int* port, bool listening) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = LoopbackAddress(0);
  socklen_t length = sizeof(address);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  if (listening) listen(fd, 4);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  *port = ntohs(address.sin_port);
  return fd;
}

// One GET with "Connection: close".
HttpResponse Get(const std::string& ip, int port, const std::string& path) {
  HttpPeer peer;
  if (!peer.Connect(port, ip)) return {};
  peer.Send("GET " + path + " HTTP/1.1\r\nHost: " + ip + "\r\nConnection: close\r\n\r\n");
  return peer.ReadResponse();
}

bool Refused(const std::string& ip, int port) { return !HttpPeer().Connect(port, ip); }

int32_t Answer(HttpRequest* request, const char* body) {
  request->mime_type = "text/plain";
  request->content_length = 4;
  return HTTP_send(request, body);
}
int32_t Pong(HttpRequest* request) { return Answer(request, "pong"); }

// A handler that holds its request until the test releases it (10 s at most).
std::atomic<int> g_held{0};
std::atomic<bool> g_release{false};
int32_t HeldAnswer(HttpRequest* request) {
  ++g_held;
  WaitFor([] { return g_release.load(); });
  return Answer(request, "late");
}

std::atomic<int> g_exit_calls{0};
void CountExit(int32_t) { ++g_exit_calls; }

class ServerLifecycle : public DiscoveryTest {
 protected:
  void SetUp() override {
    DiscoveryTest::SetUp();
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "127.0.0.1");
    register_upnp_exit_function(&CountExit);
    TW_REQUIRE_LOOPBACK_NAMESPACE();  // after the setup above, which the teardown expects
  }
  void TearDown() override {
    if (Load(g_server_running) == 1) upnp_server_stop(&g_server_running);
    EXPECT_TRUE(WaitFor(AllThreadsEnded)) << ThreadReport();
    http_unregister_all_handlers();
    ResetServer();
    register_upnp_exit_function(nullptr);
    g_exit_calls = 0;
    DiscoveryTest::TearDown();
  }
  static void ResetServer() {
    tw::server::ResetForTesting();
    tw::server::SetInterfaceSourceForTesting(nullptr);
    tw::server::SetStopPauseForTesting(-1);
    tw::server::SetRestartPauseForTesting(-1);
  }
};

TEST_F(ServerLifecycle, StartServesHttpAndStopEndsEveryThread) {
  int taken = 0;  // the configured port is taken: the server moves on, and says so everywhere
  const int blocker = BoundSocket(&taken, true);
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_HTTPPORT, std::to_string(taken).c_str());
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 0);
  upnp_server_start(&g_server_running);  // the cycles test checks the state word and generation
  ASSERT_EQ(g_nInterfaceCount, 1);
  EXPECT_STREQ(g_IPaddress[0], "127.0.0.1");
  upnp_server_data* record = getHTTPServerData(0);
  ASSERT_EQ(record, LocalRecord(0));
  EXPECT_TRUE(getHTTPServerData(1) == nullptr && getHTTPServerData(-1) == nullptr);
  const int port = record->http_port;
  EXPECT_GT(port, taken);
  EXPECT_EQ(g_localPort, port);
  EXPECT_EQ(std::string(getHttpServer()), "127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(Get("127.0.0.1", port, "/ping").body, "pong");
  EXPECT_TRUE(WaitFor([&] { return Load(record->ssdp_listen_socket) != -1; }));  // the listener's

  upnp_server_stop(&g_server_running);
  EXPECT_EQ(std::make_tuple(Load(g_server_running), Load(record->http_socket),
                            Load(record->ssdp_listen_socket)),
            std::make_tuple(0, -1, -1));
  EXPECT_TRUE(Refused("127.0.0.1", port)) << "still accepting after stop";
  close(blocker);
}

TEST_F(ServerLifecycle, StopIgnoresStoppedOrStoppingStateAndSecondStartOnlyAddsRenderer) {
  const uint32_t generation = Load(LocalRecord(0)->stop_generation);
  for (const int32_t before : {0, -1}) {
    int32_t state = before;
    upnp_server_stop(&state);
    EXPECT_EQ(state, before);
  }
  upnp_server_start(&g_server_running);
  EXPECT_EQ(tw::server::LiveThreadsForTesting(), 2);  // accept loop and listener
  upnp_server_start(&g_server_running);  // running already and no renderer: nothing more
  EXPECT_EQ(tw::server::LiveThreadsForTesting(), 2);
  EXPECT_EQ(Load(LocalRecord(0)->stop_generation), generation);
  upnp_ssdp_isRenderer();
  upnp_server_start(&g_server_running);
  EXPECT_EQ(tw::server::LiveThreadsForTesting(), 3) << "a late heartbeat for the renderer";
  EXPECT_TRUE(WaitFor([] { return upnp_ssdp_heartbeat_active() != 0; }));
}

TEST_F(ServerLifecycle, FailingHttpSocketKeepsDiscoveryThreads) {
  // Text that never binds: every one of the 1001 attempts fails, which is a critical message
  // (it goes to the exit hook) and leaves the interface without an HTTP server.
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "999.0.0.1");
  upnp_server_start(&g_server_running);
  EXPECT_EQ(std::make_tuple(Load(g_server_running), Load(LocalRecord(0)->http_socket),
                            g_exit_calls.load(), tw::http::LiveAcceptLoops()),
            std::make_tuple(1, -1, 1, 0));
  // The listener was started all the same; it cannot join on such an address and ends.
  EXPECT_TRUE(WaitFor([] { return tw::server::LiveThreadsForTesting() == 0; }));
}

std::vector<std::string> g_interfaces;
int32_t FakeInterfaces(char (*table)[17], int32_t max, const char*) {
  int32_t count = 0;
  for (; count < max && count < static_cast<int32_t>(g_interfaces.size()); ++count) {
    std::snprintf(table[count], 17, "%s", g_interfaces[count].c_str());
  }
  return count;
}

std::vector<std::string> g_dtcp_calls;  // called from the starting and stopping thread only
int32_t DtcpInit() { return (g_dtcp_calls.push_back("init"), 0); }
void DtcpExit() { g_dtcp_calls.push_back("exit"); }
int32_t DtcpListen(const char* ip, int32_t index) {
  g_dtcp_calls.push_back("listen " + std::string(ip) + " " + std::to_string(index));
  return 0;
}

TEST_F(ServerLifecycle, SameSubnetIsSkippedAndLoopbackStaysQuiet) {
  g_interfaces = {"127.0.1.5", "127.0.1.7", "127.0.0.1"};
  tw::server::SetInterfaceSourceForTesting(&FakeInterfaces);
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_DISABLELOCALSSDP, "1");
  g_dtcp_calls.clear();
  server_set_dtcp_callbacks(&DtcpInit, &DtcpExit, &DtcpListen, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr);
  upnp_server_data* skipped = LocalRecord(1);
  skipped->http_port = 4242;  // a skipped record is left exactly as it was
  upnp_server_start(&g_server_running);
  ASSERT_EQ(g_nInterfaceCount, 3);
  EXPECT_EQ(skipped->http_port, 4242);
  upnp_server_data* first = LocalRecord(0);
  upnp_server_data* loopback = LocalRecord(2);
  EXPECT_EQ(first->ip_address + std::string(" ") + loopback->ip_address, "127.0.1.5 127.0.0.1");
  EXPECT_NE(Load(loopback->http_socket), -1);
  // The loopback address gets an HTTP server but no discovery threads.
  EXPECT_TRUE(WaitFor([&] { return Load(first->ssdp_listen_socket) != -1; }));
  EXPECT_EQ(tw::server::LiveThreadsForTesting(), 3) << "two accept loops, one listener";
  EXPECT_EQ(Load(loopback->ssdp_listen_socket), -1);
  // The loopback address is last and others exist: g_localPort stays the first one's.
  EXPECT_EQ(g_localPort, first->http_port);
  EXPECT_EQ(std::string(getHttpServer()), "127.0.1.5:" + std::to_string(first->http_port));
  EXPECT_EQ(is_local_ip("127.0.1.7"), 1) << "a skipped entry still counts";
  EXPECT_EQ(Get("127.0.1.5", first->http_port, "/").status, 404);
  upnp_server_stop(&g_server_running);
  EXPECT_THAT(g_dtcp_calls, testing::ElementsAre("init", "listen 127.0.1.5 0", "listen 127.0.1.7 1",
                                                 "listen 127.0.0.1 2", "exit"));
}

TEST_F(ServerLifecycle, LoopbackKeepsDiscoveryWhenNotDisabled) {
  g_interfaces = {"127.0.0.1", "127.0.3.9"};
  tw::server::SetInterfaceSourceForTesting(&FakeInterfaces);
  upnp_server_start(&g_server_running);
  EXPECT_TRUE(WaitFor([] {
    return Load(LocalRecord(0)->ssdp_listen_socket) != -1 &&
           Load(LocalRecord(1)->ssdp_listen_socket) != -1;
  }));
  EXPECT_EQ(tw::server::LiveThreadsForTesting(), 4);
  EXPECT_EQ(g_localPort, LocalRecord(1)->http_port);
}

TEST_F(ServerLifecycle, RemoteAccessRecordGetsItsOwnSocket) {
  int remote_port = 0;
  close(BoundSocket(&remote_port, false));
  server_set_remote_port(remote_port);
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 1);
  const upnp_server_data* local = LocalRecord(0);
  upnp_server_data* remote = RemoteRecord(0);
  const std::string log = Logged(UPNP_LOG_SYSTEM, [&] {
    upnp_server_start(&g_server_running);
    EXPECT_NE(Load(remote->http_socket), -1);
    EXPECT_GE(remote->http_port, remote_port);
    EXPECT_EQ(std::make_tuple(local->remote, remote->remote, remote->auth_required),
              std::make_tuple(0, 1, 1));
    EXPECT_EQ(remote->remote_option, 1) << "enabletls defaults to 1";
    EXPECT_STREQ(remote->ip_address, "127.0.0.1");
    EXPECT_EQ(Load(remote->stop_generation), Load(local->stop_generation));
    EXPECT_TRUE(WaitFor([] { return tw::http::LiveAcceptLoops() == 2; }));
    upnp_server_stop(&g_server_running);
  });
  EXPECT_EQ(Load(remote->http_socket), -1);
  // The line names the local port (intended, see src/server/server_lifecycle.cpp).
  EXPECT_THAT(log, HasSubstr("upnp_server_start HTTP Server for remote access starting at "
                             "127.0.0.1:" +
                             std::to_string(local->http_port)));
}

TEST_F(ServerLifecycle, StopWhileRequestsAreInFlight) {
  g_held = 0;
  g_release = false;
  upnp_http_register_handler(&HeldAnswer, HTTP_METHOD_GET, "/held", 0, 0);
  upnp_server_start(&g_server_running);
  const int port = LocalRecord(0)->http_port;
  HttpResponse held;
  std::thread client([&] { held = Get("127.0.0.1", port, "/held"); });
  HttpPeer idle;  // a kept-alive connection that sends nothing
  ASSERT_TRUE(idle.Connect(port));
  ASSERT_TRUE(WaitFor([] { return g_held.load() == 1; }));
  EXPECT_TRUE(WaitFor([] { return tw::http::LiveConnectionWorkers() == 2; }));
  upnp_server_stop(&g_server_running);
  EXPECT_TRUE(WaitFor([] { return tw::http::LiveAcceptLoops() == 0; }));
  EXPECT_TRUE(Refused("127.0.0.1", port));
  EXPECT_EQ(tw::http::LiveConnectionWorkers(), 2) << "workers end with their connections";
  g_release = true;
  client.join();
  EXPECT_EQ(std::to_string(held.status) + held.body, "200late");
  idle.Close();
  EXPECT_TRUE(WaitFor(AllThreadsEnded)) << ThreadReport();
}

std::atomic<int> g_cp_calls{0}, g_nic_calls{0}, g_nic_saw_restart{0}, g_nic_saw_lock{0};
void CountControlPoint() { ++g_cp_calls; }
void NicChanged() {
  ++g_nic_calls;
  g_nic_saw_restart = upnp_server_is_in_restart();
  g_nic_saw_lock = upnp_global_lock();
  if (g_nic_saw_lock != 0) upnp_global_unlock();
}

TEST_F(ServerLifecycle, RestartFollowsAChangedInterface) {
  tw::server::SetRestartPauseForTesting(50);
  g_cp_calls = g_nic_calls = g_nic_saw_restart = g_nic_saw_lock = 0;
  server_set_cp_callback(&CountControlPoint);
  server_set_dtcp_callbacks(nullptr, nullptr, nullptr, &NicChanged, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr);
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 0);
  upnp_server_start(&g_server_running);
  upnp_server_data* record = LocalRecord(0);
  const int old_port = record->http_port;
  const uint32_t generation = Load(record->stop_generation);
  Server_trigger_NICchange();  // asked to check, nothing changed: no restart
  check_NIC_change(100);
  EXPECT_EQ(Load(record->stop_generation), generation);
  EXPECT_EQ(g_cp_calls.load(), 0);

  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "127.0.0.2");
  Server_trigger_NICchange();
  check_NIC_change(101);
  EXPECT_EQ(Load(g_server_running), 1) << "the host's state word stays 1 through a restart";
  EXPECT_EQ(upnp_server_is_in_restart(), 0);
  EXPECT_EQ(std::make_tuple(g_nic_calls.load(), g_nic_saw_restart.load(), g_cp_calls.load()),
            std::make_tuple(1, 1, 1));
  EXPECT_EQ(g_nic_saw_lock.load(), 1) << "the global lock survives a restart";
  EXPECT_EQ(Load(record->stop_generation), generation + 1);
  EXPECT_EQ(g_IPaddress[0] + std::string(" ") + record->ip_address, "127.0.0.2 127.0.0.2");
  EXPECT_EQ(Get("127.0.0.2", record->http_port, "/ping").body, "pong");
  EXPECT_TRUE(Refused("127.0.0.1", old_port));
  // The old generation's accept loop and listener are gone; the new ones run.
  EXPECT_TRUE(WaitFor([] {
    return tw::http::LiveAcceptLoops() == 1 && tw::server::LiveThreadsForTesting() == 2;
  })) << ThreadReport();
}

TEST_F(ServerLifecycle, PeriodicNicCheckIsPacedAndSwitchable) {
  upnp_server_start(&g_server_running);
  auto checked = [this](int64_t now) {
    return Logged(UPNP_LOG_SYSTEM, [&] {
             check_NIC_change(now);
           }).find("check_NIC_change IP count") != std::string::npos;
  };
  EXPECT_TRUE(checked(1000));
  EXPECT_FALSE(checked(1029));
  EXPECT_TRUE(checked(1030));
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NICRESTART, "0");
  EXPECT_FALSE(checked(5000));
  Server_trigger_NICchange();
  EXPECT_TRUE(checked(5001));
  EXPECT_FALSE(checked(5002)) << "the request is used up";
}

TEST_F(ServerLifecycle, GlobalLockWaitsForItsHolderAndIsGoneAfterStop) {
  tw::server::SetStopPauseForTesting(0);  // so only the lock can hold the stop up
  upnp_server_start(&g_server_running);
  std::atomic<int> phase{0}, relock{-1};
  std::thread holder([&] {
    if (upnp_global_lock() != 1) return;
    phase = 1;
    WaitFor([&] { return phase.load() == 2; });
    upnp_global_unlock();
    WaitFor([&] { return phase.load() == 3; });
    relock = upnp_global_lock();
  });
  ASSERT_TRUE(WaitFor([&] { return phase.load() == 1; }));
  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    upnp_server_stop(&g_server_running);
    stopped = true;
  });
  // Stop destroys the lock only after the holder left it.
  EXPECT_FALSE(WaitFor([&] { return stopped.load(); }, 500ms));
  phase = 2;
  stopper.join();
  phase = 3;
  holder.join();
  EXPECT_EQ(relock.load(), 0);
  EXPECT_EQ(upnp_global_lock(), 0);
  upnp_global_unlock();  // nothing to leave: harmless
}

TEST_F(ServerLifecycle, StopLetsTheHeartbeatSayByebye) {
  const std::string address = ProcessLoopbackAddress();
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, address.c_str());
  upnp_ssdp_isMediaServer();
  SsdpProbe probe;
  ASSERT_TRUE(probe.ok());
  probe.OnlyFrom(address);
  // NOTIFY texts with the given NTS until count of them arrived or limit passed; the searches
  // of the media server come from the same address and are not counted.
  auto notifies = [&](const std::string& nts, size_t count, std::chrono::milliseconds limit) {
    std::vector<std::string> found;
    WaitFor(
        [&] {
          for (const auto& d : probe.Collect(1, 100ms)) {
            if (d.text.find("\r\nNTS: " + nts + "\r\n") != std::string::npos)
              found.push_back(d.text);
          }
          return found.size() >= count;
        },
        limit);
    return found;
  };
  upnp_server_start(&g_server_running);
  const std::string location = "LOCATION: http://" + address + ":" +
                               std::to_string(LocalRecord(0)->http_port) +
                               "/TMSDeviceDescription.xml";
  // Two alive sets of six, then the heartbeat settles into its ticks.
  const std::vector<std::string> alive = notifies("ssdp:alive", 12, 10s);
  ASSERT_EQ(alive.size(), 12u);
  for (const std::string& text : alive) EXPECT_THAT(text, HasSubstr(location));
  EXPECT_TRUE(notifies("ssdp:alive", 1, 500ms).empty()) << "no third set so soon";
  upnp_server_stop(&g_server_running);
  EXPECT_EQ(notifies("ssdp:byebye", 11, 3s).size(), 10u)
      << "two byebye sets of five, sent before the sockets closed";
}

TEST_F(ServerLifecycle, HundredCyclesLeaveNoThreadDescriptorOrMemory) {
  // The 200 ms pause of every stop would make this test take half a minute on its own.
  tw::server::SetStopPauseForTesting(20);
  upnp_ssdp_isControlPoint(1);  // searches too: search and sender threads per cycle
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 0);
  const uint32_t generation = Load(LocalRecord(0)->stop_generation);
  int descriptors = -1;
  uint32_t memory = 0;
  for (int cycle = 0; cycle < 100; ++cycle) {
    upnp_server_start(&g_server_running);
    ASSERT_EQ(Load(g_server_running), 1);
    ASSERT_NE(Load(LocalRecord(0)->http_socket), -1) << "cycle " << cycle;
    if (cycle % 25 == 0) {
      EXPECT_EQ(Get("127.0.0.1", LocalRecord(0)->http_port, "/ping").body, "pong");
    }
    upnp_server_stop(&g_server_running);
    ASSERT_TRUE(WaitFor(AllThreadsEnded, 5s)) << "cycle " << cycle << ": " << ThreadReport();
    if (cycle == 0) {
      descriptors = CountOpenDescriptors();
      memory = upnp_mem_used();
    }
  }
  EXPECT_EQ(std::make_tuple(Load(LocalRecord(0)->stop_generation), CountOpenDescriptors(),
                            upnp_mem_used()),
            std::make_tuple(generation + 100, descriptors, memory));
}

}  // namespace
