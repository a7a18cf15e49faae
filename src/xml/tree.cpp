// SPDX-License-Identifier: Apache-2.0
// Node and attribute records: creation, copies, release and lookups. Sibling chains are walked
// in loops and only child lists recurse, so the stack grows with the nesting depth alone.
#include <cstring>

#include "tarnwick/platform.h"
#include "xml/xml.h"

namespace tw::xml {
namespace {

// A copy of an optional string; false only when a non-null text could not be copied.
bool CopyText(const char* text, char** out) noexcept {
  *out = nullptr;
  if (text == nullptr) return true;
  *out = upnp_strdup_impl(text);
  return *out != nullptr;
}

void FreeText(char* text) noexcept {
  if (text != nullptr) upnp_free_impl(text);
}

}  // namespace

upnp_xml_node* AllocNode() noexcept {
  return static_cast<upnp_xml_node*>(upnp_calloc_impl(1, sizeof(upnp_xml_node)));
}

upnp_xml_attribute* AllocAttribute() noexcept {
  return static_cast<upnp_xml_attribute*>(upnp_calloc_impl(1, sizeof(upnp_xml_attribute)));
}

void FreeAttribute(upnp_xml_attribute* attribute) noexcept {
  FreeText(attribute->value);
  FreeText(attribute->name);
  std::memset(attribute, 0, sizeof(*attribute));
  upnp_free_impl(attribute);
}

// Iterative, although the list is conceptually released tail first: a start tag from another
// device may carry any number of attributes, and recursing once per attribute would let it
// overflow a worker's stack. The parser puts the last attribute at the head, so this order frees
// the records last allocated first (see Release).
void ReleaseAttributes(upnp_xml_attribute* list) noexcept {
  while (list != nullptr) {
    upnp_xml_attribute* next = list->next;
    FreeAttribute(list);
    list = next;
  }
}

// Frees exactly in the reverse order of the parser's allocations (last sibling first, and in
// each element its children, value, attributes, name and record). The heap's free lists hand
// blocks back last in, first out, so the next tree gets its blocks in document order again and
// a long-running process keeps walking its trees through memory front to back; freeing in
// document order instead leaves the next tree scattered, and every walk over it (the writers
// above all) several times slower. The sibling chain is reversed in place to stay iterative.
void Release(upnp_xml_node* node) noexcept {
  upnp_xml_node* reversed = nullptr;
  while (node != nullptr) {
    upnp_xml_node* next = node->next;
    node->next = reversed;
    reversed = node;
    node = next;
  }
  while (reversed != nullptr) {
    upnp_xml_node* next = reversed->next;
    if (reversed->children != nullptr) Release(reversed->children);
    FreeText(reversed->value);
    ReleaseAttributes(reversed->attributes);
    FreeText(reversed->name);
    std::memset(reversed, 0, sizeof(*reversed));
    upnp_free_impl(reversed);
    reversed = next;
  }
}

upnp_xml_node* NewNode(const char* name, const char* value) noexcept {
  upnp_xml_node* node = AllocNode();
  if (node == nullptr) return nullptr;
  if (!CopyText(name, &node->name) || !CopyText(value, &node->value)) {
    Release(node);
    return nullptr;
  }
  return node;
}

upnp_xml_attribute* NewAttribute(const char* name, const char* value) noexcept {
  upnp_xml_attribute* attribute = AllocAttribute();
  if (attribute == nullptr) return nullptr;
  if (!CopyText(name, &attribute->name) || !CopyText(value, &attribute->value)) {
    FreeAttribute(attribute);
    return nullptr;
  }
  return attribute;
}

void AppendChildren(upnp_xml_node* parent, upnp_xml_node* child) noexcept {
  upnp_xml_node** tail = &parent->children;
  while (*tail != nullptr) tail = &(*tail)->next;
  *tail = child;
}

upnp_xml_attribute* CopyAttributes(const upnp_xml_attribute* list, bool* ok) noexcept {
  upnp_xml_attribute* head = nullptr;
  upnp_xml_attribute** tail = &head;
  *ok = true;
  for (; list != nullptr; list = list->next) {
    upnp_xml_attribute* copy = AllocAttribute();
    if (copy == nullptr) {
      *ok = false;
      break;
    }
    *tail = copy;
    tail = &copy->next;
    if (!CopyText(list->name, &copy->name) || !CopyText(list->value, &copy->value)) {
      *ok = false;
      break;
    }
  }
  if (*ok) return head;
  ReleaseAttributes(head);
  return nullptr;
}

namespace {

// One node without its children and siblings; null when memory runs out. Out of line, so the
// recursion in CopyNode keeps small frames.
__attribute__((noinline)) upnp_xml_node* CopyOne(const upnp_xml_node* node) noexcept {
  upnp_xml_node* copy = AllocNode();
  if (copy == nullptr) return nullptr;
  copy->end = node->end;
  bool ok = CopyText(node->name, &copy->name) && CopyText(node->value, &copy->value);
  if (ok) copy->attributes = CopyAttributes(node->attributes, &ok);
  if (ok) return copy;
  Release(copy);
  return nullptr;
}

}  // namespace

upnp_xml_node* CopyNode(const upnp_xml_node* node, bool with_siblings) noexcept {
  upnp_xml_node* head = nullptr;
  upnp_xml_node** tail = &head;
  for (; node != nullptr; node = with_siblings ? node->next : nullptr) {
    upnp_xml_node* copy = CopyOne(node);
    if (copy == nullptr) break;
    *tail = copy;
    tail = &copy->next;
    if (node->children != nullptr) {
      copy->children = CopyNode(node->children, true);
      if (copy->children == nullptr) break;
    }
  }
  if (node == nullptr) return head;
  Release(head);  // stopped early: memory ran out
  return nullptr;
}

upnp_xml_node* FindTag(const upnp_xml_node* node, const char* name) noexcept {
  if (name == nullptr) return nullptr;
  for (; node != nullptr; node = node->next) {
    if (node->name != nullptr && std::strcmp(node->name, name) == 0) {
      return const_cast<upnp_xml_node*>(node);
    }
    if (node->children != nullptr) {
      upnp_xml_node* found = FindTag(node->children, name);
      if (found != nullptr) return found;
    }
  }
  return nullptr;
}

upnp_xml_attribute* FindAttribute(const upnp_xml_attribute* list, const char* name) noexcept {
  for (; list != nullptr; list = list->next) {
    if (list->name != nullptr && std::strcmp(list->name, name) == 0) {
      return const_cast<upnp_xml_attribute*>(list);
    }
  }
  return nullptr;
}

void FindAll(const upnp_xml_node* node, const char* name, upnp_xml_node*** array,
             uint32_t* count) noexcept {
  for (; node != nullptr; node = node->next) {
    if (node->name != nullptr && std::strcmp(node->name, name) == 0) {
      // One entry longer per match, by contract: callers expect a block of exactly count entries.
      auto** grown = static_cast<upnp_xml_node**>(
          upnp_malloc_impl((static_cast<std::size_t>(*count) + 1) * sizeof(upnp_xml_node*)));
      if (grown != nullptr) {
        if (*count > 0) std::memcpy(grown, *array, *count * sizeof(upnp_xml_node*));
        grown[*count] = const_cast<upnp_xml_node*>(node);
        if (*array != nullptr) upnp_free_impl(*array);
        *array = grown;
        ++*count;
      }
    }
    if (node->children != nullptr) FindAll(node->children, name, array, count);
  }
}

}  // namespace tw::xml
