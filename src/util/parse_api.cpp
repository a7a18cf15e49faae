// SPDX-License-Identifier: Apache-2.0
// Entries: numbers, durations and dates.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "base/ascii.h"
#include "tarnwick/util.h"
#include "util/helpers.h"

namespace {

// ASCII-only, like every case mapping of this library: no locale can change the answer.
int CompareIgnoringCase(const char* a, const char* b) noexcept {
  for (;; ++a, ++b) {
    const int x = tw::ascii::ToLower(static_cast<unsigned char>(*a));
    const int y = tw::ascii::ToLower(static_cast<unsigned char>(*b));
    if (x != y) return x < y ? -1 : 1;
    if (x == 0) return 0;
  }
}

}  // namespace

extern "C" {

TW_API uint32_t upnp_atoui2(const char* text, int32_t* digits) noexcept {
  if (text == nullptr) {
    if (digits != nullptr) *digits = 0;
    return 0;
  }
  return static_cast<uint32_t>(tw::util::ReadDecimal(text, digits));
}

TW_API uint32_t upnp_atoui(const char* text) noexcept { return upnp_atoui2(text, nullptr); }

TW_API uint64_t upnp_string_to_longlong(const char* text, int32_t* digits) noexcept {
  if (text == nullptr) {
    if (digits != nullptr) *digits = 0;
    return 0;
  }
  return tw::util::ReadDecimal(text, digits);
}

TW_API int64_t upnp_ascii_to_long_long(const char* text) noexcept {
  return text == nullptr ? 0 : tw::util::ReadSignedDecimal(text);
}

TW_API void upnp_longToHexString(uint32_t value, char* buffer) noexcept {
  if (buffer == nullptr) return;
  std::snprintf(buffer, 9, "%08" PRIx32, value);
}

TW_API int32_t upnp_longlong_to_string(int64_t value, char* buffer, size_t size) noexcept {
  if (buffer == nullptr || size == 0) return 0;
  const int written = std::snprintf(buffer, size, "%" PRId64, value);
  buffer[size - 1] = '\0';
  return written;
}

TW_API int upnp_util_strings_equal(const char* a, const char* b, int case_sensitive,
                                   int nulls_equal) noexcept {
  if (a != nullptr && b != nullptr) {
    return (case_sensitive != 0 ? std::strcmp(a, b) : CompareIgnoringCase(a, b)) == 0 ? 1 : 0;
  }
  return nulls_equal != 0 && a == nullptr && b == nullptr ? 1 : 0;
}

TW_API int64_t upnp_convert_time_to_long(const char* text) noexcept {
  return text == nullptr ? 0 : tw::util::TimeTextToMilliseconds(text);
}

TW_API void upnp_format_time(uint64_t milliseconds, char* buffer) noexcept {
  if (buffer == nullptr) return;
  tw::util::FormatClock(milliseconds, buffer, UPNP_FORMAT_TIME_SIZE);
}

TW_API char* upnp_duration_to_string(uint64_t milliseconds) noexcept {
  char text[48];
  tw::util::FormatDuration(milliseconds, text, sizeof(text));
  return tw::DupToC(text);
}

TW_API int upnp_util_scrub_res_duration(char* text, char* buffer) noexcept {
  if (text == nullptr || buffer == nullptr) return -1;
  tw::util::ScrubResDuration(text, buffer);
  return 0;
}

TW_API int upnp_date_is_valid(const char* text) noexcept {
  return text != nullptr && tw::util::DateIsValid(text) ? 1 : 0;
}

TW_API void convert_time_iso8601_to_rfc822(char* buffer, size_t size) noexcept {
  if (buffer == nullptr || size == 0) return;
  tw::util::Iso8601ToRfc822(buffer, size);
}

}  // extern "C"
