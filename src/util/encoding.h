// SPDX-License-Identifier: Apache-2.0
// Conversions between the byte forms the library meets: UTF-8, Latin-1, UTF-16LE, hexadecimal,
// base64 and URL percent-encoding. Results are fresh accounted blocks (free with
// upnp_free_impl), null for a null input or a memory shortage; bad input is converted by fixed
// rules and never read past its terminating NUL.
#pragma once

#include <cstdint>

namespace tw::util {

char* FromUtf8(const char* text) noexcept;
char* ToUtf8(const char* text) noexcept;
char* EnhancedAsciiToUtf8(const char* text) noexcept;
bool IsShiftJis(const char* text) noexcept;

void SetCodePage(uint32_t code_page) noexcept;
uint32_t CodePage() noexcept;

const char* Utf8NextChar(const char* p) noexcept;
int SortChar(int first, int second) noexcept;
int Utf8CompareNoCase(const char* a, const char* b) noexcept;

uint8_t* Utf8ToUtf16(const char* text) noexcept;
char* Utf16ToUtf8(const uint8_t* units) noexcept;

int HexValue(int c) noexcept;
uint64_t HexToNumber(const char* text, int32_t max_digits) noexcept;

char* FromBase64(const char* text) noexcept;
char* TextToBase64(const char* text) noexcept;
char* BinToBase64(const void* data, uint32_t length) noexcept;

char* ToEncodedUrl(const char* text, bool is_utf8) noexcept;
char* FromEncodedUrl(const char* text) noexcept;
char* RemoveChars(const char* text, const char* set) noexcept;

}  // namespace tw::util
