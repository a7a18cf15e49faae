/* SPDX-License-Identifier: Apache-2.0 */
/*
 * XML: a small forgiving parser into a tree of element nodes, lookups, copying, escaping and the
 * writers.
 *
 * The parser is not a conforming XML parser. It keeps names as written (prefix included), keeps
 * attributes (in reverse document order), keeps the text only of elements without child
 * elements, skips declarations, processing instructions, comments and CDATA sections, only logs
 * a mismatched end tag, and returns what it could build when the text ends early.
 *
 * Every node, attribute and string comes from the accounted allocator. A node owns its name,
 * value, attributes and whole child list; releasing a node releases its following siblings too.
 * Functions that make text return a fresh block freed with upnp_free_impl (writers return an
 * upnp_string freed with upnp_string_free); null means a null input or a memory shortage.
 *
 * No shared state: any number of threads may parse and query their own trees; a tree must not be
 * modified while another thread reads it.
 *
 * Nesting: the parser, the copies, the writers and the release recurse once per nesting level.
 * The parser stops at UPNP_XML_MAX_DEPTH nested elements: an element at that depth is returned
 * without its children and parsing ends there, as if the text stopped (the partial tree of a
 * truncated document). So a parsed tree is at most UPNP_XML_MAX_DEPTH deep, which every function
 * here handles on a 128 KiB thread stack, sanitizer builds included. A tree built by hand deeper
 * than that is the caller's business: give the thread enough stack for it.
 */
#ifndef TARNWICK_XML_H
#define TARNWICK_XML_H

#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* Deepest element nesting the parser builds (the root is at depth 1). */
#define UPNP_XML_MAX_DEPTH 256

typedef struct upnp_xml_attribute {
  char* name;                      /* owned */
  char* value;                     /* owned, may be null */
  struct upnp_xml_attribute* next; /* singly linked, null at the end */
} upnp_xml_attribute;

typedef struct upnp_xml_node {
  char* name;                     /* owned, as written ("s:Envelope" stays whole) */
  char* value;                    /* owned text, entities resolved; null with children or empty */
  upnp_xml_attribute* attributes; /* first attribute or null */
  struct upnp_xml_node* next;     /* next sibling or null */
  struct upnp_xml_node* children; /* first child or null */
  /* Parser only: offset, in the text handed to that parse, of the element's final '>' or of the
   * place where parsing stopped. Copied unchanged; 0 for nodes made by hand. */
  uint32_t end;
} upnp_xml_node;

/* ---- Parsing ---------------------------------------------------------------------------- */
/* The tree of the first element of text, or null (null text, no element, or a name that runs
 * into the end of the text). Anything behind the root's end tag is ignored. A mismatched end tag
 * is logged (information, UPNP_LOG_PLUGIN) and tolerated. */
TW_API upnp_xml_node* upnp_xml_parse(const char* text) TW_NOEXCEPT;

/* ---- Building, copying, releasing ------------------------------------------------------- */
/* A new node with copies of name and value (value may be null); null for a null name. */
TW_API upnp_xml_node* upnp_xml_new_node(const char* name, const char* value) TW_NOEXCEPT;
/* A new attribute with copies of both strings (value may be null); null for a null name. */
TW_API upnp_xml_attribute* upnp_xml_new_attribute(const char* name, const char* value) TW_NOEXCEPT;
/* Appends child, with any siblings chained behind it, to the end of parent's children. No copy:
 * the parent owns it from now on. No-op for a null parent. */
TW_API void upnp_xml_add_as_subnode(upnp_xml_node* parent, upnp_xml_node* child) TW_NOEXCEPT;
/* Deep copy of node with its attributes and subtree, without its following siblings. */
TW_API upnp_xml_node* upnp_xml_copy_node(const upnp_xml_node* node) TW_NOEXCEPT;
/* Deep copy of node and of all its following siblings, each with its subtree. */
TW_API upnp_xml_node* upnp_xml_copy_tree(const upnp_xml_node* node) TW_NOEXCEPT;
/* Appends upnp_xml_copy_tree(node) to parent's children and returns the copy (null when the
 * copy fails, nothing appended). With a null argument returns node itself and copies nothing. */
TW_API upnp_xml_node* upnp_xml_copy_to_subnode(upnp_xml_node* parent,
                                               upnp_xml_node* node) TW_NOEXCEPT;
/* Deep copy in the same order; null for an empty list or when memory runs out. */
TW_API upnp_xml_attribute* upnp_xml_copy_attributes(const upnp_xml_attribute* list) TW_NOEXCEPT;
/* Frees node, its attributes, its subtree and all its following siblings; null is a no-op. */
TW_API void upnp_xml_release(upnp_xml_node* node) TW_NOEXCEPT;
/* Frees a whole attribute list; null is a no-op. */
TW_API void upnp_xml_release_attributes(upnp_xml_attribute* list) TW_NOEXCEPT;

/* ---- Queries: names compared exactly (strcmp), prefix included ---------------------------- */
/* Depth-first pre-order over node, its subtree, then each following sibling and its subtree:
 * the first node named name, or null (also for a null name). Results point into the tree. */
TW_API upnp_xml_node* upnp_xml_find_tag(const upnp_xml_node* node, const char* name) TW_NOEXCEPT;
/* upnp_xml_find_tag from node's next sibling: iterates over repeated elements. */
TW_API upnp_xml_node* upnp_xml_find_next_tag(const upnp_xml_node* node,
                                             const char* name) TW_NOEXCEPT;
/* The value of the node upnp_xml_find_tag finds, or null. */
TW_API char* upnp_xml_find_tag_value(const upnp_xml_node* node, const char* name) TW_NOEXCEPT;
/* atoi of that value; 0 when the element is missing or has no value. */
TW_API int upnp_xml_find_tag_value_int(const upnp_xml_node* node, const char* name) TW_NOEXCEPT;
/* upnp_atoui of that value when it begins with a decimal digit, else default_value. */
TW_API uint32_t upnp_xml_find_tag_value_uint(const upnp_xml_node* node, const char* name,
                                             uint32_t default_value) TW_NOEXCEPT;
/* The first attribute of list named name, or null. */
TW_API upnp_xml_attribute* upnp_xml_find_attribute(const upnp_xml_attribute* list,
                                                   const char* name) TW_NOEXCEPT;
/* The value of node's attribute name, or null. */
TW_API char* upnp_xml_find_attribute_value(const upnp_xml_node* node, const char* name) TW_NOEXCEPT;
/* Appends every node named name, in upnp_xml_find_tag's order, to the heap array `array` (null
 * at the start) holding *count entries, and returns the new array. Each match reallocates the
 * array one entry longer (quadratic: meant for short lists). Free the array with upnp_free_impl;
 * the nodes stay owned by the tree. A failed growth keeps the array and count as they were. */
TW_API upnp_xml_node** upnp_xml_find_all_nodes(const upnp_xml_node* node, const char* name,
                                               upnp_xml_node** array, uint32_t* count) TW_NOEXCEPT;

/* ---- Scanning primitives --------------------------------------------------------------- */
/* Index just behind the '<' of the first tag (an end tag counts) outside quotes, comments and
 * CDATA sections, passing over "<!" declarations and "<?" instructions; -1 for none or null. */
TW_API int32_t upnp_xml_find_tagstart(const char* text) TW_NOEXCEPT;
/* Index of the first byte of text in set that is outside a quoted run ('"' or '\'' until the
 * same quote), else the index of the NUL; 0 when either is null. */
TW_API int32_t upnp_xml_find(const char* text, const char* set) TW_NOEXCEPT;
/* The first length bytes of text without trailing bytes 1..31; null for a null text or a
 * negative length. */
TW_API char* upnp_xml_strdup(const char* text, int32_t length) TW_NOEXCEPT;
/* Within the first length bytes: the text between the first quote and the next quote of the
 * same kind, else (no quote, or unclosed) the whole, both through upnp_xml_strdup. */
TW_API char* upnp_strdup_quoted(const char* text, int32_t length) TW_NOEXCEPT;

/* ---- Escaping --------------------------------------------------------------------------- */
/*
 * Escaping replaces '"' '&' '\'' '<' '>' by entities and bytes 1..31 by "&#N;" (decimal); all
 * other bytes are copied. "Twice" escapes every replacement once more ("&amp;lt;"), for text
 * embedded in an already escaped document such as DIDL-Lite inside a SOAP answer.
 */
/* A fresh escaped copy (apostrophe as "&#39;"); "" for "", null for null. */
TW_API char* upnp_xml_escape_cond(const char* text, int twice) TW_NOEXCEPT;
/* upnp_xml_escape_cond(text, 1): deliberately the doubled form. */
TW_API char* upnp_xml_escape(const char* text) TW_NOEXCEPT;
/* Empties *str and writes the escaped text into it, storing the record back (it may move). The
 * apostrophe is "&#39;" when numeric_apostrophe is non-zero, else "&apos;". Nothing happens for a
 * null str or *str; a null text leaves the string empty. */
TW_API void upnp_xml_escape_cond_externout(const char* text, upnp_string** str, int twice,
                                           int numeric_apostrophe) TW_NOEXCEPT;
/* Resolves entities in place: amp nbsp(space) lt gt apos quot, and "&#N;" / "&#xH;" with at most
 * four characters between '#' and ';', of which only the low 8 bits are stored as one byte (no
 * UTF-8). Anything else is left as it is. Null is a no-op. */
TW_API void upnp_xml_unescape(char* text) TW_NOEXCEPT;

/* ---- Writers ---------------------------------------------------------------------------- */
/*
 * Write node, and unless single is non-zero its following siblings, into a new upnp_string
 * (capacity 1024 at the start); null for a null node. No XML declaration is written. Empty
 * elements are written as start and end tag; a node's value comes before its children.
 * pretty: children on their own lines, indented by four spaces per level.
 * Attributes are written in list order (a parsed node's reversed document order).
 */
/* Values as stored. */
TW_API upnp_string* upnp_xml_tree_to_string(const upnp_xml_node* node, int pretty,
                                            int single) TW_NOEXCEPT;
/* Values escaped (upnp_xml_escape_cond(value, 0)). */
TW_API upnp_string* upnp_xml_tree_to_string_valid(const upnp_xml_node* node, int pretty,
                                                  int single) TW_NOEXCEPT;
/* Values escaped, then held to what DLNA renderers accept, by element or attribute name:
 * dc:title, upnp:album, upnp:genre, dc:creator cut to 256 bytes ending "...", upnp:class cut to
 * 256, upnp:channelNr (11) and "unknown" (256) left out when longer, dc:date only when valid,
 * restricted as 0/1, duration as HH:MM:SS, protocolInfo without malformed fourth-field
 * parameters, any other name cut to 1024 ending "...". Nodes without a name, and "desc" nodes
 * whose nameSpace and xmlns attributes differ, are skipped with their subtree. */
TW_API upnp_string* upnp_xml_tree_to_compliant_string(const upnp_xml_node* node, int pretty,
                                                      int single) TW_NOEXCEPT;
/* upnp_xml_tree_to_string(node, pretty, 0): deliberately writes the sibling chain too. */
TW_API upnp_string* upnp_xml_node_to_string(const upnp_xml_node* node, int pretty) TW_NOEXCEPT;

TW_EXTERN_C_END

#endif /* TARNWICK_XML_H */
