// SPDX-License-Identifier: Apache-2.0
// The writers: plain, valid (values escaped) and compliant (escaped, then held to the forms DLNA
// renderers accept). Everything is appended to one upnp_string; pieces that fit are copied
// straight into its buffer and only growth goes through the string's append.
#include <array>
#include <cstring>
#include <string_view>

#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "util/string.h"
#include "xml/xml.h"

namespace tw::xml {
namespace {

constexpr uint32_t kStartCapacity = 1024;
constexpr uint32_t kIndentStep = 4;
constexpr int kScoutDistance = 8;

// Compliance rules by element or attribute name; the codes are stable (tables elsewhere use them).
enum class Rule : uint8_t {
  kOmitWhenLong = 0,
  kCut = 1,
  kEllipsis = 2,
  kBoolean = 3,
  kTime = 4,
  kDate = 5,
  kProtocolInfo = 6,
};
struct Limit {
  std::string_view name;
  uint32_t bytes;
  Rule rule;
};
// Looked up in this order; a name not listed takes the last row.
constexpr std::array<Limit, 12> kLimits = {{
    {"dc:title", 256, Rule::kEllipsis},
    {"protocolInfo", 0, Rule::kProtocolInfo},
    {"upnp:album", 256, Rule::kEllipsis},
    {"upnp:genre", 256, Rule::kEllipsis},
    {"upnp:channelNr", 11, Rule::kOmitWhenLong},
    {"unknown", 256, Rule::kOmitWhenLong},
    {"dc:date", 0, Rule::kDate},
    {"upnp:class", 256, Rule::kCut},
    {"dc:creator", 256, Rule::kEllipsis},
    {"restricted", 0, Rule::kBoolean},
    {"duration", 0, Rule::kTime},
    {"", 1024, Rule::kEllipsis},
}};
static_assert(kLimits.back().bytes >= 3, "the ellipsis needs room");

// Names come with their length, which the writer has measured anyway: most names differ from
// every row in length, so the lookup rarely compares a byte.
const Limit& LimitFor(const char* name, std::size_t length) noexcept {
  if (name != nullptr) {
    for (std::size_t i = 0; i + 1 < kLimits.size(); ++i) {
      const std::string_view row = kLimits[i].name;
      if (row.size() == length && std::memcmp(row.data(), name, length) == 0) return kLimits[i];
    }
  }
  return kLimits.back();
}

// Copies of a few bytes are the bulk of the output (names, markup, short values); a call to
// memcpy for each costs more than the copy.
inline void CopyBytes(char* to, const char* from, std::size_t n) noexcept {
  if (n <= 16) {
    if (n >= 8) {
      uint64_t head;
      uint64_t tail;
      std::memcpy(&head, from, 8);
      std::memcpy(&tail, from + n - 8, 8);
      std::memcpy(to, &head, 8);
      std::memcpy(to + n - 8, &tail, 8);
    } else if (n >= 4) {
      uint32_t head;
      uint32_t tail;
      std::memcpy(&head, from, 4);
      std::memcpy(&tail, from + n - 4, 4);
      std::memcpy(to, &head, 4);
      std::memcpy(to + n - 4, &tail, 4);
    } else if (n > 0) {
      to[0] = from[0];
      to[n / 2] = from[n / 2];
      to[n - 1] = from[n - 1];
    }
    return;
  }
  std::memcpy(to, from, n);
}

// The escaped length of value, whose first `plain` bytes need no escaping.
std::size_t EscapedSize(const char* value, std::size_t plain) noexcept {
  return plain + EscapedLength(value + plain, false, Apostrophe::kNumeric);
}

inline std::size_t Length(const char* text) noexcept {
  return text != nullptr ? std::strlen(text) : 0;
}

// Trees are pointer chains scattered over the heap, and a tree that has lived in a busy process
// is scattered the most. Each visit starts the loads of what the following visits read, so their
// cache misses overlap with the work on this one instead of following it.
inline void Prefetch(const upnp_xml_node* node) noexcept {
  if (node == nullptr) return;
  __builtin_prefetch(node->next);
  __builtin_prefetch(node->name);
  __builtin_prefetch(node->value);
  __builtin_prefetch(node->attributes);
  __builtin_prefetch(node->children);
}
inline void Prefetch(const upnp_xml_attribute* attribute) noexcept {
  if (attribute == nullptr) return;
  __builtin_prefetch(attribute->next);
  __builtin_prefetch(attribute->name);
  __builtin_prefetch(attribute->value);
}

class Writer {
 public:
  Writer(upnp_string* s, bool pretty, Flavour flavour) noexcept
      : s_(s), pretty_(pretty), flavour_(flavour) {
    Load();
  }
  ~Writer() {
    if (scratch_ != nullptr) upnp_free_impl(scratch_);
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // The finished record, terminated.
  upnp_string* Finish() noexcept {
    if (buffer_ != nullptr) {
      s_->length = length_;
      buffer_[length_] = '\0';
    }
    return s_;
  }

  void Nodes(const upnp_xml_node* node, bool single, uint32_t indent) noexcept;

 private:
  // The record's buffer is mirrored in members so the fast path of Put touches no memory but
  // the output; the terminator is written once at the end (and by every growth).
  void Load() noexcept {
    buffer_ = s_->buffer;
    length_ = s_->length;
    capacity_ = buffer_ != nullptr ? s_->capacity : 0;
  }
  void Put(const char* p, std::size_t n) noexcept {
    if (uint64_t{length_} + n < capacity_) {
      CopyBytes(buffer_ + length_, p, n);
      length_ += static_cast<uint32_t>(n);
    } else {
      Grow(p, n);
    }
  }
  template <std::size_t N>
  void Put(const char (&literal)[N]) noexcept {
    Put(literal, N - 1);
  }
  // The string's own append grows the buffer, so its growth rule is the only one (a lost
  // buffer stays lost, and nothing more is written).
  __attribute__((noinline)) void Grow(const char* p, std::size_t n) noexcept {
    if (n == 0 || buffer_ == nullptr || n > UINT32_MAX) return;
    s_->length = length_;
    s_ = tw::util::StringAdd(s_, p, static_cast<uint32_t>(n));
    Load();
  }
  void Indent(uint32_t indent) noexcept {
    for (uint32_t level = indent / kIndentStep; level > 0; --level) Put("    ");
  }
  __attribute__((noinline)) void StartTag(const upnp_xml_node* node, std::size_t name_length,
                                          uint32_t indent) noexcept;
  __attribute__((noinline)) void EndTag(const upnp_xml_node* node, std::size_t name_length,
                                        uint32_t indent) noexcept;
  void Value(const char* value, const char* name, std::size_t name_length) noexcept;
  void PutEscaped(const char* value, std::size_t n) noexcept;
  const char* EscapeToScratch(const char* value, std::size_t n) noexcept;
  void Comply(const char* v, std::size_t length, const Limit& limit) noexcept;
  void ProtocolInfo(const char* v, std::size_t length) noexcept;
  __attribute__((noinline)) bool Skipped(const upnp_xml_node* node,
                                         std::size_t name_length) const noexcept;

  upnp_string* s_;
  char* buffer_ = nullptr;
  uint32_t length_ = 0;
  uint32_t capacity_ = 0;
  bool pretty_;
  Flavour flavour_;
  // Escaped values that do not go straight to the output, reused for every value.
  char* scratch_ = nullptr;
  std::size_t scratch_size_ = 0;
};

// The n-byte escaped form of value in the scratch buffer, terminated; null when memory ran out
// (the value is then dropped, as an escaping that fails gives no text).
const char* Writer::EscapeToScratch(const char* value, std::size_t n) noexcept {
  if (n + 1 > scratch_size_) {
    if (scratch_ != nullptr) upnp_free_impl(scratch_);
    scratch_size_ = n + 1 > 256 ? n + 1 : 256;
    scratch_ = static_cast<char*>(upnp_malloc_impl(scratch_size_));
    if (scratch_ == nullptr) {
      scratch_size_ = 0;
      return nullptr;
    }
  }
  *EscapeTo(value, false, Apostrophe::kNumeric, scratch_) = '\0';
  return scratch_;
}

// value, which escapes to n bytes, escaped; written in place when it fits.
void Writer::PutEscaped(const char* value, std::size_t n) noexcept {
  if (uint64_t{length_} + n < capacity_) {
    EscapeTo(value, false, Apostrophe::kNumeric, buffer_ + length_);
    length_ += static_cast<uint32_t>(n);
  } else if (const char* escaped = EscapeToScratch(value, n); escaped != nullptr) {
    Put(escaped, n);
  }
}

void Writer::Value(const char* value, const char* name, std::size_t name_length) noexcept {
  if (flavour_ == Flavour::kPlain) {
    Put(value, std::strlen(value));
    return;
  }
  const std::size_t plain = PlainPrefix(value);
  if (flavour_ == Flavour::kValid) {
    if (value[plain] == '\0') {
      Put(value, plain);
    } else {
      PutEscaped(value, EscapedSize(value, plain));
    }
    return;
  }
  // Compliant. The rules see the escaped text: lengths count entities, and a cut may split one.
  const Limit& limit = LimitFor(name, name_length);
  if (value[plain] == '\0') {
    Comply(value, plain, limit);
    return;
  }
  const std::size_t n = EscapedSize(value, plain);
  const bool whole = limit.rule == Rule::kEllipsis || limit.rule == Rule::kCut ||
                     limit.rule == Rule::kOmitWhenLong;
  if (whole && n <= limit.bytes) {
    PutEscaped(value, n);
  } else if (const char* escaped = EscapeToScratch(value, n); escaped != nullptr) {
    Comply(escaped, n, limit);
  }
}

void Writer::Comply(const char* v, std::size_t length, const Limit& limit) noexcept {
  switch (limit.rule) {
    case Rule::kEllipsis:
      if (length <= limit.bytes) {
        Put(v, length);
      } else {
        Put(v, limit.bytes - 3);  // may cut a UTF-8 character or an entity: bytes count
        Put("...");
      }
      return;
    case Rule::kCut:
      Put(v, length <= limit.bytes ? length : limit.bytes);
      return;
    case Rule::kOmitWhenLong:
      if (length <= limit.bytes) Put(v, length);
      return;
    case Rule::kBoolean:
      if (v[0] == '0' || std::strcmp(v, "false") == 0) {
        Put("0");
      } else {
        Put("1");
      }
      return;
    case Rule::kTime: {
      // The fraction is dropped: "0:03:25.500" is written "00:03:25".
      char clock[UPNP_FORMAT_TIME_SIZE];
      upnp_format_time(static_cast<uint64_t>(upnp_convert_time_to_long(v)), clock);
      Put(clock, std::strlen(clock));
      return;
    }
    case Rule::kDate:
      if (upnp_date_is_valid(v) != 0) Put(v, length);
      return;
    case Rule::kProtocolInfo:
      ProtocolInfo(v, length);
      return;
  }
}

// Keeps the first three fields as they are and, of the fourth, only the well-formed name=value
// parameters; a fourth field of "*", or fewer than three ':', leaves the value untouched.
void Writer::ProtocolInfo(const char* v, std::size_t length) noexcept {
  const char* fourth = v;
  for (int colons = 0; colons < 3; ++colons) {
    fourth = std::strchr(fourth, ':');
    if (fourth == nullptr) {
      Put(v, length);
      return;
    }
    ++fourth;
  }
  if (*fourth == '*') {
    Put(v, length);
    return;
  }
  Put(v, static_cast<std::size_t>(fourth - v));
  bool first = true;
  for (const char* p = fourth; *p != '\0';) {
    uint32_t name_length = 0;
    uint32_t value_length = 0;
    uint32_t total = 0;
    if (upnp_get_otherParamLength(p, &name_length, &value_length, &total) != 0) {
      if (!first) Put(";");
      Put(p, name_length + 1u + value_length);
      first = false;
    }
    p += total;
    if (*p == ';') ++p;
  }
}

// A "desc" element whose nameSpace and xmlns attributes disagree carries metadata renderers
// choke on.
bool Writer::Skipped(const upnp_xml_node* node, std::size_t name_length) const noexcept {
  if (name_length == 0) return true;
  if (name_length != 4 || std::memcmp(node->name, "desc", 4) != 0) return false;
  const upnp_xml_attribute* name_space = FindAttribute(node->attributes, "nameSpace");
  const upnp_xml_attribute* xmlns = FindAttribute(node->attributes, "xmlns");
  if (name_space == nullptr || xmlns == nullptr) return false;
  const char* a = name_space->value;
  const char* b = xmlns->value;
  if (a == nullptr || b == nullptr) return a != b;
  return std::strcmp(a, b) != 0;
}

void Writer::StartTag(const upnp_xml_node* node, std::size_t name_length,
                      uint32_t indent) noexcept {
  if (pretty_ && indent > 0) Indent(indent);
  Put("<");
  Put(node->name, name_length);
  for (const upnp_xml_attribute* a = node->attributes; a != nullptr; a = a->next) {
    Prefetch(a->next);
    // A zero-filled record ends the list.
    if (a->name == nullptr && a->value == nullptr && a->next == nullptr) break;
    const std::size_t attribute_length = Length(a->name);
    Put(" ");
    Put(a->name, attribute_length);
    Put("=\"");
    if (a->value != nullptr && a->value[0] != '\0') Value(a->value, a->name, attribute_length);
    Put("\"");
  }
  Put(">");
  if (node->value != nullptr && node->value[0] != '\0') Value(node->value, node->name, name_length);
  if (node->children != nullptr && pretty_) Put("\n");
}

void Writer::EndTag(const upnp_xml_node* node, std::size_t name_length, uint32_t indent) noexcept {
  if (node->children != nullptr && pretty_) {
    Put("\n");
    Indent(indent);
  }
  Put("</");
  Put(node->name, name_length);
  Put(">");
}

// The only recursive function: everything else is out of line so that each nesting level costs
// little stack.
void Writer::Nodes(const upnp_xml_node* node, bool single, uint32_t indent) noexcept {
  // A scout runs a few siblings ahead and requests their fields, so that by the time a sibling
  // is written its name, value and attributes are on their way or there.
  const upnp_xml_node* scout = node;
  for (int i = 0; i < kScoutDistance && scout != nullptr; ++i, scout = scout->next) Prefetch(scout);
  for (; node != nullptr; node = node->next) {
    if (scout != nullptr) {
      Prefetch(scout);
      scout = scout->next;
    }
    Prefetch(node->children);
    Prefetch(node->attributes);
    const std::size_t name_length = Length(node->name);
    if (flavour_ == Flavour::kCompliant && Skipped(node, name_length)) {
      if (single) return;
      continue;
    }
    StartTag(node, name_length, indent);
    if (node->children != nullptr) Nodes(node->children, false, indent + kIndentStep);
    EndTag(node, name_length, indent);
    if (single) return;
    // Written before a sibling that the compliant writer then skips, too.
    if (node->next != nullptr && pretty_) Put("\n");
  }
}

}  // namespace

upnp_string* Write(const upnp_xml_node* node, bool pretty, bool single, Flavour flavour) noexcept {
  upnp_string* s = tw::util::StringCreate("", kStartCapacity);
  if (s == nullptr) return nullptr;
  Writer writer(s, pretty, flavour);
  writer.Nodes(node, single, 0);
  return writer.Finish();
}

}  // namespace tw::xml
