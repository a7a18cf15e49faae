// SPDX-License-Identifier: Apache-2.0
// Durations and dates of DIDL-Lite metadata.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "base/ascii.h"
#include "base/fixed_text.h"
#include "tarnwick/platform.h"
#include "util/helpers.h"

namespace tw::util {
namespace {

constexpr int64_t kMsPerHour = 3600000;
constexpr int64_t kMsPerMinute = 60000;
constexpr int64_t kMsPerSecond = 1000;

int32_t Clamp(int32_t value, int32_t max) noexcept {
  if (value < 0) return 0;
  return value > max ? max : value;
}

// Two digits at p (both required), or -1.
int TwoDigits(const char* p) noexcept {
  if (!ascii::IsDigit(p[0]) || !ascii::IsDigit(p[1])) return -1;
  return (p[0] - '0') * 10 + (p[1] - '0');
}

}  // namespace

int64_t TimeTextToMilliseconds(const char* text) noexcept {
  const int64_t hours = Atoi(text);
  int64_t minutes = 0;
  int64_t seconds = 0;
  int64_t fraction = 0;
  const char* colon = std::strchr(text, ':');
  if (colon != nullptr) {
    minutes = Atoi(colon + 1);
    colon = std::strchr(colon + 1, ':');
    if (colon != nullptr) {
      seconds = Atoi(colon + 1);
      const char* dot = std::strchr(colon + 1, '.');
      // The fraction counts as a whole number of milliseconds: ".5" is 5 ms, ".500" is 500 ms.
      // Intended: metadata writers that mean tenths are rare, and this matches what hosts store.
      if (dot != nullptr) fraction = Atoi(dot + 1);
    }
  }
  return hours * kMsPerHour + minutes * kMsPerMinute + seconds * kMsPerSecond + fraction;
}

// By hand rather than through snprintf: the compliant XML writer formats one of these for every
// duration attribute of a listing, and the formatted print dominated its cost.
void FormatClock(uint64_t milliseconds, char* buffer, size_t size) noexcept {
  if (size == 0) return;
  const uint64_t total_seconds = milliseconds / kMsPerSecond;
  uint64_t hours = total_seconds / 3600;
  const auto minutes = static_cast<unsigned>((total_seconds / 60) % 60);
  const auto seconds = static_cast<unsigned>(total_seconds % 60);
  char text[32];  // 20 digits of hours at most, then ":mm:ss"
  char* end = text + sizeof(text);
  char* p = end;
  *--p = static_cast<char>('0' + seconds % 10);
  *--p = static_cast<char>('0' + seconds / 10);
  *--p = ':';
  *--p = static_cast<char>('0' + minutes % 10);
  *--p = static_cast<char>('0' + minutes / 10);
  *--p = ':';
  const char* hours_end = p;
  do {
    *--p = static_cast<char>('0' + static_cast<unsigned>(hours % 10));
    hours /= 10;
  } while (hours != 0);
  if (hours_end - p < 2) *--p = '0';
  // Cut to the buffer as a formatted print would be.
  std::size_t n = static_cast<std::size_t>(end - p);
  if (n > size - 1) n = size - 1;
  std::memcpy(buffer, p, n);
  buffer[n] = '\0';
}

int FormatDuration(uint64_t milliseconds, char* buffer, size_t size) noexcept {
  const uint64_t total_seconds = milliseconds / kMsPerSecond;
  const auto rest = static_cast<unsigned>(milliseconds % kMsPerSecond);
  const uint64_t hours = total_seconds / 3600;
  const auto minutes = static_cast<unsigned>((total_seconds / 60) % 60);
  const auto seconds = static_cast<unsigned>(total_seconds % 60);
  if (rest == 0) {
    return std::snprintf(buffer, size, "%" PRIu64 ":%02u:%02u", hours, minutes, seconds);
  }
  return std::snprintf(buffer, size, "%" PRIu64 ":%02u:%02u.%03u", hours, minutes, seconds, rest);
}

void ScrubResDuration(char* text, char* buffer) noexcept {
  int32_t hours = 0;
  int32_t minutes = 0;
  int32_t seconds = 0;
  int32_t fraction = 0;
  // Split from the right, cutting the text at each separator found.
  char* dot = std::strrchr(text, '.');
  if (dot != nullptr) {
    *dot = '\0';
    fraction = Atoi(dot + 1);
  }
  char* colon = std::strrchr(text, ':');
  if (colon == nullptr) {
    seconds = Atoi(text);
  } else {
    *colon = '\0';
    seconds = Atoi(colon + 1);
    char* previous = std::strrchr(text, ':');
    if (previous == nullptr) {
      minutes = Atoi(text);
    } else {
      *previous = '\0';
      minutes = Atoi(previous + 1);
      hours = Atoi(text);
    }
  }
  // Out-of-range parts are clamped, not carried ("0:75:3" is 00000:59:03.000), and negatives
  // become 0 so the result always has the fixed 15-character form.
  std::snprintf(buffer, 16, "%05d:%02d:%02d.%03d", Clamp(hours, 99999), Clamp(minutes, 59),
                Clamp(seconds, 59), Clamp(fraction, 999));
}

bool DateIsValid(const char* text) noexcept {
  for (int i = 0; i < 4; ++i) {
    if (!ascii::IsDigit(text[i])) return false;
  }
  if (text[4] != '-') return false;
  const int month = TwoDigits(text + 5);
  if (month < 1 || month > 12 || text[7] != '-') return false;
  // No calendar check: February 31 passes, as the text is only screened for its shape.
  const int day = TwoDigits(text + 8);
  return day >= 1 && day <= 31;
}

void Iso8601ToRfc822(char* buffer, size_t size) noexcept {
  const int64_t seconds = upnp_convert_date_time_string_to_numeric(buffer);
  char formatted[64] = {};
  upnp_date_formatGMT(seconds, formatted, sizeof(formatted));
  CopyCut(buffer, size, formatted);
}

}  // namespace tw::util
