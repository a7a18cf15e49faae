// SPDX-License-Identifier: Apache-2.0
// Giving memory back to the system after a burst of connections: a server that served a
// thousand kept-alive connections should shrink back to its idle size once they are gone.
#pragma once

namespace tw::platform {

// Drops the resident pages of the calling thread's stack below its current frame. Called by a
// thread right before it ends: the C library keeps the stacks of ended threads for reuse, and
// without this they keep every page their thread ever touched.
void ReleaseUnusedStack() noexcept;

// Returns the free parts of the heap to the system (malloc_trim where the C library has it).
// Costs a walk over the heap: for quiet moments, such as the last connection ending.
void ReleaseFreeHeap() noexcept;

}  // namespace tw::platform
