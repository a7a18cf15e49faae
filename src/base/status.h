// SPDX-License-Identifier: Apache-2.0
// Result numbers used across the C boundary, named once so entry points never carry bare literals.
#pragma once

#include <cstdint>

namespace tw {

// HTTP-family results.
inline constexpr int kHttpOk = 0;
inline constexpr int kHttpFail = 1;

// Wrapper results (missing socket/handle, failed system call).
inline constexpr int kSysFail = -1;

// Status-style results.
inline constexpr int kStatusOk = 0;
inline constexpr int kStatusInvalidArgument = 2;
inline constexpr int kStatusOutOfMemory = 8;
inline constexpr int kStatusNotFound = 14;

}  // namespace tw
