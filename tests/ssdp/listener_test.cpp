// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "platform/socket.h"
#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

using ::testing::HasSubstr;

struct Call {
  char handler;
  std::string text;
  upnp_server_data* server;
  std::string address;
  int32_t port;
};
std::mutex g_mutex;
std::vector<Call> g_calls;
std::string g_queue_token = "<unset>";
int g_answer_port = 0;

template <char kName>
int32_t Handler(const char* text, upnp_server_data* server, const char* address, int32_t port) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_calls.push_back({kName, text, server, address, port});
  return 0;
}
// Answers the token's datagram later, through the queue.
int32_t QueueingHandler(const char* text, upnp_server_data* server, const char*, int32_t) {
  if (std::strstr(text, g_queue_token.c_str()) == nullptr) return 0;
  auto* answer = static_cast<upnp_ssdp_answer*>(upnp_calloc_impl(1, sizeof(upnp_ssdp_answer)));
  *answer = {2, "upnp:rootdevice", "127.0.0.1", g_answer_port, server, 0};
  SSDP_queue_notify_packet(answer);
  return 0;
}
std::vector<Call> CallsWith(const std::string& token) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<Call> found;
  for (const Call& call : g_calls) {
    if (call.text.find(token) != std::string::npos) found.push_back(call);
  }
  return found;
}

class SsdpListener : public SsdpTest {
 protected:
  void SetUp() override {
    SsdpTest::SetUp();
    if (InLoopbackOnlyNamespace()) sender_ = upnp_socket_create_udp();
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.clear();
  }
  void TearDown() override {
    upnp_close_socket(&sender_);
    SsdpTest::TearDown();
  }
  void StartListener() {
    upnp_start_thread(SSDP_listen, &record_, 5);
    ASSERT_TRUE(WaitFor([this] { return ssdp::LoadSocket(&record_.ssdp_listen_socket) != -1; }));
  }
  // Sends "<pid>-<name>" plus padding to the group until a handler saw it: a listener that is
  // restarting (maybe by another test program's empty datagram) misses datagrams.
  std::string SendUntilHandled(const std::string& name, size_t padding = 0) {
    const std::string token = std::to_string(getpid()) + "-" + name;
    const std::string text = token + std::string(padding, 'x');
    for (int i = 0; i < 25 && CallsWith(token).empty(); ++i) {
      upnp_sendto(sender_, text.data(), static_cast<int32_t>(text.size()), "239.255.255.250", 1900);
      WaitFor([&] { return !CallsWith(token).empty(); }, 200ms);
    }
    return token;
  }
  int32_t sender_ = -1;
};

TEST_F(SsdpListener, RegistryHoldsNineteenHandlers) {
  StartLog();
  upnp_ssdp_register_handler(nullptr, "none");
  upnp_ssdp_register_handler(Handler<'A'>, "first");
  for (int i = 0; i < 19; ++i) upnp_ssdp_register_handler(Handler<'B'>, nullptr);
  const std::string log = StopLog();
  EXPECT_THAT(log, HasSubstr("upnp_ssdp_register_handler missing handler function for"));
  EXPECT_THAT(log, HasSubstr("upnp_ssdp_register_handler registered handler first"));
  EXPECT_THAT(log, HasSubstr("upnp_ssdp_register_handler Too many callback handlers registered"));
  EXPECT_EQ(upnp_ssdp_handler_is_registered(Handler<'B'>), 1);
  EXPECT_EQ(upnp_ssdp_handler_is_registered(QueueingHandler), 0);
  EXPECT_EQ(upnp_ssdp_handler_is_registered(nullptr), 0);
}

TEST_F(SsdpListener, HandlersGetDatagramsInOrderThenTheQueueIsWorkedOff) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  ASSERT_EQ(upnp_socket_bind(sender_, "127.0.0.1", 0), 0);
  SsdpProbe answers(SsdpProbe::kUnicast);
  g_answer_port = answers.port();
  g_queue_token = std::to_string(getpid()) + "-queue";
  upnp_ssdp_isMediaServer();
  upnp_ssdp_register_handler(Handler<'A'>, "a");
  upnp_ssdp_register_handler(Handler<'B'>, "b");
  upnp_ssdp_register_handler(QueueingHandler, "queue");
  StartLog();
  StartListener();
  const std::string token = SendUntilHandled("one");
  ASSERT_TRUE(WaitFor([&] { return CallsWith(token).size() >= 2; }));
  const std::vector<Call> calls = CallsWith(token);
  EXPECT_EQ(std::string() + calls[0].handler + calls[1].handler, "AB");
  for (const Call& call : calls) {
    EXPECT_EQ(call.text, token);
    EXPECT_EQ(call.server, &record_);
    EXPECT_EQ(call.address, "127.0.0.1");
    EXPECT_EQ(call.port, platform::SocketLocalPort(sender_));
  }
  const std::vector<Call> big = CallsWith(SendUntilHandled("big", 1500));
  ASSERT_FALSE(big.empty());
  EXPECT_EQ(big[0].text.size(), 1024u);  // datagrams are cut to 1024 bytes

  SendUntilHandled("queue");
  const std::vector<Datagram> got = answers.Collect(3, 5s);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(MaskDate(got[2].text), Answer(Location("/TMSDeviceDescription.xml"), "upnp:rootdevice",
                                          kServerUdn + "::upnp:rootdevice"));
  EndThreads();
  const std::string log = StopLog();
  EXPECT_THAT(log, HasSubstr("starting SSDP listen thread"));
  EXPECT_THAT(log, HasSubstr("SSDP terminated listen thread"));
}

TEST_F(SsdpListener, ZeroLengthDatagramRestartsTheListener) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_register_handler(Handler<'A'>, "a");
  StartLog();
  StartListener();
  ASSERT_EQ(upnp_sendto(sender_, "", 0, "239.255.255.250", 1900), 0);
  // The old listener stops receiving at the empty datagram: what is handled later came through
  // the fresh one.
  EXPECT_FALSE(CallsWith(SendUntilHandled("after")).empty());
  EndThreads();
  const std::string log = StopLog();
  EXPECT_THAT(log, HasSubstr("socket received bad value: 0 bytes"));
  const size_t first = log.find("starting SSDP listen thread");
  EXPECT_NE(log.find("starting SSDP listen thread", first + 1), std::string::npos);
}

TEST_F(SsdpListener, ListenerEndsOnANewGenerationAndNeedsTheRunningState) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_register_handler(Handler<'A'>, "a");
  SetState(0);
  SSDP_listen(&record_);  // not running: returns at once, without a socket
  EXPECT_EQ(record_.ssdp_listen_socket, -1);
  SetState(1);
  StartListener();
  __atomic_add_fetch(&record_.stop_generation, 1, __ATOMIC_ACQ_REL);
  SendUntilHandled("generation");  // wakes the listener, which then sees the new generation
  EXPECT_TRUE(WaitFor([] { return ssdp::RunningThreadsForTesting() == 0; }));
  EXPECT_NE(record_.ssdp_listen_socket, -1);  // closing it is the stop's business
}

TEST_F(SsdpListener, FailingAddressJoinsBlacklistOnlyAfterAFirstEntry) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  std::snprintf(record_.ip_address, sizeof(record_.ip_address), "192.168.1.5");
  StartLog();
  SSDP_listen(&record_);  // lo has not got this address: the group cannot be joined on it
  EXPECT_STREQ(strIFblacklist, "");  // intended: "" is found in every address
  std::snprintf(strIFblacklist, sizeof(strIFblacklist), "10.0.0.9");
  SSDP_listen(&record_);
  EXPECT_STREQ(strIFblacklist, "10.0.0.9,192.168.1.5");
  std::snprintf(strIFblacklist, sizeof(strIFblacklist), "192.168.1");
  SSDP_listen(&record_);  // the address contains the blacklist: nothing added
  EXPECT_STREQ(strIFblacklist, "192.168.1");
  const std::string log = StopLog();
  EXPECT_THAT(log, HasSubstr("Could not create listen socket for IP 192.168.1.5!"));
  EXPECT_THAT(log, HasSubstr("SSDP terminated listen thread"));
}

}  // namespace
}  // namespace tw::test
