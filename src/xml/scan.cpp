// SPDX-License-Identifier: Apache-2.0
// Byte-level scanning and copying shared by the parser and the string entries.
#include <cstring>

#include "platform/allocator.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "util/helpers.h"
#include "xml/xml.h"

namespace tw::xml {
namespace {

// Bytes FindTagStart has to look at: quotes open runs, '<' may start a tag, NUL ends.
constexpr ByteSet kTagScan = MakeByteSet("<");

bool StartsWith(const char* p, std::size_t left, const char* literal, std::size_t n) noexcept {
  return left >= n && std::memcmp(p, literal, n) == 0;
}

// The byte an entity at p (just behind its '&', `left` bytes readable) stands for, and in *used
// how many bytes behind the '&' it takes; false when p starts no entity.
bool ReadEntity(const char* p, std::size_t left, char* out, std::size_t* used) noexcept {
  struct Named {
    const char* text;
    std::size_t length;
    char value;
  };
  static constexpr Named kNamed[] = {{"amp;", 4, '&'}, {"nbsp;", 5, ' '},  {"lt;", 3, '<'},
                                     {"gt;", 3, '>'},  {"apos;", 5, '\''}, {"quot;", 5, '"'}};
  for (const Named& entity : kNamed) {
    if (StartsWith(p, left, entity.text, entity.length)) {
      *out = entity.value;
      *used = entity.length;
      return true;
    }
  }
  if (left == 0 || p[0] != '#') return false;
  // At most four characters between '#' and ';'; a longer reference stays as written.
  for (std::size_t k = 1; k <= 5 && k < left; ++k) {
    if (p[k] != ';') continue;
    // Both readers stop at the ';', so nothing behind it is read. Only the low 8 bits are kept:
    // "&#233;" is the single byte 0xE9, never UTF-8.
    const uint32_t number =
        p[1] == 'x' ? upnp_hexToi(p + 2) : static_cast<uint32_t>(tw::util::Atoi(p + 1));
    *out = static_cast<char>(number & 0xFF);
    *used = k + 1;
    return true;
  }
  return false;
}

}  // namespace

int32_t FindTagStart(const char* text) noexcept {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  std::size_t i = 0;
  for (;;) {
    while (kTagScan.kind[bytes[i]] == 0) ++i;
    const char c = text[i];
    if (c == '\0') return -1;
    if (c == '"' || c == '\'') {
      const char* close = std::strchr(text + i + 1, c);
      if (close == nullptr) return -1;
      i = static_cast<std::size_t>(close - text) + 1;
      continue;
    }
    // c is '<'.
    const char* after = text + i + 1;
    if (after[0] == '!' && after[1] == '-' && after[2] == '-') {
      const char* close = std::strstr(after + 3, "-->");
      if (close == nullptr) return -1;
      i = static_cast<std::size_t>(close - text) + 3;
    } else if (after[0] == '!' && std::strncmp(after + 1, "[CDATA[", 7) == 0) {
      const char* close = std::strstr(after + 8, "]]>");
      if (close == nullptr) return -1;
      i = static_cast<std::size_t>(close - text) + 3;
    } else if (after[0] == '!' || after[0] == '?') {
      // A declaration or instruction: its content is scanned like text (its quotes count).
      i += 1;
    } else if (after[0] == '\0') {
      return -1;
    } else {
      return static_cast<int32_t>(i + 1);
    }
  }
}

std::size_t FindOutsideQuotes(const char* text, const ByteSet& set) noexcept {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  std::size_t i = 0;
  for (;;) {
    while (set.kind[bytes[i]] == 0) ++i;
    if (set.kind[bytes[i]] != ByteSet::kQuote) return i;
    const char* close = std::strchr(text + i + 1, text[i]);
    if (close == nullptr) return i + 1 + std::strlen(text + i + 1);
    i = static_cast<std::size_t>(close - text) + 1;
  }
}

int32_t Find(const char* text, const char* set) noexcept {
  return static_cast<int32_t>(FindOutsideQuotes(text, MakeByteSet(set)));
}

std::size_t TrimmedLength(const char* text, std::size_t n) noexcept {
  while (n > 0) {
    const auto c = static_cast<unsigned char>(text[n - 1]);
    if (c == 0 || c > 31) break;
    --n;
  }
  return n;
}

std::size_t UnescapeInto(const char* src, std::size_t n, char* dst) noexcept {
  std::size_t r = 0;
  std::size_t w = 0;
  while (r < n) {
    const void* amp = std::memchr(src + r, '&', n - r);
    const std::size_t run =
        amp != nullptr ? static_cast<std::size_t>(static_cast<const char*>(amp) - (src + r))
                       : n - r;
    if (run > 0 && dst + w != src + r) std::memmove(dst + w, src + r, run);
    w += run;
    r += run;
    if (r >= n) break;
    char value = '&';
    std::size_t used = 0;
    if (ReadEntity(src + r + 1, n - r - 1, &value, &used)) {
      dst[w++] = value;
      r += 1 + used;
    } else {
      dst[w++] = '&';
      r += 1;
    }
  }
  return w;
}

char* Dup(const char* text, std::size_t n, bool unescape) noexcept {
  const std::size_t m = TrimmedLength(text, n);
  char* out = static_cast<char*>(upnp_malloc_impl(m + 1));
  if (out == nullptr) return nullptr;
  std::size_t w = m;
  if (unescape) {
    w = UnescapeInto(text, m, out);
  } else if (m > 0) {
    std::memcpy(out, text, m);
  }
  out[w] = '\0';
  return out;
}

char* DupQuoted(const char* text, std::size_t n, bool unescape) noexcept {
  for (std::size_t i = 0; i < n; ++i) {
    const char c = text[i];
    if (c != '"' && c != '\'') continue;
    const void* close = std::memchr(text + i + 1, c, n - i - 1);
    if (close == nullptr) break;
    const char* inner = text + i + 1;
    return Dup(inner, static_cast<std::size_t>(static_cast<const char*>(close) - inner), unescape);
  }
  return Dup(text, n, unescape);
}

}  // namespace tw::xml
