// SPDX-License-Identifier: Apache-2.0
#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

std::string Search(const std::string& mx, const std::string& st) {
  return "M-SEARCH * HTTP/1.1\r\nMX: " + mx + "\r\nST: urn:schemas-upnp-org:device:" + st +
         "\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n";
}

class SsdpSearch : public SsdpTest {
 protected:
  void SetUp() override {
    SsdpTest::SetUp();
    group_.OnlyFrom(address_);
  }
  int32_t SearchSocket() { return ssdp::LoadSocket(&record_.ssdp_search_socket); }
  SsdpProbe group_;
};

TEST_F(SsdpSearch, ThreeRoundsAtTheInitialIntervalThenNone) {
  upnp_ssdp_set_enable_quick_msearches(1);
  upnp_ssdp_enable_search_remoteui_server(1);
  upnp_ssdp_enable_search_remoteui_client(1);
  upnp_ssdp_enable_search_igd(1);
  upnp_ssdp_set_msearch_initial_interval(1);
  SSDP_m_search(&record_);
  const std::vector<Datagram> got = group_.Collect(42, 15s);  // 3 rounds of 2 bursts of 7
  ASSERT_EQ(got.size(), 42u);
  const std::vector<std::string> texts = Fields(got, "");
  EXPECT_THAT(std::vector<std::string>(texts.begin(), texts.begin() + 7),
              ElementsAre(Search("3", "MediaRenderer:1"), Search("3", "MediaServer:1"),
                          Search("10", "MediaRenderer:1"), Search("10", "MediaServer:1"),
                          Search("3", "RemoteUIServer:1"), Search("3", "RemoteUIClient:1"),
                          Search("10", "InternetGatewayDevice:1")));
  for (size_t i = 7; i < 42; ++i) EXPECT_EQ(texts[i], texts[i % 7]) << i;
  EXPECT_EQ(got[0].port, 1030);
  EXPECT_LT(got[7].at - got[6].at, 900ms);    // the bursts of a round are 100 ms apart
  EXPECT_GE(got[14].at - got[13].at, 900ms);  // rounds are the initial interval apart
  EXPECT_GE(got[28].at - got[27].at, 900ms);
  EXPECT_TRUE(group_.Silent(1500ms)) << "a fourth round without a regular interval";
  EXPECT_TRUE(WaitFor([this] { return __atomic_load_n(&record_.search_running, 2) == 0; }));
}

TEST_F(SsdpSearch, FirstFreePortFrom1030SecondSearchWakesTheSenderAnswersReachHandlers) {
  upnp_server_data elsewhere = record_;  // an address lo has not got: no port binds
  std::snprintf(elsewhere.ip_address, sizeof(elsewhere.ip_address), "192.0.2.1");
  UdpSocket blocker, device;
  ASSERT_EQ(upnp_socket_bind(blocker, address_.c_str(), 1030), 0);
  ASSERT_EQ(upnp_socket_bind(device, "127.0.0.1", 0), 0);
  upnp_ssdp_register_handler(Record<'A'>, "a");
  upnp_ssdp_set_msearch_initial_interval(30);
  const std::string log = Logged(UPNP_LOG_SSDP | UPNP_LOG_SYSTEM, [&] {
    SSDP_m_search(&record_);
    const std::string renderer = Search("10", "MediaRenderer:1"),
                      server = Search("10", "MediaServer:1");
    EXPECT_THAT(Fields(group_.Collect(4, 10s), ""),
                ElementsAre(renderer, server, renderer, server));
    EXPECT_TRUE(group_.Silent(300ms));  // now in the 30 s wait
    SSDP_m_search(&record_);            // the socket exists: this only wakes the sender
    EXPECT_EQ(group_.Collect(4, 3s).size(), 4u);
    EXPECT_TRUE(WaitFor([] { return ssdp::RunningThreadsForTesting() == 2; }));  // receiver, sender
    EXPECT_EQ(platform::SocketLocalPort(SearchSocket()), 1031);
    const std::string text = "HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\n\r\n";
    upnp_sendto(device, text.data(), static_cast<int32_t>(text.size()), address_.c_str(), 1031);
    ASSERT_TRUE(WaitFor([&] { return !CallsWith(text).empty(); }));
    // Intended: the record's own address, not the answering device's.
    EXPECT_EQ(CallsWith(text)[0],
              CallText('A', &record_, address_, platform::SocketLocalPort(device), text));
    SSDP_m_search(&elsewhere);
    EndThreads();  // waits for the scan on the other record as well
  });
  EXPECT_THAT(log, HasSubstr("failed to get free port for " + address_ + ":1030, reason: "));
  EXPECT_THAT(log, HasSubstr("failed to get free port for 192.0.2.1:2000, reason: "));
  EXPECT_THAT(log, ::testing::Not(HasSubstr("192.0.2.1:2001")));
  EXPECT_EQ(elsewhere.ssdp_search_socket, -1);
}

}  // namespace
}  // namespace tw::test
