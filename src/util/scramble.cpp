// SPDX-License-Identifier: Apache-2.0
// Reversible scrambling of short texts. The key is a single hexadecimal digit carried in the
// text itself, so this only keeps values from standing in plain sight; it is not encryption.
#include "util/scramble.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/ascii.h"

namespace tw::util {
namespace {

constexpr size_t kPrefixLength = 3;  // "::" and the key digit
constexpr char kUpperHex[] = "0123456789ABCDEF";

}  // namespace

uint32_t DrawScrambleKey() noexcept {
  // Reseeding the process-wide generator on every call disturbs other lrand48 users; intended,
  // scrambling happens only when a setting is saved.
  srand48(static_cast<long>(std::time(nullptr)));
  return static_cast<uint32_t>(lrand48() % 16);
}

void ScrambleWithKey(const char* plain, uint32_t key, char* out, size_t out_size) noexcept {
  key &= 0xFu;
  const size_t plain_length = strnlen(plain, kScrambleMaxPlain);
  // Two digits per byte: 128 bytes fill all 256 digits, plus the terminator.
  char digits[2 * kScrambleMaxPlain + 1] = {};
  for (size_t i = 0; i < plain_length; ++i) {
    const auto shifted = static_cast<uint8_t>(static_cast<uint8_t>(plain[i]) + key);
    digits[2 * i] = kUpperHex[shifted >> 4];
    digits[2 * i + 1] = kUpperHex[shifted & 0xFu];
  }
  const size_t count = 2 * plain_length;
  char rotated[2 * kScrambleMaxPlain + 1] = {};
  if (count > 0) {
    const size_t shift = key % count;
    for (size_t i = 0; i < count; ++i) rotated[i] = digits[(i + shift) % count];
  }
  std::snprintf(out, out_size, "::%X%s", static_cast<unsigned>(key), rotated);
}

void Unscramble(const char* text, size_t text_length, char* out, size_t out_size) noexcept {
  // A digit count beyond the caller's buffer is cut, so the rotation no longer lines up and the
  // result is garbage; it still stays inside out.
  size_t count = text_length - kPrefixLength;
  if (count > out_size) count = out_size;
  if (count == 0) return;
  // Scrambled texts always carry a digit here; anything else reads as -1, kept arithmetic-safe.
  const int64_t key = ascii::HexDigitValue(text[2]);
  const auto n = static_cast<int64_t>(count);
  const int64_t shift = key % n;
  for (int64_t i = 0; i < n; ++i) out[i] = text[kPrefixLength + ((n - shift + i) % n)];
  size_t j = 0;
  for (; 2 * j + 1 < count; ++j) {
    const int high = ascii::HexDigitValue(out[2 * j]);
    const int low = ascii::HexDigitValue(out[2 * j + 1]);
    const int64_t value = 16 * (high < 0 ? 0 : high) + (low < 0 ? 0 : low);
    out[j] = static_cast<char>(static_cast<uint8_t>((value + 256 - key) % 256));
    out[j + 1] = '\0';
  }
  if (j == 0) out[0] = '\0';
}

}  // namespace tw::util
