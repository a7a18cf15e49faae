/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Text utilities: the dynamic string (upnp_string), plain-string tests and character classes,
 * character sets and encodings, parsing and formatting helpers, string scrambling.
 *
 * Every function that makes text returns a fresh heap string from the accounted allocator that
 * the caller frees with upnp_free_impl (upnp_string records with upnp_string_free); null means a
 * null input or a memory shortage. Invalid input is converted by fixed rules, not rejected.
 * None of these functions lock; all are reentrant.
 */
#ifndef TARNWICK_UTIL_H
#define TARNWICK_UTIL_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* ---- Dynamic string and character classes ------------------------------------------------ */
/*
 * upnp_string: appending calls take the record, null allowed and created on demand, and return
 * the record to use from then on: store the result back. When a growth fails the buffer becomes
 * null, the text is lost, while length and capacity are still updated: check for it with
 * upnp_string_get_cstring. Growth: in place while length + n + 1 <= capacity, else the larger of
 * length + n + 1 and 2 * capacity.
 */

/* Record plus a zero-filled buffer of exactly `capacity` bytes, at least 1, then `init`, which
 * may be null, appended. Null when either allocation fails. Free with upnp_string_free. */
TW_API upnp_string* upnp_string_create(const char* init, uint32_t capacity) TW_NOEXCEPT;
/* Frees the buffer and the record; null is a no-op. */
TW_API void upnp_string_free(upnp_string* s) TW_NOEXCEPT;
/* Frees *s and stores null into it; a null address is a no-op. */
TW_API void upnp_string_safe_free(upnp_string** s) TW_NOEXCEPT;
/* Length 0, keeps the capacity. No-op for null or a record without buffer. */
TW_API void upnp_string_empty(upnp_string* s) TW_NOEXCEPT;
/* 1 when s is null, has no buffer or has length 0; else 0. */
TW_API int upnp_string_is_empty(const upnp_string* s) TW_NOEXCEPT;
/* The buffer, owned by s and invalidated by the next growth, or null for a null s. */
TW_API char* upnp_string_get_cstring(const upnp_string* s) TW_NOEXCEPT;
/* A fresh copy of the text, freed with upnp_free_impl, or null when s or its buffer is null. */
TW_API char* upnp_string_copy_cstring(const upnp_string* s) TW_NOEXCEPT;

/* Appends a NUL-terminated string. A null s becomes upnp_string_create(cstr, strlen(cstr) + 256);
 * a null or empty cstr leaves an existing s unchanged. */
TW_API upnp_string* upnp_string_concat(upnp_string* s, const char* cstr) TW_NOEXCEPT;
/* Appends exactly `count` bytes, NUL allowed, and terminates. A null s is first created with
 * capacity count + 256, giving null if that fails. */
TW_API upnp_string* upnp_string_add(upnp_string* s, const void* bytes, uint32_t count) TW_NOEXCEPT;
/* Appends the used bytes of src through upnp_string_add; dst untouched when src is empty. */
TW_API upnp_string* upnp_string_concat_string(upnp_string* dst, const upnp_string* src) TW_NOEXCEPT;
/* Appends cstr converted to UTF-8 by upnp_strdup_to_utf8 when to_utf8 != 0, else to Latin-1 by
 * upnp_strdup_from_utf8. A null s is created with capacity 256; s is unchanged when the
 * conversion gives null. Grows by its own rule: reserves twice the converted length. */
TW_API upnp_string* upnp_string_concat_and_convert(upnp_string* s, const char* cstr,
                                                   int to_utf8) TW_NOEXCEPT;
/* Appends printf-style text; s is returned unchanged when formatting fails. */
TW_API upnp_string* upnp_string_sprintf(upnp_string* s, const char* format, ...) TW_NOEXCEPT
    TW_PRINTF(2, 3);
/* A new string holding the formatted text, or null when memory runs out, which is logged at
 * error level, or format is null. args is only copied, never consumed. Free with
 * upnp_string_free. */
TW_API upnp_string* upnp_string_vsprintf(const char* format, va_list args) TW_NOEXCEPT
    TW_PRINTF(1, 0);

/* Removes the last n bytes, all of them when n >= length. Returns s. */
TW_API upnp_string* upnp_string_cut(upnp_string* s, uint32_t n) TW_NOEXCEPT;
/* Removes the first n bytes, all of them when n >= length. Returns s. */
TW_API upnp_string* upnp_string_shift_left(upnp_string* s, uint32_t n) TW_NOEXCEPT;

/* Replaces every non-overlapping occurrence of needle, case-sensitive, left to right, by
 * replacement, null or empty deletes, into a fresh string freed with upnp_free_impl. When
 * haystack or needle is null/empty or needle does not occur: a copy of haystack if `copy` is
 * non-zero, else haystack itself, not a copy. Null when memory runs out. */
TW_API char* upnp_string_replace_or_copy(const char* haystack, const char* needle,
                                         const char* replacement, int copy) TW_NOEXCEPT;
/* upnp_string_replace_or_copy with copy 1: always a fresh string or null. */
TW_API char* upnp_string_replace(const char* haystack, const char* needle,
                                 const char* replacement) TW_NOEXCEPT;
/* Removes every occurrence of needle; a fresh string or null. */
TW_API char* upnp_string_delete(const char* haystack, const char* needle) TW_NOEXCEPT;
/* Replacement on a record: returns a new record and frees s. A null needle or replacement frees
 * s and returns null: use "" to delete. A null s, or one without buffer, which is not freed,
 * gives null. */
TW_API upnp_string* upnp_string_replace2(upnp_string* s, const char* needle,
                                         const char* replacement) TW_NOEXCEPT;
/* A fresh string a followed by b, a copy of the other one when either is null or empty, null
 * when both are null or memory runs out. Free with upnp_free_impl. */
TW_API char* upnp_string_append(const char* a, const char* b) TW_NOEXCEPT;

/* Case-insensitive ASCII prefix test; an empty prefix matches; 0 when either is null. */
TW_API int upnp_starts_with(const char* str, const char* prefix) TW_NOEXCEPT;
/* Case-insensitive ASCII suffix test; 0 when either is null or empty or suffix is longer. */
TW_API int upnp_ends_with(const char* str, const char* suffix) TW_NOEXCEPT;
/* First case-insensitive match of needle inside haystack, or null when either is null or empty
 * or the needle is longer than 1024 bytes. Allocates nothing. */
TW_API char* upnp_istrstr(const char* haystack, const char* needle) TW_NOEXCEPT;
/* Index of the first byte of str found in separators, else strlen(str); -1 when either is null. */
TW_API int32_t upnp_string_find_separator(const char* str, const char* separators) TW_NOEXCEPT;
/* Overwrites trailing white space with NUL bytes in place; returns str. */
TW_API char* upnp_string_strip_trailing_whitespaces(char* str) TW_NOEXCEPT;

/* ASCII-only case mapping of a byte value 0..255, bytes 0x80..0xFF pass unchanged;
 * upnp_toupper(-1) is 0. Values outside the tables are returned unchanged. */
TW_API int upnp_tolower(int c) TW_NOEXCEPT;
TW_API int upnp_toupper(int c) TW_NOEXCEPT;
/* 1 exactly for TAB, LF, CR and space, not for VT or FF. */
TW_API int upnp_is_white_space(int c) TW_NOEXCEPT;
/* First position at or after p that is not white space; null for null. */
TW_API char* upnp_skip_white_space(const char* p) TW_NOEXCEPT;
/* Name characters: letters, digits, '-', '.', '_'. Value characters add '+', ',', '/'. */
TW_API int upnp_is_valid_name_char(int c) TW_NOEXCEPT;
TW_API int upnp_is_valid_value_char(int c) TW_NOEXCEPT;
/* Number of leading name, respectively value, characters of p; 0 for null. */
TW_API uint32_t upnp_find_name_end(const char* p) TW_NOEXCEPT;
TW_API uint32_t upnp_find_value_end(const char* p) TW_NOEXCEPT;
/* ---- end of dynamic string and character classes ----------------------------------------- */

/* ---- Character sets and encodings -------------------------------------------------------- */
/*
 * Every converting call returns a fresh NUL-terminated string, freed with upnp_free_impl, or null
 * for a null input or when memory runs out. Invalid input is converted by fixed rules.
 * UTF-16 text is exchanged as bytes in little-endian order, the low byte of each unit first,
 * whatever the host's byte order; a zero unit, two zero bytes, ends it.
 */

/* UTF-8 to Latin-1: 0xC2/0xC3 sequences map to U+0080..U+00FF, longer sequences give one '?',
 * every other byte of 0x80 and above is dropped. */
TW_API char* upnp_strdup_from_utf8(const char* text) TW_NOEXCEPT;
/* Makes text UTF-8: complete UTF-8 sequences pass, every other high byte is taken as Latin-1. */
TW_API char* upnp_strdup_to_utf8(const char* text) TW_NOEXCEPT;
/* Every high byte encoded as Latin-1 in two bytes, without looking for UTF-8. Null for "". */
TW_API char* upnp_util_convert_enhanced_ascii_to_utf8(const char* text) TW_NOEXCEPT;
/* 1 when a byte 0x81..0x9F occurs, or when bytes >= 0x81 are more than half; 0 for null/"". */
TW_API int upnp_util_is_shift_jis(const char* text) TW_NOEXCEPT;
/* Not provided: always null; callers keep the text they have. */
TW_API char* upnp_util_convert_shift_jis_to_utf8(const char* text) TW_NOEXCEPT;
/* Stores the host's code page; no conversion here reads it. */
TW_API void upnp_util_set_code_page(uint32_t code_page) TW_NOEXCEPT;

/* Position of the next UTF-8 character, its length given by the lead byte, or of a NUL inside it;
 * p itself at a NUL; null for null. */
TW_API char* upnp_utf8_next_char(const char* p) TW_NOEXCEPT;
/* Sort key of the character whose first two bytes are given: U+00C0..U+00FF, lead 0xC3, map to
 * an upper-case ASCII letter where one fits; everything else returns `first`. */
TW_API int upnp_get_urf8_sortchar(int first, int second) TW_NOEXCEPT;
/* -1, 0 or 1 comparing by upper-cased sort keys; null sorts before any string. */
TW_API int upnp_utf8_stricmp(const char* a, const char* b) TW_NOEXCEPT;

/* UTF-8 to UTF-16LE bytes without byte order mark, ended by a zero unit; 2 * (characters + 1)
 * bytes. Free with upnp_free_impl. */
TW_API uint8_t* upnp_string_utf8_to_utf16(const char* text) TW_NOEXCEPT;
/* UTF-16 bytes, low byte first, up to a zero unit, to UTF-8. A unit reading as U+FEFF toggles
 * byte swapping for the units after it; U+FEFF and U+FFFE are dropped. */
TW_API char* upnp_string_utf16_to_utf8(const uint8_t* units) TW_NOEXCEPT;

/* Value of a hexadecimal digit; 0 for any other byte. */
TW_API int hexchar_to_i(int c) TW_NOEXCEPT;
/* At most max_digits leading hexadecimal digits of text; 0 for null or no digit. */
TW_API uint64_t upnp_hexStringToNumber(const char* text, int32_t max_digits) TW_NOEXCEPT;
/* Same with at most 8 digits. */
TW_API uint32_t upnp_hexStringToLong(const char* text) TW_NOEXCEPT;
TW_API uint32_t upnp_hexToi(const char* text) TW_NOEXCEPT;

/* Decodes base64 up to the NUL or the first '='; other bytes outside the alphabet are skipped.
 * The result is NUL-terminated: binary zero bytes cannot be told from the end. */
TW_API char* upnp_string_from_base64(const char* text) TW_NOEXCEPT;
/* Encodes a NUL-terminated string; "==" after one leftover byte, nothing after two. */
TW_API char* upnp_string_to_base64(const char* text) TW_NOEXCEPT;
/* Encodes `length` bytes with correct padding; null for null data. */
TW_API char* upnp_bin_to_base64(const void* data, uint32_t length) TW_NOEXCEPT;

/* Percent-encodes text, made UTF-8 first unless is_utf8 != 0; only '$', '.', digits, ':', '?',
 * '@', letters and '_' stay literal. */
TW_API char* upnp_string_to_encoded_url(const char* text, int is_utf8) TW_NOEXCEPT;
/* Decodes "%XY", non-hex digits counting as 0, and '+' as space; a '%' without two bytes behind
 * it is dropped. */
TW_API char* upnp_string_from_encoded_url(const char* text) TW_NOEXCEPT;
/* A copy of text without the bytes that occur in set, a plain copy for a null set. */
TW_API char* upnp_remove_illegal_chars(const char* text, const char* set) TW_NOEXCEPT;
/* ---- end of character sets and encodings ------------------------------------------------- */

/* ---- Parsing and formatting helpers ------------------------------------------------------ */
/*
 * Small independent readers and writers of the text forms a media server meets. Functions that
 * return char* hand out a fresh accounted block (free with upnp_free_impl) unless said otherwise;
 * null means a null input or a memory shortage. Lengths and counts are 32-bit, durations are
 * 64-bit milliseconds on every platform.
 */

/* Numbers. Decimal readers stop at the first non-digit and do not check for overflow (the value
 * wraps); null text reads as 0 with 0 digits. `digits` may be null. */
TW_API uint32_t upnp_atoui2(const char* text, int32_t* digits) TW_NOEXCEPT;
TW_API uint32_t upnp_atoui(const char* text) TW_NOEXCEPT;
TW_API uint64_t upnp_string_to_longlong(const char* text, int32_t* digits) TW_NOEXCEPT;
/* One optional '+', then one optional '-', then digits: "+-5" is -5, "-+5" is 0. */
TW_API int64_t upnp_ascii_to_long_long(const char* text) TW_NOEXCEPT;
/* Writes "%08x" of value into a caller buffer of at least 9 bytes; null buffer: no-op. */
TW_API void upnp_longToHexString(uint32_t value, char* buffer) TW_NOEXCEPT;
/* "%lld" into buffer, always terminated at buffer[size - 1]; returns the snprintf result, or 0
 * for a null buffer or size 0. */
TW_API int32_t upnp_longlong_to_string(int64_t value, char* buffer, size_t size) TW_NOEXCEPT;
/* 1 when equal: byte for byte, or ignoring ASCII case when case_sensitive is 0. With a null
 * side: 1 only when nulls_equal is non-zero and both are null. */
TW_API int upnp_util_strings_equal(const char* a, const char* b, int case_sensitive,
                                   int nulls_equal) TW_NOEXCEPT;

/* Durations and dates. */
/* "H:MM:SS.F" to milliseconds; the fraction counts as written (".5" is 5 ms). Null gives 0. */
TW_API int64_t upnp_convert_time_to_long(const char* text) TW_NOEXCEPT;
/* Room upnp_format_time needs for any input, terminator included. */
#define UPNP_FORMAT_TIME_SIZE 32
/* Writes "HH:MM:SS", hours with more digits when needed, into UPNP_FORMAT_TIME_SIZE bytes. */
TW_API void upnp_format_time(uint64_t milliseconds, char* buffer) TW_NOEXCEPT;
/* "H:MM:SS", or "H:MM:SS.mmm" when there is a millisecond remainder; free with upnp_free_impl. */
TW_API char* upnp_duration_to_string(uint64_t milliseconds) TW_NOEXCEPT;
/* Normalises a DIDL-Lite duration into a 16-byte buffer as "%05d:%02d:%02d.%03d", clamping each
 * part. Splits `text` in place, its separators become NUL. 0 on success, -1 for null args. */
TW_API int upnp_util_scrub_res_duration(char* text, char* buffer) TW_NOEXCEPT;
/* 1 when text begins with "YYYY-MM-DD" (month 1..12, day 1..31, no calendar check). */
TW_API int upnp_date_is_valid(const char* text) TW_NOEXCEPT;
/* Rewrites an ISO 8601 date-time in buffer, in place, as an RFC 822 date of at most size - 1
 * bytes, terminated. Null buffer or size 0: no-op. */
TW_API void convert_time_iso8601_to_rfc822(char* buffer, size_t size) TW_NOEXCEPT;

/* DLNA strings. */
/* The primary DLNA flags (first 8 hex digits after "DLNA.ORG_FLAGS=", or of the whole text);
 * 0 when fewer than 8 bytes follow or the first is not a decimal digit. */
TW_API uint32_t dlnaflagstring_flags_get_from_string(const char* text) TW_NOEXCEPT;
/* 1 when bit number `bit` of those flags is set: 0 is the least significant, 32 and up give 0. */
TW_API int dlnaflagstring_bit_get_from_string(const char* text, int32_t bit) TW_NOEXCEPT;
/* Sets bit in place by rewriting the 8 digits; -1 for null text or bit outside 0..32, else 0. */
TW_API int dlnaflagstring_bit_set_in_string(char* text, int32_t bit) TW_NOEXCEPT;
/* Field number n, counted from 1, of the ':'-separated fields: a pointer into protocol_info and
 * its length, or null with length 0. `length` may be null. */
TW_API const char* upnp_get_protocolInfoField(const char* protocol_info, int32_t n,
                                              uint32_t* length) TW_NOEXCEPT;
/* Measures one "name=value" parameter of a protocolInfo fourth field; 1 when well formed up to
 * the next ';' or the end, else 0. Every output may be null. */
TW_API int upnp_get_otherParamLength(const char* text, uint32_t* name_length,
                                     uint32_t* value_length, uint32_t* total_length) TW_NOEXCEPT;
/* "JPEG_TN", "JPEG_SM", "JPEG_MED" or "JPEG_LRG" for a picture size; null when larger. */
TW_API char* jpeg_map_dlna_profile(uint32_t width, uint32_t height) TW_NOEXCEPT;
/* Fits width x height into the box keeping the aspect ratio; outputs start as the box. */
TW_API void get_proportional_scale(uint32_t width, uint32_t height, uint32_t max_width,
                                   uint32_t max_height, uint32_t* out_width,
                                   uint32_t* out_height) TW_NOEXCEPT;

/* File names, titles and URLs. */
/* The text behind the last '.', or "bin" when there is none (also for a null path). */
TW_API char* upnp_get_extension(const char* path) TW_NOEXCEPT;
/* File name without directory and extension; "No Title" when that leaves nothing. */
TW_API char* upnp_build_title_from_filename(const char* path) TW_NOEXCEPT;
/* A copy with each of space / \ ? : * replaced by '#'. */
TW_API char* upnp_remove_bad_chars(const char* text) TW_NOEXCEPT;
/* In place over the first `length` bytes: / \ * ? < > : | " become '#'. */
TW_API void upnp_util_convert_string_to_filename(char* buffer, size_t length) TW_NOEXCEPT;
/* base + "/" + "httpproxy/embedded" + URL-encoded target (+ "." extension when 1..4 bytes);
 * null when target is null. */
TW_API char* upnp_util_create_embedded_url(const char* base, const char* target,
                                           const char* extension) TW_NOEXCEPT;
/* The (still percent-encoded) target behind "httpproxy/embedded" without a trailing extension
 * of up to 3 bytes; null when the marker is absent. */
TW_API char* upnp_util_get_embedded_url(const char* url) TW_NOEXCEPT;

/* IP addresses inside text; the four-part form is not checked. */
/* The first run of digits and dots that starts with a digit, trailing dots dropped: a pointer
 * into text with its offset and length, or null with both 0. Outputs may be null. */
TW_API const char* upnp_extract_ipaddress(const char* text, uint32_t* offset,
                                          uint32_t* length) TW_NOEXCEPT;
TW_API char* upnp_copy_ipaddress(const char* text) TW_NOEXCEPT;

/* Lists, groups and command lines. */
/* Splits a copy of text at every ',' (no quoting, no trimming) into commas + 1 strings. The
 * caller frees each string and then the array with upnp_free_impl; null with count 0 on failure. */
TW_API char** util_split_csv_split(const char* text, uint32_t* count) TW_NOEXCEPT;
/* Allocates n blocks in one call from (void** where, uint32_t size) pairs; sizes are read as
 * uint32_t, so cast sizeof results. Returns the group record for upnp_group_free, or null (with
 * every store undone) for n < 1, a null pointer, a zero size or a memory shortage. */
TW_API void* upnp_group_malloc(int32_t n, ...) TW_NOEXCEPT;
/* Frees every block of the group and the record; null: no-op. */
TW_API void upnp_group_free(void* group) TW_NOEXCEPT;
/* Counts the void** and uint32_t pairs behind `ignored` up to a null pointer or a zero size. */
TW_API int32_t upnp_group_malloc_get_num(int32_t ignored, ...) TW_NOEXCEPT;
/* Appends argv[first] .. argv[first + count - 1] to *string (created when null), space
 * separated; "" for a null or empty argument, double quotes around one holding a space.
 * Indexes wrap at 256 (8-bit arithmetic). 0 on success, -1 for null argv/string or no memory. */
TW_API int kt_string_argv_to_string(char* const* argv, int32_t count, int32_t first,
                                    upnp_string** string) TW_NOEXCEPT;
/* Splits a command line at white space into a null-terminated vector, honouring the double
 * quotes kt_string_argv_to_string writes (a quote toggles quoting, "" is an empty argument).
 * Stores the count in argc (may be null). Null for null text or no memory; free the vector with
 * kt_util_release_argv_str. */
TW_API char** kt_util_create_argv_str(const char* command_line, int32_t* argc) TW_NOEXCEPT;
/* Frees every entry of a vector from kt_util_create_argv_str, then the vector; null: no-op. */
TW_API void kt_util_release_argv_str(char** argv) TW_NOEXCEPT;

/* Diagnostics. */
/* Writes data as "%02X " bytes, 16 per line, each line after indent spaces, to stream (a FILE*);
 * flushes. 0, or -1 when data, length or stream is missing. */
TW_API int upnp_hexdump(const void* data, uint32_t length, void* stream,
                        int32_t indent) TW_NOEXCEPT;
/* ---- end of parsing and formatting helpers ----------------------------------------------- */

/* ---- String scrambling ------------------------------------------------------------------- */
/*
 * Light reversible scrambling of short texts (stored passwords) so they do not stand in plain
 * text in settings files; NOT encryption. Form: "::", one hex digit key, then 2 hex digits per
 * plain byte (at most 128 bytes), rotated by the key. upnp_string_encrypt reseeds the process's
 * srand48 generator on every call.
 */
/* Scrambles plain into out (cleared first; 3 + 2 * strlen + 1 bytes needed, smaller cuts
 * silently). A text already starting with "::" is copied unchanged. Null/0 args: no-op. */
TW_API void upnp_string_encrypt(const char* plain, char* out, size_t out_size) TW_NOEXCEPT;
/* Unscrambles into out (cleared first, terminated). Null/0 args or a text of 2 bytes or fewer:
 * no-op; out stays empty when the text does not start with "::". */
TW_API void upnp_string_decrypt(const char* scrambled, char* out, size_t out_size) TW_NOEXCEPT;
/* ---- end of string scrambling ------------------------------------------------------------ */

TW_EXTERN_C_END

#endif /* TARNWICK_UTIL_H */
