// SPDX-License-Identifier: Apache-2.0
// Giving memory back to the system after a burst of connections: a server that served a
// thousand kept-alive connections should shrink back to its idle size once they are gone.
#pragma once

namespace tw::platform {

// Returns the free parts of the heap to the system (malloc_trim where the C library has it).
// Costs a walk over the heap: for quiet moments, such as the last connection ending.
void ReleaseFreeHeap() noexcept;

}  // namespace tw::platform
