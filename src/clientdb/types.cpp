// SPDX-License-Identifier: Apache-2.0
// The client-type table: splitting the resource text into entries and reading keywords and
// options out of an entry. The table is written only while the database is (re)loaded and read
// without a lock afterwards.
#include "clientdb/types.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include "clientdb/clientdb.h"
#include "clientdb/identify.h"
#include "platform/allocator.h"
#include "tarnwick/core.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "util/string.h"

namespace tw::clientdb {
namespace {

constexpr char kEntryMark[] = ">>";
constexpr char kMimeTag[] = "MT:";

// Slot i holds the i-th entry of the resource; owned, null when empty.
std::array<char*, kTypeSlots> g_types{};

// Registers every "MT:" keyword of the whole text. The comma search runs over the rest of the
// text, not just the keyword's line: a keyword without a further comma anywhere behind it ends
// the scan for all later keywords too. Intended, the resource is written with that in mind.
void RegisterMimeKeywords(const char* text) noexcept {
  const char* from = text;
  for (;;) {
    const char* tag = std::strstr(from, kMimeTag);
    if (tag == nullptr) return;
    const char* extensions = tag + 3;
    const char* blank = std::strchr(extensions, ' ');
    if (blank == nullptr) return;
    const char* mime = blank + 1;
    AddMime(extensions, mime);
    const char* at = extensions;
    for (;;) {
      const char* comma = std::strchr(at, ',');
      if (comma == nullptr) return;
      if (comma > blank) break;
      AddMime(comma + 1, mime);
      at = comma + 1;
    }
    from = blank + 1;
  }
}

// Entries run from one ">>" to the next; the character in front of the next mark (the line
// end) is cut off. An entry without a mark behind it is not taken, so the text must end with
// one.
void SplitEntries(const char* text) noexcept {
  const char* from = text;
  for (int32_t slot = 0; slot < kMaxEntries; ++slot) {
    const char* start = std::strstr(from, kEntryMark);
    if (start == nullptr) return;
    const char* next = std::strstr(start + 2, kEntryMark);
    if (next == nullptr) return;
    g_types[slot] = DupToC(std::string_view(start, static_cast<size_t>(next - 1 - start)));
    if (g_types[slot] == nullptr) return;  // memory short: the table ends here
    from = start + 3;  // never past the NUL: start + 2 is a character of the text or of `next`
  }
}

// Copies from value up to the first byte of stop() (or NUL), at most limit bytes.
template <typename Stop>
char* CopyUntil(const char* value, size_t limit, Stop stop) noexcept {
  size_t n = 0;
  while (n < limit && value[n] != '\0' && !stop(static_cast<unsigned char>(value[n]))) ++n;
  return DupToC(std::string_view(value, n));
}

char* ValueCopy(int32_t client_type, const char* tag, size_t limit, bool stop_at_cr) noexcept {
  const char* entry = TypeEntry(client_type);
  if (entry == nullptr) return nullptr;
  const char* at = std::strstr(entry, tag);
  if (at == nullptr) return nullptr;
  return CopyUntil(at + std::strlen(tag), limit, [stop_at_cr](unsigned char c) {
    return c == '\n' || (stop_at_cr && c == '\r');
  });
}

}  // namespace

void LoadTypes(const char* text) noexcept {
  FreeTypes();
  FreeMimeTable();
  if (text == nullptr) return;
  RegisterMimeKeywords(text);
  SplitEntries(text);
  BuildMatcher();
}

void FreeTypes() noexcept {
  FreeMatcher();
  for (char*& entry : g_types) {
    if (entry != nullptr) upnp_free_impl(entry);
    entry = nullptr;
  }
}

const char* TypeEntry(int32_t client_type) noexcept {
  if (client_type < 0 || client_type >= kTypeSlots) return nullptr;
  return g_types[static_cast<size_t>(client_type)];
}

char* KeywordCopy(const char* entry, const char* tag, bool empty_when_missing) noexcept {
  const char* at = entry != nullptr && tag != nullptr ? std::strstr(entry, tag) : nullptr;
  if (at == nullptr) return empty_when_missing ? DupToC("") : nullptr;
  return CopyUntil(at + std::strlen(tag), kKeywordValueSize - 1,
                   [](unsigned char c) { return c < 32; });
}

bool HasOption(int32_t client_type, const char* option) noexcept {
  if (client_type < 0 || client_type >= kTypeSlots || option == nullptr) return false;
  const char* entry = TypeEntry(client_type);
  // An empty slot is searched as empty text, so only the empty option is found in it.
  return std::strstr(entry != nullptr ? entry : "", option) != nullptr;
}

int32_t GetKeyword(const char* entry, char* buffer, size_t size, const char* tag) noexcept {
  if (buffer == nullptr || size == 0) return 0;
  std::memset(buffer, 0, size);
  if (entry == nullptr || tag == nullptr) return 0;
  const char* at = std::strstr(entry, tag);
  if (at == nullptr) return 0;
  const char* value = at + std::strlen(tag);
  // Intended: before the server runs only the first character is copied. Callers that need
  // the whole value at start-up use KeywordCopy instead.
  const size_t limit =
      __atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE) == 1 ? size - 1 : (size > 1 ? 1 : 0);
  size_t n = 0;
  while (n < limit && static_cast<unsigned char>(value[n]) >= 32) {
    buffer[n] = value[n];
    ++n;
  }
  buffer[n] = '\0';
  return n > 0 ? 1 : 0;
}

int32_t ValueAfter(int32_t client_type, const char* text) noexcept {
  const char* entry = TypeEntry(client_type);
  if (entry == nullptr || text == nullptr) return 0;
  const char* at = std::strstr(entry, text);
  return at != nullptr ? std::atoi(at + std::strlen(text)) : 0;
}

uint32_t DlnaVersion(int32_t client_type) noexcept {
  const char* entry = TypeEntry(client_type);
  const char* at = entry != nullptr ? std::strstr(entry, "XM:DLNA") : nullptr;
  if (at == nullptr) return kDlnaUnspecified;
  const char* word = at + 7;
  if (std::strncmp(word, "10", 2) == 0) return kDlna10;
  if (std::strncmp(word, "15", 2) == 0) return kDlna15;
  if (std::strncmp(word, "NO", 2) == 0) return kDlnaNone;
  return kDlnaUnspecified;
}

char* LineValue(int32_t client_type, const char* tag) noexcept {
  return ValueCopy(client_type, tag, kKeywordValueSize - 1, false);
}

char* DescriptionFile(int32_t client_type) noexcept {
  return ValueCopy(client_type, "DF:", kKeywordValueSize - 1, true);
}

char* TranscodingProfiles(int32_t client_type) noexcept {
  char* value = LineValue(client_type, "TR:");
  return value != nullptr ? util::StripTrailingWhiteSpace(value) : nullptr;
}

char* AlbumArtScaling(int32_t client_type) noexcept {
  const char* entry = TypeEntry(client_type);
  const char* at = entry != nullptr ? std::strstr(entry, "XM:AASCALE") : nullptr;
  if (at == nullptr) return nullptr;
  const char* value = at + 10;
  if (*value != '\0') ++value;  // the separator behind the option word
  return CopyUntil(value, kAlbumArtScalingMax,
                   [](unsigned char c) { return c == '\n' || c == '#'; });
}

char* KnownDefaultView(int32_t client_type) noexcept {
  char* view = LineValue(client_type, "DV:");
  if (view == nullptr) return nullptr;
  const char* views = ViewList();
  if (views == nullptr || std::strstr(views, view) == nullptr) {
    upnp_free_impl(view);
    return nullptr;
  }
  return view;
}

bool HasDefaultView(int32_t client_type) noexcept {
  const char* entry = TypeEntry(client_type);
  return entry != nullptr && std::strstr(entry, "DV:") != nullptr;
}

char* TypeTable() noexcept {
  upnp_string* list = nullptr;
  for (int32_t type = 0; type < kTypeSlots; ++type) {
    char* name = KeywordCopy(TypeEntry(type), "NA:", false);
    if (name == nullptr) continue;
    const bool first = list == nullptr;
    if (first) list = upnp_string_create("", 256);
    if (list != nullptr)
      list = upnp_string_sprintf(list, "%s%03d,%s", first ? "" : ",", type, name);
    upnp_free_impl(name);
    if (list == nullptr || list->buffer == nullptr) {
      upnp_string_free(list);
      return nullptr;
    }
  }
  char* text = list != nullptr ? upnp_string_copy_cstring(list) : nullptr;
  upnp_string_free(list);
  return text;
}

}  // namespace tw::clientdb
