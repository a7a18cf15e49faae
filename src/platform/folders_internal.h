// SPDX-License-Identifier: Apache-2.0
// Internals of the per-user folders, visible to the unit tests.
#pragma once

#include <string_view>

namespace tw::platform {

// `home` is the home directory of a known non-root user, null for root or an unknown user.
// Both return a new accounted text, null when memory is short.
char* AppDataDirFor(const char* home) noexcept;
char* MediaDirFor(const char* home, const char* base, std::string_view kind) noexcept;

}  // namespace tw::platform
