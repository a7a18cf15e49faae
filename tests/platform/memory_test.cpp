// SPDX-License-Identifier: Apache-2.0

#include "platform/allocator.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

int32_t Used() { return static_cast<int32_t>(upnp_mem_used()); }

TEST(Memory, EveryEntryCountsPayloadBytesAndTheHighWaterMarkOnlyRises) {
  upnp_mem_init();
  const int32_t base = Used();
  void* zero = upnp_malloc_impl(0);
  void* zero2 = upnp_malloc_impl(0);
  ASSERT_NE(zero, nullptr);
  EXPECT_NE(zero, zero2);
  EXPECT_EQ(Used(), base);
  auto* p = static_cast<char*>(upnp_malloc_impl(100));
  void* b = upnp_malloc_impl(50);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 8, 0u);
  EXPECT_EQ(Used(), base + 150);
  const uint32_t high = upnp_max_mem_used();
  EXPECT_GE(static_cast<int32_t>(high), base + 150);
  std::memset(p, 'x', 100);
  p = static_cast<char*>(upnp_realloc_impl(p, 40));  // counted by the difference
  EXPECT_EQ(Used(), base + 90);
  p = static_cast<char*>(upnp_realloc_impl(p, 4000));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::count(p, p + 40, 'x'), 40);
  EXPECT_EQ(Used(), base + 4050);
  auto* z = static_cast<char*>(upnp_calloc_impl(7, 9));
  EXPECT_EQ(std::count(z, z + 63, '\0'), 63);
  char* empty = upnp_strdup_impl("");
  char* copy = upnp_strdup_impl("tarnwick");
  EXPECT_EQ(std::string(empty) + copy, "tarnwick");
  EXPECT_EQ(upnp_strdup_impl(nullptr), nullptr);
  void* fresh = upnp_realloc_impl(nullptr, 12);
  EXPECT_EQ(Used(), base + 4050 + 63 + 1 + 9 + 12);
  for (void* block : {zero, zero2, static_cast<void*>(p), b, static_cast<void*>(z),
                      static_cast<void*>(empty), static_cast<void*>(copy), fresh}) {
    upnp_free_impl(block);
  }
  EXPECT_EQ(Used(), base);
  EXPECT_GE(upnp_max_mem_used(), high);
}

// The double subtraction leaves the process counter off for good, so the scenario runs in a
// child process (gtest death-test fork) that reports through its exit code.
TEST(Memory, FailedReallocUncountsOldBlockAndFreeSubtractsAgain) {
  EXPECT_EXIT(
      {
        const int32_t base = Used();
        void* p = upnp_malloc_impl(64);
        tw::platform::FailAllocAfter(0);
        void* r = upnp_realloc_impl(p, 128);
        tw::platform::ClearAllocFailure();
        int bad = r != nullptr ? 1 : 0;
        if (Used() != base) bad |= 2;
        upnp_free_impl(p);  // still ours: this subtracts its size a second time
        if (Used() != base - 64) bad |= 4;
        std::_Exit(bad);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Memory, FreeOfNullAndFreeWithoutLockReportOnStderr) {
  const int32_t base = Used();
  testing::internal::CaptureStderr();
  upnp_free_impl(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "upnp_free: NULL pointer\n");
  void* p = upnp_malloc_impl(33);
  upnp_mem_exit();
  testing::internal::CaptureStderr();
  upnp_free_impl(p);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "upnp_free: MemCriticalSection not initialized when upnp_free called\n");
  EXPECT_EQ(Used(), base);
  upnp_mem_init();
}

TEST(Memory, ContainersThroughTheAdapterAreCountedAndThrowOnShortage) {
  const int32_t base = Used();
  {
    tw::Vector<int> v(1000, 7);
    tw::String s(300, 'q');
    EXPECT_GE(Used(), base + static_cast<int32_t>(1000 * sizeof(int) + 300));
  }
  EXPECT_EQ(Used(), base);
  tw::platform::FailAllocAfter(0);
  EXPECT_EQ(tw::Guard(8, [] { return static_cast<int>(tw::Vector<int>(10, 1).size()); }), 8);
  tw::platform::ClearAllocFailure();
}

}  // namespace
