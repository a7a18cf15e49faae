// SPDX-License-Identifier: Apache-2.0
// Byte classes shared by every parser of the library: ASCII-only case mapping, white space and
// the name/value characters of header and attribute syntax. No locale is ever consulted, so a
// byte means the same thing on every host.
#pragma once

#include <cstdint>

#include "base/ascii.h"

namespace tw::util {

// Case mapping of a byte value 0..255; ToUpper also maps -1 (end of input) to 0. Values the
// tables do not cover come back unchanged instead of being read out of bounds.
int ToLower(int c) noexcept;
int ToUpper(int c) noexcept;

bool IsWhiteSpace(int c) noexcept;  // TAB, LF, CR, space; not VT or FF.
bool IsNameChar(int c) noexcept;    // letters, digits, '-', '.', '_'
bool IsValueChar(int c) noexcept;   // name characters plus '+', ',', '/'

// Leading run of name (value) characters of a NUL-terminated string.
uint32_t NameEnd(const char* p) noexcept;
uint32_t ValueEnd(const char* p) noexcept;

// Lower-cased byte of a possibly signed char; the same mapping as ToLower, kept inline because
// the case-insensitive searches run it on every byte of a request head.
inline int FoldByte(char c) noexcept { return ascii::ToLower(static_cast<unsigned char>(c)); }

}  // namespace tw::util
