// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <thread>

#include "platform/test_hooks.h"
#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

class SsdpQueue : public SsdpTest {
 protected:
  upnp_ssdp_answer* NewAnswer(int32_t delay, const std::string& target = "upnp:rootdevice") {
    auto* answer = static_cast<upnp_ssdp_answer*>(upnp_calloc_impl(1, sizeof(upnp_ssdp_answer)));
    *answer = {delay, "", "127.0.0.1", probe_.port(), &record_, 0};
    std::snprintf(answer->target, sizeof(answer->target), "%s", target.c_str());
    return answer;
  }
  SsdpProbe probe_{SsdpProbe::kUnicast};
};

TEST_F(SsdpQueue, AnswerDueLaterIsSentThreeTimesOverdueOneStaysUntilCleared) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  upnp_ssdp_isRenderer();
  SSDP_init();
  SSDP_queue_notify_packet(nullptr);
  // Intended: an answer is valid until its due time; an overdue one is never sent.
  SSDP_queue_notify_packet(NewAnswer(-2, kRendererUdn));
  upnp_ssdp_answer* later = NewAnswer(3, "urn:schemas-upnp-org:device:MediaRenderer:1");
  const int32_t before = static_cast<int32_t>(getSystemTime() / 1000);
  SSDP_queue_notify_packet(later);
  EXPECT_GE(later->due, before + 3);
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 2);
  SSDP_process_queued_notify_packets();
  const std::vector<Datagram> got = probe_.Collect(100, 5s, 300ms);
  ASSERT_EQ(got.size(), 3u);
  for (const Datagram& d : got) {
    EXPECT_EQ(
        MaskDate(d.text),
        Answer(Location("/TMRDeviceDescription.xml"), "urn:schemas-upnp-org:device:MediaRenderer:1",
               kRendererUdn + "::urn:schemas-upnp-org:device:MediaRenderer:1"));
  }
  SSDP_process_queued_notify_packets();
  EXPECT_TRUE(probe_.Silent(200ms));
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 1);
  SSDP_queue_clear();
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 0);
  SSDP_exit();  // the next queue call makes the lock again
  SSDP_queue_notify_packet(NewAnswer(-2));
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 1);
}

TEST_F(SsdpQueue, AnswerWithoutNodeMemoryStaysWithTheCaller) {
  upnp_ssdp_answer* answer = NewAnswer(1);
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
        SSDP_queue_notify_packet(NewAnswer(-5));
        SSDP_process_queued_notify_packets();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ssdp::QueuedAnswersForTesting(), 200);
}

}  // namespace
}  // namespace tw::test
