// SPDX-License-Identifier: Apache-2.0
// Internal side of the XML subsystem: the logic behind the extern "C" entries of *_api.cpp.
// Functions here take non-null arguments unless they say otherwise, allocate through the
// accounted allocator and never throw.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/types.h"
#include "tarnwick/xml.h"

namespace tw::xml {

// ---- scanning and byte-level copies (scan.cpp) ----
// A byte set for FindOutsideQuotes: kStop for members, kQuote for quotes that are not members,
// kEnd for the NUL, 0 for every other byte, so the scan loop tests one table entry per byte.
struct ByteSet {
  static constexpr uint8_t kStop = 1;
  static constexpr uint8_t kQuote = 2;
  static constexpr uint8_t kEnd = 3;
  uint8_t kind[256];
};
constexpr ByteSet MakeByteSet(const char* members) noexcept {
  ByteSet set{};
  set.kind['"'] = ByteSet::kQuote;
  set.kind['\''] = ByteSet::kQuote;
  for (const char* p = members; *p != '\0'; ++p)
    set.kind[static_cast<uint8_t>(*p)] = ByteSet::kStop;
  set.kind[0] = ByteSet::kEnd;
  return set;
}

int32_t FindTagStart(const char* text) noexcept;
// Index of the first member of set outside a quoted run, or of the NUL.
std::size_t FindOutsideQuotes(const char* text, const ByteSet& set) noexcept;
int32_t Find(const char* text, const char* set) noexcept;
// Length of text[0, n) without its trailing bytes 1..31.
std::size_t TrimmedLength(const char* text, std::size_t n) noexcept;
// Copies text[0, n) minus the trailing control bytes; with unescape, entities are resolved on
// the way (the result is what Unescape would make of the trimmed copy). Null when memory is short.
char* Dup(const char* text, std::size_t n, bool unescape) noexcept;
char* DupQuoted(const char* text, std::size_t n, bool unescape) noexcept;
// Resolves entities of src[0, n) into dst, which may be src itself (the text only shrinks).
// Reads nothing at or behind src + n. Returns the bytes written; no terminator is added.
std::size_t UnescapeInto(const char* src, std::size_t n, char* dst) noexcept;

// ---- parser (parser.cpp) ----
upnp_xml_node* Parse(const char* text) noexcept;

// ---- tree (tree.cpp) ----
upnp_xml_node* NewNode(const char* name, const char* value) noexcept;
upnp_xml_attribute* NewAttribute(const char* name, const char* value) noexcept;
void AppendChildren(upnp_xml_node* parent, upnp_xml_node* child) noexcept;
// A node zero-filled on creation and again before it goes back to the allocator.
upnp_xml_node* AllocNode() noexcept;
upnp_xml_attribute* AllocAttribute() noexcept;
void FreeAttribute(upnp_xml_attribute* attribute) noexcept;
void Release(upnp_xml_node* node) noexcept;
void ReleaseAttributes(upnp_xml_attribute* list) noexcept;
// Deep copies; ok is false when memory ran out (the partial copy is then released and null
// returned), so an empty list and a failure can be told apart.
upnp_xml_attribute* CopyAttributes(const upnp_xml_attribute* list, bool* ok) noexcept;
upnp_xml_node* CopyNode(const upnp_xml_node* node, bool with_siblings) noexcept;
// `name` may be null (no match).
upnp_xml_node* FindTag(const upnp_xml_node* node, const char* name) noexcept;
upnp_xml_attribute* FindAttribute(const upnp_xml_attribute* list, const char* name) noexcept;
void FindAll(const upnp_xml_node* node, const char* name, upnp_xml_node*** array,
             uint32_t* count) noexcept;

// ---- escaping (escape.cpp) ----
enum class Apostrophe { kNumeric, kNamed };
// Number of leading bytes of text that escaping copies unchanged (up to the NUL at most).
std::size_t PlainPrefix(const char* text) noexcept;
// Escaped size of text, without a terminator.
std::size_t EscapedLength(const char* text, bool twice, Apostrophe apostrophe) noexcept;
// Writes the escaped text into out, which must hold EscapedLength bytes; returns the end.
char* EscapeTo(const char* text, bool twice, Apostrophe apostrophe, char* out) noexcept;
char* Escape(const char* text, bool twice) noexcept;
// Appends the escaped text to s by the string's own growth rule; returns the record to use.
upnp_string* AppendEscaped(upnp_string* s, const char* text, bool twice,
                           Apostrophe apostrophe) noexcept;

// ---- writers (writer.cpp) ----
enum class Flavour { kPlain, kValid, kCompliant };
upnp_string* Write(const upnp_xml_node* node, bool pretty, bool single, Flavour flavour) noexcept;

}  // namespace tw::xml
