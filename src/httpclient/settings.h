// SPDX-License-Identifier: Apache-2.0
// Process-wide settings of the HTTP client. The User-Agent text is set once (the first setter
// wins until it is made settable again) and guarded by a lock of its own because client requests
// run on many threads.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tw::httpclient {

inline constexpr size_t kUserAgentSize = 128;

// Stores text (cut at 127 characters, null as "") unless a user agent is set; marks it set.
void SetDefaultUserAgent(const char* text) noexcept;
void MakeUserAgentSettable() noexcept;
// True when set; copies it into out (cut at size, terminated when size > 0) either way.
bool CopyUserAgent(char* out, size_t size) noexcept;

// Connect, send and receive time-out in seconds (30 until set); the setter returns the old one.
int32_t SetConnectionTimeout(int32_t seconds) noexcept;
int32_t ConnectionTimeout() noexcept;

}  // namespace tw::httpclient
