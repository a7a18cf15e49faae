// SPDX-License-Identifier: Apache-2.0
// Entries: parsing, building, copying, releasing and querying node trees.
#include <cstring>

#include "tarnwick/util.h"
#include "tarnwick/xml.h"
#include "util/helpers.h"
#include "xml/xml.h"

extern "C" {

TW_API upnp_xml_node* upnp_xml_parse(const char* text) noexcept {
  return text == nullptr ? nullptr : tw::xml::Parse(text);
}

TW_API upnp_xml_node* upnp_xml_new_node(const char* name, const char* value) noexcept {
  return name == nullptr ? nullptr : tw::xml::NewNode(name, value);
}

TW_API upnp_xml_attribute* upnp_xml_new_attribute(const char* name, const char* value) noexcept {
  return name == nullptr ? nullptr : tw::xml::NewAttribute(name, value);
}

TW_API void upnp_xml_add_as_subnode(upnp_xml_node* parent, upnp_xml_node* child) noexcept {
  if (parent == nullptr || child == nullptr) return;
  tw::xml::AppendChildren(parent, child);
}

TW_API upnp_xml_node* upnp_xml_copy_node(const upnp_xml_node* node) noexcept {
  return tw::xml::CopyNode(node, false);
}

TW_API upnp_xml_node* upnp_xml_copy_tree(const upnp_xml_node* node) noexcept {
  return tw::xml::CopyNode(node, true);
}

TW_API upnp_xml_node* upnp_xml_copy_to_subnode(upnp_xml_node* parent,
                                               upnp_xml_node* node) noexcept {
  if (parent == nullptr || node == nullptr) return node;
  upnp_xml_node* copy = tw::xml::CopyNode(node, true);
  if (copy != nullptr) tw::xml::AppendChildren(parent, copy);
  return copy;
}

TW_API upnp_xml_attribute* upnp_xml_copy_attributes(const upnp_xml_attribute* list) noexcept {
  bool ok = true;
  return tw::xml::CopyAttributes(list, &ok);
}

TW_API void upnp_xml_release(upnp_xml_node* node) noexcept { tw::xml::Release(node); }

TW_API void upnp_xml_release_attributes(upnp_xml_attribute* list) noexcept {
  tw::xml::ReleaseAttributes(list);
}

TW_API upnp_xml_node* upnp_xml_find_tag(const upnp_xml_node* node, const char* name) noexcept {
  return tw::xml::FindTag(node, name);
}

TW_API upnp_xml_node* upnp_xml_find_next_tag(const upnp_xml_node* node, const char* name) noexcept {
  return node == nullptr ? nullptr : tw::xml::FindTag(node->next, name);
}

TW_API char* upnp_xml_find_tag_value(const upnp_xml_node* node, const char* name) noexcept {
  const upnp_xml_node* found = tw::xml::FindTag(node, name);
  return found != nullptr ? found->value : nullptr;
}

TW_API int upnp_xml_find_tag_value_int(const upnp_xml_node* node, const char* name) noexcept {
  const char* value = upnp_xml_find_tag_value(node, name);
  return value != nullptr ? tw::util::Atoi(value) : 0;
}

TW_API uint32_t upnp_xml_find_tag_value_uint(const upnp_xml_node* node, const char* name,
                                             uint32_t default_value) noexcept {
  const char* value = upnp_xml_find_tag_value(node, name);
  if (value == nullptr || value[0] < '0' || value[0] > '9') return default_value;
  return upnp_atoui(value);
}

TW_API upnp_xml_attribute* upnp_xml_find_attribute(const upnp_xml_attribute* list,
                                                   const char* name) noexcept {
  return name == nullptr ? nullptr : tw::xml::FindAttribute(list, name);
}

TW_API char* upnp_xml_find_attribute_value(const upnp_xml_node* node, const char* name) noexcept {
  if (node == nullptr || name == nullptr) return nullptr;
  const upnp_xml_attribute* found = tw::xml::FindAttribute(node->attributes, name);
  return found != nullptr ? found->value : nullptr;
}

TW_API upnp_xml_node** upnp_xml_find_all_nodes(const upnp_xml_node* node, const char* name,
                                               upnp_xml_node** array, uint32_t* count) noexcept {
  if (name == nullptr || count == nullptr) return array;
  tw::xml::FindAll(node, name, &array, count);
  return array;
}

}  // extern "C"
