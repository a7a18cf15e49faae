// SPDX-License-Identifier: Apache-2.0
// The User-Agent text the HTTP client sends. Set once (the first setter wins until it is made
// settable again); guarded by a lock of its own because client requests run on many threads.
#pragma once

#include <cstddef>

namespace tw::http {

inline constexpr size_t kUserAgentSize = 128;

// Stores text (cut at 127 characters, null as "") unless a user agent is set; marks it set.
void SetDefaultUserAgent(const char* text) noexcept;
void MakeUserAgentSettable() noexcept;
// True when set; copies it into out (cut at size, terminated when size > 0) either way.
bool CopyUserAgent(char* out, size_t size) noexcept;

}  // namespace tw::http
