// SPDX-License-Identifier: Apache-2.0
// Identification of requests and announcing devices: header matching, the steps of a request
// (own requests, by IP, by hardware address, new records), device descriptions fetched over
// loopback, and many threads identifying while the table is edited.
#include "clientdb/identify.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "clientdb_fixture.h"
#include "core/network_match.h"
#include "platform/thread_internal.h"

namespace tw::test {
namespace {

// Slot 2 is the DLNA fallback, 3 and 5 both match "acmetv" (the later wins), 4 matches only by
// its exact-case "H2:", 6 and 7 are fixed, 8 is known by its description.
const char* const kTypes =
    "comment\n"
    ">>NA:zero\n"
    ">>NA:Unknown\n"
    ">>NA:DLNA\nHH:DLNADOC/1.50\n"
    ">>NA:Acme TV\nHH:AcmeTV\nH2:Acme-Model\n"
    ">>NA:Exact\nH2:ExactCase\n"
    ">>NA:Acme any\nHH:Acme\nDV:music\n"
    ">>NA:Fixed\nHH:FixedBox\nDB:FIX\n"
    ">>NA:PcFixed\nHH:PcBox\nH2:PcBox/2\nDB:FIXPC\n"
    ">>NA:Described\nDD:<modelName>Wall Screen</modelName>\nD2:<manufacturer>Example\nHH:WallUA\n"
    ">>";

// Hardware addresses the tests hand out, by peer address.
bool PlannedArp(const char* peer, int32_t, uint8_t mac[6]) {
  const uint8_t last = static_cast<uint8_t>(
      std::strrchr(peer, '.') != nullptr ? std::atoi(std::strrchr(peer, '.') + 1) : 0);
  if (std::strncmp(peer, "192.168.7.", 10) != 0 && std::strcmp(peer, "127.0.0.2") != 0) {
    return false;
  }
  const uint8_t planned[6] = {0x02, 0x00, 0x00, 0x00, 0x07, last};
  std::memcpy(mac, planned, 6);
  return true;
}

std::atomic<int64_t> g_now{1000000};
int64_t FakeClock() { return g_now.load(); }

class IdentifyTest : public ClientDbTest {
 protected:
  void SetUp() override {
    ClientDbTest::SetUp();
    Load(kTypes);
    tw::core::SetArpSourceForTesting(&PlannedArp);
    tw::core::SetMacRetryPauseForTesting(1);
    tw::clientdb::SetClockForTesting(&FakeClock);
  }
  void TearDown() override {
    tw::clientdb::SetClockForTesting(nullptr);
    tw::core::SetMacRetryPauseForTesting(-1);
    tw::core::SetArpSourceForTesting(nullptr);
    ClientDbTest::TearDown();
  }
  static int32_t Request(const char* ip, const std::string& head) {
    return upnp_client_db_add_by_ip("http://192.168.7.1:9000/", ip, head.c_str());
  }
  static const upnp_client* RecordOf(const char* mac) {
    for (const upnp_client* r = g_pClients; r != nullptr; r = r->next) {
      if (r->mac != nullptr && std::strcmp(r->mac, mac) == 0) return r;
    }
    return nullptr;
  }
};

TEST_F(IdentifyTest, HeaderMatchingFollowsTableOrderCaseAndFixedTypes) {
  struct Case {
    const char* head;
    int32_t matched, type, fix;
    const char* pattern;
    const char* second;
    const char* name;
  } cases[] = {
      {"GET / HTTP/1.1\r\nUser-Agent: acmetv/3\r\n", 1, 5, 0, "Acme", "", "Acme any"},
      {"User-Agent: ExactCase\r\n", 1, 4, 0, "ExactCase", "ExactCase", "Exact"},
      {"User-Agent: exactcase\r\n", 0, -1, -1, nullptr, nullptr, nullptr},
      {"User-Agent: AcmeTV FixedBox\r\n", 1, 6, 1, "FixedBox", "", "Fixed"},
      {"User-Agent: PcBox\r\n", 1, 7, 2, "PcBox", "PcBox/2", "PcFixed"},
      {"User-Agent: DLNADOC/1.50\r\n", 1, 2, 0, "DLNADOC/1.50", "", "DLNA"},
      {"User-Agent: nothing known\r\n", 0, -1, -1, nullptr, nullptr, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.head);
    int32_t type = -1;
    int32_t fix = -1;
    char* pattern = nullptr;
    char* second = nullptr;
    char* name = nullptr;
    EXPECT_EQ(upnp_client_db_check_header(c.head, &type, &fix, &pattern, &second, &name),
              c.matched);
    EXPECT_EQ(type, c.type);
    EXPECT_EQ(fix, c.fix);
    for (auto [got, want] : {std::pair{pattern, c.pattern}, {second, c.second}, {name, c.name}}) {
      EXPECT_EQ(got == nullptr ? "<null>" : std::string(got), want == nullptr ? "<null>" : want);
      if (got != nullptr) upnp_free_impl(got);
    }
  }
  // Outputs may all be left out.
  EXPECT_EQ(upnp_client_db_check_header("AcmeTV", nullptr, nullptr, nullptr, nullptr, nullptr), 1);
}

TEST_F(IdentifyTest, RequestsWithoutRecords) {
  // The server's own pages and searches from its own address are not clients.
  for (const char* own : {"GET /rpc/status", "GET /configpage/x", "GET /resources/a.png",
                          "M-SEARCH * HTTP/1.1", "User-Agent: Aggregation, Tarnwick"}) {
    EXPECT_EQ(upnp_client_db_add_by_ip("http://192.168.7.1:9000/", "192.168.7.1", own), 0) << own;
  }
  EXPECT_EQ(Request(nullptr, "GET /"), 0);
  EXPECT_EQ(Request("192.168.7.9", ""), 0);
  // A peer without a hardware address is identified by its head alone and leaves no record.
  EXPECT_EQ(Request("10.1.1.1", "User-Agent: AcmeTV"), 5);
  EXPECT_EQ(Request("127.0.0.1", "User-Agent: who"), UPNP_CLIENT_TYPE_UNKNOWN);
  EXPECT_EQ(g_pClients, nullptr);
  EXPECT_FALSE(FileExists(DataPath()));
}

TEST_F(IdentifyTest, NewDevicesGetRecordsAndTheDlnaFallback) {
  EXPECT_EQ(Request("192.168.7.20", "User-Agent: AcmeTV"), 5);
  EXPECT_EQ(Request("192.168.7.21", "User-Agent: someone"), 2);  // the DLNA fallback
  const upnp_client* acme = RecordOf("02:00:00:00:07:14");
  ASSERT_NE(acme, nullptr);
  EXPECT_STREQ(acme->ip, "192.168.7.20");
  EXPECT_EQ(acme->seen, 1);
  EXPECT_EQ(acme->assignment, UPNP_CLIENT_DETECTED);
  EXPECT_STREQ(acme->header_pattern, "Acme");
  EXPECT_STREQ(acme->friendly_name, "Acme any");
  // Seen now: later requests are answered by IP, and a detected record follows its headers.
  EXPECT_EQ(Request("192.168.7.20", "User-Agent: FixedBox"), 6);
  EXPECT_EQ(acme->client_type, 6);
  EXPECT_EQ(acme->assignment, UPNP_CLIENT_FIXED);
  EXPECT_EQ(Request("192.168.7.20", "User-Agent: AcmeTV"), 6);
  // Both records are one each, not one per request.
  EXPECT_EQ(Macs(), "02:00:00:00:07:15,02:00:00:00:07:14,");
}

TEST_F(IdentifyTest, UserAssignedTypesWinOnceSeen) {
  upnp_string_free(upnp_client_add("02:00:00:00:07:1E", 4, 1, nullptr));
  // Found by hardware address, its IP stored, the user's type kept whatever the head says.
  EXPECT_EQ(Request("192.168.7.30", "User-Agent: AcmeTV"), 4);
  const upnp_client* record = RecordOf("02:00:00:00:07:1E");
  ASSERT_NE(record, nullptr);
  EXPECT_STREQ(record->ip, "192.168.7.30");
  EXPECT_EQ(record->seen, 1);
  EXPECT_EQ(Request("192.168.7.30", "User-Agent: PcBox"), 4);
  EXPECT_EQ(upnp_client_db_access_allowed("192.168.7.30"), 1);
  upnp_string_free(upnp_client_enable_by_ip("192.168.7.30", 0));
  EXPECT_EQ(upnp_client_db_access_allowed("192.168.7.30"), 0);
  upnp_client_db_set_autoenable(0);
  EXPECT_EQ(upnp_client_db_access_allowed("192.168.7.99"), 0);
  EXPECT_EQ(upnp_client_db_access_allowed(nullptr), 0);
}

TEST_F(IdentifyTest, APeerWithoutHardwareAddressIsNotAskedAgainForAMinute) {
  std::atomic<int> asked{0};
  static std::atomic<int>* counter;
  counter = &asked;
  tw::core::SetArpSourceForTesting([](const char*, int32_t, uint8_t*) {
    counter->fetch_add(1);
    return false;
  });
  Request("10.9.9.9", "User-Agent: x");
  const int first = asked.load();
  EXPECT_GT(first, 0);
  Request("10.9.9.9", "User-Agent: x");
  EXPECT_EQ(asked.load(), first);
  g_now += 60001;
  Request("10.9.9.9", "User-Agent: x");
  EXPECT_GT(asked.load(), first);
}

// Serves one description on 127.0.0.2 (an address the hardware-address plan answers for).
class DescriptionServer {
 public:
  explicit DescriptionServer(const std::string& body) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("127.0.0.2");
    socklen_t length = sizeof(address);
    ok_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(fd_, 8) == 0 &&
          getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    port_ = ntohs(address.sin_port);
    const std::string reply =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    thread_ = std::thread([this, reply] {
      pollfd p{fd_, POLLIN, 0};
      while (poll(&p, 1, 3000) == 1) {
        const int peer = accept(fd_, nullptr, nullptr);
        if (peer < 0) break;
        // Counted before answering: the client may be done before this thread runs again.
        served_.fetch_add(1);
        char head[4096];
        (void)recv(peer, head, sizeof(head), 0);
        send(peer, reply.data(), reply.size(), MSG_NOSIGNAL);
        close(peer);
      }
    });
  }
  ~DescriptionServer() {
    shutdown(fd_, SHUT_RDWR);
    close(fd_);
    if (thread_.joinable()) thread_.join();
  }
  bool ok() const { return ok_; }
  std::string Location() const { return "http://127.0.0.2:" + std::to_string(port_) + "/d.xml"; }
  int served() const { return served_.load(); }

 private:
  int fd_ = socket(AF_INET, SOCK_STREAM, 0);
  int port_ = 0;
  bool ok_ = false;
  std::atomic<int> served_{0};
  std::thread thread_;
};

const char* const kDescription =
    "<?xml version=\"1.0\"?><root><device><friendlyName>Hall screen</friendlyName>"
    "<manufacturer>Example</manufacturer><modelName>Wall Screen</modelName><iconList>"
    "<icon><mimetype>image/png</mimetype><url>/i/48.png</url></icon>"
    "<icon><mimetype>image/jpeg</mimetype><url>/i/120.jpg</url></icon></iconList>"
    "</device></root>";

std::string Alive(const std::string& location, const std::string& udn) {
  return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nLOCATION: " + location +
         "\r\nNT: upnp:rootdevice\r\nNTS: ssdp:alive\r\nUSN: " + udn + "::upnp:rootdevice\r\n\r\n";
}

TEST_F(IdentifyTest, DescriptionsNameTheDevice) {
  DescriptionServer server(kDescription);
  ASSERT_TRUE(server.ok());
  char* name = nullptr;
  char* second = nullptr;
  char* pattern = nullptr;
  char* icon = nullptr;
  char* mime = nullptr;
  int32_t type = -1;
  int32_t fix = 0;
  ASSERT_EQ(upnp_client_db_check_device_description(server.Location().c_str(), &name, &second,
                                                    &pattern, &icon, &mime, &type, &fix),
            1);
  EXPECT_EQ(type, 8);
  for (auto [got, want] : {std::pair{name, "Hall screen"},
                           {second, ""},
                           {pattern, "WallUA"},
                           {icon, "/i/48.png"},
                           {mime, "image/png"}}) {
    EXPECT_STREQ(got, want);
    upnp_free_impl(got);
  }
  // Nothing there: 0, outputs untouched.
  type = -1;
  EXPECT_EQ(upnp_client_db_check_device_description("http://127.0.0.2:1/none", nullptr, nullptr,
                                                    nullptr, nullptr, nullptr, &type, nullptr),
            0);
  EXPECT_EQ(type, -1);
}

TEST_F(IdentifyTest, AliveAnnouncementsMakeOneRecordPerDevice) {
  DescriptionServer server(kDescription);
  ASSERT_TRUE(server.ok());
  const std::string udn = "uuid:12345678-aaaa-bbbb-cccc-001122334455";
  const std::string packet = Alive(server.Location(), udn);
  for (int i = 0; i < 2; ++i) {
    void* copy = upnp_strdup_impl(packet.c_str());
    upnp_client_db_check_client(copy);  // the thread body, run here
  }
  EXPECT_EQ(server.served(), 1);  // the second announcement of the UDN is not examined
  const upnp_client* record = RecordOf("02:00:00:00:07:02");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->client_type, 8);
  EXPECT_STREQ(record->udn, udn.c_str());
  EXPECT_STREQ(record->ip, "127.0.0.2");
  EXPECT_STREQ(record->friendly_name, "Hall screen");
  EXPECT_STREQ(record->icon_url, "/i/48.png");
  EXPECT_STREQ(record->icon_mime_type, "image/png");
  // Remote UI devices and packets without a location or UDN are ignored.
  for (const std::string& ignored :
       {Alive(server.Location(), "uuid:RemoteUI-Client-Embedded-Device-1"),
        std::string("NOTIFY * HTTP/1.1\r\nUSN: uuid:abc\r\n\r\n"),
        std::string("NOTIFY * HTTP/1.1\r\nLOCATION: http://127.0.0.2/\r\n\r\n")}) {
    upnp_client_db_check_client(upnp_strdup_impl(ignored.c_str()));
  }
  EXPECT_EQ(server.served(), 1);
}

// The announcement thread owns its copy of the packet: freed by the thread, or at once when no
// thread starts.
TEST_F(IdentifyTest, AnnouncementThreadsOwnTheirCopy) {
  const uint32_t before = upnp_mem_used();
  tw::platform::SetThreadCreateForTesting(
      [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; });
  upnp_client_db_add_by_ssdp_alive("NOTIFY * HTTP/1.1\r\n\r\n");
  tw::platform::SetThreadCreateForTesting(nullptr);
  EXPECT_EQ(upnp_mem_used(), before);
  upnp_client_db_add_by_ssdp_alive("NOTIFY * HTTP/1.1\r\n\r\n");  // no location: ends at once
  EXPECT_TRUE(WaitFor([&] { return upnp_mem_used() == before; }));
}

// Request threads, announcement threads and table edits at once for ten seconds; the file stays a
// readable table throughout and nothing leaks (the fixture checks memory).
TEST_F(IdentifyTest, ConcurrentIdentificationAndEditing) {
  DescriptionServer server(kDescription);
  ASSERT_TRUE(server.ok());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const char* heads[] = {"User-Agent: AcmeTV", "User-Agent: PcBox", "User-Agent: x"};
      for (int i = 0; !stop.load() && i < 100000; ++i) {
        const std::string ip = "192.168.7." + std::to_string(40 + (i + t) % 8);
        if (Request(ip.c_str(), heads[i % 3]) <= 0) bad.fetch_add(1);
      }
    });
  }
  // Announcement threads run the body of the thread each alive announcement gets.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; !stop.load() && i < 2000; ++i) {
        const std::string udn =
            "uuid:00000000-0000-0000-000" + std::to_string(t) + "-" + std::to_string(100000 + i);
        upnp_client_db_check_client(upnp_strdup_impl(Alive(server.Location(), udn).c_str()));
      }
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; !stop.load() && i < 100000; ++i) {
      const std::string mac = "02:00:00:00:07:" + std::to_string(28 + i % 8);
      upnp_string_free(upnp_client_add(mac.c_str(), 3 + i % 4, i % 2, nullptr));
      upnp_string_free(upnp_client_enable_by_ip("192.168.7.41", i % 2));
      upnp_string_free(upnp_get_connected_client_list());
      if (i % 16 == 0) upnp_string_free(upnp_client_delete(mac.c_str()));
    }
  });
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  stop.store(true);
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(bad.load(), 0);
  // The file reads back as the table it was last written from.
  client_table_read();
  int records = 0;
  {
    tw::clientdb::Guard guard;
    for (const upnp_client* r = g_pClients; r != nullptr; r = r->next) ++records;
  }
  EXPECT_GT(records, 0);
  EXPECT_LE(records, 100);
}

}  // namespace
}  // namespace tw::test
