// SPDX-License-Identifier: Apache-2.0
// Which served interface a peer's address belongs to, and the peer MAC lookup.
#include "core/network_match.h"

#include "core/core.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

// Fills the served table directly (no sockets): addresses and ports by index.
class NetworkMatch : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    saved_count_ = tw::core::InterfaceCount();
  }
  void TearDown() override {
    char table[5][17] = {};
    for (int i = 0; i < 5; ++i) std::memcpy(table[i], g_IPaddress[i], 17);
    tw::core::PublishInterfaces(table, saved_count_);
    tw::core::SetArpSourceForTesting(nullptr);
    tw::core::SetMacRetryPauseForTesting(-1);
    LeakCheck::TearDown();
  }
  static void Serve(const std::vector<std::pair<std::string, int>>& served) {
    char table[5][17] = {};
    int32_t count = 0;
    for (const auto& [address, port] : served) {
      std::snprintf(table[count], 17, "%s", address.c_str());
      upnp_server_data* record = tw::core::LocalRecord(count);
      std::snprintf(record->ip_address, sizeof(record->ip_address), "%s", address.c_str());
      record->http_port = port;
      ++count;
    }
    tw::core::PublishInterfaces(table, count);
  }
  int32_t saved_count_ = 0;
};

TEST_F(NetworkMatch, PeerMatchesTheRecordOfItsNetwork) {
  Serve({{"192.168.1.5", 9000}, {"10.0.0.2", 9100}});
  char* local = nullptr;
  int32_t port = -1, reserved = -1;
  EXPECT_EQ(upnp_get_matching_local_server("10.0.0.7", &local, &port, &reserved), 0);
  EXPECT_EQ(Str(local), "10.0.0.2");
  EXPECT_EQ(std::make_pair(port, reserved), std::make_pair(9100, 0));
  port = reserved = -1;  // outputs start at 0 whatever the result
  local = nullptr;
  EXPECT_EQ(upnp_get_matching_local_server("abc", &local, &port, &reserved), 2);
  EXPECT_EQ(std::make_tuple(local, port, reserved), std::make_tuple(nullptr, 0, 0));
  const std::pair<const char*, int32_t> bad[] = {
      {"", 2}, {nullptr, 2}, {"12", 14}, {"10.0.1.7", 14}};
  for (const auto& [peer, result] : bad) {
    EXPECT_EQ(upnp_get_matching_local_server(peer, nullptr, nullptr, nullptr), result);
  }
  // Text comparison up to the peer's last dot: a shorter peer prefix matches more.
  EXPECT_EQ(upnp_get_matching_local_server("192.168.7", nullptr, &port, nullptr), 0);
  EXPECT_EQ(port, 9000);
  EXPECT_EQ(upnp_server_is_local_network("192.168.1.200"), 1);
  EXPECT_EQ(upnp_server_is_local_network("192.168.2.5") + upnp_server_is_local_network("x"), 0);
  EXPECT_EQ(Str(upnp_get_matching_local_ip("192.168.1.77")), "192.168.1.5");
  EXPECT_EQ(upnp_get_matching_local_ip("172.16.0.1"), nullptr);
}

TEST_F(NetworkMatch, OutOfMemoryGivesEightAndNoCopy) {
  Serve({{"10.0.0.2", 9100}});
  char* local = reinterpret_cast<char*>(1);
  int32_t port = 0;
  tw::platform::FailAllocAfter(0);
  EXPECT_EQ(upnp_get_matching_local_server("10.0.0.7", &local, &port, nullptr), 8);
  EXPECT_EQ(local, nullptr);
  tw::platform::FailAllocAfter(0);  // without a copy asked for, no allocation can fail
  EXPECT_EQ(upnp_get_matching_local_server("10.0.0.7", nullptr, &port, nullptr), 0);
  EXPECT_EQ(upnp_get_used_local_ip("see 10.0.0.2 here"), nullptr);
}

TEST_F(NetworkMatch, UsedLocalIpNeedsAWholeAddress) {
  Serve({{"192.168.1.5", 9000}});
  EXPECT_EQ(upnp_get_used_local_ip("http://192.168.1.50:9000/x"), nullptr);
  EXPECT_EQ(Str(upnp_get_used_local_ip("http://192.168.1.5:9000/x")), "192.168.1.5");
  EXPECT_EQ(Str(upnp_get_used_local_ip("at 192.168.1.5")), "192.168.1.5");
  // Only the first occurrence of an address is examined.
  EXPECT_EQ(upnp_get_used_local_ip("192.168.1.55 or 192.168.1.5:80"), nullptr);
  EXPECT_EQ(upnp_get_used_local_ip(""), nullptr);
  EXPECT_EQ(upnp_get_used_local_ip(nullptr), nullptr);

  Serve({{"192.168.1.50", 9000}, {"10.1.1.1", 9001}});
  EXPECT_EQ(Str(upnp_get_used_local_ip("http://192.168.1.50:9000/x")), "192.168.1.50");
  // Table order decides, not the position in the text.
  EXPECT_EQ(Str(upnp_get_used_local_ip("10.1.1.1 then 192.168.1.50")), "192.168.1.50");
}

TEST_F(NetworkMatch, LocalIpIsAnExactEntryWithinTheCount) {
  Serve({{"10.0.0.2", 1}, {"10.0.0.3", 2}});
  EXPECT_EQ(is_local_ip("10.0.0.3"), 1);
  EXPECT_EQ(is_local_ip("10.0.0.30"), 0);
  EXPECT_EQ(is_local_ip("10.0.0."), 0);
  EXPECT_EQ(is_local_ip(nullptr), 0);
  Serve({{"10.0.0.2", 1}});
  EXPECT_EQ(is_local_ip("10.0.0.3"), 0) << "entries past the count do not count";
}

// Interfaces answer with an all-zero address, which does not count, except on the planned call.
int g_answer_on_call = -1, g_arp_calls = 0;
bool PlannedArp(const char*, int32_t index, uint8_t mac[6]) {
  const uint8_t found[6] = {0x0a, 0x1b, 0x2c, 0xd3, 0xe4, 0xff}, zero[6] = {};
  std::memcpy(mac, g_arp_calls++ == g_answer_on_call ? found : zero, 6);
  return g_arp_calls - 1 == g_answer_on_call || index % 2 == 0;
}

TEST_F(NetworkMatch, MacLookupAsksSixteenInterfacesPerAttemptUntilAnEntryAppears) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();  // the resolve datagram between attempts needs a socket
  tw::core::SetMacRetryPauseForTesting(1);
  tw::core::SetArpSourceForTesting(&PlannedArp);
  for (const auto& [call, found, text] :
       {std::make_tuple(16 + 15, 1, "0A:1B:2C:D3:E4:FF"), std::make_tuple(5 * 16, 0, "")}) {
    g_answer_on_call = call;  // the last interface of the second attempt, or past the fifth
    g_arp_calls = 0;
    char out[18] = "garbage";
    EXPECT_EQ(GetMACaddress("127.0.0.9", out), found);
    EXPECT_STREQ(out, text);
  }
  g_arp_calls = 0;  // loopback, empty and null peers are never looked up
  char out[18];
  EXPECT_EQ(GetMACaddress("127.0.0.1", out) + GetMACaddress("", out) + GetMACaddress(nullptr, out) +
                GetMACaddress("127.0.0.9", nullptr),
            0);
  EXPECT_EQ(g_arp_calls, 0);
}

TEST_F(NetworkMatch, LoopbackPeersHaveNoMacAfterFiveAttempts) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  // The real ARP table: lo never has neighbours (and qemu's emulation refuses the request with
  // EPFNOSUPPORT), so the peer ends without an address after five attempts of 100 ms.
  for (const char* peer : {"127.0.0.2"}) {
    char out[18] = "garbage";
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(GetMACaddress(peer, out), 0) << peer;
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_STREQ(out, "") << peer;
    EXPECT_GE(took, std::chrono::milliseconds(450)) << peer;
    EXPECT_LT(took, std::chrono::seconds(3)) << peer;
  }
}

}  // namespace
