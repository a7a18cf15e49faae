// SPDX-License-Identifier: Apache-2.0
// The growable byte string behind upnp_string and the plain-string helpers beside it. Everything
// here uses the accounted allocator; results are C blocks the caller frees with upnp_free_impl
// (records with StringFree).
#pragma once

#include <cstdarg>
#include <cstdint>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

namespace tw::util {

// Extra room a string gets when it is created by its first append.
inline constexpr uint32_t kFirstAppendSlack = 256;
// Needles longer than this are refused by IStrStr: its failure table lives on the stack.
inline constexpr uint32_t kMaxIStrStrNeedle = 1024;

upnp_string* StringCreate(const char* init, uint32_t capacity) noexcept;
void StringFree(upnp_string* s) noexcept;
upnp_string* StringConcat(upnp_string* s, const char* cstr) noexcept;
upnp_string* StringAdd(upnp_string* s, const void* bytes, uint32_t count) noexcept;
upnp_string* StringConcatConverted(upnp_string* s, const char* cstr, bool to_utf8) noexcept;
upnp_string* StringVFormat(const char* format, va_list args) noexcept TW_PRINTF(1, 0);
// StringVFormat with the arguments given here.
upnp_string* StringFormat(const char* format, ...) noexcept TW_PRINTF(1, 2);
upnp_string* StringCut(upnp_string* s, uint32_t n) noexcept;
upnp_string* StringShiftLeft(upnp_string* s, uint32_t n) noexcept;

char* ReplaceOrCopy(const char* haystack, const char* needle, const char* replacement,
                    bool copy) noexcept;
upnp_string* StringReplace(upnp_string* s, const char* needle, const char* replacement) noexcept;
char* Append(const char* a, const char* b) noexcept;

bool StartsWithNoCase(const char* str, const char* prefix) noexcept;
bool EndsWithNoCase(const char* str, const char* suffix) noexcept;
const char* IStrStr(const char* haystack, const char* needle) noexcept;
int32_t FindSeparator(const char* str, const char* separators) noexcept;
char* StripTrailingWhiteSpace(char* str) noexcept;

}  // namespace tw::util
