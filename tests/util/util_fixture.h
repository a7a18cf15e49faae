// SPDX-License-Identifier: Apache-2.0
// Shared fixture of the util tests: leak check, no planned allocation failure left behind.
#pragma once

#include "platform/test_hooks.h"
#include "support/test_support.h"

namespace tw::test {

class UtilTest : public LeakCheck {
 protected:
  void TearDown() override {
    tw::platform::ClearAllocFailure();
    LeakCheck::TearDown();
  }
};

// Runs op with the n-th allocation failing for n = 0, 1, ... until it runs without a planned
// failure; check sees each result and must release it. Returns the allocations of a full run.
template <typename Op, typename Check>
int ForEachAllocFailure(Op op, Check check) {
  for (int n = 0; n < 64; ++n) {
    tw::platform::FailAllocAfter(n);
    auto result = op();
    const bool fired = tw::platform::AllocFailureFired();
    tw::platform::ClearAllocFailure();
    check(result, fired);
    if (!fired) return n;
  }
  ADD_FAILURE() << "operation never completed";
  return -1;
}

}  // namespace tw::test
