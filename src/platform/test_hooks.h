// SPDX-License-Identifier: Apache-2.0
// Test-only hooks into the accounted allocator (not exported from the shared library).
#pragma once

#include <cstdint>

namespace tw::platform {

// Makes exactly one allocation fail: the one `n` allocation calls from now (0 = the very next
// malloc/calloc/realloc/strdup). A negative n, or ClearAllocFailure, switches injection off.
// Returns through AllocFailureFired whether the planned failure has happened yet.
void FailAllocAfter(int n) noexcept;
void ClearAllocFailure() noexcept;
bool AllocFailureFired() noexcept;

// Blocks the allocator has handed out since the process started (reallocations count as one).
uint64_t AllocationCount() noexcept;

}  // namespace tw::platform
