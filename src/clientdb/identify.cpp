// SPDX-License-Identifier: Apache-2.0
// Identification: which client type a request or an announcing device is, and the records that
// remember it. Requests are identified on the server's hot path, so the header patterns are
// prepared once per table load (lower-cased copies searched with memmem in a lower-cased head)
// and a peer without a hardware address is not asked for one again for a while.
#include "clientdb/identify.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/ascii.h"
#include "clientdb/clientdb.h"
#include "tarnwick/core.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "tarnwick/xml.h"

namespace tw::clientdb {
namespace {

constexpr std::size_t kStackHead = 4096;
constexpr std::size_t kPacketCopy = 1023;
constexpr std::size_t kLocationMax = 255;
constexpr std::size_t kAddressMax = 19;
constexpr std::size_t kUdnCutFrom = 9;  // the ':' that ends a UDN is searched from its 10th byte
constexpr const char* kDlnaFallbackHead = "DLNADOC/1.50";
// Requests from the server's own address for these are its own pages, not a client.
constexpr const char* kOwnRequestMarks[] = {"/rpc/", "/configpage/", "/resources/", "M-SEARCH",
                                            "Aggregation, Tarnwick"};

// ---- the prepared patterns ----
// A pattern can only be in a head whose byte pairs include the pattern's. Each pattern keeps a
// few of its (lower-cased) pairs, and each head a bit set of its own: most patterns are then
// ruled out by a bit test or two instead of a search through the head.
constexpr uint32_t kPairBits = 4096;
constexpr int kSignaturePairs = 4;
struct PairSignature {
  uint16_t bits[kSignaturePairs] = {};
  int count = 0;  // 0: too short to sign, always searched
};

uint32_t PairBit(unsigned char a, unsigned char b) noexcept {
  return ((static_cast<uint32_t>(a) << 4) ^ b) & (kPairBits - 1);
}

// Pairs spread over the pattern: its start and end, and two between them.
PairSignature SignatureOf(const char* text, std::size_t n) noexcept {
  PairSignature signature;
  if (n < 2) return signature;
  const std::size_t last = n - 2;
  const std::size_t picks[kSignaturePairs] = {0, last / 3, 2 * last / 3, last};
  for (const std::size_t at : picks) {
    signature.bits[signature.count++] =
        static_cast<uint16_t>(PairBit(ascii::ToLower(static_cast<unsigned char>(text[at])),
                                      ascii::ToLower(static_cast<unsigned char>(text[at + 1]))));
  }
  return signature;
}

struct Pattern {
  int32_t type;
  int32_t fix;       // 0, or 1 ("DB:FIX") / 2 ("DB:FIXPC"): the first such match wins
  char* head;        // "HH:" as written, or null
  char* head_lower;  // the same, lower-cased: matched without regard to case
  std::size_t head_length;
  char* second;  // "H2:", or null; matched exactly, and only when there is no "HH:"
  std::size_t second_length;
  char* name;  // "NA:", or null
  PairSignature head_pairs;
  PairSignature second_pairs;
};
struct Patterns {
  Pattern* rows = nullptr;
  int32_t count = 0;
};
Patterns g_patterns;

void FreeText(char*& text) noexcept {
  if (text != nullptr) upnp_free_impl(text);
  text = nullptr;
}

char* LowerCopy(const char* text, std::size_t n) noexcept {
  char* copy = static_cast<char*>(upnp_malloc_impl(n + 1));
  if (copy == nullptr) return nullptr;
  for (std::size_t i = 0; i < n; ++i)
    copy[i] = static_cast<char>(ascii::ToLower(static_cast<unsigned char>(text[i])));
  copy[n] = '\0';
  return copy;
}

// Copy of a possibly null text; "" for null. Null only when memory is short.
char* CopyOrEmpty(const char* text) noexcept {
  return upnp_strdup_impl(text != nullptr ? text : "");
}

// ---- matching ----
struct Match {
  const Pattern* row = nullptr;
  bool by_second = false;
  int32_t fix = 0;
};

// The head lower-cased once for all patterns; on the stack for ordinary heads.
class LowerHead {
 public:
  explicit LowerHead(const char* head) noexcept : length_(std::strlen(head)) {
    text_ = length_ < kStackHead ? stack_ : static_cast<char*>(upnp_malloc_impl(length_ + 1));
    if (text_ == nullptr) return;
    for (std::size_t i = 0; i < length_; ++i)
      text_[i] = static_cast<char>(ascii::ToLower(static_cast<unsigned char>(head[i])));
    text_[length_] = '\0';
    for (std::size_t i = 0; i + 1 < length_; ++i) {
      const uint32_t bit =
          PairBit(static_cast<unsigned char>(text_[i]), static_cast<unsigned char>(text_[i + 1]));
      pairs_[bit / 64] |= uint64_t{1} << (bit % 64);
    }
  }
  ~LowerHead() {
    if (text_ != nullptr && text_ != stack_) upnp_free_impl(text_);
  }
  LowerHead(const LowerHead&) = delete;
  LowerHead& operator=(const LowerHead&) = delete;
  const char* text() const noexcept { return text_; }
  // False when the head lacks one of the pattern's pairs, so it cannot contain the pattern.
  bool MayContain(const PairSignature& signature) const noexcept {
    for (int i = 0; i < signature.count; ++i) {
      const uint32_t bit = signature.bits[i];
      if ((pairs_[bit / 64] & (uint64_t{1} << (bit % 64))) == 0) return false;
    }
    return true;
  }
  std::size_t length() const noexcept { return length_; }

 private:
  std::size_t length_;
  char* text_ = nullptr;
  uint64_t pairs_[kPairBits / 64] = {};
  char stack_[kStackHead];
};

bool Contains(const char* haystack, std::size_t n, const char* needle, std::size_t m) noexcept {
  return m == 0 || (m <= n && memmem(haystack, n, needle, m) != nullptr);
}

// Walks the types in table order: a fixed match ends the walk, among the others the last wins.
bool MatchHead(const char* head, Match* out) noexcept {
  const Patterns& patterns = g_patterns;
  if (patterns.rows == nullptr) return false;
  const LowerHead lower(head);
  if (lower.text() == nullptr) return false;
  Match best;
  for (int32_t i = 0; i < patterns.count; ++i) {
    const Pattern& row = patterns.rows[i];
    bool by_second = false;
    if (row.head != nullptr) {
      if (!lower.MayContain(row.head_pairs) ||
          !Contains(lower.text(), lower.length(), row.head_lower, row.head_length)) {
        continue;
      }
    } else if (row.second != nullptr && lower.MayContain(row.second_pairs) &&
               Contains(head, lower.length(), row.second, row.second_length)) {
      by_second = true;
    } else {
      continue;
    }
    if (row.fix != 0) {
      *out = Match{&row, by_second, row.fix};
      return true;
    }
    best = Match{&row, by_second, 0};
  }
  if (best.row == nullptr || best.row->type <= 0) return false;
  *out = best;
  return true;
}

// The strings a match hands out: copies, "" where the type lacks the keyword.
struct MatchTexts {
  char* pattern = nullptr;
  char* second = nullptr;
  char* name = nullptr;
  ~MatchTexts() {
    FreeText(pattern);
    FreeText(second);
    FreeText(name);
  }
  bool Fill(const Match& match) noexcept {
    const Pattern& row = *match.row;
    pattern = CopyOrEmpty(match.by_second ? row.second : row.head);
    second = CopyOrEmpty(row.second);
    name = CopyOrEmpty(row.name);
    return pattern != nullptr && second != nullptr && name != nullptr;
  }
};

// ---- peers without a hardware address ----
// Asking the ARP table for a peer that has no entry costs five attempts and half a second; a
// peer beyond a router never gets one. Such peers are remembered for a while so their requests
// are identified by their headers alone, without the wait.
constexpr int32_t kNoMacSlots = 16;
constexpr int64_t kNoMacMs = 60000;
struct NoMac {
  char ip[16];
  int64_t until;
};
NoMac g_no_mac[kNoMacSlots];
int32_t g_no_mac_next = 0;
int64_t (*g_clock)() = nullptr;

int64_t Now() noexcept { return g_clock != nullptr ? g_clock() : getSystemTime(); }

// Under the lock.
bool KnownWithoutMac(const char* ip) noexcept {
  const int64_t now = Now();
  for (const NoMac& slot : g_no_mac) {
    if (slot.until > now && std::strcmp(slot.ip, ip) == 0) return true;
  }
  return false;
}

// Under the lock.
void RememberWithoutMac(const char* ip) noexcept {
  if (std::strlen(ip) >= sizeof(g_no_mac[0].ip)) return;
  NoMac& slot = g_no_mac[g_no_mac_next];
  g_no_mac_next = (g_no_mac_next + 1) % kNoMacSlots;
  std::strcpy(slot.ip, ip);
  slot.until = Now() + kNoMacMs;
}

// The address the loopback interface answers for; other 127/8 addresses are asked like any peer.
bool IsLoopback(const char* ip) noexcept { return std::strcmp(ip, "127.0.0.1") == 0; }

// The hardware address of ip, or false: never asked for the loopback or this machine's own
// addresses (the ARP table has no entry for them), nor again soon for a peer that had none.
bool LookUpMac(const char* ip, char (&mac)[32]) noexcept {
  mac[0] = '\0';
  if (IsLoopback(ip) || is_local_ip(ip) != 0) return false;
  {
    const Guard guard;
    if (guard.held() && KnownWithoutMac(ip)) return false;
  }
  if (GetMACaddress(ip, mac) != 0 && mac[0] != '\0') return true;
  const Guard guard;
  if (guard.held()) RememberWithoutMac(ip);
  return false;
}

// ---- records ----
bool NonEmpty(const char* text) noexcept { return text != nullptr && text[0] != '\0'; }

// A record matches a request when one of its patterns occurs in the head (exactly).
bool RecordMatches(const upnp_client* record, const char* head) noexcept {
  return (NonEmpty(record->header_pattern) && std::strstr(head, record->header_pattern)) ||
         (NonEmpty(record->second_header_pattern) &&
          std::strstr(head, record->second_header_pattern));
}

// Gives a record the matched type with its patterns, name, assignment and default view.
// Under the lock.
void Assign(upnp_client* record, const Match& match, const MatchTexts& texts) noexcept {
  record->client_type = match.row->type;
  SetText(&record->header_pattern, texts.pattern);
  SetText(&record->second_header_pattern, texts.second);
  SetText(&record->friendly_name, texts.name);
  record->assignment = match.fix;
  char* view = KnownDefaultView(match.row->type);
  SetText(&record->view, view);
  if (view != nullptr) upnp_free_impl(view);
}

// Step by IP: the type of a record seen during this run, or 0. *changed when a detected record
// was given another type (the file must be written).
int32_t ByIp(const char* ip, const char* head, bool* changed) noexcept {
  const Guard guard;
  if (!guard.held()) return 0;
  int32_t remembered = 0;
  for (upnp_client* record = g_pClients; record != nullptr; record = record->next) {
    if (record->seen == 0 || record->ip == nullptr || std::strcmp(record->ip, ip) != 0) continue;
    switch (record->assignment) {
      case UPNP_CLIENT_FIXED:
        return record->client_type;
      case UPNP_CLIENT_FIXED_MATCH:
        remembered = record->client_type;
        if (RecordMatches(record, head)) return remembered;
        break;
      default: {
        Match match;
        MatchTexts texts;
        if (MatchHead(head, &match) && match.row->type != record->client_type &&
            texts.Fill(match)) {
          Assign(record, match, texts);
          *changed = true;
          return match.row->type;
        }
        if (remembered == 0) remembered = record->client_type;
        break;
      }
    }
  }
  return remembered;
}

// The type by the head alone, with the DLNA fallback; 1 when nothing matched.
int32_t TypeOfHead(const char* head, Match* match) noexcept {
  if (MatchHead(head, match) || MatchHead(kDlnaFallbackHead, match)) return match->row->type;
  return UPNP_CLIENT_TYPE_UNKNOWN;
}

}  // namespace

void BuildMatcher() noexcept {
  FreeMatcher();
  int32_t count = 0;
  while (count < kTypeSlots && TypeEntry(count) != nullptr) ++count;
  if (count == 0) return;
  auto* rows =
      static_cast<Pattern*>(upnp_calloc_impl(static_cast<std::size_t>(count), sizeof(Pattern)));
  if (rows == nullptr) return;
  for (int32_t i = 0; i < count; ++i) {
    const char* entry = TypeEntry(i);
    Pattern& row = rows[i];
    row.type = i;
    row.fix = HasOption(i, "DB:FIXPC") ? 2 : HasOption(i, "DB:FIX") ? 1 : 0;
    row.head = KeywordCopy(entry, "HH:", false);
    if (row.head != nullptr) {
      row.head_length = std::strlen(row.head);
      row.head_lower = LowerCopy(row.head, row.head_length);
      if (row.head_lower == nullptr) FreeText(row.head);  // shortage: the type cannot match
      row.head_pairs = SignatureOf(row.head, row.head_length);
    }
    row.second = KeywordCopy(entry, "H2:", false);
    row.second_length = row.second != nullptr ? std::strlen(row.second) : 0;
    row.second_pairs = SignatureOf(row.second, row.second_length);
    row.name = KeywordCopy(entry, "NA:", false);
  }
  g_patterns.rows = rows;
  g_patterns.count = count;
}

void FreeMatcher() noexcept {
  for (int32_t i = 0; i < g_patterns.count; ++i) {
    Pattern& row = g_patterns.rows[i];
    FreeText(row.head);
    FreeText(row.head_lower);
    FreeText(row.second);
    FreeText(row.name);
  }
  if (g_patterns.rows != nullptr) upnp_free_impl(g_patterns.rows);
  g_patterns = Patterns{};
  for (NoMac& slot : g_no_mac) slot = NoMac{};
}

void SetClockForTesting(int64_t (*clock)()) noexcept { g_clock = clock; }

int32_t CheckHeader(const char* head, int32_t* client_type, int32_t* fix, char** pattern,
                    char** second_pattern, char** name) noexcept {
  Match match;
  if (!MatchHead(head, &match)) return 0;
  if (client_type != nullptr) *client_type = match.row->type;
  if (fix != nullptr) *fix = match.fix;
  if (pattern != nullptr) {
    *pattern = CopyOrEmpty(match.by_second ? match.row->second : match.row->head);
  }
  if (second_pattern != nullptr) *second_pattern = CopyOrEmpty(match.row->second);
  if (name != nullptr) *name = CopyOrEmpty(match.row->name);
  return 1;
}

int32_t AddByIp(const char* own_address, const char* ip, const char* head) noexcept {
  if (ip == nullptr || ip[0] == '\0' || head == nullptr || head[0] == '\0') return 0;
  if (own_address != nullptr && std::strstr(own_address, ip) != nullptr) {
    for (const char* mark : kOwnRequestMarks) {
      if (std::strstr(head, mark) != nullptr) return 0;
    }
  }
  bool changed = false;
  const int32_t by_ip = ByIp(ip, head, &changed);
  if (changed) client_table_write();
  if (by_ip > 0) return by_ip;

  char mac[32];
  if (!LookUpMac(ip, mac)) {
    Match match;
    return MatchHead(head, &match) ? match.row->type : UPNP_CLIENT_TYPE_UNKNOWN;
  }

  int32_t remembered = 0;
  bool ip_updated = false;
  upnp_client* detected = nullptr;
  {
    const Guard guard;
    if (!guard.held()) return UPNP_CLIENT_TYPE_UNKNOWN;
    for (upnp_client* record = g_pClients; record != nullptr; record = record->next) {
      if (record->mac == nullptr || std::strcmp(record->mac, mac) != 0) continue;
      if (record->ip == nullptr || std::strcmp(record->ip, ip) != 0) {
        SetText(&record->ip, ip);
        ip_updated = true;
      }
      record->seen = 1;
      if (record->assignment == UPNP_CLIENT_FIXED) return record->client_type;
      if (record->assignment == UPNP_CLIENT_FIXED_MATCH) {
        remembered = record->client_type;
        if (RecordMatches(record, head)) break;
      } else if (detected == nullptr) {
        detected = record;
      }
    }
  }
  if (remembered > 0) {
    if (ip_updated) client_table_write();
    return remembered;
  }

  Match match;
  MatchTexts texts;
  const int32_t type = TypeOfHead(head, &match);
  const bool have_texts = match.row != nullptr && texts.Fill(match);
  {
    const Guard guard;
    if (!guard.held()) return type;
    // A detected record of this device is given the new findings rather than a second record
    // beside it; the pointer is still valid when found again in the list.
    upnp_client* record = nullptr;
    for (upnp_client* r = g_pClients; r != nullptr && detected != nullptr; r = r->next) {
      if (r == detected && r->assignment == UPNP_CLIENT_DETECTED && r->mac != nullptr &&
          std::strcmp(r->mac, mac) == 0) {
        record = r;
      }
    }
    if (record == nullptr) record = upnp_client_db_add_new_client();
    if (record == nullptr) return type;
    SetText(&record->mac, mac);
    SetText(&record->ip, ip);
    record->seen = 1;
    if (have_texts) {
      Assign(record, match, texts);
    } else {
      record->client_type = type;
      record->assignment = UPNP_CLIENT_DETECTED;
    }
  }
  client_table_write();
  return type;
}

int32_t AccessAllowed(const char* ip) noexcept {
  if (ip == nullptr) return AutoEnable();
  const Guard guard;
  if (guard.held()) {
    for (const upnp_client* record = g_pClients; record != nullptr; record = record->next) {
      if (record->ip != nullptr && std::strcmp(record->ip, ip) == 0) return record->enabled;
    }
  }
  return AutoEnable();
}

// ---- devices that announce themselves ----
int32_t CheckDeviceDescription(const char* url, DeviceFindings* found) noexcept {
  upnp_string* body = HTTP_get(url);
  const char* text = body != nullptr ? upnp_string_get_cstring(body) : nullptr;
  if (text == nullptr || text[0] == '\0') {
    if (body != nullptr) upnp_string_free(body);
    return 0;
  }
  if (upnp_xml_node* root = upnp_xml_parse(text); root != nullptr) {
    if (const upnp_xml_node* name = upnp_xml_find_tag(root, "friendlyName"); name != nullptr) {
      SetText(&found->friendly_name, name->value);
    }
    if (const upnp_xml_node* icon = upnp_xml_find_tag(root, "icon"); icon != nullptr) {
      if (const upnp_xml_node* mime = upnp_xml_find_tag(icon->children, "mimetype")) {
        SetText(&found->icon_mime, mime->value);
      }
      if (const upnp_xml_node* icon_url = upnp_xml_find_tag(icon->children, "url")) {
        SetText(&found->icon_url, icon_url->value);
      }
    }
    upnp_xml_release(root);
  }
  for (int32_t i = 0; i < kTypeSlots; ++i) {
    const char* entry = TypeEntry(i);
    if (entry == nullptr) break;
    char* device = KeywordCopy(entry, "DD:", false);
    if (device == nullptr) continue;
    bool matched = std::strstr(text, device) != nullptr;
    upnp_free_impl(device);
    if (matched) {
      if (char* second = KeywordCopy(entry, "D2:", false); second != nullptr) {
        matched = std::strstr(text, second) != nullptr;
        upnp_free_impl(second);
      }
    }
    if (!matched) continue;
    found->client_type = i;
    found->fix = HasOption(i, "DB:FIXPC") ? 2 : HasOption(i, "DB:FIX") ? 1 : 0;
    char* second = KeywordCopy(entry, "H2:", true);
    char* pattern = KeywordCopy(entry, "HH:", true);
    SetText(&found->second_pattern, second);
    SetText(&found->pattern, pattern);
    if (second != nullptr) upnp_free_impl(second);
    if (pattern != nullptr) upnp_free_impl(pattern);
    break;
  }
  upnp_string_free(body);
  return 1;
}

void DeviceFindings::Clear() noexcept {
  FreeText(friendly_name);
  FreeText(second_pattern);
  FreeText(pattern);
  FreeText(icon_url);
  FreeText(icon_mime);
}

namespace {

// text[0, n) cut at the first byte of 32 or below, as a copy.
char* CopyToControl(const char* text, std::size_t max) noexcept {
  std::size_t n = 0;
  while (n<max&& static_cast<unsigned char>(text[n])> 32) ++n;
  char* copy = static_cast<char*>(upnp_malloc_impl(n + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text, n);
  copy[n] = '\0';
  return copy;
}

}  // namespace

Announcement::~Announcement() {
  FreeText(location);
  FreeText(ip);
  FreeText(udn);
}

bool Announcement::Read(const char* packet_text) noexcept {
  char packet[kPacketCopy + 1];
  std::strncpy(packet, packet_text, kPacketCopy);
  packet[kPacketCopy] = '\0';
  const char* http = upnp_istrstr(packet, "http://");
  if (http == nullptr) return false;
  location = CopyToControl(http, kLocationMax);
  const char* host = http + 7;
  std::size_t n = 0;
  while (n < kAddressMax && host[n] != '\0' && host[n] != ':' && host[n] != '/') ++n;
  ip = static_cast<char*>(upnp_malloc_impl(n + 1));
  if (location == nullptr || ip == nullptr) return false;
  std::memcpy(ip, host, n);
  ip[n] = '\0';
  const char* usn = upnp_istrstr(packet, "USN:");
  const char* uuid = usn != nullptr ? std::strstr(usn, "uuid:") : nullptr;
  if (uuid == nullptr) return false;
  std::size_t length = std::strlen(uuid);
  if (length > kUdnCutFrom) {
    if (const char* colon = std::strchr(uuid + kUdnCutFrom, ':'); colon != nullptr) {
      length = static_cast<std::size_t>(colon - uuid);
    }
  }
  // The line end, too, when the USN has no service part.
  std::size_t end = 0;
  while (end < length && static_cast<unsigned char>(uuid[end]) >= 32) ++end;
  udn = static_cast<char*>(upnp_malloc_impl(end + 1));
  if (udn == nullptr) return false;
  std::memcpy(udn, uuid, end);
  udn[end] = '\0';
  return std::strstr(udn, "RemoteUI-Client-Embedded-Device") == nullptr;
}

void CheckClient(const char* packet) noexcept {
  Announcement announcement;
  if (!announcement.Read(packet)) return;
  char mac[32];
  if (!LookUpMac(announcement.ip, mac)) return;
  if (RememberUdn(announcement.udn)) return;
  DeviceFindings found;
  found.client_type = -1;
  const int32_t fetched = CheckDeviceDescription(announcement.location, &found);
  if (fetched == 0 || found.client_type < 0) {
    found.Clear();
    return;
  }
  {
    const Guard guard;
    if (guard.held()) {
      upnp_client* record = g_pClients;
      while (record != nullptr &&
             (record->ip == nullptr || std::strcmp(record->ip, announcement.ip) != 0)) {
        record = record->next;
      }
      const bool fresh = record == nullptr;
      if (fresh) record = upnp_client_db_add_new_client();
      if (record != nullptr) {
        if (fresh) {
          SetText(&record->ip, announcement.ip);
          record->seen = 1;
          SetText(&record->icon_url, found.icon_url);
          SetText(&record->icon_mime_type, found.icon_mime);
        }
        SetText(&record->friendly_name, found.friendly_name);
        SetText(&record->header_pattern, found.pattern);
        SetText(&record->second_header_pattern, found.second_pattern);
        SetText(&record->mac, mac);
        SetText(&record->udn, announcement.udn);
        record->client_type = found.client_type;
        record->assignment = found.fix;
        char* view = KnownDefaultView(found.client_type);
        SetText(&record->view, view);
        if (view != nullptr) upnp_free_impl(view);
      }
    }
  }
  found.Clear();
  client_table_write();
}

}  // namespace tw::clientdb
