// SPDX-License-Identifier: Apache-2.0
#include "util/char_class.h"

#include <array>
#include <cstddef>

#include "base/ascii.h"

namespace tw::util {
namespace {

constexpr std::array<unsigned char, 256> MakeLowerTable() {
  std::array<unsigned char, 256> t{};
  for (std::size_t i = 0; i < t.size(); ++i) {
    t[i] = static_cast<unsigned char>(ascii::ToLower(static_cast<int>(i)));
  }
  return t;
}

// One entry more than the byte range: slot 0 stands for -1 (the value stdio uses for end of
// input), so ToUpper(-1) is a plain lookup that yields 0.
constexpr std::array<unsigned char, 257> MakeUpperTable() {
  std::array<unsigned char, 257> t{};
  t[0] = 0;
  for (std::size_t i = 0; i < 256; ++i) {
    t[i + 1] = static_cast<unsigned char>(ascii::ToUpper(static_cast<int>(i)));
  }
  return t;
}

constexpr int kWhiteFirst = 9;
constexpr int kWhiteLast = 32;

// Flags for the values 9..32: TAB, LF, CR and space. VT (11) and FF (12) are deliberately not
// white space for the protocol parsers.
constexpr std::array<bool, kWhiteLast - kWhiteFirst + 1> kWhiteTable = {
    true,  true,  false, false, true,  false, false, false,  // 9..16
    false, false, false, false, false, false, false, false,  // 17..24
    false, false, false, false, false, false, false, true,   // 25..32
};
static_assert(kWhiteTable.size() == 24);

constexpr auto kLowerTable = MakeLowerTable();
constexpr auto kUpperTable = MakeUpperTable();
static_assert(kLowerTable['Q'] == 'q' && kLowerTable[0xC4] == 0xC4);
static_assert(kUpperTable[0] == 0 && kUpperTable['q' + 1] == 'Q');

}  // namespace

int ToLower(int c) noexcept {
  if (c < 0 || c > 255) return c;
  return kLowerTable[static_cast<std::size_t>(c)];
}

int ToUpper(int c) noexcept {
  if (c < -1 || c > 255) return c;
  return kUpperTable[static_cast<std::size_t>(c + 1)];
}

bool IsWhiteSpace(int c) noexcept {
  if (c < kWhiteFirst || c > kWhiteLast) return false;
  return kWhiteTable[static_cast<std::size_t>(c - kWhiteFirst)];
}

bool IsNameChar(int c) noexcept { return ascii::IsAlnum(c) || c == '-' || c == '.' || c == '_'; }

bool IsValueChar(int c) noexcept { return IsNameChar(c) || c == '+' || c == ',' || c == '/'; }

uint32_t NameEnd(const char* p) noexcept {
  uint32_t n = 0;
  if (p == nullptr) return 0;
  while (IsNameChar(static_cast<unsigned char>(p[n]))) ++n;
  return n;
}

uint32_t ValueEnd(const char* p) noexcept {
  uint32_t n = 0;
  if (p == nullptr) return 0;
  while (IsValueChar(static_cast<unsigned char>(p[n]))) ++n;
  return n;
}

}  // namespace tw::util
