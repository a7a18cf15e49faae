// SPDX-License-Identifier: Apache-2.0
// Internal side of the string scrambling entries (scramble_api.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

namespace tw::util {

// Most plain bytes one scrambled text carries; longer texts are cut to this.
inline constexpr size_t kScrambleMaxPlain = 128;

// Draws the key 0..15 from a generator freshly seeded with the wall clock.
uint32_t DrawScrambleKey() noexcept;
// Writes "::", the key digit and the rotated hexadecimal text into out (out_size > 0).
void ScrambleWithKey(const char* plain, uint32_t key, char* out, size_t out_size) noexcept;
// Reverses ScrambleWithKey; out (out_size > 0) is already cleared and text starts with "::".
void Unscramble(const char* text, size_t text_length, char* out, size_t out_size) noexcept;

}  // namespace tw::util
