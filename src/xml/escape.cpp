// SPDX-License-Identifier: Apache-2.0
// Escaping of text for XML, once or twice. Sizes are measured first so every result is written
// in one go into a block of exactly the right size.
#include <array>
#include <cstring>

#include "tarnwick/platform.h"
#include "util/string.h"
#include "xml/xml.h"

namespace tw::xml {
namespace {

struct Entity {
  char text[8];  // the single form, e.g. "&lt;" or "&#9;"
  uint8_t length;
};

// The single form for every byte that needs one; length 0 for bytes copied unchanged. The
// apostrophe's entry is the numeric form; the named one is chosen at the call.
constexpr std::array<Entity, 256> MakeEntities() {
  std::array<Entity, 256> table{};
  auto set = [&table](unsigned char c, const char* text) {
    Entity& e = table[c];
    uint8_t n = 0;
    for (; text[n] != '\0'; ++n) e.text[n] = text[n];
    e.length = n;
  };
  set('"', "&quot;");
  set('&', "&amp;");
  set('\'', "&#39;");
  set('<', "&lt;");
  set('>', "&gt;");
  for (int c = 1; c < 32; ++c) {
    Entity& e = table[static_cast<std::size_t>(c)];
    uint8_t n = 0;
    e.text[n++] = '&';
    e.text[n++] = '#';
    if (c >= 10) e.text[n++] = static_cast<char>('0' + c / 10);
    e.text[n++] = static_cast<char>('0' + c % 10);
    e.text[n++] = ';';
    e.length = n;
  }
  return table;
}
constexpr std::array<Entity, 256> kEntities = MakeEntities();
constexpr Entity kNamedApostrophe = {"&apos;", 6};
// Twice: the entity's own '&' becomes "&amp;", four bytes more.
constexpr std::size_t kTwiceExtra = 4;
static_assert(kEntities['\t'].length == 4 && kEntities[31].length == 5);

const Entity& EntityFor(unsigned char c, Apostrophe apostrophe) noexcept {
  return c == '\'' && apostrophe == Apostrophe::kNamed ? kNamedApostrophe : kEntities[c];
}

// The NUL and every byte with an entity: one table test per byte ends a plain run.
constexpr std::array<bool, 256> MakeRunEnds() {
  std::array<bool, 256> ends{};
  for (std::size_t c = 0; c < 256; ++c) ends[c] = c == 0 || kEntities[c].length != 0;
  return ends;
}
constexpr std::array<bool, 256> kRunEnds = MakeRunEnds();

}  // namespace

// Four bytes a round: every value of a written tree passes through here. Each byte is read only
// once the one before it is known not to be the NUL.
std::size_t PlainPrefix(const char* text) noexcept {
  const auto* start = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* p = start;
  for (;; p += 4) {
    if (kRunEnds[p[0]]) break;
    if (kRunEnds[p[1]]) return static_cast<std::size_t>(p - start) + 1;
    if (kRunEnds[p[2]]) return static_cast<std::size_t>(p - start) + 2;
    if (kRunEnds[p[3]]) return static_cast<std::size_t>(p - start) + 3;
  }
  return static_cast<std::size_t>(p - start);
}

std::size_t EscapedLength(const char* text, bool twice, Apostrophe apostrophe) noexcept {
  std::size_t n = 0;
  for (const auto* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
    const uint8_t extra = EntityFor(*p, apostrophe).length;
    n += extra == 0 ? 1 : extra + (twice ? kTwiceExtra : 0);
  }
  return n;
}

char* EscapeTo(const char* text, bool twice, Apostrophe apostrophe, char* out) noexcept {
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  for (;;) {
    const unsigned char* run = p;
    p += PlainPrefix(reinterpret_cast<const char*>(p));
    const auto plain = static_cast<std::size_t>(p - run);
    if (plain > 0) {
      std::memcpy(out, run, plain);
      out += plain;
    }
    if (*p == 0) return out;
    const Entity& e = EntityFor(*p, apostrophe);
    if (twice) {
      std::memcpy(out, "&amp;", 5);
      std::memcpy(out + 5, e.text + 1, e.length - 1u);
      out += e.length + kTwiceExtra;
    } else {
      std::memcpy(out, e.text, e.length);
      out += e.length;
    }
    ++p;
  }
}

char* Escape(const char* text, bool twice) noexcept {
  const std::size_t n = EscapedLength(text, twice, Apostrophe::kNumeric);
  char* out = static_cast<char*>(upnp_malloc_impl(n + 1));
  if (out == nullptr) return nullptr;
  *EscapeTo(text, twice, Apostrophe::kNumeric, out) = '\0';
  return out;
}

upnp_string* AppendEscaped(upnp_string* s, const char* text, bool twice,
                           Apostrophe apostrophe) noexcept {
  if (s->buffer == nullptr) return s;  // a string that lost its text stays as it is
  // Most texts need no escaping at all: append them in one piece.
  const std::size_t plain = PlainPrefix(text);
  if (text[plain] == '\0') {
    return plain == 0 || plain > UINT32_MAX
               ? s
               : tw::util::StringAdd(s, text, static_cast<uint32_t>(plain));
  }
  const std::size_t n = EscapedLength(text, twice, apostrophe);
  if (n == 0) return s;
  if (uint64_t{s->length} + n + 1 <= s->capacity) {
    char* end = EscapeTo(text, twice, apostrophe, s->buffer + s->length);
    *end = '\0';
    s->length += static_cast<uint32_t>(n);
    return s;
  }
  // Growing: through the string's own append, so its growth rule is the only one.
  if (n > UINT32_MAX) return s;
  char* scratch = static_cast<char*>(upnp_malloc_impl(n));
  if (scratch == nullptr) return s;
  EscapeTo(text, twice, apostrophe, scratch);
  s = tw::util::StringAdd(s, scratch, static_cast<uint32_t>(n));
  upnp_free_impl(scratch);
  return s;
}

}  // namespace tw::xml
