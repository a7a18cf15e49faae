// SPDX-License-Identifier: Apache-2.0
// The byte range or DLNA time-seek range a request asks for, and the npt time texts of both.
//
// The DLNA operation parameter "-OP" followed by two digits (time seek, then byte ranges) may sit
// anywhere in the head, usually inside the resource URL of the request line; the searches for it
// and for the other DLNA markers are case-sensitive and cover the whole head.
#include <cstring>

#include "base/ascii.h"
#include "base/fixed_text.h"
#include "http/request_parser.h"
#include "tarnwick/util.h"

namespace tw::http {
namespace {

constexpr int32_t kTimeOverflow = 2147483647;
constexpr uint32_t kNoDigits = static_cast<uint32_t>(HTTP_RANGE_UNSET);
// Where the time scan starts inside the time-seek header: past the '-' of "X-Seek-Range".
constexpr size_t kTimeScanOffset = 11;

bool Has(const char* head, const char* marker) noexcept {
  return std::strstr(head, marker) != nullptr;
}

bool HasFlags00dOr00f(const char* head) noexcept {
  return Has(head, "FLAGS00d") || Has(head, "FLAGS00f");
}

void CopyRequested(HttpRequest& request) noexcept {
  request.requested_range_start = request.range_start;
  request.requested_range_end = request.range_end;
}

void SetBoth(HttpRequest& request, int64_t value) noexcept {
  request.range_start = value;
  request.range_end = value;
}

// The time is an unsigned 32-bit millisecond count that callers read as signed.
int64_t SignExtended(uint32_t time) noexcept { return static_cast<int32_t>(time); }

void ReadTimeSeek(HttpRequest& request, const char* name) noexcept {
  const char* head = request.header;
  request.is_timeseek = 1;
  SetBoth(request, HTTP_RANGE_UNSET);
  const char* op = std::strstr(head, "-OP");
  const bool has_pn = Has(head, "DLNA-PN");
  bool parse;
  if (op == nullptr && has_pn) {
    // A profile without an operation parameter forbids time seek; the requested copies are
    // deliberately left as they were.
    SetBoth(request, HasFlags00dOr00f(head) ? HTTP_RANGE_UNSET : HTTP_RANGE_REFUSED);
    return;
  } else if (op == nullptr) {
    parse = true;
  } else {
    parse = op[3] != '0' && !Has(head, "PlaySpeed.dlna.org") && !Has(head, "Background");
  }
  if (!parse) {
    bool unset = HasFlags00dOr00f(head) || Has(head, "Background");
    SetBoth(request, unset ? HTTP_RANGE_UNSET : HTTP_RANGE_REFUSED);
    CopyRequested(request);
    return;
  }

  // The header name is at least kTimeScanOffset long, so the offset stays inside the text. The
  // scan is not bounded by the line: it runs on into the next headers until '-' or the end.
  const char* p = name + kTimeScanOffset;
  for (; *p != '\0' && *p != '-'; ++p) {
    if (*p == '=') {
      request.range_start =
          SignExtended(ParseTimeRange(SkipSpaces(p + 1), &request.range_is_clock_time));
    }
  }
  if (*p == '-') {
    request.range_end = HTTP_RANGE_ABSENT;
    const char* end = SkipSpaces(p + 1);
    if (ascii::IsDigit(*end)) request.range_end = SignExtended(ParseTimeRange(end, nullptr));
  }
  CopyRequested(request);
}

void ReadBytes(HttpRequest& request, const char* name) noexcept {
  const char* head = request.header;
  SetBoth(request, HTTP_RANGE_UNSET);
  if (std::strstr(name, "bytes") == nullptr) return;
  const char* op = std::strstr(head, "-OP");
  if ((op != nullptr && op[3] != '\0' && op[4] == '0') || (op == nullptr && Has(head, "DLNA-PN"))) {
    SetBoth(request, HTTP_RANGE_REFUSED);
    return;
  }
  const char* p = name;
  for (; *p != '\0' && *p != '-'; ++p) {
    if (*p == '=') {
      const char* start = SkipSpaces(p + 1);
      if (ascii::IsDigit(*start)) request.range_start = upnp_ascii_to_long_long(start);
    }
  }
  if (*p == '-') {
    request.range_end = HTTP_RANGE_ABSENT;
    const char* end = SkipSpaces(p + 1);
    if (ascii::IsDigit(*end)) request.range_end = upnp_ascii_to_long_long(end);
  }
  CopyRequested(request);
}

}  // namespace

uint32_t ParseTimeRange(const char* text, int32_t* clock_flag) noexcept {
  // 32-bit wrapping arithmetic on purpose: an overflow shows as a negative result, which is
  // capped below. Hence also the clock form without a fraction, taken as seconds, usually caps.
  uint32_t total = 0;
  uint32_t current = 0;
  uint32_t multiplier = 3600000;
  bool fraction = false;
  bool digit_seen = false;
  for (const char* p = text; *p != '\0'; ++p) {
    char c = *p;
    if (ascii::IsDigit(c)) {
      current = current * 10 + static_cast<uint32_t>(c - '0');
      digit_seen = true;
    } else if (c == ':') {
      total += current * multiplier;
      multiplier /= 60;
      if (clock_flag != nullptr) *clock_flag = 1;
      current = 0;
    } else if (c == '.') {
      total += current * 1000;
      fraction = true;
      current = 0;
    } else if (c != ' ') {
      break;
    }
  }
  if (!digit_seen) return kNoDigits;
  // The fraction digits count as milliseconds as written (".5" adds 5), intended: clients send
  // three digits.
  uint32_t result = fraction ? total + current : (total + current) * 1000;
  if (static_cast<int32_t>(result) < 0) return kTimeOverflow;
  return result;
}

int32_t FormatRangeTime(int64_t milliseconds, char* buffer, size_t size) noexcept {
  int64_t s = milliseconds / 1000;
  // Hours wrap at 60, intended (a range time never gets there in practice).
  return FormatCut(buffer, size, "%d:%d:%d.%03d", static_cast<int>((s / 3600) % 60),
                   static_cast<int>((s / 60) % 60), static_cast<int>(s % 60),
                   static_cast<int>(milliseconds % 1000));
}

void ReadRanges(HttpRequest& request) noexcept {
  SetBoth(request, HTTP_RANGE_ABSENT);
  CopyRequested(request);
  request.is_timeseek = 0;
  request.range_is_dtcp = 0;
  const char* head = request.header;
  const char* name = upnp_istrstr(head, "\nRange:");
  if (name == nullptr) {
    name = upnp_istrstr(head, "\nRange.dtcp.com:");
    if (name != nullptr) request.range_is_dtcp = 1;
  }
  if (name != nullptr) {
    ReadBytes(request, name);
    return;
  }
  name = upnp_istrstr(head, "TimeSeekRange.dlna.org:");
  if (name == nullptr) name = upnp_istrstr(head, "X-Seek-Range:");
  if (name != nullptr) ReadTimeSeek(request, name);
}

}  // namespace tw::http
