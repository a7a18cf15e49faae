// SPDX-License-Identifier: Apache-2.0
// Date and time texts for the wire (HTTP and SSDP dates, DIDL dates) and for the log.
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/ascii.h"
#include "base/calendar.h"
#include "platform/log_hook.h"
#include "platform/time_internal.h"
#include "tarnwick/platform.h"

extern "C" {
// 1 is the "not yet known" value; see upnp_convert_date_time_string_to_numeric.
TW_API int32_t g_timeZoneOffsetInSeconds = 1;
}

namespace tw::platform {
namespace {

constexpr int64_t kSecondsPerDay = 86400;
constexpr int32_t kOffsetUnknown = 1;

pthread_once_t g_tz_once = PTHREAD_ONCE_INIT;
void InitTimeZone() { tzset(); }

// False when time_t cannot hold t (only where time_t has 32 bits).
bool ToTimeT(int64_t t, time_t* out) {
  *out = static_cast<time_t>(t);
  return static_cast<int64_t>(*out) == t;
}

bool BrokenDown(int64_t t, bool local, tm* out) {
  time_t tt;
  if (!ToTimeT(t, &tt)) return false;
  if (local) {
    pthread_once(&g_tz_once, InitTimeZone);
    return localtime_r(&tt, out) != nullptr;
  }
  return gmtime_r(&tt, out) != nullptr;
}

// Common entry: null out or size 0 writes nothing; a failed conversion writes the empty text.
char* Empty(char* out, size_t size) {
  if (out != nullptr && size > 0) out[0] = '\0';
  return out;
}

void PutTwoDigits(int value, char* at) noexcept {
  at[0] = static_cast<char>('0' + value / 10);
  at[1] = static_cast<char>('0' + value % 10);
}

// Every response carries one: formatted by hand where the fields have their usual widths (the
// common case), by snprintf for the rest.
char* WriteHttpDate(int wday, int mday, int mon, int year, int hour, int min, int sec, char* out,
                    size_t size) {
  static constexpr char kLayout[] = "Www, DD Mmm YYYY HH:MM:SS GMT";
  const bool usual = mday >= 0 && mday <= 99 && year >= 0 && year <= 9999 && hour >= 0 &&
                     hour <= 99 && min >= 0 && min <= 99 && sec >= 0 && sec <= 99;
  if (!usual || size < sizeof(kLayout)) {
    std::snprintf(out, size, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDayNames[wday % 7], mday,
                  kMonthNames[mon % 12], year, hour, min, sec);
    return out;
  }
  std::memcpy(out, kLayout, sizeof(kLayout));
  std::memcpy(out, kDayNames[wday % 7], 3);
  PutTwoDigits(mday, out + 5);
  std::memcpy(out + 8, kMonthNames[mon % 12], 3);
  PutTwoDigits(year / 100, out + 12);
  PutTwoDigits(year % 100, out + 14);
  PutTwoDigits(hour, out + 17);
  PutTwoDigits(min, out + 20);
  PutTwoDigits(sec, out + 23);
  return out;
}

char* WriteDateTime(const tm& t, char* out, size_t size) {
  std::snprintf(out, size, "%04d-%02d-%02dT%02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1,
                t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return out;
}

// The once-a-day cache of upnp_date_getGMT: midnight of the cached day and its calendar fields
// packed into one 64-bit word, so HTTP threads share it without a lock.
//   bits 0-2 weekday, 3-7 day of month, 8-11 month (0-11), 12-27 year + 32768 (16 bits),
//   28-63 midnight in days since 1970, + 2^35 so it stays non-negative (36 bits).
// 0 means empty (no real day packs to 0 because of the biases).
std::atomic<uint64_t> g_day_cache{0};
constexpr int64_t kDayBias = int64_t{1} << 35;

uint64_t PackDay(int64_t day, const tm& t) {
  return static_cast<uint64_t>(t.tm_wday) | static_cast<uint64_t>(t.tm_mday) << 3 |
         static_cast<uint64_t>(t.tm_mon) << 8 |
         static_cast<uint64_t>((t.tm_year + 1900 + 32768) & 0xFFFF) << 12 |
         static_cast<uint64_t>(day + kDayBias) << 28;
}

int64_t FloorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

int DigitsValue(const char*& p, int64_t* value) {
  int digits = 0;
  int64_t v = 0;
  while (ascii::IsDigit(*p)) {
    if (v < (int64_t{1} << 40)) v = v * 10 + (*p - '0');  // bounded: absurd inputs saturate
    ++p;
    ++digits;
  }
  *value = v;
  return digits;
}

int32_t LearnTimeZoneOffset() {
  tm gmt{};
  tm local{};
  if (!BrokenDown(0, false, &gmt) || !BrokenDown(0, true, &local)) return 0;
  int32_t offset =
      (gmt.tm_hour * 3600 + gmt.tm_min * 60) - (local.tm_hour * 3600 + local.tm_min * 60);
  // West of Greenwich the epoch is still 31 December locally.
  if (gmt.tm_mday != local.tm_mday) offset += 24 * 3600;
  return offset;
}

int32_t TimeZoneOffset() {
  int32_t offset = __atomic_load_n(&g_timeZoneOffsetInSeconds, __ATOMIC_ACQUIRE);
  if (offset != kOffsetUnknown) return offset;
  int32_t learned = LearnTimeZoneOffset();
  int32_t expected = kOffsetUnknown;
  // Only the thread that stores the value reports it; a concurrent first use computes the same.
  if (__atomic_compare_exchange_n(&g_timeZoneOffsetInSeconds, &expected, learned, false,
                                  __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SYSTEM,
                      "upnp_convert_date_time_string_to_numeric: Timezone offset is %d:%02d",
                      static_cast<int>(learned / 3600), std::abs(learned % 3600) / 60);
  }
  return learned;
}

}  // namespace

char* FormatHttpDateCached(int64_t now, char* out, size_t size) noexcept {
  if (out == nullptr || size == 0) return nullptr;
  const int64_t day = FloorDiv(now, kSecondsPerDay);
  uint64_t packed = g_day_cache.load(std::memory_order_acquire);
  // Cached midnights lie within years 0..9999, so these sums cannot overflow.
  const int64_t cached_midnight = (static_cast<int64_t>(packed >> 28) - kDayBias) * kSecondsPerDay;
  if (packed == 0 || now < cached_midnight || now >= cached_midnight + kSecondsPerDay) {
    tm t{};
    if (!BrokenDown(now, false, &t)) return Empty(out, size);
    // The packed year has 16 bits; far-off years are simply not cached.
    if (t.tm_year + 1900 < 0 || t.tm_year + 1900 > 9999) {
      return WriteHttpDate(t.tm_wday, t.tm_mday, t.tm_mon, t.tm_year + 1900, t.tm_hour, t.tm_min,
                           t.tm_sec, out, size);
    }
    packed = PackDay(day, t);
    g_day_cache.store(packed, std::memory_order_release);
  }
  const int64_t midnight = (static_cast<int64_t>(packed >> 28) - kDayBias) * kSecondsPerDay;
  const int64_t second_of_day = now - midnight;
  return WriteHttpDate(
      static_cast<int>(packed & 7), static_cast<int>((packed >> 3) & 31),
      static_cast<int>((packed >> 8) & 15), static_cast<int>((packed >> 12) & 0xFFFF) - 32768,
      static_cast<int>(second_of_day / 3600), static_cast<int>(second_of_day % 3600 / 60),
      static_cast<int>(second_of_day % 60), out, size);
}

void ResetTimeZoneOffsetForTesting() noexcept {
  __atomic_store_n(&g_timeZoneOffsetInSeconds, kOffsetUnknown, __ATOMIC_RELEASE);
}

char* FormatHttpDate(int64_t time, char* out, size_t size) noexcept {
  tm t{};
  if (!BrokenDown(time, false, &t)) return Empty(out, size);
  return WriteHttpDate(t.tm_wday, t.tm_mday, t.tm_mon, t.tm_year + 1900, t.tm_hour, t.tm_min,
                       t.tm_sec, out, size);
}

char* FormatDateTime(int64_t time, bool local, char* out, size_t size) noexcept {
  tm t{};
  if (!BrokenDown(time, local, &t)) return Empty(out, size);
  return WriteDateTime(t, out, size);
}

char* FormatDate(int64_t time, char* out, size_t size) noexcept {
  tm t{};
  if (!BrokenDown(time, false, &t)) return Empty(out, size);
  std::snprintf(out, size, "%04d-%02d-%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
  return out;
}

char* FormatLocalClock(int64_t time, char* out, size_t size) noexcept {
  tm t{};
  if (!BrokenDown(time, true, &t)) return Empty(out, size);
  std::snprintf(out, size, "%02d:%02d:%02d", t.tm_hour, t.tm_min, t.tm_sec);
  return out;
}

int64_t ParseDateTime(const char* text) noexcept {
  int64_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  const char* p = text;
  if (DigitsValue(p, &year) > 0 && *p == '-') {
    ++p;
    if (DigitsValue(p, &month) > 0 && *p == '-') {
      ++p;
      if (DigitsValue(p, &day) > 0 && (*p == 'T' || *p == ' ')) {
        ++p;
        if (DigitsValue(p, &hour) > 0 && *p == ':') {
          ++p;
          if (DigitsValue(p, &minute) > 0 && *p == ':') {
            ++p;
            DigitsValue(p, &second);  // a fraction after '.' is ignored
          }
        }
      }
    }
  }
  tm t{};
  t.tm_year = static_cast<int>(year) - 1900;
  t.tm_mon = static_cast<int>(month) - 1;
  t.tm_mday = static_cast<int>(day);
  t.tm_hour = static_cast<int>(hour);
  t.tm_min = static_cast<int>(minute);
  t.tm_sec = static_cast<int>(second);
  // Standard time on purpose: the offset learned at the epoch is a standard-time offset, so the
  // pair reads the text as GMT whatever the season.
  t.tm_isdst = 0;
  const int32_t offset = TimeZoneOffset();
  pthread_once(&g_tz_once, InitTimeZone);
  const time_t local = mktime(&t);
  if (local == static_cast<time_t>(-1)) return -1;
  return static_cast<int64_t>(local) - offset;
}

int64_t ParseDuration(const char* text) noexcept {
  int64_t hours = 0, minutes = 0, seconds = 0, fraction = 0;
  const char* p = text;
  if (DigitsValue(p, &hours) > 0 && *p == ':') {
    ++p;
    if (DigitsValue(p, &minutes) > 0 && *p == ':') {
      ++p;
      if (DigitsValue(p, &seconds) > 0 && *p == '.') {
        ++p;
        DigitsValue(p, &fraction);  // added as written: ".5" is 5 ms (intended)
      }
    }
  }
  // Saturated digit runs can still overflow the products: absurd inputs wrap instead.
  const uint64_t total = static_cast<uint64_t>(hours) * 3600000u +
                         static_cast<uint64_t>(minutes) * 60000u +
                         static_cast<uint64_t>(seconds) * 1000u + static_cast<uint64_t>(fraction);
  return static_cast<int64_t>(total);
}

char* FormatLogTimestamp(int64_t seconds, int32_t milliseconds, char* out, size_t size) noexcept {
  if (out == nullptr || size == 0) return nullptr;
  tm t{};
  if (!BrokenDown(seconds, true, &t)) return Empty(out, size);
  char clock_text[16];
  if (strftime(clock_text, sizeof clock_text, "%H:%M:%S", &t) == 0) clock_text[0] = '\0';
  std::snprintf(out, size, "%s:%03ld ", clock_text, static_cast<long>(milliseconds));
  return out;
}

int64_t MonotonicMs() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace tw::platform

namespace {
bool Writable(char* out, size_t size) { return out != nullptr && size > 0; }
}  // namespace

extern "C" {

TW_API char* upnp_date_getGMT(char* out, size_t size) noexcept {
  if (!Writable(out, size)) return nullptr;
  return tw::platform::FormatHttpDateCached(static_cast<int64_t>(::time(nullptr)), out, size);
}

TW_API char* upnp_date_formatGMT(int64_t time, char* out, size_t size) noexcept {
  if (!Writable(out, size)) return nullptr;
  return tw::platform::FormatHttpDate(time, out, size);
}

TW_API char* upnp_format_time_to_localdate(int64_t time, char* out, size_t size) noexcept {
  if (!Writable(out, size)) return nullptr;
  return tw::platform::FormatDateTime(time, true, out, size);
}

TW_API char* upnp_time_convertToLocaltime(int64_t time, char* out, size_t size) noexcept {
  if (!Writable(out, size)) return nullptr;
  return tw::platform::FormatDateTime(time, true, out, size);
}

TW_API char* upnp_time_convertToGMT(int64_t time, char* out, size_t size) noexcept {
  if (!Writable(out, size)) return nullptr;
  return tw::platform::FormatDateTime(time, false, out, size);
}

TW_API char* upnp_date_convertToGMT(int64_t time, char* out, size_t size) noexcept {
  if (!Writable(out, size)) return nullptr;
  return tw::platform::FormatDate(time, out, size);
}

TW_API char* upnp_format_time_to_localtime(int64_t time, char* out, size_t size) noexcept {
  if (!Writable(out, size)) return nullptr;
  return tw::platform::FormatLocalClock(time, out, size);
}

TW_API int64_t upnp_convert_date_time_string_to_numeric(const char* text) noexcept {
  if (text == nullptr) return 0;
  return tw::platform::ParseDateTime(text);
}

TW_API int64_t upnp_convert_duration_string_to_numeric(const char* text) noexcept {
  if (text == nullptr) return 0;
  return tw::platform::ParseDuration(text);
}

TW_API char* upnp_get_logging_timestamp(char* out, size_t size) noexcept {
  if (!Writable(out, size)) return nullptr;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return tw::platform::FormatLogTimestamp(static_cast<int64_t>(now.tv_sec),
                                          static_cast<int32_t>(now.tv_nsec / 1000000), out, size);
}

TW_API int64_t getSystemTime(void) noexcept { return tw::platform::MonotonicMs(); }

}  // extern "C"
