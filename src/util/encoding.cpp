// SPDX-License-Identifier: Apache-2.0
#include "util/encoding.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "base/ascii.h"
#include "platform/allocator.h"
#include "tarnwick/platform.h"
#include "util/char_class.h"
#include "util/string.h"

namespace tw::util {
namespace {

using Byte = unsigned char;

// Kept for the embedding application; no conversion reads it.
std::atomic<uint32_t> g_code_page{0};

const Byte* Bytes(const char* p) { return reinterpret_cast<const Byte*>(p); }

char* AllocText(std::size_t bytes) { return static_cast<char*>(upnp_malloc_impl(bytes)); }

// Length of a UTF-8 sequence announced by a lead byte (0 when c is no lead). Five- and six-byte
// forms are long gone from the standard but still turn up in old tags, so they are recognised.
std::size_t LeadLength(Byte c) {
  if (c >= 0xC0 && c <= 0xDF) return 2;
  if (c >= 0xE0 && c <= 0xEF) return 3;
  if (c >= 0xF0 && c <= 0xF7) return 4;
  if (c >= 0xF8 && c <= 0xFB) return 5;
  if (c >= 0xFC && c <= 0xFD) return 6;
  return 0;
}

bool IsContinuation(Byte c) { return (c & 0xC0) == 0x80; }

// Writes a byte of 0x80 and above as the two-byte UTF-8 form of the Latin-1 character.
char* PutLatin1AsUtf8(char* out, Byte c) {
  if (c < 0xC0) {
    *out++ = static_cast<char>(0xC2);
    *out++ = static_cast<char>(c);
  } else {
    *out++ = static_cast<char>(0xC3);
    *out++ = static_cast<char>(c - 0x40);
  }
  return out;
}

// Sort keys for U+00C0..U+00FF, indexed by code point - 0xC0; 0 means "not mapped". Å and å sort
// after Z on purpose, where the Nordic alphabets put them.
constexpr char kSortKeys[] =
    "AAAAAZACEEEEIIII"      // U+00C0..U+00CF
    "\0NOOOOOOOUUUU\0\0\0"  // U+00D0..U+00DF: Ð Ý Þ ß unmapped; × and Ø sort as O
    "AAAAAZACEEEEIIII"      // U+00E0..U+00EF
    "\0NOOOOOOOUUUU\0\0\0"  // U+00F0..U+00FF: ð ý þ ÿ unmapped; ÷ and ø sort as O
    ;
static_assert(sizeof(kSortKeys) == 64 + 1);

// One character of UTF-8 as one UTF-16 unit: leads below 0xE0 (continuation bytes included)
// take one following byte, all others two. Four-byte forms are not supported and come out as a
// three-byte character followed by their last byte. Returns false at the end of the text,
// including a sequence cut short by the NUL.
bool NextUtf16Unit(const Byte*& p, uint16_t& unit) {
  const Byte lead = p[0];
  if (lead == 0) return false;
  if (lead < 0x80) {
    unit = lead;
    p += 1;
    return true;
  }
  if (lead < 0xE0) {
    if (p[1] == 0) return false;
    unit = static_cast<uint16_t>((lead & 0x3F) << 6 | (p[1] & 0x3F));
    p += 2;
    return true;
  }
  if (p[1] == 0 || p[2] == 0) return false;
  unit = static_cast<uint16_t>((lead & 0x0F) << 12 | (p[1] & 0x3F) << 6 | (p[2] & 0x3F));
  p += 3;
  return true;
}

// Walks UTF-16LE units up to the zero unit, handing every character unit to emit. A unit that
// reads as U+FEFF in the current mode toggles byte swapping for the rest (so FF FE switches to
// big-endian reading, deliberately); U+FFFE changes nothing. Both marks are dropped.
template <typename Emit>
void WalkUtf16(const uint8_t* p, Emit&& emit) {
  bool swap = false;
  for (;; p += 2) {
    uint16_t unit = static_cast<uint16_t>(p[0] | p[1] << 8);
    if (swap) unit = static_cast<uint16_t>(unit >> 8 | unit << 8);
    if (unit == 0) return;
    if (unit == 0xFEFF) {
      swap = !swap;
      continue;
    }
    if (unit == 0xFFFE) continue;
    emit(unit);
  }
}

std::size_t Utf8Width(uint16_t unit) { return unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3; }

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static_assert(kBase64Alphabet.size() == 64);

constexpr std::array<int8_t, 256> MakeBase64Values() {
  std::array<int8_t, 256> t{};
  for (auto& v : t) v = -1;
  for (std::size_t i = 0; i < kBase64Alphabet.size(); ++i) {
    t[static_cast<Byte>(kBase64Alphabet[i])] = static_cast<int8_t>(i);
  }
  return t;
}
constexpr auto kBase64Values = MakeBase64Values();

// Encodes the whole groups of three; returns the output position behind them.
char* EncodeBase64Groups(const Byte* in, std::size_t length, char* out) {
  std::size_t i = 0;
  for (; i + 3 <= length; i += 3) {
    const uint32_t v = uint32_t{in[i]} << 16 | uint32_t{in[i + 1]} << 8 | in[i + 2];
    *out++ = kBase64Alphabet[v >> 18 & 0x3F];
    *out++ = kBase64Alphabet[v >> 12 & 0x3F];
    *out++ = kBase64Alphabet[v >> 6 & 0x3F];
    *out++ = kBase64Alphabet[v & 0x3F];
  }
  return out;
}

// Encodes the last one or two bytes. A one-byte tail always gets "=="; a two-byte tail gets its
// '=' only when pad_two_byte_tail is set.
char* EncodeBase64Tail(const Byte* tail, std::size_t left, bool pad_two_byte_tail, char* out) {
  if (left == 1) {
    *out++ = kBase64Alphabet[tail[0] >> 2];
    *out++ = kBase64Alphabet[(tail[0] & 0x03) << 4];
    *out++ = '=';
    *out++ = '=';
  } else if (left == 2) {
    *out++ = kBase64Alphabet[tail[0] >> 2];
    *out++ = kBase64Alphabet[(tail[0] & 0x03) << 4 | tail[1] >> 4];
    *out++ = kBase64Alphabet[(tail[1] & 0x0F) << 2];
    if (pad_two_byte_tail) *out++ = '=';
  }
  return out;
}

// Bytes that URL encoding leaves literal: '-', '~' and '/' are escaped while '$', ':', '?' and '@'
// are not. Not the RFC 3986 set, on purpose: the set decides the text of every URL the library
// makes, and clients compare stored URLs as text, so another set would make the same resource's
// old and new links differ. Pinned by UtilEncoding.UrlEncodingUsesItsOwnSafeSet.
constexpr std::array<bool, 256> MakeUrlLiteral() {
  std::array<bool, 256> t{};
  for (int c = 0; c < 256; ++c) t[c] = ascii::IsAlnum(c);
  for (char c : std::string_view("$.:?@_")) t[static_cast<Byte>(c)] = true;
  return t;
}
constexpr auto kUrlLiteral = MakeUrlLiteral();
static_assert(!kUrlLiteral['-'] && !kUrlLiteral['/'] && kUrlLiteral['@']);

constexpr std::string_view kUpperHex = "0123456789ABCDEF";

}  // namespace

char* FromUtf8(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  // Latin-1 never needs more bytes than the UTF-8 it comes from.
  char* out = AllocText(std::strlen(text) + 1);
  if (out == nullptr) return nullptr;
  char* o = out;
  const Byte* p = Bytes(text);
  while (*p != 0) {
    const Byte c = *p;
    if (c < 0x80) {
      *o++ = static_cast<char>(c);
      ++p;
    } else if (c == 0xC2 || c == 0xC3) {
      if (p[1] == 0) break;  // cut short at the end: the lone lead goes
      // The second byte is used as it is, continuation or not; +0x40 wraps like a byte.
      *o++ = static_cast<char>(c == 0xC2 ? p[1] : static_cast<Byte>(p[1] + 0x40));
      p += 2;
    } else if (c >= 0xE0 && c <= 0xFD) {
      // Outside Latin-1: one '?' for the whole sequence, whose length the lead announces.
      *o++ = '?';
      const std::size_t n = LeadLength(c);
      for (std::size_t i = 0; i < n && *p != 0; ++i) ++p;
    } else {
      // Continuation bytes, 0xC0/0xC1, leads 0xC4..0xDF, 0xFE, 0xFF: dropped one by one, so a
      // two-byte character beyond Latin-1 disappears entirely.
      ++p;
    }
  }
  *o = '\0';
  return out;
}

char* ToUtf8(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  const std::size_t length = std::strlen(text);
  if (length > (SIZE_MAX - 1) / 2) return nullptr;
  char* out = AllocText(2 * length + 1);
  if (out == nullptr) return nullptr;
  char* o = out;
  const Byte* p = Bytes(text);
  while (*p != 0) {
    const Byte c = *p;
    if (c < 0x80) {
      *o++ = static_cast<char>(c);
      ++p;
      continue;
    }
    const std::size_t n = LeadLength(c);
    bool complete = n != 0;
    // A NUL is no continuation byte, so the check never runs past the end.
    for (std::size_t i = 1; complete && i < n; ++i) complete = IsContinuation(p[i]);
    if (complete) {
      std::memcpy(o, p, n);
      o += n;
      p += n;
    } else {
      o = PutLatin1AsUtf8(o, c);
      ++p;
    }
  }
  *o = '\0';
  return out;
}

char* EnhancedAsciiToUtf8(const char* text) noexcept {
  // An empty text gives null rather than "": callers use null as "nothing to convert".
  if (text == nullptr || text[0] == '\0') return nullptr;
  std::size_t length = 0;
  std::size_t high = 0;
  for (const Byte* p = Bytes(text); *p != 0; ++p, ++length) {
    if (*p >= 0x80) ++high;
  }
  char* out = AllocText(length + high + 1);
  if (out == nullptr) return nullptr;
  char* o = out;
  for (const Byte* p = Bytes(text); *p != 0; ++p) {
    if (*p < 0x80) {
      *o++ = static_cast<char>(*p);
    } else {
      o = PutLatin1AsUtf8(o, *p);
    }
  }
  *o = '\0';
  return out;
}

bool IsShiftJis(const char* text) noexcept {
  if (text == nullptr || text[0] == '\0') return false;
  std::size_t length = 0;
  std::size_t high = 0;
  for (const Byte* p = Bytes(text); *p != 0; ++p, ++length) {
    // 0x81..0x9F are control codes in Latin-1 but lead bytes in Shift-JIS: decisive at once.
    if (*p >= 0x81 && *p <= 0x9F) return true;
    if (*p >= 0x81) ++high;
  }
  return high > length / 2;
}

void SetCodePage(uint32_t code_page) noexcept {
  g_code_page.store(code_page, std::memory_order_relaxed);
}

uint32_t CodePage() noexcept { return g_code_page.load(std::memory_order_relaxed); }

const char* Utf8NextChar(const char* p) noexcept {
  if (p == nullptr || p[0] == '\0') return p;
  const Byte lead = static_cast<Byte>(p[0]);
  const std::size_t n = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
  for (std::size_t i = 1; i < n; ++i) {
    if (p[i] == '\0') return p + i;
  }
  return p + n;
}

int SortChar(int first, int second) noexcept {
  if (first != 0xC3) return first;
  const char key = kSortKeys[static_cast<unsigned>(second) & 0x3F];
  return key != '\0' ? key : first;
}

int Utf8CompareNoCase(const char* a, const char* b) noexcept {
  if (a == nullptr) return b == nullptr ? 0 : -1;
  if (b == nullptr) return 1;
  while (a[0] != '\0' && b[0] != '\0') {
    // a[1] and b[1] exist: at worst they are the terminating NUL.
    const int key_a = ToUpper(SortChar(static_cast<Byte>(a[0]), static_cast<Byte>(a[1])));
    const int key_b = ToUpper(SortChar(static_cast<Byte>(b[0]), static_cast<Byte>(b[1])));
    if (key_a != key_b) return key_a < key_b ? -1 : 1;
    a = Utf8NextChar(a);
    b = Utf8NextChar(b);
  }
  if (a[0] != '\0') return 1;
  if (b[0] != '\0') return -1;
  return 0;
}

uint8_t* Utf8ToUtf16(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  std::size_t units = 0;
  uint16_t unit = 0;
  for (const Byte* p = Bytes(text); NextUtf16Unit(p, unit);) ++units;
  auto* out = static_cast<uint8_t*>(upnp_malloc_impl(2 * (units + 1)));
  if (out == nullptr) return nullptr;
  uint8_t* o = out;
  for (const Byte* p = Bytes(text); NextUtf16Unit(p, unit);) {
    *o++ = static_cast<uint8_t>(unit & 0xFF);
    *o++ = static_cast<uint8_t>(unit >> 8);
  }
  o[0] = 0;
  o[1] = 0;
  return out;
}

char* Utf16ToUtf8(const uint8_t* units) noexcept {
  if (units == nullptr) return nullptr;
  std::size_t bytes = 0;
  WalkUtf16(units, [&](uint16_t unit) { bytes += Utf8Width(unit); });
  char* out = AllocText(bytes + 1);
  if (out == nullptr) return nullptr;
  char* o = out;
  // Surrogates are encoded unit by unit, as three bytes each.
  WalkUtf16(units, [&](uint16_t unit) {
    if (unit < 0x80) {
      *o++ = static_cast<char>(unit);
    } else if (unit < 0x800) {
      *o++ = static_cast<char>(0xC0 | unit >> 6);
      *o++ = static_cast<char>(0x80 | (unit & 0x3F));
    } else {
      *o++ = static_cast<char>(0xE0 | unit >> 12);
      *o++ = static_cast<char>(0x80 | (unit >> 6 & 0x3F));
      *o++ = static_cast<char>(0x80 | (unit & 0x3F));
    }
  });
  *o = '\0';
  return out;
}

int HexValue(int c) noexcept {
  // 0 rather than -1 for a non-hex byte: hexchar_to_i documents 0, and URL decoding relies on it
  // to turn "%zz" into a NUL and "%G1" into 0x01 instead of failing. Pinned by
  // UtilEncoding.HexadecimalNumbers and UtilEncoding.UrlEncodingUsesItsOwnSafeSet.
  const int value = ascii::HexDigitValue(c);
  return value >= 0 ? value : 0;
}

uint64_t HexToNumber(const char* text, int32_t max_digits) noexcept {
  if (text == nullptr) return 0;
  uint64_t value = 0;
  for (int32_t i = 0; i < max_digits; ++i) {
    const int c = static_cast<Byte>(text[i]);
    const int digit = ascii::HexDigitValue(c);
    if (digit < 0) break;
    value = value << 4 | static_cast<uint64_t>(digit);
  }
  return value;
}

char* FromBase64(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  const std::size_t length = std::strlen(text);
  // strlen * 3 / 4 + 1 without the overflow of strlen * 3; zero-filled, so always terminated.
  const std::size_t size = length / 4 * 3 + length % 4 * 3 / 4 + 1;
  char* out = static_cast<char*>(upnp_calloc_impl(1, size));
  if (out == nullptr) return nullptr;
  char* o = out;
  uint32_t group = 0;
  int sextets = 0;
  for (const Byte* p = Bytes(text); *p != 0 && *p != '='; ++p) {
    const int v = kBase64Values[*p];
    if (v < 0) continue;  // line breaks and other noise do not break the group
    group = group << 6 | static_cast<uint32_t>(v);
    if (++sextets == 4) {
      *o++ = static_cast<char>(group >> 16);
      *o++ = static_cast<char>(group >> 8);
      *o++ = static_cast<char>(group);
      group = 0;
      sextets = 0;
    }
  }
  if (sextets == 2) {
    *o++ = static_cast<char>(group >> 4);
  } else if (sextets == 3) {
    *o++ = static_cast<char>(group >> 10);
    *o++ = static_cast<char>(group >> 2);
  }
  return out;
}

char* TextToBase64(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  const std::size_t length = std::strlen(text);
  if (length > SIZE_MAX / 2) return nullptr;
  // strlen * 4 / 3 + 4 bytes, zero-filled.
  char* out = static_cast<char*>(upnp_calloc_impl(1, length / 3 * 4 + length % 3 * 4 / 3 + 4));
  if (out == nullptr) return nullptr;
  const Byte* in = Bytes(text);
  char* o = EncodeBase64Groups(in, length, out);
  // Intended: a two-byte tail is written without its '=' (4k + 3 characters). Hosts have long
  // relied on this form, and every decoder of this library accepts it.
  EncodeBase64Tail(in + length / 3 * 3, length % 3, false, o);
  return out;
}

char* BinToBase64(const void* data, uint32_t length) noexcept {
  if (data == nullptr) return nullptr;
  const std::size_t n = length;
  const std::size_t groups = n / 3 + (n % 3 != 0 ? 1 : 0);
  if (groups > (SIZE_MAX - 1) / 4) return nullptr;
  char* out = AllocText(groups * 4 + 1);
  if (out == nullptr) return nullptr;
  const Byte* in = static_cast<const Byte*>(data);
  char* o = EncodeBase64Groups(in, n, out);
  o = EncodeBase64Tail(in + n / 3 * 3, n % 3, true, o);
  *o = '\0';
  return out;
}

char* ToEncodedUrl(const char* text, bool is_utf8) noexcept {
  if (text == nullptr) return nullptr;
  CPtr utf8(is_utf8 ? upnp_strdup_impl(text) : ToUtf8(text));
  if (utf8 == nullptr) return nullptr;
  upnp_string* encoded = StringCreate(nullptr, 1024);
  if (encoded == nullptr) return nullptr;
  for (const Byte* p = Bytes(utf8.get()); *p != 0 && encoded->buffer != nullptr;) {
    unsigned value = *p++;
    // A lead with a following byte folds into one value: the Latin-1 code for lead 0xC3; other
    // leads give values that are simply escaped as they come.
    if (value >= 0xC0 && *p != 0) value = (value & 0xFC) | *p++;
    if (kUrlLiteral[value]) {
      const char c = static_cast<char>(value);
      encoded = StringAdd(encoded, &c, 1);
    } else {
      const char escaped[3] = {'%', kUpperHex[value >> 4], kUpperHex[value & 0x0F]};
      encoded = StringAdd(encoded, escaped, 3);
    }
  }
  char* result = encoded->buffer != nullptr ? upnp_strdup_impl(encoded->buffer) : nullptr;
  StringFree(encoded);
  return result;
}

char* FromEncodedUrl(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  char* out = AllocText(std::strlen(text) + 1);
  if (out == nullptr) return nullptr;
  char* o = out;
  for (const char* p = text; *p != '\0';) {
    if (*p == '%') {
      if (p[1] != '\0' && p[2] != '\0') {
        // No validation: a non-hexadecimal digit counts as 0.
        *o++ = static_cast<char>(HexValue(static_cast<Byte>(p[1])) << 4 |
                                 HexValue(static_cast<Byte>(p[2])));
        p += 3;
      } else {
        ++p;  // a '%' without two bytes behind it is dropped
      }
    } else if (*p == '+') {
      *o++ = ' ';
      ++p;
    } else {
      *o++ = *p++;
    }
  }
  *o = '\0';
  return out;
}

char* RemoveChars(const char* text, const char* set) noexcept {
  if (text == nullptr) return nullptr;
  if (set == nullptr || text[0] == '\0') return upnp_strdup_impl(text);
  char* out = AllocText(std::strlen(text) + 1);
  if (out == nullptr) return nullptr;
  char* o = out;
  for (const char* p = text; *p != '\0'; ++p) {
    if (std::strchr(set, *p) == nullptr) *o++ = *p;
  }
  *o = '\0';
  return out;
}

}  // namespace tw::util
