// SPDX-License-Identifier: Apache-2.0
// Internals of the file-system wrappers, visible to the unit tests.
#pragma once

#include <cstdint>

#include "tarnwick/platform.h"

namespace tw::platform {

// Kilobytes of `blocks` blocks of `block_size` bytes, the block size divided by 1024 first
// (intended: blocks below 1 KiB give 0, and odd sizes round down per block).
uint64_t KilobytesOf(uint64_t block_size, uint64_t blocks) noexcept;

// The status of an open descriptor (fstat): 0 with record filled, else the system result.
int32_t StatDescriptor(int32_t fd, upnp_stat* record) noexcept;

}  // namespace tw::platform
