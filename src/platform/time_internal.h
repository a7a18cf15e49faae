// SPDX-License-Identifier: Apache-2.0
// Internals of the date and time functions, visible to the unit tests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tw::platform {

// The HTTP date of `now` through the once-a-day cache that upnp_date_getGMT uses.
char* FormatHttpDateCached(int64_t now, char* out, size_t size) noexcept;
// The log's "HH:MM:SS:mmm " for a given local time (seconds since 1970 and milliseconds).
char* FormatLogTimestamp(int64_t seconds, int32_t milliseconds, char* out, size_t size) noexcept;
// Forgets the learned time-zone offset (back to the "not yet known" value 1), so a test can
// change TZ and have the next date parse learn it again.
void ResetTimeZoneOffsetForTesting() noexcept;

}  // namespace tw::platform
