// SPDX-License-Identifier: Apache-2.0
#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

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
