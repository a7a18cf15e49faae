// SPDX-License-Identifier: Apache-2.0
// Which served interface a peer's address belongs to, and the peer MAC lookup.
#include "core/network_match.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/core.h"
#include "platform/test_hooks.h"
#include "support/test_support.h"
#include "tarnwick/core.h"

namespace {

using tw::test::Owned;

// Fills the served table directly (no sockets): addresses and ports by index.
class NetworkMatch : public tw::test::LeakCheck {
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
  int32_t port = -1;
  int32_t reserved = -1;
  EXPECT_EQ(upnp_get_matching_local_server("10.0.0.7", &local, &port, &reserved), 0);
  Owned owned(local);
  EXPECT_EQ(owned.str(), "10.0.0.2");
  EXPECT_EQ(port, 9100);
  EXPECT_EQ(reserved, 0);

  // Outputs start at 0 whatever the result.
  port = reserved = -1;
  local = nullptr;
  EXPECT_EQ(upnp_get_matching_local_server("abc", &local, &port, &reserved), 2);
  EXPECT_EQ(port, 0);
  EXPECT_EQ(reserved, 0);
  EXPECT_EQ(upnp_get_matching_local_server("", nullptr, nullptr, nullptr), 2);
  EXPECT_EQ(upnp_get_matching_local_server(nullptr, nullptr, nullptr, nullptr), 2);
  EXPECT_EQ(upnp_get_matching_local_server("12", nullptr, nullptr, nullptr), 14);
  EXPECT_EQ(upnp_get_matching_local_server("10.0.1.7", nullptr, nullptr, nullptr), 14);
  // Text comparison up to the peer's last dot: a shorter peer prefix matches more.
  EXPECT_EQ(upnp_get_matching_local_server("192.168.7", nullptr, &port, nullptr), 0);
  EXPECT_EQ(port, 9000);

  EXPECT_EQ(upnp_server_is_local_network("192.168.1.200"), 1);
  EXPECT_EQ(upnp_server_is_local_network("192.168.2.5"), 0);
  EXPECT_EQ(upnp_server_is_local_network("x"), 0);
  Owned ip(upnp_get_matching_local_ip("192.168.1.77"));
  EXPECT_EQ(ip.str(), "192.168.1.5");
  EXPECT_EQ(upnp_get_matching_local_ip("172.16.0.1"), nullptr);
}

TEST_F(NetworkMatch, OutOfMemoryGivesEightAndNoCopy) {
  Serve({{"10.0.0.2", 9100}});
  char* local = reinterpret_cast<char*>(1);
  int32_t port = 0;
  tw::platform::FailAllocAfter(0);
  EXPECT_EQ(upnp_get_matching_local_server("10.0.0.7", &local, &port, nullptr), 8);
  tw::platform::ClearAllocFailure();
  EXPECT_EQ(local, nullptr);
  // Without a copy asked for, no allocation can fail.
  tw::platform::FailAllocAfter(0);
  EXPECT_EQ(upnp_get_matching_local_server("10.0.0.7", nullptr, &port, nullptr), 0);
  EXPECT_EQ(upnp_get_used_local_ip("see 10.0.0.2 here"), nullptr);
  tw::platform::ClearAllocFailure();
}

TEST_F(NetworkMatch, UsedLocalIpNeedsAWholeAddress) {
  Serve({{"192.168.1.5", 9000}});
  EXPECT_EQ(upnp_get_used_local_ip("http://192.168.1.50:9000/x"), nullptr);
  EXPECT_EQ(Owned(upnp_get_used_local_ip("http://192.168.1.5:9000/x")).str(), "192.168.1.5");
  EXPECT_EQ(Owned(upnp_get_used_local_ip("at 192.168.1.5")).str(), "192.168.1.5");
  // Only the first occurrence of an address is examined.
  EXPECT_EQ(upnp_get_used_local_ip("192.168.1.55 or 192.168.1.5:80"), nullptr);
  EXPECT_EQ(upnp_get_used_local_ip(""), nullptr);
  EXPECT_EQ(upnp_get_used_local_ip(nullptr), nullptr);

  Serve({{"192.168.1.50", 9000}, {"10.1.1.1", 9001}});
  EXPECT_EQ(Owned(upnp_get_used_local_ip("http://192.168.1.50:9000/x")).str(), "192.168.1.50");
  // Table order decides, not the position in the text.
  EXPECT_EQ(Owned(upnp_get_used_local_ip("10.1.1.1 then 192.168.1.50")).str(), "192.168.1.50");
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

// ---- Peer MAC lookup ---------------------------------------------------------------------------

struct ArpPlan {
  int answer_on_call = -1;  // the call (from 0) that answers, -1 for none
  uint8_t mac[6] = {};
  int calls = 0;
  std::vector<int> indexes;
};
ArpPlan g_plan;

bool PlannedArp(const char*, int32_t index, uint8_t mac[6]) {
  g_plan.indexes.push_back(index);
  const int call = g_plan.calls++;
  if (call == g_plan.answer_on_call) {
    std::memcpy(mac, g_plan.mac, 6);
    return true;
  }
  // Every other interface answers with an all-zero address, which does not count.
  std::memset(mac, 0, 6);
  return index % 2 == 0;
}

TEST_F(NetworkMatch, MacLookupRetriesUntilAnEntryAppears) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();  // the resolve datagram between attempts needs a socket
  tw::core::SetMacRetryPauseForTesting(1);
  tw::core::SetArpSourceForTesting(&PlannedArp);
  g_plan = ArpPlan{};
  g_plan.answer_on_call = 16 + 5;  // second attempt, interface index 5
  const uint8_t mac[6] = {0x0a, 0x1b, 0x2c, 0xd3, 0xe4, 0xff};
  std::memcpy(g_plan.mac, mac, 6);
  char out[18] = "garbage";
  EXPECT_EQ(GetMACaddress("127.0.0.9", out), 1);
  EXPECT_STREQ(out, "0A:1B:2C:D3:E4:FF");
  EXPECT_EQ(g_plan.calls, 22);
  EXPECT_EQ(g_plan.indexes.front(), 0);
  EXPECT_EQ(g_plan.indexes[15], 15);

  g_plan = ArpPlan{};
  std::strcpy(out, "garbage");
  EXPECT_EQ(GetMACaddress("127.0.0.9", out), 0);
  EXPECT_STREQ(out, "");
  EXPECT_EQ(g_plan.calls, 5 * 16);

  // Loopback, empty and null peers are never looked up.
  g_plan = ArpPlan{};
  EXPECT_EQ(GetMACaddress("127.0.0.1", out), 0);
  EXPECT_EQ(GetMACaddress("", out), 0);
  EXPECT_EQ(GetMACaddress(nullptr, out), 0);
  EXPECT_EQ(g_plan.calls, 0);
  EXPECT_EQ(GetMACaddress("127.0.0.9", nullptr), 0);
}

TEST_F(NetworkMatch, LoopbackPeersHaveNoMacAfterFiveAttempts) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  // The real ARP table: lo never has neighbours (and qemu's emulation refuses the request with
  // EPFNOSUPPORT), so both peers end without an address after five attempts of 100 ms.
  for (const char* peer : {"127.0.0.1", "127.0.0.2"}) {
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
