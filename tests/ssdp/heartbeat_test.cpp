// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

using ::testing::Each;
using ::testing::HasSubstr;

class SsdpHeartbeat : public SsdpTest {
 protected:
  // Starts the heartbeat and takes its first datagrams: `before` byebyes, two alive sets of `set`.
  std::vector<Datagram> Start(size_t set, size_t before = 0) {
    group_.OnlyFrom(address_);
    upnp_start_thread(SSDP_heartbeat, &record_, 3);
    std::vector<Datagram> got = group_.Collect(before + 2 * set, 10s);
    EXPECT_EQ(got.size(), before + 2 * set);
    return got;
  }
  SsdpProbe group_;
};

TEST_F(SsdpHeartbeat, LeftoverMarkerGivesByebyesBeforeTheFirstAlives) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_isMediaServer();
  const std::string marker = dir_.File("tmsbyebye");
  WriteFile(marker, "");
  StartLog();
  const std::vector<Datagram> got = Start(6, 10);
  ASSERT_EQ(got.size(), 22u);
  const std::vector<std::string> nts = Fields(got, "NTS");
  EXPECT_THAT(std::vector<std::string>(nts.begin(), nts.begin() + 10), Each("ssdp:byebye"));
  EXPECT_THAT(std::vector<std::string>(nts.begin() + 10, nts.end()), Each("ssdp:alive"));
  EXPECT_EQ(got[5].text, Byebye(kServerUdn, kServerUdn));
  EXPECT_EQ(got[16].text, Alive(Location("/TMSDeviceDescription.xml"), kServerUdn, kServerUdn));
  EXPECT_GE(got[16].at - got[10].at, 200ms);  // the second alive set comes 210 ms later
  EXPECT_EQ(got[0].port, 1900);
  EXPECT_EQ(upnp_ssdp_heartbeat_active(), 1);
  EXPECT_TRUE(FileExists(marker));

  SSDP_trigger_shutdown();
  const std::vector<Datagram> bye = group_.Collect(10, 5s);
  ASSERT_EQ(bye.size(), 10u);
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(bye[i].text, got[i].text) << i;
  EXPECT_TRUE(WaitFor([] { return ssdp::RunningThreadsForTesting() == 0; }));
  EXPECT_EQ(upnp_ssdp_heartbeat_active(), 0);
  EXPECT_FALSE(FileExists(marker));
  EXPECT_EQ(record_.ssdp_notify_socket, -1);
  const std::string log = StopLog();
  EXPECT_THAT(log, HasSubstr("SSDP_heartbeat SSDP heartbeat started for " + address_ + ":1900"));
  EXPECT_THAT(log, HasSubstr("SSDPheartbeat SSDP heartbeat stopped for " + address_));
}

TEST_F(SsdpHeartbeat, PeriodicAlivesFollowTheBeatTime) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_isRenderer();
  ssdp::SetTickForTesting(1);
  SSDP_set_upnp_beattime(59);  // ignored: below 60
  EXPECT_EQ(g_UPNP_SSDP_BEAT_TIME, 1810u);
  SSDP_set_upnp_beattime(60);
  Start(6);  // no leftover marker: no byebyes first
  EXPECT_TRUE(FileExists(dir_.File("tmrbyebye")));
  for (const auto& [beat, ticks] : {std::pair(60u, 201u), {90u, 301u}, {1810u, 600u}}) {
    SSDP_set_upnp_beattime(beat);
    const std::vector<Datagram> set = group_.Collect(6, 10s);
    ASSERT_EQ(set.size(), 6u) << beat;
    EXPECT_EQ(set[0].text,
              Alive(Location("/TMRDeviceDescription.xml"), kRendererUdn, kRendererUdn, beat));
    EXPECT_EQ(ssdp::LastAliveTickCountForTesting(), ticks) << beat;
  }
  EndThreads();
  EXPECT_FALSE(FileExists(dir_.File("tmrbyebye")));
}

TEST_F(SsdpHeartbeat, ByebyeRequestSuspendsUntilWakeupButTheQueueIsServed) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_isMediaServer();
  ssdp::SetTickForTesting(1);  // 600 ticks between periodic alives take 0.6 s or more
  Start(6);
  SSDP_trigger_byebye();
  EXPECT_THAT(Fields(group_.Collect(100, 5s, 300ms), "NTS"),
              ::testing::ElementsAreArray(std::vector<std::string>(5, "ssdp:byebye")));
  SsdpProbe answers(SsdpProbe::kUnicast);
  auto* answer = static_cast<upnp_ssdp_answer*>(upnp_calloc_impl(1, sizeof(upnp_ssdp_answer)));
  *answer = {5, "upnp:rootdevice", "127.0.0.1", answers.port(), &record_, 0};
  SSDP_queue_notify_packet(answer);
  EXPECT_EQ(answers.Collect(3, 5s).size(), 3u);
  EXPECT_TRUE(group_.Silent(1500ms)) << "an announcement while suspended";
  const auto woken = std::chrono::steady_clock::now();
  SSDP_trigger_wakeup();
  const std::vector<Datagram> alive = group_.Collect(6, 5s);
  ASSERT_EQ(alive.size(), 6u);
  EXPECT_EQ(Field(alive[0].text, "NTS"), "ssdp:alive");
  EXPECT_LT(alive[0].at - woken, 500ms);
}

TEST_F(SsdpHeartbeat, AliveRequestGivesOneSetAndGenerationChangeEnds) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_hasMediaTransferProtocol(1);
  ssdp::SetTickForTesting(2);  // the next periodic set is 1.2 s or more away
  Start(4);
  upnp_ssdp_send_alive();  // returns after 500 ms
  const std::vector<Datagram> got = group_.Collect(100, 2s, 100ms);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[1].text, Alive(Location("/MediaTransferProtocolDescription.xml"), "upnp:rootdevice",
                               kMtpUdn + "::upnp:rootdevice"));
  __atomic_add_fetch(&record_.stop_generation, 1, __ATOMIC_ACQ_REL);
  const std::vector<Datagram> bye = group_.Collect(4, 5s);  // two sets of two
  ASSERT_EQ(bye.size(), 4u);
  EXPECT_EQ(bye[2].text, Byebye(kMtpUdn, kMtpUdn));
  EXPECT_TRUE(WaitFor([] { return ssdp::RunningThreadsForTesting() == 0; }));
  EXPECT_EQ(record_.ssdp_notify_socket, -1);
}

TEST_F(SsdpHeartbeat, UnbindableAddressEndsAtOnce) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  std::snprintf(record_.ip_address, sizeof(record_.ip_address), "192.0.2.1");
  StartLog();
  SSDP_heartbeat(&record_);
  EXPECT_THAT(StopLog(), HasSubstr("SSDP_heartbeat could not bind to 192.0.2.1:1900"));
  EXPECT_EQ(upnp_ssdp_heartbeat_active(), 0);
  EXPECT_EQ(record_.ssdp_notify_socket, -1);
}

}  // namespace
}  // namespace tw::test
