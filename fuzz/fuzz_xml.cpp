// SPDX-License-Identifier: Apache-2.0
// The XML parser and writers over arbitrary text: every tree is written in all flavours and
// layouts, the outputs are parsed again, copied trees must write like their originals, escaping
// must undo, and every accounted byte must come back after each input.
#include <cstdint>
#include <cstring>
#include <string>

#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "tarnwick/xml.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

std::string Text(upnp_string* s) {
  Check(s != nullptr && s->buffer != nullptr);
  Check(std::strlen(s->buffer) == s->length);
  std::string text(s->buffer, s->length);
  upnp_string_free(s);
  return text;
}

std::string Write(const upnp_xml_node* node, int flavour, int pretty, int single) {
  switch (flavour) {
    case 0:
      return Text(upnp_xml_tree_to_string(node, pretty, single));
    case 1:
      return Text(upnp_xml_tree_to_string_valid(node, pretty, single));
    default:
      return Text(upnp_xml_tree_to_compliant_string(node, pretty, single));
  }
}

void Tree(const char* text) {
  upnp_xml_node* root = upnp_xml_parse(text);
  if (root == nullptr) return;
  Check(root->end <= std::strlen(text));
  Check(upnp_xml_find_tag(root, root->name) == root);
  uint32_t count = 0;
  upnp_xml_node** all = upnp_xml_find_all_nodes(root, root->name, nullptr, &count);
  Check(count >= 1 && all[0] == root);
  upnp_free_impl(all);

  upnp_xml_node* copy = upnp_xml_copy_tree(root);
  Check(copy != nullptr);
  for (int flavour = 0; flavour < 3; ++flavour) {
    for (int pretty = 0; pretty < 2; ++pretty) {
      for (int single = 0; single < 2; ++single) {
        const std::string out = Write(root, flavour, pretty, single);
        Check(Write(copy, flavour, pretty, single) == out);
        upnp_xml_release(upnp_xml_parse(out.c_str()));
      }
    }
  }
  upnp_xml_release(copy);
  upnp_xml_release(root);
}

void EscapeRoundTrips(const char* text) {
  char* once = upnp_xml_escape_cond(text, 0);
  Check(once != nullptr);
  upnp_xml_unescape(once);
  Check(std::strcmp(once, text) == 0);
  upnp_free_impl(once);

  // Twice is escaping the escaped text, so it takes two unescapes.
  char* twice = upnp_xml_escape(text);
  Check(twice != nullptr);
  upnp_xml_unescape(twice);
  upnp_xml_unescape(twice);
  Check(std::strcmp(twice, text) == 0);
  upnp_free_impl(twice);

  upnp_string* s = upnp_string_create("", 8);
  upnp_xml_escape_cond_externout(text, &s, 0, 0);  // "&apos;"
  Check(s != nullptr && s->buffer != nullptr);
  upnp_xml_unescape(s->buffer);
  Check(std::strcmp(s->buffer, text) == 0);
  upnp_string_free(s);

  char* plain = upnp_strdup_impl(text);
  upnp_xml_unescape(plain);
  Check(std::strlen(plain) <= std::strlen(text));
  upnp_free_impl(plain);
}

void Scans(const char* text) {
  const auto length = static_cast<int32_t>(std::strlen(text));
  const int32_t tag = upnp_xml_find_tagstart(text);
  Check(tag == -1 || (tag >= 1 && tag <= length && text[tag - 1] == '<'));
  const int32_t stop = upnp_xml_find(text, " />");
  Check(stop >= 0 && stop <= length);
  for (int32_t n : {0, 1, length / 2, length, length + 7}) {
    char* copy = upnp_xml_strdup(text, n);
    Check(copy != nullptr && std::strlen(copy) <= static_cast<size_t>(n));
    upnp_free_impl(copy);
    copy = upnp_strdup_quoted(text, n);
    Check(copy != nullptr && std::strlen(copy) <= static_cast<size_t>(n));
    upnp_free_impl(copy);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint32_t start = upnp_mem_used();
  {
    const std::string text(reinterpret_cast<const char*>(data), size);  // NUL-terminated
    Tree(text.c_str());
    EscapeRoundTrips(text.c_str());
    Scans(text.c_str());
  }
  Check(upnp_mem_used() == start);
  return 0;
}
