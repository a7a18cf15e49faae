// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/test_support.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace {

using ::testing::HasSubstr;

// The child's part of the nested-namespace test: lo (127.0.0.1) and its alias lo:1
// (127.0.0.2) exist but are down. Reports results as lines on standard output, where the
// library's log lines also go; `ip` runs in the child's namespace.
void ReportNestedInterfaces() {
  char table[5][UPNP_ADDRESS_TEXT_SIZE] = {};
  int32_t count = -1;
  upnp_get_interfaces(&count, table, 5, nullptr);
  std::printf("down=%d\n", count);
  std::fflush(nullptr);
  std::printf("setup=%d\n", std::system("ip link set lo up address 02:1a:2b:3c:4d:fe") == 0);
  upnp_get_interfaces(&count, table, 5, nullptr);
  std::printf("all=%d %s %s\n", count, table[0], table[1]);
  upnp_get_interfaces(&count, table, 1, nullptr);
  std::printf("one=%d %s\n", count, table[0]);
  char name[8] = {};
  const int32_t too_small = get_hwinterface(name, 4, 1);  // "lo:1" needs five bytes
  const int32_t fits = get_hwinterface(name, 5, 1);
  std::printf("hw=%d,%d,%s,%d\n", too_small, fits, name, get_hwinterface(name, 5, 2));
  uint8_t mac[6] = {};
  upnp_get_mac(mac);
  std::printf("mac=%02x%02x%02x%02x%02x%02x\n", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

// Runs the report in a child process inside a fresh network namespace nested in the test's
// private one, and returns what it wrote; "skip" when such a namespace cannot be made here.
std::string RunNested() {
  int out[2];
  if (pipe(out) != 0) return "pipe failed";
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(out[1], 1);
    if (unshare(CLONE_NEWNET) != 0 ||
        std::system("ip addr add 127.0.0.1/8 dev lo && "
                    "ip addr add 127.0.0.2/8 dev lo label lo:1") != 0) {
      std::printf("skip");
    } else {
      upnp_log_init(nullptr);
      upnp_log_set_mode(UPNP_LOG_SYSTEM);
      ReportNestedInterfaces();
    }
    std::fflush(nullptr);
    _exit(0);
  }
  close(out[1]);
  std::string text;
  char chunk[4096];
  pollfd p{out[0], POLLIN, 0};
  for (int i = 0; i < 100 && poll(&p, 1, 10000) == 1; ++i) {  // at most 10 s of silence
    const ssize_t n = read(out[0], chunk, sizeof(chunk));
    if (n <= 0) break;
    text.append(chunk, static_cast<size_t>(n));
  }
  close(out[0]);
  kill(child, SIGKILL);  // no-op when it has ended, as it should have
  waitpid(child, nullptr, 0);
  return text;
}

class Netif : public tw::test::LeakCheck {};

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
  upnp_log_init(nullptr);
  upnp_log_set_mode(UPNP_LOG_SYSTEM);
  testing::internal::CaptureStdout();
  EXPECT_EQ(upnp_get_interfaces(&count, table, 5, ""), 1);
  char mac[18];
  EXPECT_EQ(get_mac_address(nullptr, mac, sizeof(mac)), nullptr);
  EXPECT_EQ(get_mac_address("sixteen-chars-xx", mac, sizeof(mac)), nullptr);
  EXPECT_EQ(get_mac_address("nosuchif0", mac, sizeof(mac)), nullptr);
  const std::string lines = testing::internal::GetCapturedStdout();
  upnp_log_set_mode(0);
  upnp_log_exit();
  EXPECT_STREQ(table[0], "127.0.0.1");
  EXPECT_THAT(lines, HasSubstr("upnp_get_interfaces get_interface_addresses 127.0.0.1"));
  EXPECT_THAT(lines, HasSubstr("init_ifreq illegal interface name: <null>"));
  EXPECT_THAT(lines, HasSubstr("init_ifreq illegal interface name: sixteen-chars-xx"));
  EXPECT_THAT(lines, HasSubstr("get_mac_address Could not get MAC address of interface nosuchif0"));

  char name[16] = {};
  EXPECT_EQ(get_hwinterface(name, 3, 0), 1);
  EXPECT_STREQ(name, "lo");
  EXPECT_EQ(get_hwinterface(name, 2, 0), -2);
  EXPECT_EQ(get_hwinterface(name, 16, 1), 0);
  EXPECT_EQ(get_hwinterface(name, 16, 8), 0);
  EXPECT_EQ(get_hwinterface(name, 0, 0), -1);

  EXPECT_EQ(get_mac_address("lo", mac, 9), mac);
  EXPECT_STREQ(mac, "00:00:00");  // loopback has no hardware address; cut to size
  uint8_t bytes[6] = {};
  upnp_get_mac(bytes);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 6), "BBBBBB");  // 0x42 filler
}

TEST_F(Netif, DownAliasCutAndHardwareAddressInNestedNamespace) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const std::string out = RunNested();
  if (out == "skip") GTEST_SKIP() << "cannot make a nested network namespace here";
  EXPECT_THAT(out, HasSubstr("down=0\n"));
  EXPECT_THAT(out, HasSubstr("upnp_get_interfaces get_interface_addresses - DOWN 127.0.0.1"));
  EXPECT_THAT(out, HasSubstr("upnp_get_interfaces get_interface_addresses - DOWN 127.0.0.2"));
  ASSERT_THAT(out, HasSubstr("setup=1\n"));
  EXPECT_THAT(out, HasSubstr("all=2 127.0.0.1 127.0.0.2\n"));
  EXPECT_THAT(out, HasSubstr("one=1 127.0.0.1\n"));
  EXPECT_THAT(out, HasSubstr("[Problem] - LOG_SYSTEM:get_interface_addresses System returned 2 "
                             "interfaces,but we requested only 1"));
  EXPECT_THAT(out, HasSubstr("hw=-2,1,lo:1,0\n"));
  EXPECT_THAT(out, HasSubstr("mac=021a2b3c4dfe\n"));
}

}  // namespace
