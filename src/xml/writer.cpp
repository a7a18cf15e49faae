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

const Limit& LimitFor(const char* name) noexcept {
  if (name != nullptr) {
    const std::string_view key(name);
    for (std::size_t i = 0; i + 1 < kLimits.size(); ++i) {
      if (kLimits[i].name == key) return kLimits[i];
    }
  }
  return kLimits.back();
}

class Writer {
 public:
  Writer(upnp_string* s, bool pretty, Flavour flavour) noexcept
      : s_(s), pretty_(pretty), flavour_(flavour) {}
  ~Writer() {
    if (scratch_ != nullptr) upnp_free_impl(scratch_);
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  upnp_string* result() const noexcept { return s_; }

  void Nodes(const upnp_xml_node* node, bool single, uint32_t indent) noexcept;

 private:
  void Put(const char* p, std::size_t n) noexcept {
    if (n == 0 || s_->buffer == nullptr) return;
    if (uint64_t{s_->length} + n + 1 <= s_->capacity) {
      std::memcpy(s_->buffer + s_->length, p, n);
      s_->length += static_cast<uint32_t>(n);
      s_->buffer[s_->length] = '\0';
    } else if (n <= UINT32_MAX) {
      s_ = tw::util::StringAdd(s_, p, static_cast<uint32_t>(n));
    }
  }
  void Put(std::string_view text) noexcept { Put(text.data(), text.size()); }
  void PutText(const char* text) noexcept {
    if (text != nullptr) Put(text, std::strlen(text));
  }
  void Indent(uint32_t indent) noexcept {
    for (uint32_t level = indent / kIndentStep; level > 0; --level) Put("    ");
  }
  __attribute__((noinline)) void StartTag(const upnp_xml_node* node, uint32_t indent) noexcept;
  __attribute__((noinline)) void EndTag(const upnp_xml_node* node, uint32_t indent) noexcept;
  __attribute__((noinline)) void Newline() noexcept { Put("\n"); }
  void Value(const char* value, const char* name) noexcept;
  const char* Escaped(const char* value, std::size_t* length) noexcept;
  void Comply(const char* v, std::size_t length, const Limit& limit) noexcept;
  void ProtocolInfo(const char* v, std::size_t length) noexcept;
  __attribute__((noinline)) bool Skipped(const upnp_xml_node* node) const noexcept;

  upnp_string* s_;
  bool pretty_;
  Flavour flavour_;
  // Escaped value under test by the compliance rules, reused for every value.
  char* scratch_ = nullptr;
  std::size_t scratch_size_ = 0;
};

// The escaped form of value, in the scratch buffer unless value needs no escaping; null when
// memory ran out (the value is then dropped, as an escaping that fails gives no text).
const char* Writer::Escaped(const char* value, std::size_t* length) noexcept {
  const std::size_t plain = PlainPrefix(value);
  if (value[plain] == '\0') {
    *length = plain;
    return value;
  }
  const std::size_t n = EscapedLength(value, false, Apostrophe::kNumeric);
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
  *length = n;
  return scratch_;
}

void Writer::Value(const char* value, const char* name) noexcept {
  std::size_t length = 0;
  switch (flavour_) {
    case Flavour::kPlain:
      PutText(value);
      return;
    case Flavour::kValid:
      s_ = AppendEscaped(s_, value, false, Apostrophe::kNumeric);
      return;
    case Flavour::kCompliant:
      // The rules see the escaped text: lengths count entities, and a cut may split one.
      if (const char* escaped = Escaped(value, &length); escaped != nullptr) {
        Comply(escaped, length, LimitFor(name));
      }
      return;
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
      Put(v[0] == '0' || std::strcmp(v, "false") == 0 ? "0" : "1");
      return;
    case Rule::kTime: {
      // The fraction is dropped: "0:03:25.500" is written "00:03:25".
      char clock[128];
      upnp_format_time(static_cast<uint64_t>(upnp_convert_time_to_long(v)), clock);
      PutText(clock);
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
bool Writer::Skipped(const upnp_xml_node* node) const noexcept {
  if (node->name == nullptr || node->name[0] == '\0') return true;
  if (std::strcmp(node->name, "desc") != 0) return false;
  const upnp_xml_attribute* name_space = FindAttribute(node->attributes, "nameSpace");
  const upnp_xml_attribute* xmlns = FindAttribute(node->attributes, "xmlns");
  if (name_space == nullptr || xmlns == nullptr) return false;
  const char* a = name_space->value;
  const char* b = xmlns->value;
  if (a == nullptr || b == nullptr) return a != b;
  return std::strcmp(a, b) != 0;
}

void Writer::StartTag(const upnp_xml_node* node, uint32_t indent) noexcept {
  if (pretty_ && indent > 0) Indent(indent);
  Put("<");
  PutText(node->name);
  for (const upnp_xml_attribute* a = node->attributes; a != nullptr; a = a->next) {
    // A zero-filled record ends the list.
    if (a->name == nullptr && a->value == nullptr && a->next == nullptr) break;
    Put(" ");
    PutText(a->name);
    Put("=\"");
    if (a->value != nullptr && a->value[0] != '\0') Value(a->value, a->name);
    Put("\"");
  }
  Put(">");
  if (node->value != nullptr && node->value[0] != '\0') Value(node->value, node->name);
  if (node->children != nullptr && pretty_) Put("\n");
}

void Writer::EndTag(const upnp_xml_node* node, uint32_t indent) noexcept {
  if (node->children != nullptr && pretty_) {
    Put("\n");
    Indent(indent);
  }
  Put("</");
  PutText(node->name);
  Put(">");
}

// The only recursive function: everything else is out of line so that each nesting level costs
// little stack.
void Writer::Nodes(const upnp_xml_node* node, bool single, uint32_t indent) noexcept {
  for (; node != nullptr; node = node->next) {
    // Trees are pointer chains scattered over the heap: start the loads of what comes next
    // while this node is written.
    __builtin_prefetch(node->next);
    __builtin_prefetch(node->children);
    __builtin_prefetch(node->attributes);
    __builtin_prefetch(node->value);
    if (flavour_ == Flavour::kCompliant && Skipped(node)) {
      if (single) return;
      continue;
    }
    StartTag(node, indent);
    if (node->children != nullptr) Nodes(node->children, false, indent + kIndentStep);
    EndTag(node, indent);
    if (single) return;
    // Written before a sibling that the compliant writer then skips, too.
    if (node->next != nullptr && pretty_) Newline();
  }
}

}  // namespace

upnp_string* Write(const upnp_xml_node* node, bool pretty, bool single, Flavour flavour) noexcept {
  upnp_string* s = tw::util::StringCreate("", kStartCapacity);
  if (s == nullptr) return nullptr;
  Writer writer(s, pretty, flavour);
  writer.Nodes(node, single, 0);
  return writer.result();
}

}  // namespace tw::xml
