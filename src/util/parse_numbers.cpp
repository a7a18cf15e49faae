// SPDX-License-Identifier: Apache-2.0
// Decimal readers. Overflow is not an error here: values wrap in unsigned arithmetic, which is
// defined behaviour and gives the same bits on 32- and 64-bit targets.
#include <climits>
#include <cstdint>

#include "base/ascii.h"
#include "util/helpers.h"

namespace tw::util {
namespace {

// The white space atoi skips (isspace in the C locale), without consulting the locale.
bool IsAtoiSpace(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

uint64_t ReadDecimal(const char* text, int32_t* digits) noexcept {
  uint64_t value = 0;
  int32_t count = 0;
  for (const char* p = text; ascii::IsDigit(*p); ++p) {
    value = value * 10u + static_cast<uint64_t>(*p - '0');
    if (count < INT32_MAX) ++count;
  }
  if (digits != nullptr) *digits = count;
  return value;
}

int64_t ReadSignedDecimal(const char* text) noexcept {
  const char* p = text;
  // Only this order is accepted: "+-5" reads -5 while "-+5" stops at the '+' and reads 0.
  if (*p == '+') ++p;
  bool negative = false;
  if (*p == '-') {
    negative = true;
    ++p;
  }
  const uint64_t magnitude = ReadDecimal(p, nullptr);
  const uint64_t bits = negative ? (~magnitude + 1u) : magnitude;
  return static_cast<int64_t>(bits);
}

int32_t Atoi(const char* text) noexcept {
  const char* p = text;
  while (IsAtoiSpace(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') {
    negative = *p == '-';
    ++p;
  }
  // Saturate instead of wrapping: a huge hour count stays huge rather than turning negative.
  int64_t value = 0;
  for (; ascii::IsDigit(*p); ++p) {
    value = value * 10 + (*p - '0');
    if (value > static_cast<int64_t>(INT32_MAX) + 1) value = static_cast<int64_t>(INT32_MAX) + 1;
  }
  if (negative) value = -value;
  if (value > INT32_MAX) value = INT32_MAX;
  return static_cast<int32_t>(value);
}

}  // namespace tw::util
