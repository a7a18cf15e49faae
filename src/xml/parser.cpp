// SPDX-License-Identifier: Apache-2.0
// The forgiving one-pass parser. Positions are indexes into the text of the current call; an
// element's `end` tells its parent where to continue.
#include <cstring>

#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "xml/xml.h"

namespace tw::xml {
namespace {

constexpr ByteSet kNameEnd = MakeByteSet(" />");
constexpr ByteSet kAttributeNameEnd = MakeByteSet("=/");
constexpr ByteSet kValueEnd = MakeByteSet(" />");
constexpr ByteSet kTagOpen = MakeByteSet("<");

// The attribute loop of a start tag whose name ends at pos. Attributes go to the head of the
// list, so the list holds them in reverse document order (kept: writers show it). Returns the
// position where the tag's scan stopped: its '>', the '/' of "/>" (or of the next end tag when
// the tag was not well formed), the NUL, or wherever a memory shortage ended the loop.
// Kept out of line so the recursive parser's frames stay small.
__attribute__((noinline)) std::size_t ReadAttributes(const char* text, std::size_t pos,
                                                     upnp_xml_node* node) noexcept {
  while (text[pos] == ' ') ++pos;
  if (text[pos] == '/') return pos;
  while (text[pos] != '>' && text[pos] != '\0') {
    while (text[pos] == ' ') ++pos;
    upnp_xml_attribute* attribute = AllocAttribute();
    if (attribute == nullptr) break;
    // No '=' before the next '/' means no attribute: the tag ends there. An attribute without
    // '=' is therefore not supported; the search runs on through the document.
    const std::size_t k = FindOutsideQuotes(text + pos, kAttributeNameEnd);
    if (text[pos + k] != '=') {
      FreeAttribute(attribute);
      pos += k;
      break;
    }
    std::size_t name_length = k;
    while (name_length > 0 &&
           (text[pos + name_length - 1] == ' ' || text[pos + name_length - 1] == '=')) {
      --name_length;
    }
    std::size_t v = pos + k + 1;
    while (text[v] == ' ') ++v;
    // Unquoted values end at a '/', so an unquoted URL is cut: intended, values are quoted.
    const std::size_t raw = FindOutsideQuotes(text + v, kValueEnd);
    attribute->name = Dup(text + pos, name_length, false);
    attribute->value = attribute->name != nullptr ? DupQuoted(text + v, raw, true) : nullptr;
    pos = v + raw;
    if (attribute->value == nullptr) {
      FreeAttribute(attribute);
      break;
    }
    attribute->next = node->attributes;
    node->attributes = attribute;
    // One separator is stepped over; a second space makes the next pass search for '=' past the
    // '>', which ends the tag at the following '/' (kept for compatibility).
    if (text[pos] == '/' || text[pos] == '>' || text[pos] == '\0') break;
    ++pos;
  }
  return pos;
}

// The end tag at e ("</"): only a prefix of the name is compared, and a mismatch is logged and
// tolerated. Returns the index of the '>' behind it, or of the NUL.
__attribute__((noinline)) std::size_t CloseElement(const char* text, std::size_t e,
                                                   const upnp_xml_node* node) noexcept {
  if (std::strncmp(text + e + 2, node->name, std::strlen(node->name)) != 0) {
    upnp_log_info_impl(UPNP_LOG_PLUGIN, "upnp_xml_parse XML: bad end tag!\n%s", node->name);
  }
  const char* gt = std::strchr(text + e, '>');
  return gt != nullptr ? static_cast<std::size_t>(gt - text) : e + std::strlen(text + e);
}

// Parses the first element of text at nesting depth `depth` (the root is 1). *end gets the
// element's end offset. *stopped is set when the parse must end early (a child that could not
// be parsed, or the nesting cap): every open element then ends at that point. Re-parsing the
// failed child at each outer level, as a plain recursive reading would, gives the same tree at
// a cost of depth times the rest of the text.
upnp_xml_node* ParseElement(const char* text, uint32_t depth, std::size_t* end,
                            bool* stopped) noexcept {
  const int32_t start = FindTagStart(text);
  if (start < 0) return nullptr;
  const std::size_t p = static_cast<std::size_t>(start);
  const std::size_t n = FindOutsideQuotes(text + p, kNameEnd);
  if (text[p + n] == '\0') return nullptr;
  upnp_xml_node* node = AllocNode();
  if (node == nullptr) return nullptr;
  node->name = Dup(text + p, n, false);
  if (node->name == nullptr) {
    Release(node);
    return nullptr;
  }
  std::size_t q = ReadAttributes(text, p + n, node);
  if (text[q] == '\0') {  // the text ends inside the start tag
    *end = q;
  } else if (text[q] == '/') {  // "<a/>", "<a x='1'/>": empty
    *end = q + 1;
  } else {
    const std::size_t s = q + 1;
    const char* lt = std::strchr(text + s, '<');
    if (lt == nullptr) {  // truncated: the text after the tag is not kept
      *end = s;
      node->end = static_cast<uint32_t>(*end);
      return node;
    }
    q = static_cast<std::size_t>(lt - text);
    if (text[q + 1] == '/') {
      // Text only: trailing control bytes go, leading white space stays. A memory shortage
      // leaves the value null.
      node->value = Dup(text + s, q - s, true);
      *end = CloseElement(text, q, node);
      node->end = static_cast<uint32_t>(*end);
      return node;
    }
    // Children: text around them is dropped. This is the only place that recurses.
    if (depth >= UPNP_XML_MAX_DEPTH) {
      *stopped = true;
      *end = q;
      node->end = static_cast<uint32_t>(q);
      return node;
    }
    upnp_xml_node** tail = &node->children;
    while (text[q] != '\0' && text[q + 1] != '/') {
      if (text[q + 1] == '!') {  // comment, CDATA (its text is lost) or declaration
        const int32_t next = FindTagStart(text + q);
        q = next < 0 ? q + std::strlen(text + q) : q + static_cast<std::size_t>(next) - 1;
        continue;
      }
      std::size_t child_end = 0;
      upnp_xml_node* child = ParseElement(text + q, depth + 1, &child_end, stopped);
      if (child == nullptr) {
        *stopped = true;
        break;
      }
      *tail = child;
      tail = &child->next;
      q += child_end;
      if (*stopped) break;
      // Quotes count here: an apostrophe in the text between two children hides what follows.
      q += FindOutsideQuotes(text + q, kTagOpen);
    }
    *end = q;
    if (text[q] != '\0' && !*stopped) *end = CloseElement(text, q, node);
  }
  node->end = static_cast<uint32_t>(*end);
  return node;
}

}  // namespace

upnp_xml_node* Parse(const char* text) noexcept {
  std::size_t end = 0;
  bool stopped = false;
  return ParseElement(text, 1, &end, &stopped);
}

}  // namespace tw::xml
