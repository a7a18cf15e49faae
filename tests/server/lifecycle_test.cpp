// SPDX-License-Identifier: Apache-2.0
// Start, stop and restart of the servers against real sockets on loopback: what start makes per
// interface, what stop tears down, and that no thread outlives its generation.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "http/connection.h"
#include "server/server_core.h"
#include "ssdp/ssdp_internal.h"
#include "support/ssdp_probe.h"
#include "support/test_support.h"
#include "tarnwick/config.h"
#include "tarnwick/http.h"
#include "tarnwick/log.h"
#include "tarnwick/server.h"
#include "tarnwick/ssdp.h"

namespace {

using namespace std::chrono_literals;
using tw::core::LocalRecord;
using tw::core::RemoteRecord;

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

int32_t Load(const int32_t& field) { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); }
uint32_t Load(const uint32_t& field) { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); }

bool AllThreadsEnded() {
  return tw::server::LiveThreadsForTesting() == 0 && tw::http::LiveAcceptLoops() == 0 &&
         tw::http::LiveConnectionWorkers() == 0 && tw::ssdp::RunningThreadsForTesting() == 0;
}

std::string ThreadReport() {
  return "core " + std::to_string(tw::server::LiveThreadsForTesting()) + ", accept loops " +
         std::to_string(tw::http::LiveAcceptLoops()) + ", workers " +
         std::to_string(tw::http::LiveConnectionWorkers()) + ", discovery " +
         std::to_string(tw::ssdp::RunningThreadsForTesting());
}

int CountOpenDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int count = 0;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the directory stream's own descriptor
}

// A port that was free a moment ago on 127.0.0.1.
int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  socklen_t length = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

int Connect(const std::string& ip, int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  timeval timeout{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

struct Reply {
  int status = -1;  // -1: no connection
  std::string body;
};

// One GET with "Connection: close", read to the end (5 s receive time-out).
Reply Get(const std::string& ip, int port, const std::string& path) {
  Reply reply;
  const int fd = Connect(ip, port);
  if (fd < 0) return reply;
  const std::string request =
      "GET " + path + " HTTP/1.1\r\nHost: " + ip + "\r\nConnection: close\r\n\r\n";
  send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::string all;
  char buffer[4096];
  for (int reads = 0; reads < 1000; ++reads) {
    const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
    if (got <= 0) break;
    all.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  reply.status = 0;
  if (all.compare(0, 9, "HTTP/1.1 ") == 0) reply.status = std::atoi(all.c_str() + 9);
  const size_t body = all.find("\r\n\r\n");
  if (body != std::string::npos) reply.body = all.substr(body + 4);
  return reply;
}

int32_t Pong(HttpRequest* request) {
  request->mime_type = "text/plain";
  request->content_length = 4;
  return HTTP_send(request, "pong");
}

// A handler that holds its request until the test releases it (10 s at most).
struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  int entered = 0;
  bool open = false;
};
Gate* g_gate = nullptr;

int32_t HeldAnswer(HttpRequest* request) {
  {
    std::unique_lock<std::mutex> lock(g_gate->mutex);
    ++g_gate->entered;
    g_gate->changed.notify_all();
    g_gate->changed.wait_for(lock, 10s, [] { return g_gate->open; });
  }
  request->mime_type = "text/plain";
  request->content_length = 4;
  return HTTP_send(request, "late");
}

std::atomic<int> g_exit_calls{0};
void CountExit(int32_t) { ++g_exit_calls; }

class ServerLifecycle : public tw::test::LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    upnp_ini_file_init();
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NMCMODE, "0");
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_APPDATA, dir_.path().c_str());
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "127.0.0.1");
    tw::ssdp::ResetSettingsForTesting();
    tw::ssdp::ResetRequestsForTesting();
    tw::ssdp::ClearHandlersForTesting();
    tw::server::ResetForTesting();
    tw::server::SetInterfaceSourceForTesting(nullptr);
    tw::server::SetStopPauseForTesting(-1);
    tw::server::SetRestartPauseForTesting(-1);
    g_exit_calls = 0;
    register_upnp_exit_function(&CountExit);
    strIFblacklist[0] = '\0';
  }

  void TearDown() override {
    if (Load(g_server_running) == 1) upnp_server_stop(&g_server_running);
    EXPECT_TRUE(WaitFor(AllThreadsEnded)) << ThreadReport();
    if (log_.active()) log_.Stop();
    http_unregister_all_handlers();
    tw::server::SetInterfaceSourceForTesting(nullptr);
    tw::server::SetStopPauseForTesting(-1);
    tw::server::SetRestartPauseForTesting(-1);
    tw::server::ResetForTesting();
    SSDP_exit();
    while (upnp_ini_file_is_initialized() != 0) upnp_ini_file_release();
    register_upnp_exit_function(nullptr);
    LeakCheck::TearDown();
  }

  void StartLog() { log_.Start(UPNP_LOG_SYSTEM); }
  std::string StopLog() { return log_.Stop(); }

  static void Contains(const std::string& log, const std::string& line) {
    EXPECT_NE(log.find(line), std::string::npos) << "missing: " << line;
  }

  tw::test::TempDir dir_;
  tw::test::LogCapture log_;
};

// ---- Start and stop on one interface ---------------------------------------------------------

TEST_F(ServerLifecycle, StartServesHttpAndStopEndsEveryThread) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 0);
  const uint32_t generation = Load(LocalRecord(0)->stop_generation);
  StartLog();
  upnp_server_start(&g_server_running);
  EXPECT_EQ(Load(g_server_running), 1);
  ASSERT_EQ(g_nInterfaceCount, 1);
  EXPECT_STREQ(g_IPaddress[0], "127.0.0.1");
  upnp_server_data* record = getHTTPServerData(0);
  ASSERT_EQ(record, LocalRecord(0));
  EXPECT_EQ(getHTTPServerData(1), nullptr);
  EXPECT_EQ(getHTTPServerData(-1), nullptr);
  const int port = record->http_port;
  EXPECT_NE(Load(record->http_socket), -1);
  EXPECT_EQ(g_localPort, port);
  EXPECT_EQ(std::string(getHttpServer()), "127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(Load(record->stop_generation), generation);

  const Reply reply = Get("127.0.0.1", port, "/ping");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "pong");
  // The listener made its multicast socket on the record.
  EXPECT_TRUE(WaitFor([&] { return Load(record->ssdp_listen_socket) != -1; }));

  upnp_server_stop(&g_server_running);
  EXPECT_EQ(Load(g_server_running), 0);
  EXPECT_EQ(Load(record->http_socket), -1);
  EXPECT_EQ(Load(record->ssdp_listen_socket), -1);
  EXPECT_EQ(Load(record->stop_generation), generation + 1);
  EXPECT_TRUE(WaitFor(AllThreadsEnded)) << ThreadReport();
  EXPECT_EQ(Get("127.0.0.1", port, "/ping").status, -1) << "still accepting after stop";
  const std::string log = StopLog();
  Contains(log, "upnp_server_start IP init: 127.0.0.1");
  Contains(log, "upnp_server_start server interface 127.0.0.1");
  Contains(log, "upnp_server_start HTTP Server starting at 127.0.0.1:" + std::to_string(port));
  Contains(log, "upnp_server_stop Server stopping at 127.0.0.1");
  Contains(log, "upnp_server_stop Server terminated");
}

TEST_F(ServerLifecycle, StopIgnoresStoppedOrStoppingStateAndSecondStartOnlyAddsRenderer) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  StartLog();
  int32_t state = 0;
  upnp_server_stop(&state);
  EXPECT_EQ(state, 0);
  state = -1;
  upnp_server_stop(&state);
  EXPECT_EQ(state, -1);
  EXPECT_EQ(StopLog().find("upnp_server_stop"), std::string::npos);

  upnp_server_start(&g_server_running);
  // Accept loop and listener.
  EXPECT_EQ(tw::server::LiveThreadsForTesting(), 2);
  const uint32_t generation = Load(LocalRecord(0)->stop_generation);
  // Running already and no renderer: nothing more.
  upnp_server_start(&g_server_running);
  EXPECT_EQ(tw::server::LiveThreadsForTesting(), 2);
  EXPECT_EQ(Load(LocalRecord(0)->stop_generation), generation);

  upnp_ssdp_isRenderer();
  StartLog();
  upnp_server_start(&g_server_running);
  EXPECT_EQ(tw::server::LiveThreadsForTesting(), 3) << "a late heartbeat for the renderer";
  EXPECT_TRUE(WaitFor([] { return upnp_ssdp_heartbeat_active() != 0; }));
  Contains(StopLog(),
           "upnp_server_start CP already started internal servers, starting heartbeat for "
           "renderer only");
}

TEST_F(ServerLifecycle, TakenPortMovesToTheNextFreeOne) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const int taken = FreePort();
  const int blocker = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(taken));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(blocker, 4), 0);
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_HTTPPORT, std::to_string(taken).c_str());
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 0);

  upnp_server_start(&g_server_running);
  const int port = LocalRecord(0)->http_port;
  EXPECT_GT(port, taken);
  EXPECT_EQ(g_localPort, port);
  EXPECT_EQ(std::string(getHttpServer()), "127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(Get("127.0.0.1", port, "/ping").body, "pong");
  close(blocker);
}

TEST_F(ServerLifecycle, FailingHttpSocketKeepsDiscoveryThreads) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  // Text that never binds: every one of the 1001 attempts fails, which is a critical message
  // (it goes to the exit hook) and leaves the interface without an HTTP server.
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "999.0.0.1");
  StartLog();
  upnp_server_start(&g_server_running);
  EXPECT_EQ(Load(g_server_running), 1);
  EXPECT_EQ(Load(LocalRecord(0)->http_socket), -1);
  EXPECT_EQ(g_exit_calls.load(), 1);
  EXPECT_EQ(tw::http::LiveAcceptLoops(), 0);
  // The listener was started all the same; it cannot join on such an address and ends.
  EXPECT_TRUE(WaitFor([] { return tw::server::LiveThreadsForTesting() == 0; }));
  upnp_server_stop(&g_server_running);
  const std::string log = StopLog();
  Contains(log, "upnp_server_start Ignoring failing IP 999.0.0.1");
  EXPECT_EQ(log.find("upnp_server_start HTTP Server starting"), std::string::npos);
}

// ---- Several interfaces ----------------------------------------------------------------------

std::vector<std::string> g_interfaces;
int32_t FakeInterfaces(char (*table)[17], int32_t max, const char*) {
  int32_t count = 0;
  for (const std::string& address : g_interfaces) {
    if (count == max) break;
    std::snprintf(table[count++], 17, "%s", address.c_str());
  }
  return count;
}

std::vector<std::string> g_dtcp_calls;
std::mutex g_dtcp_mutex;
void Note(const std::string& call) {
  std::lock_guard<std::mutex> lock(g_dtcp_mutex);
  g_dtcp_calls.push_back(call);
}
int32_t DtcpInit() {
  Note("init");
  return 0;
}
void DtcpExit() { Note("exit"); }
int32_t DtcpListen(const char* ip, int32_t index) {
  Note("listen " + std::string(ip) + " " + std::to_string(index));
  return 0;
}

TEST_F(ServerLifecycle, SameSubnetIsSkippedAndLoopbackStaysQuiet) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  g_interfaces = {"127.0.1.5", "127.0.1.7", "127.0.0.1"};
  tw::server::SetInterfaceSourceForTesting(&FakeInterfaces);
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_DISABLELOCALSSDP, "1");
  g_dtcp_calls.clear();
  server_set_dtcp_callbacks(&DtcpInit, &DtcpExit, &DtcpListen, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr);
  upnp_server_data* skipped = LocalRecord(1);
  skipped->http_port = 4242;  // a skipped record is left exactly as it was

  StartLog();
  upnp_server_start(&g_server_running);
  ASSERT_EQ(g_nInterfaceCount, 3);
  EXPECT_EQ(skipped->http_port, 4242);
  upnp_server_data* first = LocalRecord(0);
  upnp_server_data* loopback = LocalRecord(2);
  EXPECT_STREQ(first->ip_address, "127.0.1.5");
  EXPECT_STREQ(loopback->ip_address, "127.0.0.1");
  EXPECT_NE(Load(first->http_socket), -1);
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
  const std::string log = StopLog();
  Contains(log, "upnp_server_start IP skipping, because same subnet as already used IP: 127.0.1.7");
  EXPECT_EQ(log.find("IP init: 127.0.1.7"), std::string::npos);
  const std::vector<std::string> expected = {"init", "listen 127.0.1.5 0", "listen 127.0.1.7 1",
                                             "listen 127.0.0.1 2", "exit"};
  EXPECT_EQ(g_dtcp_calls, expected);
}

TEST_F(ServerLifecycle, LoopbackKeepsDiscoveryWhenNotDisabled) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
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
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const int remote_port = FreePort();
  server_set_remote_port(remote_port);
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 1);
  StartLog();
  upnp_server_start(&g_server_running);
  const upnp_server_data* local = LocalRecord(0);
  upnp_server_data* remote = RemoteRecord(0);
  EXPECT_NE(Load(remote->http_socket), -1);
  EXPECT_GE(remote->http_port, remote_port);
  EXPECT_EQ(remote->remote, 1);
  EXPECT_EQ(remote->auth_required, 1);
  EXPECT_EQ(remote->remote_option, 1) << "enabletls defaults to 1";
  EXPECT_STREQ(remote->ip_address, "127.0.0.1");
  EXPECT_EQ(local->remote, 0);
  EXPECT_EQ(Load(remote->stop_generation), Load(local->stop_generation));
  EXPECT_TRUE(WaitFor([] { return tw::http::LiveAcceptLoops() == 2; }));
  upnp_server_stop(&g_server_running);
  EXPECT_EQ(Load(remote->http_socket), -1);
  const std::string log = StopLog();
  Contains(log, "upnp_server_start remote access port " + std::to_string(remote_port));
  // The local port is what this line names.
  Contains(log, "upnp_server_start HTTP Server for remote access starting at 127.0.0.1:" +
                    std::to_string(local->http_port));
}

// ---- Faults while running ----------------------------------------------------------------------

TEST_F(ServerLifecycle, StopWhileRequestsAreInFlight) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  Gate gate;
  g_gate = &gate;
  upnp_http_register_handler(&HeldAnswer, HTTP_METHOD_GET, "/held", 0, 0);
  upnp_server_start(&g_server_running);
  const int port = LocalRecord(0)->http_port;

  Reply held;
  std::thread client([&] { held = Get("127.0.0.1", port, "/held"); });
  const int idle = Connect("127.0.0.1", port);  // a kept-alive connection that sends nothing
  ASSERT_GE(idle, 0);
  {
    std::unique_lock<std::mutex> lock(gate.mutex);
    ASSERT_TRUE(gate.changed.wait_for(lock, 10s, [&] { return gate.entered == 1; }));
  }
  EXPECT_TRUE(WaitFor([] { return tw::http::LiveConnectionWorkers() == 2; }));

  upnp_server_stop(&g_server_running);
  EXPECT_TRUE(WaitFor([] { return tw::http::LiveAcceptLoops() == 0; }));
  EXPECT_EQ(Get("127.0.0.1", port, "/held").status, -1);
  EXPECT_EQ(tw::http::LiveConnectionWorkers(), 2) << "workers end with their connections";

  {
    std::lock_guard<std::mutex> lock(gate.mutex);
    gate.open = true;
  }
  gate.changed.notify_all();
  client.join();
  EXPECT_EQ(held.status, 200);
  EXPECT_EQ(held.body, "late");
  close(idle);
  EXPECT_TRUE(WaitFor(AllThreadsEnded)) << ThreadReport();
  g_gate = nullptr;
}

std::atomic<int> g_cp_calls{0};
std::atomic<int> g_nic_calls{0};
std::atomic<int> g_nic_saw_restart{0};
std::atomic<int> g_nic_saw_lock{0};
void CountControlPoint() { ++g_cp_calls; }
void NicChanged() {
  ++g_nic_calls;
  g_nic_saw_restart = upnp_server_is_in_restart();
  g_nic_saw_lock = upnp_global_lock();
  if (g_nic_saw_lock != 0) upnp_global_unlock();
}

TEST_F(ServerLifecycle, RestartFollowsAChangedInterface) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
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

  // Asked to check, nothing changed: no restart.
  StartLog();
  Server_trigger_NICchange();
  check_NIC_change(100);
  std::string log = StopLog();
  Contains(log, "check_NIC_change IP count: 1 / 1");
  Contains(log, "check_NIC_change IP verify: 127.0.0.1");
  EXPECT_EQ(Load(record->stop_generation), generation);
  EXPECT_EQ(g_cp_calls.load(), 0);

  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "127.0.0.2");
  Server_trigger_NICchange();
  StartLog();
  check_NIC_change(101);
  log = StopLog();
  Contains(log, "check_NIC_change Server restarting due to NIC changes");
  EXPECT_EQ(Load(g_server_running), 1) << "the host's state word stays 1 through a restart";
  EXPECT_EQ(upnp_server_is_in_restart(), 0);
  EXPECT_EQ(g_nic_calls.load(), 1);
  EXPECT_EQ(g_nic_saw_restart.load(), 1);
  EXPECT_EQ(g_nic_saw_lock.load(), 1) << "the global lock survives a restart";
  EXPECT_EQ(g_cp_calls.load(), 1);
  EXPECT_EQ(Load(record->stop_generation), generation + 1);
  EXPECT_STREQ(g_IPaddress[0], "127.0.0.2");
  EXPECT_STREQ(record->ip_address, "127.0.0.2");
  EXPECT_EQ(Get("127.0.0.2", record->http_port, "/ping").body, "pong");
  EXPECT_EQ(Get("127.0.0.1", old_port, "/ping").status, -1);
  // The old generation's accept loop and listener are gone; the new ones run.
  EXPECT_TRUE(WaitFor([] {
    return tw::http::LiveAcceptLoops() == 1 && tw::server::LiveThreadsForTesting() == 2;
  })) << ThreadReport();
}

TEST_F(ServerLifecycle, PeriodicNicCheckIsPacedAndSwitchable) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_server_start(&g_server_running);
  auto checked = [this](int64_t now) {
    StartLog();
    check_NIC_change(now);
    return StopLog().find("check_NIC_change IP count") != std::string::npos;
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
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  tw::server::SetStopPauseForTesting(0);  // so only the lock can hold the stop up
  upnp_server_start(&g_server_running);
  std::atomic<int> phase{0};
  std::atomic<int> relock{-1};
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
  EXPECT_TRUE(stopped.load());
  phase = 3;
  holder.join();
  EXPECT_EQ(relock.load(), 0);
  EXPECT_EQ(upnp_global_lock(), 0);
  upnp_global_unlock();  // nothing to leave: harmless
}

// ---- Announcements ---------------------------------------------------------------------------

// Texts of the NOTIFY datagrams with the given NTS value, until count arrived or limit passed.
std::vector<std::string> Notifies(tw::test::SsdpProbe& probe, const std::string& nts, size_t count,
                                  std::chrono::milliseconds limit) {
  std::vector<std::string> found;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (found.size() < count) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left <= 0ms) break;
    const std::vector<tw::test::Datagram> got = probe.Collect(1, left);
    if (got.empty()) break;
    const std::string& text = got.front().text;
    if (text.rfind("NOTIFY * HTTP/1.1", 0) == 0 &&
        text.find("NTS: " + nts + "\r\n") != std::string::npos) {
      found.push_back(text);
    }
  }
  return found;
}

TEST_F(ServerLifecycle, StopLetsTheHeartbeatSayByebye) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const std::string address = tw::test::ProcessLoopbackAddress();
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, address.c_str());
  upnp_ssdp_isMediaServer();
  tw::test::SsdpProbe probe;
  ASSERT_TRUE(probe.ok());
  probe.OnlyFrom(address);
  upnp_server_start(&g_server_running);
  const std::string location = "LOCATION: http://" + address + ":" +
                               std::to_string(LocalRecord(0)->http_port) +
                               "/TMSDeviceDescription.xml";
  // Two alive sets of six, then the heartbeat settles into its ticks. The searches of the media
  // server come from the same address and are not counted.
  const std::vector<std::string> alive = Notifies(probe, "ssdp:alive", 12, 10s);
  ASSERT_EQ(alive.size(), 12u);
  for (const std::string& text : alive) EXPECT_NE(text.find(location), std::string::npos) << text;
  EXPECT_TRUE(Notifies(probe, "ssdp:alive", 1, 500ms).empty()) << "no third set so soon";

  upnp_server_stop(&g_server_running);
  EXPECT_EQ(Notifies(probe, "ssdp:byebye", 11, 3s).size(), 10u)
      << "two byebye sets of five, sent before the sockets closed";
}

// ---- Repetition --------------------------------------------------------------------------------

TEST_F(ServerLifecycle, HundredCyclesLeaveNoThreadDescriptorOrMemory) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  // The 200 ms pause of every stop would make this test take half a minute on its own.
  tw::server::SetStopPauseForTesting(20);
  upnp_ssdp_isControlPoint(1);  // searches too: search and sender threads per cycle
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 0);
  const auto began = std::chrono::steady_clock::now();
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
  EXPECT_EQ(Load(LocalRecord(0)->stop_generation), generation + 100);
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
  EXPECT_EQ(upnp_mem_used(), memory);
  EXPECT_LT(std::chrono::steady_clock::now() - began, 60s);
}

}  // namespace
