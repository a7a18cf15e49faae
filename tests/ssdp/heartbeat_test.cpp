// SPDX-License-Identifier: Apache-2.0
#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

class SsdpHeartbeat : public SsdpTest {
 protected:
  std::vector<Datagram> Start(size_t count) {
    group_.OnlyFrom(address_);
    upnp_start_thread(SSDP_heartbeat, &record_, 3);
    return group_.Collect(count, 10s);
  }
  SsdpProbe group_;
};

TEST_F(SsdpHeartbeat, LeftoverMarkerByebyesFirstThenAlivesByTheBeatTimeAndByebyesAtShutdown) {
  upnp_ssdp_isMediaServer();
  upnp_ssdp_isRenderer();
  WriteFile(dir_.File("tmsbyebye"), "");  // the last run ended without its byebyes
  ssdp::SetTickForTesting(1);
  SSDP_set_upnp_beattime(59);  // ignored: below 60
  EXPECT_EQ(g_UPNP_SSDP_BEAT_TIME, 1810u);
  SSDP_set_upnp_beattime(60);
  const std::vector<Datagram> got = Start(46);  // two sets of 5 + 6 byebyes, two of 6 + 6 alives
  ASSERT_EQ(got.size(), 46u);
  std::vector<std::string> nts(22, "ssdp:byebye");
  nts.resize(46, "ssdp:alive");
  EXPECT_EQ(Fields(got, "NTS"), nts);
  EXPECT_EQ(got[5].text, Byebye(kRendererUdn, kRendererUdn));
  EXPECT_EQ(got[22].text, Alive(Location("TMSDevice"), kServerUdn, kServerUdn, 60));
  EXPECT_GE(got[34].at - got[22].at, 200ms);  // the second alive set comes 210 ms later
  EXPECT_EQ(got[0].port, 1900);
  EXPECT_EQ(upnp_ssdp_heartbeat_active(), 1);
  EXPECT_TRUE(FileExists(dir_.File("tmsbyebye")) && FileExists(dir_.File("tmrbyebye")));
  SSDP_set_upnp_beattime(90);  // the next periodic set already carries the new beat
  const std::vector<Datagram> set = group_.Collect(12, 10s);
  ASSERT_EQ(set.size(), 12u);
  EXPECT_EQ(set[6].text, Alive(Location("TMRDevice"), kRendererUdn, kRendererUdn, 90));
  SSDP_trigger_shutdown();
  const std::vector<Datagram> bye = group_.Collect(22, 5s);
  ASSERT_EQ(bye.size(), 22u);
  for (size_t i = 0; i < 22; ++i) EXPECT_EQ(bye[i].text, got[i].text) << i;
  EXPECT_TRUE(ThreadsEnd());
  EXPECT_EQ(upnp_ssdp_heartbeat_active(), 0);
  EXPECT_FALSE(FileExists(dir_.File("tmsbyebye")) || FileExists(dir_.File("tmrbyebye")));
  EXPECT_EQ(record_.ssdp_notify_socket, -1);
}

TEST_F(SsdpHeartbeat, AliveByebyeAndWakeupRequestsThenGenerationChangeEndsSilently) {
  upnp_ssdp_hasMediaTransferProtocol(1);
  ssdp::SetTickForTesting(3);      // 600 ticks between periodic alives take 1.8 s or more
  ASSERT_EQ(Start(8).size(), 8u);  // two alive sets
  upnp_ssdp_send_alive();          // returns after 500 ms
  EXPECT_EQ(Fields(group_.Collect(100, 2s, 100ms), "NTS"),
            std::vector<std::string>(4, "ssdp:alive"));
  SSDP_trigger_byebye();
  EXPECT_THAT(Fields(Drain(group_), "NTS"), ElementsAre("ssdp:byebye", "ssdp:byebye"));
  SsdpProbe answers(SsdpProbe::kUnicast);
  SSDP_queue_notify_packet(NewAnswer(5, answers.port(), &record_));
  EXPECT_EQ(answers.Collect(3, 5s).size(), 3u);  // the queue is served while suspended
  EXPECT_TRUE(group_.Silent(1500ms)) << "an announcement while suspended";
  const auto woken = std::chrono::steady_clock::now();
  SSDP_trigger_wakeup();
  const std::vector<Datagram> got = group_.Collect(4, 5s);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(HeaderValue(got[0].text, "NTS"), "ssdp:alive");
  EXPECT_LT(got[0].at - woken, 500ms);
  // A restart: the old heartbeat ends without a word; the slot may hold its successor's socket.
  NextGeneration();
  EXPECT_TRUE(ThreadsEnd());
  EXPECT_TRUE(group_.Silent(300ms));
  EXPECT_NE(record_.ssdp_notify_socket, -1);
}

// A stop gives the heartbeat one short pause before it closes the socket. A heartbeat still in
// its start delay, or between its first alive sets, must say byebye within it all the same.
TEST_F(SsdpHeartbeat, AStopDuringTheStartPausesStillSaysByebye) {
  upnp_ssdp_isMediaServer();
  ssdp::SetTickForTesting(100);
  // In the 10 s start delay (past the marker pause), and between the first two alive sets.
  for (const bool delayed : {true, false}) {
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NMCMODE, delayed ? "1" : "0");
    SetState(1);
    ASSERT_EQ(Start(delayed ? 0 : 6).size(), delayed ? 0u : 6u);
    if (delayed) std::this_thread::sleep_for(600ms);
    SetState(-1);
    const std::vector<Datagram> bye = group_.Collect(10, 200ms);  // the pause of a stop
    EXPECT_EQ(Fields(bye, "NTS"), std::vector<std::string>(10, "ssdp:byebye")) << delayed;
    EndThreads();
    EXPECT_FALSE(FileExists(dir_.File("tmsbyebye"))) << delayed;
    EXPECT_TRUE(Drain(group_).empty()) << delayed;
  }
}

TEST(SsdpBeat, PeriodicAliveWhenTheTicksExceedAThirdOfTheBeatCappedAtAMinute) {
  // "Exceeds" is intended: a beat of 60 s gives an alive every 201 ticks of 100 ms.
  for (const auto& [beat, ticks] : {std::pair(60u, 200u), {90u, 300u}, {1810u, 599u}}) {
    EXPECT_FALSE(ssdp::PeriodicAliveDue(ticks, beat)) << beat;
    EXPECT_TRUE(ssdp::PeriodicAliveDue(ticks + 1, beat)) << beat;
  }
}

}  // namespace
}  // namespace tw::test
