// SPDX-License-Identifier: Apache-2.0
// Entries: string scrambling.
#include <cstring>

#include "base/fixed_text.h"
#include "tarnwick/util.h"
#include "util/scramble.h"

extern "C" {

TW_API void upnp_string_encrypt(const char* plain, char* out, size_t out_size) noexcept {
  if (plain == nullptr || out == nullptr || out_size == 0) return;
  std::memset(out, 0, out_size);
  if (plain[0] == '\0') return;
  // Already scrambled: copied as it is, so scrambling twice changes nothing.
  if (std::strncmp(plain, "::", 2) == 0) {
    tw::CopyCut(out, out_size, plain);
    return;
  }
  tw::util::ScrambleWithKey(plain, tw::util::DrawScrambleKey(), out, out_size);
}

TW_API void upnp_string_decrypt(const char* scrambled, char* out, size_t out_size) noexcept {
  if (scrambled == nullptr || out == nullptr || out_size == 0) return;
  const size_t length = std::strlen(scrambled);
  if (length <= 2) return;
  std::memset(out, 0, out_size);
  if (std::strncmp(scrambled, "::", 2) != 0) return;
  tw::util::Unscramble(scrambled, length, out, out_size);
}

}  // extern "C"
