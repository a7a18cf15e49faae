// SPDX-License-Identifier: Apache-2.0

#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

int g_answer_port = 0;
// Answers this process's "-queue" datagram later, through the queue.
int32_t QueueingHandler(const char* text, upnp_server_data* server, const char*, int32_t) {
  if (std::strstr(text, (std::to_string(getpid()) + "-queue").c_str()) != nullptr) {
    SSDP_queue_notify_packet(NewAnswer(2, g_answer_port, server));
  }
  return 0;
}

class SsdpListener : public SsdpTest {
 protected:
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
  UdpSocket sender_;
};

TEST_F(SsdpListener, RegistryHoldsNineteenHandlersButNoNull) {
  upnp_ssdp_register_handler(nullptr, "none");
  for (int i = 0; i < 18; ++i) upnp_ssdp_register_handler(Record<'B'>, nullptr);
  upnp_ssdp_register_handler(Record<'C'>, "19th");
  upnp_ssdp_register_handler(Record<'D'>, "20th");
  EXPECT_EQ(upnp_ssdp_handler_is_registered(Record<'C'>), 1);
  EXPECT_EQ(upnp_ssdp_handler_is_registered(Record<'D'>), 0);
  EXPECT_EQ(upnp_ssdp_handler_is_registered(nullptr), 0);
}

TEST_F(SsdpListener, HandlersGetDatagramsInOrderThenTheQueueIsWorkedOff) {
  ASSERT_EQ(upnp_socket_bind(sender_, "127.0.0.1", 0), 0);
  const int port = platform::SocketLocalPort(sender_);
  SsdpProbe answers(SsdpProbe::kUnicast);
  g_answer_port = answers.port();
  upnp_ssdp_isMediaServer();
  upnp_ssdp_register_handler(Record<'A'>, "a");
  upnp_ssdp_register_handler(Record<'B'>, "b");
  upnp_ssdp_register_handler(QueueingHandler, "queue");
  StartListener();
  const std::string token = SendUntilHandled("one");
  ASSERT_TRUE(WaitFor([&] { return CallsWith(token).size() >= 2; }));
  EXPECT_EQ(CallsWith(token)[0], CallText('A', &record_, "127.0.0.1", port, token));
  EXPECT_EQ(CallsWith(token)[1], CallText('B', &record_, "127.0.0.1", port, token));
  const std::string big = SendUntilHandled("big", 1500);  // datagrams are cut to 1024 bytes
  const std::string cut = (big + std::string(1500, 'x')).substr(0, 1024);
  EXPECT_EQ(CallsWith(big).at(0), CallText('A', &record_, "127.0.0.1", port, cut));
  SendUntilHandled("queue");
  EXPECT_EQ(answers.Collect(3, 5s).size(), 3u);
}

TEST_F(SsdpListener, ZeroLengthDatagramRestartsTheListenerANewGenerationEndsIt) {
  SetState(0);
  SSDP_listen(&record_);  // not running: returns at once, without a socket
  EXPECT_EQ(record_.ssdp_listen_socket, -1);
  SetState(1);
  upnp_ssdp_register_handler(Record<'A'>, "a");
  // Two starts: the restart is no ignored datagram.
  const std::string log = Logged(UPNP_LOG_SSDP | UPNP_LOG_SYSTEM, [&] {
    StartListener();
    ASSERT_EQ(upnp_sendto(sender_, "", 0, "239.255.255.250", 1900), 0);
    // The old listener stopped at the empty datagram: this one comes through the fresh one.
    EXPECT_FALSE(CallsWith(SendUntilHandled("after")).empty());
    NextGeneration();
    SendUntilHandled("generation");  // wakes the listener, which then sees the new generation
    EXPECT_TRUE(ThreadsEnd());
    EXPECT_NE(record_.ssdp_listen_socket, -1);  // closing it is the stop's business
  });
  EXPECT_NE(log.find("starting SSDP listen thread", log.find("starting SSDP listen thread") + 1),
            std::string::npos);
}

TEST_F(SsdpListener, FailingAddressJoinsBlacklistOnlyAfterAFirstEntry) {
  std::snprintf(record_.ip_address, sizeof(record_.ip_address), "192.168.1.5");
  SSDP_listen(&record_);  // lo has not got this address: the group cannot be joined on it
  EXPECT_STREQ(strIFblacklist, "");  // intended: "" is found in every address
  std::snprintf(strIFblacklist, sizeof(strIFblacklist), "10.0.0.9");
  SSDP_listen(&record_);
  EXPECT_STREQ(strIFblacklist, "10.0.0.9,192.168.1.5");
  std::snprintf(strIFblacklist, sizeof(strIFblacklist), "192.168.1");
  SSDP_listen(&record_);  // the address contains the blacklist: nothing added
  EXPECT_STREQ(strIFblacklist, "192.168.1");
}

// What the replaced send got: "<address>:<port> <text>" per datagram.
std::vector<std::string> g_sent;
int32_t Capture(int32_t, const char* data, int32_t length, const char* address,
                int32_t port) noexcept {
  g_sent.push_back(std::string(address) + ":" + std::to_string(port) + " " +
                   std::string(data, static_cast<size_t>(length)));
  return length;
}
// Queues an answer for the datagram's text to the sender: one due later, one already overdue
// (to the next port).
int32_t QueueTwo(const char* text, upnp_server_data* server, const char*, int32_t port) {
  SSDP_queue_notify_packet(NewAnswer(2, port, server, text));
  SSDP_queue_notify_packet(NewAnswer(-1, port + 1, server, text));
  return 0;
}

// The per-datagram work without a listener: the harnesses that feed made-up datagrams rely on
// the replaced send taking every answer, so none reaches a socket.
class SsdpDatagram : public DiscoveryTest {
 protected:
  void SetUp() override {
    DiscoveryTest::SetUp();
    g_sent.clear();
    std::lock_guard<std::mutex> lock(g_calls_mutex);
    g_calls.clear();
  }
  void TearDown() override {
    ssdp::SetSendForTesting(nullptr);
    DiscoveryTest::TearDown();
  }
};

TEST_F(SsdpDatagram, HandlersRunThenDueAnswersGoToTheReplacedSend) {
  upnp_server_data record{};
  std::snprintf(record.ip_address, sizeof(record.ip_address), "127.0.0.1");
  record.http_port = 9000;
  record.http_socket = record.ssdp_listen_socket = record.ssdp_search_socket =
      record.ssdp_notify_socket = -1;
  upnp_ssdp_isMediaServer();
  ssdp::SetSendForTesting(Capture);
  upnp_ssdp_register_handler(Record<'A'>, "a");
  upnp_ssdp_register_handler(QueueTwo, "queue");
  ssdp::HandleDatagram("upnp:rootdevice", &record, "10.1.2.3", 40000);
  EXPECT_THAT(CallsWith("rootdevice"),
              ElementsAre(CallText('A', &record, "10.1.2.3", 40000, "upnp:rootdevice")));
  // The due answer three times to its searcher; the overdue one stays queued, unsent.
  ASSERT_EQ(g_sent.size(), 3u);
  for (const std::string& sent : g_sent) {
    EXPECT_EQ(sent.rfind("127.0.0.1:40000 HTTP/1.1 200 OK\r\n", 0), 0u) << sent;
    EXPECT_NE(sent.find("\r\nST: upnp:rootdevice\r\n"), std::string::npos) << sent;
  }
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 1);
}

class SsdpQueue : public SsdpTest {
 protected:
  upnp_ssdp_answer* New(int32_t delay, const std::string& target = "upnp:rootdevice") {
    return NewAnswer(delay, probe_.port(), &record_, target);
  }
  SsdpProbe probe_{SsdpProbe::kUnicast};
};

TEST_F(SsdpQueue, AnswerDueLaterIsSentThreeTimesOverdueOneStaysUntilCleared) {
  upnp_ssdp_isRenderer();
  SSDP_init();
  SSDP_queue_notify_packet(nullptr);
  // Intended: an answer is valid until its due time; an overdue one is never sent.
  SSDP_queue_notify_packet(New(-2, kRendererUdn));
  const std::string type = "urn:schemas-upnp-org:device:MediaRenderer:1";
  upnp_ssdp_answer* later = New(3, type);
  const int32_t before = static_cast<int32_t>(getSystemTime() / 1000);
  SSDP_queue_notify_packet(later);
  EXPECT_GE(later->due, before + 3);
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 2);
  SSDP_process_queued_notify_packets();
  const std::string answer = Answer(Location("TMRDevice"), type, kRendererUdn + "::" + type);
  EXPECT_THAT(Fields(Drain(probe_), ""), ElementsAre(answer, answer, answer));
  SSDP_process_queued_notify_packets();
  EXPECT_TRUE(probe_.Silent(200ms));
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 1);
  SSDP_queue_clear();
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 0);
  SSDP_exit();  // the next queue call makes the lock again
  SSDP_queue_notify_packet(New(-2));
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 1);
}

TEST_F(SsdpQueue, AnswerWithoutNodeMemoryStaysWithTheCaller) {
  upnp_ssdp_answer* answer = New(1);
  SSDP_init();
  platform::FailAllocAfter(0);
  SSDP_queue_notify_packet(answer);
  EXPECT_TRUE(platform::AllocFailureFired());
  platform::ClearAllocFailure();
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 0);
  upnp_free_impl(answer);
}

TEST_F(SsdpQueue, ConcurrentQueueingAndWorkingOff) {
  std::vector<std::thread> threads;  // overdue answers only: nothing is sent
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < 50; ++i) {
        SSDP_queue_notify_packet(New(-5));
        SSDP_process_queued_notify_packets();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 200);
}

}  // namespace
}  // namespace tw::test
