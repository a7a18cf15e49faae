// SPDX-License-Identifier: Apache-2.0
// Dates and durations. The input's first eight bytes pick a time (any 64-bit value, so both the
// far past and the far future, where a 32-bit time_t gives the empty text); the rest is read as a
// date text and as a duration text. Checks that the once-a-day cache of HTTP dates gives what a
// full conversion gives, that the cookie expiry date is the C library's, that a written GMT date
// reads back as the same time, and that parsing arbitrary text stays in bounds.
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "http/authorization.h"
#include "platform/time_internal.h"
#include "tarnwick/platform.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int64_t t = 0;
  std::memcpy(&t, data, size < sizeof(t) ? size : sizeof(t));
  t /= 4;  // leaves room for the day steps below without overflow
  // Successive calls walk the cache across days, backwards and forwards.
  for (const int64_t when : {t, t / 2, t + 86399, t - 1}) {
    char cached[64], full[64];
    Check(tw::platform::FormatHttpDateCached(when, cached, sizeof cached) == cached);
    Check(std::strcmp(cached, upnp_date_formatGMT(when, full, sizeof full)) == 0);
  }
  // The cookie form computes the calendar itself; the C library is the reference where time_t
  // reaches.
  const time_t tt = static_cast<time_t>(t);
  tm parts{};
  char cookie[64], expected[64];
  if (static_cast<int64_t>(tt) == t && t >= 0 && gmtime_r(&tt, &parts) != nullptr &&
      parts.tm_year < 8000) {
    std::strftime(expected, sizeof expected, "%a, %d-%b-%Y %H:%M:%S GMT", &parts);
    tw::http::FormatCookieExpiry(t, cookie, sizeof cookie);
    Check(std::strcmp(cookie, expected) == 0);
  }
  // Years 0..9999 print as four digits, which is what the reader takes.
  const int64_t bounded = t % 253402300800;
  char iso[64];
  upnp_time_convertToGMT(bounded, iso, sizeof iso);
  if (iso[0] != '\0' && bounded >= -62135596800) {
    Check(upnp_convert_date_time_string_to_numeric(iso) == bounded);
  }
  const std::string text(reinterpret_cast<const char*>(data), size);
  (void)upnp_convert_date_time_string_to_numeric(text.c_str());
  (void)upnp_convert_duration_string_to_numeric(text.c_str());
  return 0;
}
