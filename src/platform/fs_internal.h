// SPDX-License-Identifier: Apache-2.0
// Internals of the file-system wrappers, visible to the unit tests.
#pragma once

#include <cstdint>

namespace tw::platform {

// Kilobytes of `blocks` blocks of `block_size` bytes, the block size divided by 1024 first
// (intended: blocks below 1 KiB give 0, and odd sizes round down per block).
uint64_t KilobytesOf(uint64_t block_size, uint64_t blocks) noexcept;

}  // namespace tw::platform
