// SPDX-License-Identifier: Apache-2.0
// C entry points of the dynamic string, the plain-string tests and the character classes.
#include <cstdarg>
#include <cstring>

#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "util/char_class.h"
#include "util/string.h"

extern "C" {

TW_API upnp_string* upnp_string_create(const char* init, uint32_t capacity) noexcept {
  return tw::util::StringCreate(init, capacity);
}

TW_API void upnp_string_free(upnp_string* s) noexcept { tw::util::StringFree(s); }

TW_API void upnp_string_safe_free(upnp_string** s) noexcept {
  if (s == nullptr) return;
  tw::util::StringFree(*s);
  *s = nullptr;
}

TW_API void upnp_string_empty(upnp_string* s) noexcept {
  if (s == nullptr || s->buffer == nullptr) return;
  s->length = 0;
  s->buffer[0] = '\0';
}

TW_API int upnp_string_is_empty(const upnp_string* s) noexcept {
  return s == nullptr || s->buffer == nullptr || s->length == 0 ? 1 : 0;
}

TW_API char* upnp_string_get_cstring(const upnp_string* s) noexcept {
  return s != nullptr ? s->buffer : nullptr;
}

TW_API char* upnp_string_copy_cstring(const upnp_string* s) noexcept {
  if (s == nullptr || s->buffer == nullptr) return nullptr;
  return upnp_strdup_impl(s->buffer);
}

TW_API upnp_string* upnp_string_concat(upnp_string* s, const char* cstr) noexcept {
  return tw::util::StringConcat(s, cstr);
}

TW_API upnp_string* upnp_string_add(upnp_string* s, const void* bytes, uint32_t count) noexcept {
  return tw::util::StringAdd(s, bytes, count);
}

TW_API upnp_string* upnp_string_concat_string(upnp_string* dst, const upnp_string* src) noexcept {
  if (src == nullptr || src->buffer == nullptr || src->length == 0) return dst;
  return tw::util::StringAdd(dst, src->buffer, src->length);
}

TW_API upnp_string* upnp_string_concat_and_convert(upnp_string* s, const char* cstr,
                                                   int to_utf8) noexcept {
  return tw::util::StringConcatConverted(s, cstr, to_utf8 != 0);
}

TW_API upnp_string* upnp_string_sprintf(upnp_string* s, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  upnp_string* formatted = tw::util::StringVFormat(format, args);
  va_end(args);
  if (formatted == nullptr) return s;
  s = tw::util::StringConcat(s, formatted->buffer);
  tw::util::StringFree(formatted);
  return s;
}

TW_API upnp_string* upnp_string_vsprintf(const char* format, va_list args) noexcept {
  return tw::util::StringVFormat(format, args);
}

TW_API upnp_string* upnp_string_cut(upnp_string* s, uint32_t n) noexcept {
  return tw::util::StringCut(s, n);
}

TW_API upnp_string* upnp_string_shift_left(upnp_string* s, uint32_t n) noexcept {
  return tw::util::StringShiftLeft(s, n);
}

TW_API char* upnp_string_replace_or_copy(const char* haystack, const char* needle,
                                         const char* replacement, int copy) noexcept {
  return tw::util::ReplaceOrCopy(haystack, needle, replacement, copy != 0);
}

TW_API char* upnp_string_replace(const char* haystack, const char* needle,
                                 const char* replacement) noexcept {
  return tw::util::ReplaceOrCopy(haystack, needle, replacement, true);
}

TW_API char* upnp_string_delete(const char* haystack, const char* needle) noexcept {
  return tw::util::ReplaceOrCopy(haystack, needle, nullptr, true);
}

TW_API upnp_string* upnp_string_replace2(upnp_string* s, const char* needle,
                                         const char* replacement) noexcept {
  return tw::util::StringReplace(s, needle, replacement);
}

TW_API char* upnp_string_append(const char* a, const char* b) noexcept {
  return tw::util::Append(a, b);
}

TW_API int upnp_starts_with(const char* str, const char* prefix) noexcept {
  return tw::util::StartsWithNoCase(str, prefix) ? 1 : 0;
}

TW_API int upnp_ends_with(const char* str, const char* suffix) noexcept {
  return tw::util::EndsWithNoCase(str, suffix) ? 1 : 0;
}

TW_API char* upnp_istrstr(const char* haystack, const char* needle) noexcept {
  // Points into the caller's haystack, which the caller may well own as writable text.
  return const_cast<char*>(tw::util::IStrStr(haystack, needle));
}

TW_API int32_t upnp_string_find_separator(const char* str, const char* separators) noexcept {
  return tw::util::FindSeparator(str, separators);
}

TW_API char* upnp_string_strip_trailing_whitespaces(char* str) noexcept {
  return tw::util::StripTrailingWhiteSpace(str);
}

TW_API int upnp_tolower(int c) noexcept { return tw::util::ToLower(c); }

TW_API int upnp_toupper(int c) noexcept { return tw::util::ToUpper(c); }

TW_API int upnp_is_white_space(int c) noexcept { return tw::util::IsWhiteSpace(c) ? 1 : 0; }

TW_API char* upnp_skip_white_space(const char* p) noexcept {
  if (p == nullptr) return nullptr;
  while (tw::util::IsWhiteSpace(static_cast<unsigned char>(*p))) ++p;
  return const_cast<char*>(p);
}

TW_API int upnp_is_valid_name_char(int c) noexcept { return tw::util::IsNameChar(c) ? 1 : 0; }

TW_API int upnp_is_valid_value_char(int c) noexcept { return tw::util::IsValueChar(c) ? 1 : 0; }

TW_API uint32_t upnp_find_name_end(const char* p) noexcept { return tw::util::NameEnd(p); }

TW_API uint32_t upnp_find_value_end(const char* p) noexcept { return tw::util::ValueEnd(p); }

}  // extern "C"
