// SPDX-License-Identifier: Apache-2.0
// C entry points of the character-set, hexadecimal, base64 and URL conversions.
#include "tarnwick/util.h"
#include "util/encoding.h"

extern "C" {

TW_API char* upnp_strdup_from_utf8(const char* text) noexcept { return tw::util::FromUtf8(text); }

TW_API char* upnp_strdup_to_utf8(const char* text) noexcept { return tw::util::ToUtf8(text); }

TW_API char* upnp_util_convert_enhanced_ascii_to_utf8(const char* text) noexcept {
  return tw::util::EnhancedAsciiToUtf8(text);
}

TW_API int upnp_util_is_shift_jis(const char* text) noexcept {
  return tw::util::IsShiftJis(text) ? 1 : 0;
}

// No Shift-JIS table ships with the library; callers keep the text they have.
TW_API char* upnp_util_convert_shift_jis_to_utf8(const char*) noexcept { return nullptr; }

TW_API void upnp_util_set_code_page(uint32_t code_page) noexcept {
  tw::util::SetCodePage(code_page);
}

TW_API char* upnp_utf8_next_char(const char* p) noexcept {
  // Points into the caller's text.
  return const_cast<char*>(tw::util::Utf8NextChar(p));
}

TW_API int upnp_get_urf8_sortchar(int first, int second) noexcept {
  return tw::util::SortChar(first, second);
}

TW_API int upnp_utf8_stricmp(const char* a, const char* b) noexcept {
  return tw::util::Utf8CompareNoCase(a, b);
}

TW_API uint8_t* upnp_string_utf8_to_utf16(const char* text) noexcept {
  return tw::util::Utf8ToUtf16(text);
}

TW_API char* upnp_string_utf16_to_utf8(const uint8_t* units) noexcept {
  return tw::util::Utf16ToUtf8(units);
}

TW_API int hexchar_to_i(int c) noexcept { return tw::util::HexValue(c); }

TW_API uint64_t upnp_hexStringToNumber(const char* text, int32_t max_digits) noexcept {
  return tw::util::HexToNumber(text, max_digits);
}

TW_API uint32_t upnp_hexStringToLong(const char* text) noexcept {
  return static_cast<uint32_t>(tw::util::HexToNumber(text, 8));
}

TW_API uint32_t upnp_hexToi(const char* text) noexcept {
  return static_cast<uint32_t>(tw::util::HexToNumber(text, 8));
}

TW_API char* upnp_string_from_base64(const char* text) noexcept {
  return tw::util::FromBase64(text);
}

TW_API char* upnp_string_to_base64(const char* text) noexcept {
  return tw::util::TextToBase64(text);
}

TW_API char* upnp_bin_to_base64(const void* data, uint32_t length) noexcept {
  return tw::util::BinToBase64(data, length);
}

TW_API char* upnp_string_to_encoded_url(const char* text, int is_utf8) noexcept {
  return tw::util::ToEncodedUrl(text, is_utf8 != 0);
}

TW_API char* upnp_string_from_encoded_url(const char* text) noexcept {
  return tw::util::FromEncodedUrl(text);
}

TW_API char* upnp_remove_illegal_chars(const char* text, const char* set) noexcept {
  return tw::util::RemoveChars(text, set);
}

}  // extern "C"
