// SPDX-License-Identifier: Apache-2.0
// Entries: the scanning primitives, byte-level copies, escaping, unescaping and the writers.
#include <cstring>

#include "tarnwick/util.h"
#include "tarnwick/xml.h"
#include "xml/xml.h"

extern "C" {

TW_API int32_t upnp_xml_find_tagstart(const char* text) noexcept {
  return text == nullptr ? -1 : tw::xml::FindTagStart(text);
}

TW_API int32_t upnp_xml_find(const char* text, const char* set) noexcept {
  return text == nullptr || set == nullptr ? 0 : tw::xml::Find(text, set);
}

TW_API char* upnp_xml_strdup(const char* text, int32_t length) noexcept {
  if (text == nullptr || length < 0) return nullptr;
  // Never past the terminator, whatever length says.
  return tw::xml::Dup(text, strnlen(text, static_cast<size_t>(length)), false);
}

TW_API char* upnp_strdup_quoted(const char* text, int32_t length) noexcept {
  if (text == nullptr || length < 0) return nullptr;
  return tw::xml::DupQuoted(text, strnlen(text, static_cast<size_t>(length)), false);
}

TW_API char* upnp_xml_escape_cond(const char* text, int twice) noexcept {
  return text == nullptr ? nullptr : tw::xml::Escape(text, twice != 0);
}

TW_API char* upnp_xml_escape(const char* text) noexcept { return upnp_xml_escape_cond(text, 1); }

TW_API void upnp_xml_escape_cond_externout(const char* text, upnp_string** str, int twice,
                                           int numeric_apostrophe) noexcept {
  if (str == nullptr || *str == nullptr) return;
  upnp_string_empty(*str);
  if (text == nullptr) return;
  *str = tw::xml::AppendEscaped(
      *str, text, twice != 0,
      numeric_apostrophe != 0 ? tw::xml::Apostrophe::kNumeric : tw::xml::Apostrophe::kNamed);
}

TW_API void upnp_xml_unescape(char* text) noexcept {
  if (text == nullptr) return;
  text[tw::xml::UnescapeInto(text, std::strlen(text), text)] = '\0';
}

TW_API upnp_string* upnp_xml_tree_to_string(const upnp_xml_node* node, int pretty,
                                            int single) noexcept {
  if (node == nullptr) return nullptr;
  return tw::xml::Write(node, pretty != 0, single != 0, tw::xml::Flavour::kPlain);
}

TW_API upnp_string* upnp_xml_tree_to_string_valid(const upnp_xml_node* node, int pretty,
                                                  int single) noexcept {
  if (node == nullptr) return nullptr;
  return tw::xml::Write(node, pretty != 0, single != 0, tw::xml::Flavour::kValid);
}

TW_API upnp_string* upnp_xml_tree_to_compliant_string(const upnp_xml_node* node, int pretty,
                                                      int single) noexcept {
  if (node == nullptr) return nullptr;
  return tw::xml::Write(node, pretty != 0, single != 0, tw::xml::Flavour::kCompliant);
}

TW_API upnp_string* upnp_xml_node_to_string(const upnp_xml_node* node, int pretty) noexcept {
  return upnp_xml_tree_to_string(node, pretty, 0);
}

}  // extern "C"
