// SPDX-License-Identifier: Apache-2.0
// Readers of request and response head text and of the byte and time-seek ranges a request asks
// for: the logic behind request_parser_api.cpp. Arguments are non-null (the entries check them);
// every function here is stateless, allocates only where it says so and never throws.
#pragma once

#include <cstddef>
#include <cstdint>

#include "httpclient/head_values.h"
#include "tarnwick/http.h"
#include "util/helpers.h"

namespace tw::http {

// ---- head values (httpclient/head_values.cpp, shared with the client) ----
using httpclient::SkipSpaces;
// atoi's reading with values beyond 32 bits clamped (util/helpers.h).
using util::Atoi;
void UnescapeUrl(char* text) noexcept;

// ---- ranges (range_parser.cpp) ----
uint32_t ParseTimeRange(const char* text, int32_t* clock_flag) noexcept;
// "%d:%d:%d.%03d" of a millisecond count; the snprintf result.
int32_t FormatRangeTime(int64_t milliseconds, char* buffer, size_t size) noexcept;
// Fills the range fields of request from request.header (which must be NUL-terminated).
void ReadRanges(HttpRequest& request) noexcept;

}  // namespace tw::http
