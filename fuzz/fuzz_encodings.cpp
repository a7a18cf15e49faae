// SPDX-License-Identifier: Apache-2.0
// Every text conversion and plain-string helper over arbitrary bytes. The input is used as a
// NUL-terminated text (and, with extra zero bytes behind it, as UTF-16 of either parity); halves
// of it serve as needles, separators and second operands. Checks the round trips that must hold
// and that every accounted byte comes back.
#include <strings.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "util/scramble.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

void Free(void* p) {
  if (p != nullptr) upnp_free_impl(p);
}

bool SameText(const char* a, const char* b) {
  return a != nullptr && b != nullptr && std::strcmp(a, b) == 0;
}

void Conversions(const char* text, size_t text_len) {
  char* latin1 = upnp_strdup_from_utf8(text);
  Check(latin1 != nullptr && std::strlen(latin1) <= text_len);
  char* utf8 = upnp_strdup_to_utf8(text);
  Check(utf8 != nullptr && std::strlen(utf8) <= 2 * text_len);
  char* again = upnp_strdup_to_utf8(utf8);
  Check(SameText(again, utf8));  // the output is valid by the same rule
  char* enhanced = upnp_util_convert_enhanced_ascii_to_utf8(text);
  Check(text_len == 0 ? enhanced == nullptr : enhanced != nullptr);
  if (enhanced != nullptr) {
    char* back = upnp_strdup_from_utf8(enhanced);
    Check(SameText(back, text));
    Free(back);
  }
  (void)upnp_util_is_shift_jis(text);
  Check(upnp_util_convert_shift_jis_to_utf8(text) == nullptr);
  Free(latin1);
  Free(utf8);
  Free(again);
  Free(enhanced);

  const char* p = text;
  for (size_t steps = 0; *p != '\0'; ++steps) {
    const char* next = upnp_utf8_next_char(p);
    Check(next > p && next <= text + text_len && steps <= text_len);
    p = next;
  }

  uint8_t* wide = upnp_string_utf8_to_utf16(text);
  Check(wide != nullptr);
  char* narrow = upnp_string_utf16_to_utf8(wide);
  Check(narrow != nullptr);
  Free(wide);
  Free(narrow);

  (void)upnp_hexStringToNumber(text, text_len > 0 ? static_cast<unsigned char>(text[0]) % 20 : 0);
  (void)upnp_hexToi(text);
  (void)upnp_hexStringToLong(text);

  // Scrambling under the key the first byte picks: "::", the key digit, two upper-case hex digits
  // per byte of the first 128, and back to those bytes.
  char scrambled[3 + 2 * tw::util::kScrambleMaxPlain + 1];
  char plain[2 * tw::util::kScrambleMaxPlain + 1];  // unscrambling needs room for the digits
  tw::util::ScrambleWithKey(text, static_cast<unsigned char>(text[0]) % 16, scrambled,
                            sizeof(scrambled));
  const size_t kept =
      text_len < tw::util::kScrambleMaxPlain ? text_len : tw::util::kScrambleMaxPlain;
  Check(std::strlen(scrambled) == 3 + 2 * kept && std::strncmp(scrambled, "::", 2) == 0);
  for (const char* c = scrambled + 2; *c != '\0'; ++c) {
    Check((*c >= '0' && *c <= '9') || (*c >= 'A' && *c <= 'F'));
  }
  upnp_string_decrypt(scrambled, plain, sizeof(plain));
  Check(std::strlen(plain) == kept && std::strncmp(plain, text, kept) == 0);

  char* decoded = upnp_string_from_base64(text);
  Check(decoded != nullptr && std::strlen(decoded) <= text_len * 3 / 4);
  char* encoded = upnp_string_to_base64(text);
  char* round = upnp_string_from_base64(encoded);
  Check(SameText(round, text));
  Free(decoded);
  Free(encoded);
  Free(round);

  bool ascii = true;
  for (const char* c = text; *c != '\0'; ++c)
    ascii = ascii && static_cast<unsigned char>(*c) < 0x80;
  for (int is_utf8 = 0; is_utf8 < 2; ++is_utf8) {
    char* url = upnp_string_to_encoded_url(text, is_utf8);
    Check(url != nullptr);
    char* plain = upnp_string_from_encoded_url(url);
    // ASCII text comes back; other bytes go through the lead folding, which is lossy.
    Check(plain != nullptr && (!ascii || SameText(plain, text)));
    Free(url);
    Free(plain);
  }
  char* unescaped = upnp_string_from_encoded_url(text);
  Check(unescaped != nullptr && std::strlen(unescaped) <= text_len);
  Free(unescaped);
}

void BinaryAndUtf16(const uint8_t* data, size_t size, const uint8_t* padded) {
  char* b64 = upnp_bin_to_base64(data, static_cast<uint32_t>(size));
  Check(b64 != nullptr && std::strlen(b64) == (size + 2) / 3 * 4);
  char* bin = upnp_string_from_base64(b64);
  // Decoding stops at the first zero byte of the data.
  const size_t text_len = strnlen(reinterpret_cast<const char*>(data), size);
  Check(bin != nullptr && std::strlen(bin) == text_len && std::memcmp(bin, data, text_len) == 0);
  Free(b64);
  Free(bin);
  // The raw bytes as UTF-16 from both alignments: padded ends in zero bytes of both parities.
  Free(upnp_string_utf16_to_utf8(padded + 1));
  // Units without a byte-order mark come back unchanged from a trip to UTF-8 and back.
  char* narrow = upnp_string_utf16_to_utf8(padded);
  uint8_t* wide = upnp_string_utf8_to_utf16(narrow);
  Check(narrow != nullptr && wide != nullptr);
  bool marks = false;
  size_t units = 0;
  for (; padded[2 * units] != 0 || padded[2 * units + 1] != 0; ++units) {
    const unsigned unit = padded[2 * units] | padded[2 * units + 1] << 8;
    marks = marks || unit == 0xFEFF || unit == 0xFFFE;
  }
  Check(marks || std::memcmp(wide, padded, 2 * units + 2) == 0);
  Free(narrow);
  Free(wide);
}

void TwoTexts(const char* a, const char* b) {
  (void)upnp_utf8_stricmp(a, b);
  Check(upnp_utf8_stricmp(a, b) == -upnp_utf8_stricmp(b, a));
  // The first match, as the C library's search finds it in the C locale (ASCII case only).
  char* hit = upnp_istrstr(a, b);
  Check(hit == (*b != '\0' ? strcasestr(a, b) : nullptr));
  (void)upnp_starts_with(a, b);
  (void)upnp_ends_with(a, b);
  (void)upnp_string_find_separator(a, b);
  Free(upnp_remove_illegal_chars(a, b));
  Free(upnp_string_replace(a, b, "<>"));
  Free(upnp_string_delete(a, b));
  Free(upnp_string_append(a, b));

  upnp_string* s = upnp_string_concat_and_convert(nullptr, a, 1);
  s = upnp_string_concat_and_convert(s, b, 0);
  s = upnp_string_add(s, b, static_cast<uint32_t>(std::strlen(b)));
  Check(s != nullptr && s->buffer != nullptr && s->length < s->capacity);
  s = upnp_string_replace2(s, b, "x");
  upnp_string_free(s);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint32_t used = upnp_mem_used();
  // The text copy, NUL-terminated, plus two more zero bytes so that a UTF-16 reading finds a
  // zero unit whichever byte it starts on.
  std::vector<uint8_t> padded(data, data + size);
  padded.insert(padded.end(), {0, 0, 0});
  const char* text = reinterpret_cast<const char*>(padded.data());
  const size_t text_len = std::strlen(text);

  Conversions(text, text_len);
  BinaryAndUtf16(data, size, padded.data());

  // Split the text at its middle for the two-operand helpers.
  std::vector<char> first(text, text + text_len / 2);
  first.push_back('\0');
  TwoTexts(first.data(), text + text_len / 2);
  TwoTexts(text + text_len / 2, first.data());

  Check(upnp_mem_used() == used);
  return 0;
}
