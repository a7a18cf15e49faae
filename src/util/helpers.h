// SPDX-License-Identifier: Apache-2.0
// Internal side of the parsing and formatting helpers: the logic behind the extern "C" entries of
// parse_api.cpp, dlna_api.cpp and format_api.cpp. Functions here take non-null arguments (the
// entries check them) and never throw unless they say so.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/allocator.h"
#include "tarnwick/types.h"

namespace tw::util {

// ---- numbers and durations (parse_numbers.cpp, parse_time.cpp) ----
// Unsigned decimal digits from the start, wrapping modulo 2^64; *digits gets their count.
uint64_t ReadDecimal(const char* text, int32_t* digits) noexcept;
// '+' then '-' (each optional) then digits, wrapping modulo 2^64 as two's complement.
int64_t ReadSignedDecimal(const char* text) noexcept;
// atoi's reading (leading white space, a sign, digits) without its undefined behaviour: values
// beyond the 32-bit range are clamped, so every platform gives the same number.
int32_t Atoi(const char* text) noexcept;
int64_t TimeTextToMilliseconds(const char* text) noexcept;
void FormatClock(uint64_t milliseconds, char* buffer, size_t size) noexcept;
// "H:MM:SS" or "H:MM:SS.mmm" into buffer; returns the snprintf result.
int FormatDuration(uint64_t milliseconds, char* buffer, size_t size) noexcept;
// The 16-byte form of a res duration; `text` is cut in place.
void ScrubResDuration(char* text, char* buffer) noexcept;
bool DateIsValid(const char* text) noexcept;
void Iso8601ToRfc822(char* buffer, size_t size) noexcept;

// ---- DLNA fields (dlna_fields.cpp) ----
// Where the 8 flag digits of a DLNA flags text start, or null when they cannot be read.
char* FindDlnaFlagDigits(const char* text) noexcept;
uint32_t ReadDlnaFlags(const char* text) noexcept;
bool SetDlnaFlagBit(char* text, int32_t bit) noexcept;
const char* ProtocolInfoField(const char* protocol_info, int32_t n, uint32_t* length) noexcept;
bool OtherParamLength(const char* text, uint32_t* name_length, uint32_t* value_length,
                      uint32_t* total_length) noexcept;
// Null when the picture is larger than every profile.
const char* JpegProfile(uint32_t width, uint32_t height) noexcept;
void ProportionalScale(uint32_t width, uint32_t height, uint32_t max_width, uint32_t max_height,
                       uint32_t* out_width, uint32_t* out_height) noexcept;

// ---- names, URLs and addresses (format_names.cpp) ----
std::string_view ExtensionOf(std::string_view path) noexcept;
// The title view; empty when nothing is left (the caller substitutes "No Title").
std::string_view TitleOf(std::string_view path) noexcept;
char* ReplaceBadChars(const char* text) noexcept;
void MakeFileNameSafe(char* buffer, size_t length) noexcept;
char* CreateEmbeddedUrl(const char* base, const char* target, const char* extension) noexcept;
char* GetEmbeddedUrl(const char* url) noexcept;
const char* ExtractIpAddress(const char* text, uint32_t* offset, uint32_t* length) noexcept;

// ---- lists, groups, command lines, dumps (format_lists.cpp) ----
char** SplitCsv(const char* text, uint32_t* count) noexcept;
void* GroupMalloc(int32_t n, va_list pairs) noexcept;
void GroupFree(void* group) noexcept;
int32_t GroupCountPairs(va_list pairs) noexcept;
bool ArgvToString(char* const* argv, int32_t count, int32_t first, upnp_string** string) noexcept;
// Splits a command line; throws std::bad_alloc (callers wrap it in tw::Guard).
Vector<String> SplitCommandLine(std::string_view line);
char** CreateArgv(const char* command_line, int32_t* argc) noexcept;
void ReleaseArgv(char** argv) noexcept;
void HexDump(const uint8_t* data, uint32_t length, void* stream, int32_t indent) noexcept;

}  // namespace tw::util
