// SPDX-License-Identifier: Apache-2.0
// ASCII byte tests for parsers at every layer. No locale is consulted, so a byte means the same
// on every host; arguments are ints so a plain (possibly signed) char passes unchanged and
// anything outside 0..127 is simply "not in the class".
#pragma once

namespace tw::ascii {

constexpr bool IsDigit(int c) noexcept { return c >= '0' && c <= '9'; }
constexpr bool IsUpper(int c) noexcept { return c >= 'A' && c <= 'Z'; }
constexpr bool IsLower(int c) noexcept { return c >= 'a' && c <= 'z'; }
constexpr bool IsAlpha(int c) noexcept { return IsUpper(c) || IsLower(c); }
constexpr bool IsAlnum(int c) noexcept { return IsAlpha(c) || IsDigit(c); }

// 0..15 for a hexadecimal digit of either case, -1 for anything else.
constexpr int HexDigitValue(int c) noexcept {
  if (IsDigit(c)) return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}
constexpr bool IsHexDigit(int c) noexcept { return HexDigitValue(c) >= 0; }

constexpr int ToLower(int c) noexcept { return IsUpper(c) ? c + ('a' - 'A') : c; }
constexpr int ToUpper(int c) noexcept { return IsLower(c) ? c - ('a' - 'A') : c; }

}  // namespace tw::ascii
