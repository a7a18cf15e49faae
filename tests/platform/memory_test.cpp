// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/allocator.h"
#include "platform/test_hooks.h"
#include "support/test_support.h"
#include "tarnwick/platform.h"

namespace {

int32_t Used() { return static_cast<int32_t>(upnp_mem_used()); }

TEST(Memory, CountsPayloadBytesAndHighWaterMark) {
  upnp_mem_init();
  const int32_t base = Used();
  void* zero = upnp_malloc_impl(0);
  void* zero2 = upnp_malloc_impl(0);
  ASSERT_NE(zero, nullptr);
  EXPECT_NE(zero, zero2);
  EXPECT_EQ(Used(), base);

  void* a = upnp_malloc_impl(100);
  void* b = upnp_malloc_impl(50);
  EXPECT_EQ(Used(), base + 150);
  EXPECT_GE(static_cast<int32_t>(upnp_max_mem_used()), base + 150);
  const uint32_t max_after = upnp_max_mem_used();
  upnp_free_impl(a);
  EXPECT_EQ(Used(), base + 50);
  EXPECT_EQ(upnp_max_mem_used(), max_after);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 8, 0u);
  upnp_free_impl(b);
  upnp_free_impl(zero);
  upnp_free_impl(zero2);
  EXPECT_EQ(Used(), base);
}

TEST(Memory, ReallocAdjustsByDifferenceAndKeepsContent) {
  const int32_t base = Used();
  char* p = static_cast<char*>(upnp_malloc_impl(100));
  std::memset(p, 'x', 100);
  const uint32_t max_before = upnp_max_mem_used();
  p = static_cast<char*>(upnp_realloc_impl(p, 40));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Used(), base + 40);
  EXPECT_EQ(upnp_max_mem_used(), max_before);
  EXPECT_EQ(p[39], 'x');
  p = static_cast<char*>(upnp_realloc_impl(p, 4000));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[0], 'x');
  EXPECT_EQ(Used(), base + 4000);
  upnp_free_impl(p);
  void* fresh = upnp_realloc_impl(nullptr, 12);
  EXPECT_EQ(Used(), base + 12);
  upnp_free_impl(fresh);
  EXPECT_EQ(Used(), base);
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
        int bad = 0;
        if (r != nullptr) bad |= 1;
        if (Used() != base) bad |= 2;
        upnp_free_impl(p);  // still ours: this subtracts its size a second time
        if (Used() != base - 64) bad |= 4;
        std::_Exit(bad);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Memory, CallocZeroesAndStrdupCopiesTerminator) {
  const int32_t base = Used();
  auto* z = static_cast<unsigned char*>(upnp_calloc_impl(7, 9));
  ASSERT_NE(z, nullptr);
  for (int i = 0; i < 63; ++i) EXPECT_EQ(z[i], 0) << i;
  EXPECT_EQ(Used(), base + 63);
  char* empty = upnp_strdup_impl("");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty[0], '\0');
  EXPECT_EQ(Used(), base + 64);
  char* copy = upnp_strdup_impl("tarnwick");
  EXPECT_STREQ(copy, "tarnwick");
  EXPECT_EQ(upnp_strdup_impl(nullptr), nullptr);
  upnp_free_impl(copy);
  upnp_free_impl(empty);
  upnp_free_impl(z);
  EXPECT_EQ(Used(), base);
}

TEST(Memory, FreeOfNullAndFreeWithoutLockReportOnStderr) {
  const int32_t base = Used();
  testing::internal::CaptureStderr();
  upnp_free_impl(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "upnp_free: NULL pointer\n");
  EXPECT_EQ(Used(), base);

  void* p = upnp_malloc_impl(33);
  upnp_mem_exit();
  testing::internal::CaptureStderr();
  upnp_free_impl(p);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "upnp_free: MemCriticalSection not initialized when upnp_free called\n");
  EXPECT_EQ(Used(), base);
  upnp_mem_init();
}

TEST(Memory, InjectedFailureHitsExactlyTheNthAllocation) {
  const int32_t base = Used();
  tw::platform::FailAllocAfter(2);
  void* a = upnp_malloc_impl(1);
  void* b = upnp_strdup_impl("x");
  void* c = upnp_calloc_impl(1, 1);
  void* d = upnp_malloc_impl(1);
  tw::platform::ClearAllocFailure();
  EXPECT_NE(a, nullptr);
  EXPECT_NE(b, nullptr);
  EXPECT_EQ(c, nullptr);
  EXPECT_NE(d, nullptr);
  upnp_free_impl(a);
  upnp_free_impl(b);
  upnp_free_impl(d);
  EXPECT_EQ(Used(), base);
}

TEST(Memory, ContainersThroughAdapterAreCountedAndThrowOnShortage) {
  const int32_t base = Used();
  {
    tw::Vector<int> v(1000, 7);
    EXPECT_GE(Used(), base + static_cast<int32_t>(1000 * sizeof(int)));
    tw::String s(300, 'q');
    EXPECT_GT(Used(), base + 4000);
  }
  EXPECT_EQ(Used(), base);

  tw::platform::FailAllocAfter(0);
  const int r = tw::Guard(8, [] {
    tw::Vector<int> v(10, 1);
    return static_cast<int>(v.size());
  });
  tw::platform::ClearAllocFailure();
  EXPECT_EQ(r, 8);
  EXPECT_EQ(Used(), base);

  struct Pair {
    int a;
    double b;
  };
  Pair* p = tw::New<Pair>(Pair{1, 2.0});
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Used(), base + static_cast<int32_t>(sizeof(Pair)));
  tw::Delete(p);
  EXPECT_EQ(Used(), base);
}

TEST(Memory, ConcurrentAllocationsKeepTheCountExact) {
  const int32_t base = Used();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 2000; ++i) {
        void* p = upnp_malloc_impl(static_cast<size_t>(i % 97) + 1);
        p = upnp_realloc_impl(p, static_cast<size_t>(i % 13) + 1);
        upnp_free_impl(p);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(Used(), base);
}

}  // namespace
