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

// Per-parse state, kept out of the recursive frames: the nesting depth, whether the parse has to
// end early, and the position results of the helpers below.
struct Context {
  uint32_t depth = 1;  // of the element being parsed; the root is 1
  bool stopped = false;
  bool done = false;    // Begin: the element is complete, no children follow
  std::size_t pos = 0;  // Begin: the first child's '<'; Element: the element's end offset
};

// Start tag and, for elements without children, the rest: empty elements, text-only elements
// and a text that ends early. Leaves in ctx->pos the first child's '<' when children follow.
__attribute__((noinline)) upnp_xml_node* Begin(Context* ctx, const char* text) noexcept {
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
  ctx->done = true;
  std::size_t q = ReadAttributes(text, p + n, node);
  if (text[q] == '\0') {  // the text ends inside the start tag
    ctx->pos = q;
  } else if (text[q] == '/') {  // "<a/>", "<a x='1'/>": empty
    ctx->pos = q + 1;
  } else {
    const std::size_t s = q + 1;
    const char* lt = std::strchr(text + s, '<');
    if (lt == nullptr) {  // truncated: the text after the tag is not kept
      ctx->pos = s;
    } else if (q = static_cast<std::size_t>(lt - text); text[q + 1] == '/') {
      // Text only: trailing control bytes go, leading white space stays. A memory shortage
      // leaves the value null.
      node->value = Dup(text + s, q - s, true);
      ctx->pos = CloseElement(text, q, node);
    } else {
      ctx->done = false;  // children; the text around them is dropped
      ctx->pos = q;
      return node;
    }
  }
  node->end = static_cast<uint32_t>(ctx->pos);
  return node;
}

// A comment, CDATA section (its text is lost) or declaration among children at q: the position
// of the next tag's '<', or of the NUL.
__attribute__((noinline)) std::size_t SkipDeclaration(const char* text, std::size_t q) noexcept {
  const int32_t next = FindTagStart(text + q);
  return next < 0 ? q + std::strlen(text + q) : q + static_cast<std::size_t>(next) - 1;
}

// Parses the first element of text; ctx->pos gets its end offset. The only recursive function,
// and its frame holds just what must survive the call: nested elements from another device cost
// stack, hence the depth cap. When a child cannot be parsed, or the cap is reached,
// ctx->stopped ends every open element at that point. (Re-parsing the failed child at each outer
// level, as a plain recursive reading would, gives the same tree at a cost of depth times the
// rest of the text.)
upnp_xml_node* Element(Context* ctx, const char* text) noexcept {
  upnp_xml_node* node = Begin(ctx, text);
  if (node == nullptr || ctx->done) return node;
  std::size_t q = ctx->pos;
  if (ctx->depth >= UPNP_XML_MAX_DEPTH) {
    ctx->stopped = true;
  } else {
    ++ctx->depth;
    upnp_xml_node** tail = &node->children;
    while (text[q] != '\0' && text[q + 1] != '/') {
      if (text[q + 1] == '!') {
        q = SkipDeclaration(text, q);
        continue;
      }
      upnp_xml_node* child = Element(ctx, text + q);
      if (child == nullptr) {
        ctx->stopped = true;
        break;
      }
      *tail = child;
      tail = &child->next;
      q += ctx->pos;
      if (ctx->stopped) break;
      // Quotes count here: an apostrophe in the text between two children hides what follows.
      q += FindOutsideQuotes(text + q, kTagOpen);
    }
    --ctx->depth;
    if (text[q] != '\0' && !ctx->stopped) q = CloseElement(text, q, node);
  }
  ctx->pos = q;
  node->end = static_cast<uint32_t>(q);
  return node;
}

}  // namespace

upnp_xml_node* Parse(const char* text) noexcept {
  Context ctx;
  return Element(&ctx, text);
}

}  // namespace tw::xml
