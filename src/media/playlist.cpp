// SPDX-License-Identifier: Apache-2.0
// Playlist files. Each format is read into the same list of entries (source, title, duration),
// then every source is resolved to a file, a missing file or a URL. The readers never give up on
// a bad line or element: what cannot be understood is passed over.
#include "media/playlist.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>

#include "base/ascii.h"
#include "media/path.h"
#include "platform/allocator.h"
#include "tarnwick/util.h"
#include "tarnwick/xml.h"

namespace tw::media {
namespace {

using std::string_view;
using namespace tw::ascii;

constexpr size_t kMaxTailComponents = 16;
// Playlists often sit in a folder of their own beside the music ("Playlists/", "Music/").
constexpr int kTailSearchParents = 2;
constexpr char kGenerator[] = "Tarnwick UPnP SDK";
constexpr char kWplPrologue[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<?wpl version=\"1.0\"?>\r\n";

bool IEquals(string_view a, string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (ToLower(static_cast<unsigned char>(a[i])) != ToLower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

bool IStartsWith(string_view text, string_view prefix) noexcept {
  return text.size() >= prefix.size() && IEquals(text.substr(0, prefix.size()), prefix);
}

bool IEndsWith(string_view text, string_view suffix) noexcept {
  return text.size() >= suffix.size() && IEquals(text.substr(text.size() - suffix.size()), suffix);
}

// Blanks, tabs and other control bytes at both ends.
string_view Trim(string_view s) noexcept {
  while (!s.empty() && static_cast<unsigned char>(s.front()) <= ' ') s.remove_prefix(1);
  while (!s.empty() && static_cast<unsigned char>(s.back()) <= ' ') s.remove_suffix(1);
  return s;
}

String ToString(string_view s) { return String(s.data(), s.size()); }

// Strictly UTF-8: at most four bytes a character, no overlong forms, no surrogates.
bool ValidUtf8(string_view text) noexcept {
  size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    const size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                          : lead >= 0xE0 && lead <= 0xEF ? 3
                          : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                         : 0;
    if (length == 0 || i + length > text.size()) return false;
    const auto second = static_cast<unsigned char>(text[i + 1]);
    const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (second < low || second > high) return false;
    for (size_t k = 2; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    }
    i += length;
  }
  return true;
}

// A text that is not UTF-8 is Latin-1 (what a Windows playlist holds), converted whole: one
// wrong byte in a UTF-8 file costs its accents, never an invalid text.
String AsUtf8(const char* text) {
  if (text == nullptr || text[0] == '\0') return String();
  if (ValidUtf8(text)) return String(text);
  CPtr utf8(upnp_util_convert_enhanced_ascii_to_utf8(text));
  if (utf8 == nullptr) throw std::bad_alloc();
  return String(utf8.get());
}

// The whole file as UTF-8: a UTF-16 byte order mark converts, a UTF-8 one is dropped, and NUL
// bytes (which would end the text early) become line ends.
String DecodeText(string_view raw) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(raw[i]); };
  if (raw.size() >= 2 &&
      ((byte(0) == 0xFF && byte(1) == 0xFE) || (byte(0) == 0xFE && byte(1) == 0xFF))) {
    const bool big_endian = byte(0) == 0xFE;
    Vector<uint8_t> units;
    units.reserve(raw.size() + 2);
    for (size_t i = 2; i + 1 < raw.size(); i += 2) {
      uint8_t low = big_endian ? byte(i + 1) : byte(i);
      const uint8_t high = big_endian ? byte(i) : byte(i + 1);
      if (low == 0 && high == 0) low = '\n';
      units.push_back(low);
      units.push_back(high);
    }
    units.push_back(0);
    units.push_back(0);
    CPtr utf8(upnp_string_utf16_to_utf8(units.data()));
    if (utf8 == nullptr) throw std::bad_alloc();
    return AsUtf8(utf8.get());  // lone surrogates come out as bytes that are not UTF-8
  }
  if (raw.size() >= 3 && byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF)
    raw.remove_prefix(3);
  String bytes = ToString(raw);
  for (char& c : bytes) {
    if (c == '\0') c = '\n';
  }
  return AsUtf8(bytes.c_str());
}

// Cut at max bytes, backed up to the start of a UTF-8 character.
string_view CutAt(string_view s, size_t max) noexcept {
  if (s.size() <= max) return s;
  size_t cut = max;
  while (cut > 0 && (static_cast<unsigned char>(s[cut]) & 0xC0) == 0x80) --cut;
  return s.substr(0, cut);
}

// Each line, whatever ends it, trimmed and cut to the longest line taken.
template <typename F>
void ForEachLine(string_view text, F&& take) {
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find_first_of("\r\n", pos);
    if (end == string_view::npos) end = text.size();
    take(Trim(CutAt(text.substr(pos, end - pos), UPNP_PLAYLIST_MAX_LINE)));
    pos = end + 1;
  }
}

// A whole number of seconds from the start of text ("123", "-1", "245.7"); -1 for anything
// that is not a count of seconds.
int32_t Seconds(string_view text) noexcept {
  text = Trim(text);
  int64_t value = 0;
  size_t i = 0;
  while (i < text.size() && IsDigit(static_cast<unsigned char>(text[i])) && value < INT32_MAX) {
    value = value * 10 + (text[i] - '0');
    ++i;
  }
  if (i == 0 || value > INT32_MAX) return -1;
  return static_cast<int32_t>(value);
}

struct Item {
  String src;
  String title;
  int32_t duration = -1;
};

struct Parsed {
  String title;
  bool has_title = false;
  Vector<Item> items;

  bool Full() const noexcept { return items.size() >= UPNP_PLAYLIST_MAX_ENTRIES; }
};

// ---- M3U ----------------------------------------------------------------------------------

// "#EXTINF:<seconds> [attributes],<title>": the comma that ends the attributes is the first one
// outside their quotes.
void ReadExtinf(string_view info, Item* pending) {
  bool quoted = false;
  size_t comma = string_view::npos;
  for (size_t i = 0; i < info.size() && comma == string_view::npos; ++i) {
    if (info[i] == '"') quoted = !quoted;
    if (info[i] == ',' && !quoted) comma = i;
  }
  pending->duration = Seconds(info.substr(0, comma));
  if (!info.empty() && info.front() == '-') pending->duration = -1;
  pending->title = comma == string_view::npos ? String() : ToString(Trim(info.substr(comma + 1)));
}

void ParseM3u(string_view text, Parsed* out) {
  Item pending;
  ForEachLine(text, [&](string_view line) {
    if (line.empty()) return;
    if (line.front() == '#') {
      if (IStartsWith(line, "#EXTINF:")) {
        ReadExtinf(line.substr(8), &pending);
      } else if (IStartsWith(line, "#PLAYLIST:")) {
        out->title = ToString(Trim(line.substr(10)));
        out->has_title = true;
      }
      return;
    }
    if (out->Full()) return;
    pending.src = ToString(line);
    out->items.push_back(std::move(pending));
    pending = Item{};
  });
}

// ---- PLS ----------------------------------------------------------------------------------

// "FileN=", "TitleN=", "LengthN=" in any order; entries come out by N.
void ParsePls(string_view text, Parsed* out) {
  Map<uint32_t, Item> numbered;
  constexpr string_view kKeys[] = {"File", "Title", "Length"};
  ForEachLine(text, [&](string_view line) {
    const size_t eq = line.find('=');
    if (eq == string_view::npos) return;
    const string_view key = Trim(line.substr(0, eq));
    const string_view value = Trim(line.substr(eq + 1));
    for (size_t k = 0; k < 3; ++k) {
      if (key.size() <= kKeys[k].size() || !IStartsWith(key, kKeys[k])) continue;
      uint64_t number = 0;
      const string_view digits = key.substr(kKeys[k].size());
      for (const char c : digits) {
        if (!IsDigit(static_cast<unsigned char>(c)) || number > UINT32_MAX / 10) return;
        number = number * 10 + static_cast<uint64_t>(c - '0');
      }
      if (number > UINT32_MAX) return;
      const auto n = static_cast<uint32_t>(number);
      if (numbered.size() >= UPNP_PLAYLIST_MAX_ENTRIES && numbered.count(n) == 0) return;
      Item& item = numbered[n];
      if (k == 0) item.src = ToString(value);
      if (k == 1) item.title = ToString(value);
      if (k == 2) item.duration = !value.empty() && value.front() == '-' ? -1 : Seconds(value);
      return;
    }
  });
  for (auto& [number, item] : numbered) {
    if (!item.src.empty()) out->items.push_back(std::move(item));
  }
}

// ---- WPL ----------------------------------------------------------------------------------

struct TreeDeleter {
  void operator()(upnp_xml_node* node) const noexcept { upnp_xml_release(node); }
};

bool NameIs(const upnp_xml_node* node, string_view name) noexcept {
  return node->name != nullptr && IEquals(node->name, name);
}

const char* AttributeValue(const upnp_xml_node* node, string_view name) noexcept {
  for (const upnp_xml_attribute* a = node->attributes; a != nullptr; a = a->next) {
    if (a->name != nullptr && IEquals(a->name, name)) return a->value;
  }
  return nullptr;
}

// Depth first, in document order; the parser keeps trees shallow enough for the recursion.
const upnp_xml_node* FindElement(const upnp_xml_node* node, string_view name) noexcept {
  for (; node != nullptr; node = node->next) {
    if (NameIs(node, name)) return node;
    if (const upnp_xml_node* found = FindElement(node->children, name)) return found;
  }
  return nullptr;
}

void CollectMedia(const upnp_xml_node* node, Parsed* out) {
  for (; node != nullptr && !out->Full(); node = node->next) {
    if (NameIs(node, "media")) {
      String src = AsUtf8(AttributeValue(node, "src"));
      if (!Trim(src).empty()) out->items.push_back(Item{ToString(Trim(src)), String(), -1});
    } else {
      CollectMedia(node->children, out);
    }
  }
}

void AppendUtf8(uint32_t code, String* out) {
  if (code < 0x800) {
    *out += static_cast<char>(0xC0 | (code >> 6));
  } else {
    if (code < 0x10000) {
      *out += static_cast<char>(0xE0 | (code >> 12));
    } else {
      *out += static_cast<char>(0xF0 | (code >> 18));
      *out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    }
    *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
  }
  *out += static_cast<char>(0x80 | (code & 0x3F));
}

// "&#233;" and "&#xE9;" beyond ASCII become the character's UTF-8 bytes before parsing, since
// the parser keeps one byte of a reference. ASCII ones (an escaped '&' or quote) stay for it.
String ExpandCharacterReferences(string_view text) {
  String out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const size_t amp = text.find("&#", i);
    if (amp == string_view::npos) break;
    out.append(text.data() + i, amp - i);
    i = amp;
    const bool hex = amp + 2 < text.size() && (text[amp + 2] == 'x' || text[amp + 2] == 'X');
    size_t p = amp + (hex ? 3 : 2);
    uint32_t code = 0;
    size_t digits = 0;
    for (; p < text.size() && digits < 8; ++p, ++digits) {
      const int value = hex ? HexDigitValue(static_cast<unsigned char>(text[p]))
                            : (IsDigit(static_cast<unsigned char>(text[p])) ? text[p] - '0' : -1);
      if (value < 0) break;
      code = code * (hex ? 16 : 10) + static_cast<uint32_t>(value);
    }
    const bool usable = digits > 0 && p < text.size() && text[p] == ';' && code >= 0x80 &&
                        code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    if (!usable) {
      out += '&';
      ++i;
      continue;
    }
    AppendUtf8(code, &out);
    i = p + 1;
  }
  out.append(text.data() + i, text.size() - i);
  return out;
}

void ParseWpl(string_view text, Parsed* out) {
  const String copy = ExpandCharacterReferences(text);
  const std::unique_ptr<upnp_xml_node, TreeDeleter> root(upnp_xml_parse(copy.c_str()));
  if (root == nullptr) return;
  if (const upnp_xml_node* head = FindElement(root.get(), "head")) {
    if (const upnp_xml_node* title = FindElement(head->children, "title")) {
      out->title = ToString(Trim(AsUtf8(title->value)));
      out->has_title = true;
    }
  }
  if (const upnp_xml_node* body = FindElement(root.get(), "body")) {
    CollectMedia(body->children, out);
  }
}

int32_t FormatOfContent(string_view text) noexcept {
  text = Trim(text);
  if (!text.empty() && text.front() == '<') return UPNP_PLAYLIST_WPL;
  if (IStartsWith(text, "[playlist]") || IStartsWith(text, "File1=")) return UPNP_PLAYLIST_PLS;
  return UPNP_PLAYLIST_M3U;
}

// ---- Where an entry leads -----------------------------------------------------------------

// A scheme of two or more characters and "://" ("C:/..." is a drive, not a scheme).
bool IsUrl(string_view src) noexcept {
  const size_t colon = src.find(':');
  if (colon == string_view::npos || colon < 2 || !IsAlpha(static_cast<unsigned char>(src[0]))) {
    return false;
  }
  for (size_t i = 1; i < colon; ++i) {
    const auto c = static_cast<unsigned char>(src[i]);
    if (!IsAlnum(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return src.substr(colon + 1, 2) == "//";
}

// "%XY" decoded; unlike form decoding, '+' stays a '+', as it is in file names.
String PercentDecoded(string_view s) {
  String out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    const int high =
        i + 2 < s.size() && s[i] == '%' ? HexDigitValue(static_cast<unsigned char>(s[i + 1])) : -1;
    const int low = high >= 0 ? HexDigitValue(static_cast<unsigned char>(s[i + 2])) : -1;
    if (high >= 0 && low >= 0) {
      out += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out;
}

// The path of a file: URL: "file:///x", "file://localhost/x", "file:/x"; another host makes a
// UNC path ("//host/share/x"), "file:///C:/x" a drive path.
String FileUrlPath(string_view url) {
  string_view rest = url.substr(5);
  String path;
  if (rest.substr(0, 2) == "//") {
    rest.remove_prefix(2);
    const size_t slash = rest.find('/');
    const string_view host = rest.substr(0, slash);
    if (host.empty() || IEquals(host, "localhost")) {
      rest = slash == string_view::npos ? string_view() : rest.substr(slash);
    } else {
      path = "//";
    }
  }
  path += PercentDecoded(rest);
  if (path.size() >= 3 && path[0] == '/' && IsAlpha(static_cast<unsigned char>(path[1])) &&
      path[2] == ':') {
    path.erase(0, 1);
  }
  return AsUtf8(path.c_str());
}

// "." and ".." folded, empty components dropped; ".." above a relative start is kept.
String Normalized(string_view path) {
  const bool absolute = !path.empty() && path.front() == '/';
  Vector<string_view> parts;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t end = path.find('/', pos);
    if (end == string_view::npos) end = path.size();
    const string_view part = path.substr(pos, end - pos);
    pos = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == ".." && !parts.empty() && parts.back() != "..") {
      parts.pop_back();
    } else if (part != ".." || !absolute) {
      parts.push_back(part);
    }
  }
  String out = absolute ? "/" : "";
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += '/';
    out.append(parts[i].data(), parts[i].size());
  }
  if (out.empty()) out = ".";
  return out;
}

String Joined(string_view dir, string_view path) {
  String out = ToString(dir);
  out += '/';
  out.append(path.data(), path.size());
  return Normalized(out);
}

struct Resolved {
  String location;
  int32_t kind;
};

// The last components of a path that leads nowhere, longest first, below the playlist's folder
// and then below its parents: a playlist made on another machine (or with a drive letter) still
// finds the files that were copied along with it.
bool FindByTail(string_view path, const char* base, String* found) {
  Vector<string_view> parts;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t end = path.find('/', pos);
    if (end == string_view::npos) end = path.size();
    const string_view part = path.substr(pos, end - pos);
    pos = end + 1;
    const bool drive = part.size() == 2 && part[1] == ':';
    if (!part.empty() && part != "." && part != ".." && !drive) parts.push_back(part);
  }
  const size_t first = parts.size() > kMaxTailComponents ? parts.size() - kMaxTailComponents : 0;
  String dir = Normalized(base);
  for (int up = 0; up <= kTailSearchParents; ++up) {
    for (size_t k = first; k < parts.size(); ++k) {
      String tail;
      for (size_t i = k; i < parts.size(); ++i) {
        if (i > k) tail += '/';
        tail.append(parts[i].data(), parts[i].size());
      }
      String candidate = Joined(dir, tail);
      if (IsRegularFile(candidate.c_str())) {
        *found = std::move(candidate);
        return true;
      }
    }
    if (dir == "/" || dir == "." || dir == "..") break;
    dir = Joined(dir, "..");
  }
  return false;
}

Resolved Resolve(const String& src, const char* base) {
  const bool file_url = IStartsWith(src, "file:");
  if (!file_url && IsUrl(src)) return {src, UPNP_PLAYLIST_ENTRY_URL};
  String path = file_url ? FileUrlPath(src) : src;
  for (char& c : path) {
    if (c == '\\') c = '/';
  }
  const bool drive =
      path.size() >= 2 && IsAlpha(static_cast<unsigned char>(path[0])) && path[1] == ':';
  const bool unc = path.compare(0, 2, "//") == 0;
  String candidate;
  if (!drive && !unc) {
    candidate = !path.empty() && path[0] == '/' ? Normalized(path)
                : base != nullptr               ? Joined(base, path)
                                                : Normalized(path);
    if (IsRegularFile(candidate.c_str())) return {std::move(candidate), UPNP_PLAYLIST_ENTRY_FILE};
  }
  String found;
  if (base != nullptr && FindByTail(path, base, &found)) {
    return {std::move(found), UPNP_PLAYLIST_ENTRY_FILE};
  }
  return {candidate.empty() ? std::move(path) : std::move(candidate), UPNP_PLAYLIST_ENTRY_MISSING};
}

// ---- Records ------------------------------------------------------------------------------

struct PlaylistDeleter {
  void operator()(upnp_playlist* list) const noexcept { FreePlaylist(list); }
};
using PlaylistPtr = std::unique_ptr<upnp_playlist, PlaylistDeleter>;

char* Dup(string_view text) {
  char* copy = DupToC(text);
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

void FreeEntry(upnp_playlist_entry* entry) noexcept {
  for (char* text : {entry->src, entry->location, entry->title}) {
    if (text != nullptr) upnp_free_impl(text);
  }
}

PlaylistPtr EmptyPlaylist(int32_t format, const char* title) {
  PlaylistPtr list(static_cast<upnp_playlist*>(upnp_calloc_impl(1, sizeof(upnp_playlist))));
  if (list == nullptr) throw std::bad_alloc();
  list->format = format;
  if (title != nullptr) list->title = Dup(title);
  return list;
}

upnp_playlist* Build(Parsed* parsed, int32_t format, const char* base) {
  PlaylistPtr list = EmptyPlaylist(format, parsed->has_title ? parsed->title.c_str() : nullptr);
  if (parsed->items.empty()) return list.release();
  list->entries = static_cast<upnp_playlist_entry*>(
      upnp_calloc_impl(parsed->items.size(), sizeof(upnp_playlist_entry)));
  if (list->entries == nullptr) throw std::bad_alloc();
  for (Item& item : parsed->items) {
    upnp_playlist_entry& entry = list->entries[list->count];
    ++list->count;  // counted first, so a failure below frees what was set
    const Resolved resolved = Resolve(item.src, base);
    entry.src = Dup(item.src);
    entry.location = Dup(resolved.location);
    entry.title = item.title.empty() ? nullptr : Dup(item.title);
    entry.duration = item.duration;
    entry.kind = resolved.kind;
  }
  return list.release();
}

// Line breaks would start a new M3U line; a blank keeps the entry whole.
String OneLine(const char* text) {
  String out = text != nullptr ? text : "";
  for (char& c : out) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  return out;
}

upnp_string* ToUpnpString(const String& text) {
  upnp_string* s = upnp_string_create(nullptr, static_cast<uint32_t>(text.size() + 1));
  if (s == nullptr) return nullptr;
  upnp_string* grown = upnp_string_add(s, text.data(), static_cast<uint32_t>(text.size()));
  if (grown == nullptr) upnp_string_free(s);
  return grown;
}

upnp_xml_node* Element(upnp_xml_node* parent, const char* name, const char* value) {
  upnp_xml_node* node = upnp_xml_new_node(name, value);
  if (node == nullptr) throw std::bad_alloc();
  upnp_xml_add_as_subnode(parent, node);
  return node;
}

// Attributes are written in list order: the first given comes first.
void SetAttributes(upnp_xml_node* node,
                   std::initializer_list<std::pair<const char*, const char*>> pairs) {
  upnp_xml_attribute** tail = &node->attributes;
  for (const auto& [name, value] : pairs) {
    *tail = upnp_xml_new_attribute(name, value);
    if (*tail == nullptr) throw std::bad_alloc();
    tail = &(*tail)->next;
  }
}

bool WriteAll(const char* path, const upnp_string& text) noexcept {
  String next = path;
  next += ".new";
  upnp_file_unlink(next.c_str());  // opening for writing does not truncate a leftover
  upnp_file* file = upnp_file_open_write(next.c_str());
  if (file == nullptr) return false;
  const int32_t written = upnp_file_write(file, text.buffer, text.length);
  bool ok =
      written >= 0 && static_cast<uint32_t>(written) == text.length && upnp_file_flush(file) == 0;
  upnp_file_close(file);
  ok = ok && upnp_file_rename(next.c_str(), path) == 0;
  if (!ok) upnp_file_unlink(next.c_str());
  return ok;
}

}  // namespace

int32_t PlaylistFormatOfName(string_view path) noexcept {
  if (IEndsWith(path, ".wpl") || IEndsWith(path, ".zpl")) return UPNP_PLAYLIST_WPL;
  if (IEndsWith(path, ".m3u") || IEndsWith(path, ".m3u8")) return UPNP_PLAYLIST_M3U;
  if (IEndsWith(path, ".pls")) return UPNP_PLAYLIST_PLS;
  return UPNP_PLAYLIST_UNKNOWN;
}

upnp_playlist* ParsePlaylist(string_view raw, int32_t format, const char* base_dir) {
  const String text = DecodeText(raw);
  if (format == UPNP_PLAYLIST_UNKNOWN) format = FormatOfContent(text);
  Parsed parsed;
  switch (format) {
    case UPNP_PLAYLIST_WPL:
      ParseWpl(text, &parsed);
      break;
    case UPNP_PLAYLIST_PLS:
      ParsePls(text, &parsed);
      break;
    default:
      format = UPNP_PLAYLIST_M3U;
      ParseM3u(text, &parsed);
      break;
  }
  return Build(&parsed, format, base_dir);
}

upnp_playlist* ReadPlaylist(const char* path) {
  upnp_file* file = upnp_file_open_read(path);
  if (file == nullptr) return nullptr;
  upnp_stat info{};
  String raw;
  bool ok = upnp_file_get_stat(file, &info) == 0 && (info.mode & UPNP_S_IFMT) == UPNP_S_IFREG &&
            info.size <= UPNP_PLAYLIST_MAX_FILE;
  if (ok) {
    raw.resize(static_cast<size_t>(info.size));
    size_t got = 0;
    while (got < raw.size()) {
      const int32_t n = upnp_file_read(file, &raw[got], static_cast<uint32_t>(raw.size() - got));
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    raw.resize(got);  // a file that shrank meanwhile is read as far as it goes
  }
  upnp_file_close(file);
  if (!ok) return nullptr;
  String base = path;
  for (char& c : base) {
    if (c == '\\') c = '/';
  }
  const size_t slash = base.rfind('/');
  base = slash == String::npos ? String(".") : slash == 0 ? String("/") : base.substr(0, slash);
  const int32_t format = PlaylistFormatOfName(path);
  return ParsePlaylist(raw, format, base.c_str());
}

upnp_playlist* NewPlaylist(const char* title) {
  return EmptyPlaylist(UPNP_PLAYLIST_UNKNOWN, title).release();
}

bool AddPlaylistEntry(upnp_playlist* list, const char* src, const char* title, int32_t duration) {
  if (list->count >= UPNP_PLAYLIST_MAX_ENTRIES) return false;
  upnp_playlist_entry entry{};
  try {
    entry.src = Dup(src);
    entry.location = Dup(src);
    entry.title = title != nullptr ? Dup(title) : nullptr;
  } catch (...) {
    FreeEntry(&entry);
    throw;
  }
  entry.duration = duration < 0 ? -1 : duration;
  entry.kind =
      IsUrl(src) && !IStartsWith(src, "file:") ? UPNP_PLAYLIST_ENTRY_URL : UPNP_PLAYLIST_ENTRY_FILE;
  auto* grown = static_cast<upnp_playlist_entry*>(
      upnp_realloc_impl(list->entries, (list->count + 1) * sizeof(upnp_playlist_entry)));
  if (grown == nullptr) {
    FreeEntry(&entry);
    return false;
  }
  list->entries = grown;
  list->entries[list->count++] = entry;
  return true;
}

upnp_string* PlaylistToWpl(const upnp_playlist& list) {
  const std::unique_ptr<upnp_xml_node, TreeDeleter> smil(upnp_xml_new_node("smil", nullptr));
  if (smil == nullptr) return nullptr;
  upnp_xml_node* head = Element(smil.get(), "head", nullptr);
  SetAttributes(Element(head, "meta", nullptr), {{"name", "Generator"}, {"content", kGenerator}});
  Element(head, "title", list.title != nullptr ? list.title : "");
  upnp_xml_node* seq = Element(Element(smil.get(), "body", nullptr), "seq", nullptr);
  for (uint32_t i = 0; i < list.count; ++i) {
    SetAttributes(Element(seq, "media", nullptr), {{"src", list.entries[i].src}});
  }
  upnp_string* tree = upnp_xml_tree_to_string_valid(smil.get(), 1, 1);
  if (tree == nullptr) return nullptr;
  upnp_string* text = upnp_string_create(kWplPrologue, tree->length + sizeof(kWplPrologue) + 2);
  upnp_string* whole = text != nullptr ? upnp_string_concat_string(text, tree) : nullptr;
  upnp_string_free(tree);
  if (whole == nullptr) {
    upnp_string_free(text);
    return nullptr;
  }
  return upnp_string_concat(whole, "\r\n");
}

upnp_string* PlaylistToM3u(const upnp_playlist& list) {
  String text = "#EXTM3U\n";
  if (list.title != nullptr) text += "#PLAYLIST:" + OneLine(list.title) + "\n";
  char seconds[16];
  for (uint32_t i = 0; i < list.count; ++i) {
    const upnp_playlist_entry& entry = list.entries[i];
    if (entry.title != nullptr || entry.duration >= 0) {
      std::snprintf(seconds, sizeof(seconds), "%d",
                    static_cast<int>(entry.duration < 0 ? -1 : entry.duration));
      text += "#EXTINF:";
      text += seconds;
      text += "," + OneLine(entry.title) + "\n";
    }
    text += OneLine(entry.src) + "\n";
  }
  return ToUpnpString(text);
}

bool WritePlaylist(const upnp_playlist& list, const char* path, int32_t format) {
  upnp_string* text = format == UPNP_PLAYLIST_WPL   ? PlaylistToWpl(list)
                      : format == UPNP_PLAYLIST_M3U ? PlaylistToM3u(list)
                                                    : nullptr;
  if (text == nullptr) return false;
  const bool ok = WriteAll(path, *text);
  upnp_string_free(text);
  return ok;
}

void FreePlaylist(upnp_playlist* list) noexcept {
  if (list == nullptr) return;
  for (uint32_t i = 0; i < list->count; ++i) FreeEntry(&list->entries[i]);
  if (list->entries != nullptr) upnp_free_impl(list->entries);
  if (list->title != nullptr) upnp_free_impl(list->title);
  upnp_free_impl(list);
}

}  // namespace tw::media
