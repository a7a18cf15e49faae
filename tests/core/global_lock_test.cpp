// SPDX-License-Identifier: Apache-2.0
#include "core/core.h"
#include "support/test_support.h"

namespace {

// Host threads take and leave the lock while start and stop make and destroy it over and over:
// every hold is exclusive, and nobody touches a lock that went away (the sanitizer builds would
// report that).
TEST(CoreGlobalLock, StaysExclusiveAndSafeWhileMadeAndDestroyed) {
  std::atomic<bool> done{false};
  std::atomic<int> overlaps{0}, holds{0};
  int inside = 0;  // guarded by the global lock alone
  std::vector<std::thread> hosts;
  for (int t = 0; t < 4; ++t) {
    hosts.emplace_back([&] {
      while (!done.load()) {
        if (upnp_global_lock() != 1) continue;
        if (++inside != 1) ++overlaps;
        --inside;
        ++holds;
        upnp_global_unlock();
      }
    });
  }
  // At least 300 cycles, and on until the hosts got the lock often (bounded by a deadline).
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (int cycle = 0; cycle < 300 || (holds < 1000 && std::chrono::steady_clock::now() < deadline);
       ++cycle) {
    tw::core::CreateGlobalLock();
    std::this_thread::yield();
    tw::core::DestroyGlobalLock();
  }
  done = true;
  for (auto& host : hosts) host.join();
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_GT(holds.load(), 0);
  EXPECT_EQ(upnp_global_lock(), 0) << "destroyed last";
  upnp_global_unlock();  // nothing held: harmless
}

// A holder whose lock a stop destroyed still lets go of it: the next lock is free for others.
TEST(CoreGlobalLock, HolderReleasesALockDestroyedUnderIt) {
  tw::core::CreateGlobalLock();
  ASSERT_EQ(upnp_global_lock(), 1);
  tw::core::DestroyGlobalLock();
  upnp_global_unlock();
  tw::core::CreateGlobalLock();
  std::atomic<int> other{-1};
  std::thread([&] {
    other = upnp_global_lock();
    if (other == 1) upnp_global_unlock();
  }).detach();
  EXPECT_TRUE(tw::test::WaitFor([&] { return other.load() == 1; }));
  tw::core::DestroyGlobalLock();
}

}  // namespace
