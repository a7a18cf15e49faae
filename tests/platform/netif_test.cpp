// SPDX-License-Identifier: Apache-2.0
#include <net/if.h>
#include <sched.h>

#include <cstdlib>

#include "support/test_support.h"

namespace {

using ::testing::HasSubstr;

using Netif = tw::test::LeakCheck;

TEST_F(Netif, SelectionIsTheOnlyEntryAndIsNotChecked) {
  char table[5][UPNP_ADDRESS_TEXT_SIZE];
  std::memset(table, 'z', sizeof(table));
  int32_t count = -7;
  EXPECT_EQ(upnp_get_interfaces(&count, table, 5, "192.168.0.20"), 1);
  EXPECT_EQ(count, 1);
  EXPECT_STREQ(table[0], "192.168.0.20");
  EXPECT_EQ(table[1][0], 'z');
  EXPECT_EQ(upnp_get_interfaces(&count, table, 5, "1234567890abcdefghij"), 1);
  EXPECT_STREQ(table[0], "1234567890abcdef");  // cut to the entry size
  EXPECT_EQ(upnp_get_interfaces(&count, table, 0, "192.168.0.20"), 0);
  EXPECT_EQ(count, 0);
}

TEST_F(Netif, LoopbackRecordsNamesAndMissingMac) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  unsigned char records[5 * sizeof(ifreq)];
  ASSERT_EQ(get_interface_addresses(records, sizeof(records)), 1);
  ifreq lo;
  std::memcpy(&lo, records, sizeof(lo));
  EXPECT_STREQ(lo.ifr_name, "lo");
  EXPECT_EQ(lo.ifr_flags & (IFF_UP | IFF_LOOPBACK), IFF_UP | IFF_LOOPBACK);
  const unsigned char* address = records + offsetof(ifreq, ifr_addr) + 4;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(address), 4), std::string("\x7f\0\0\x01", 4));

  char table[5][UPNP_ADDRESS_TEXT_SIZE] = {};
  int32_t count = 0;
  char mac[18];
  EXPECT_EQ(upnp_get_interfaces(&count, table, 5, ""), 1);
  EXPECT_STREQ(table[0], "127.0.0.1");
  for (const char* bad : {static_cast<const char*>(nullptr), "sixteen-chars-xx", "nosuchif0"}) {
    EXPECT_EQ(get_mac_address(bad, mac, sizeof(mac)), nullptr);
  }

  char name[16] = {};
  EXPECT_EQ(get_hwinterface(name, 3, 0), 1);
  EXPECT_STREQ(name, "lo");
  EXPECT_EQ(get_hwinterface(name, 2, 0), -2);
  EXPECT_EQ(get_hwinterface(name, 16, 1) + get_hwinterface(name, 16, 8), 0) << "no such index";
  EXPECT_EQ(get_hwinterface(name, 0, 0), -1);
  EXPECT_EQ(get_mac_address("lo", mac, 9), mac);
  EXPECT_STREQ(mac, "00:00:00");  // loopback has no hardware address; cut to size
  uint8_t bytes[6] = {};
  upnp_get_mac(bytes);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 6), "BBBBBB");  // 0x42 filler
}

TEST_F(Netif, DownAliasCutAndHardwareAddressInNestedNamespace) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  // A thread of its own enters a fresh network namespace; `ip` runs there too. lo (127.0.0.1)
  // and its alias lo:1 (127.0.0.2) exist but are down at first.
  bool made = false;
  std::string lines;  // the capacity problem is logged
  std::thread([&] {
    made = unshare(CLONE_NEWNET) == 0 && std::system(
                                             "ip addr add 127.0.0.1/8 dev lo && "
                                             "ip addr add 127.0.0.2/8 dev lo label lo:1") == 0;
    if (!made) return;
    lines = tw::test::Logged(UPNP_LOG_SYSTEM, [] {
      char table[5][UPNP_ADDRESS_TEXT_SIZE] = {};
      int32_t count = -1;
      EXPECT_EQ(upnp_get_interfaces(&count, table, 5, nullptr), 0);
      ASSERT_EQ(std::system("ip link set lo up address 02:1a:2b:3c:4d:fe"), 0);
      EXPECT_EQ(upnp_get_interfaces(&count, table, 5, nullptr), 2);
      EXPECT_STREQ(table[0], "127.0.0.1");
      EXPECT_STREQ(table[1], "127.0.0.2");
      EXPECT_EQ(upnp_get_interfaces(&count, table, 1, nullptr), 1);
      char name[8] = {};
      EXPECT_EQ(get_hwinterface(name, 4, 1), -2) << "\"lo:1\" needs five bytes";
      EXPECT_EQ(get_hwinterface(name, 5, 1), 1);
      EXPECT_STREQ(name, "lo:1");
      EXPECT_EQ(get_hwinterface(name, 5, 2), 0);
      uint8_t mac[6] = {};
      upnp_get_mac(mac);
      EXPECT_EQ(std::string(reinterpret_cast<char*>(mac), 6), "\x02\x1a\x2b\x3c\x4d\xfe");
    });
  }).join();
  if (!made) GTEST_SKIP() << "cannot make a nested network namespace here";
  EXPECT_THAT(lines, HasSubstr("[Problem] - LOG_SYSTEM:get_interface_addresses System returned 2 "
                               "interfaces,but we requested only 1"));
}

}  // namespace
