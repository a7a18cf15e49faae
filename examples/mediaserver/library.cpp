// SPDX-License-Identifier: Apache-2.0
// The shared folder as ContentDirectory objects: IDs, lookups, listings and change detection.
// Everything on disk is read through the library's file layer; symbolic links are neither
// listed nor followed, so the tree shown is exactly the tree under the folder.
#include "library.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_set>

#include "tarnwick/http.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace mediaserver {
namespace {

constexpr size_t kMaxDepth = 32;             // deeper folders are not shown
constexpr size_t kMaxFoldersWatched = 4096;  // CheckForChanges looks at no more than these
constexpr size_t kMaxCachedProbes = 20000;   // the caches start over beyond this
constexpr size_t kMaxCachedPlaylists = 256;
constexpr char kPlaylistSeparator = '.';  // between a playlist's ID and an entry's position

struct Shared {
  std::mutex mutex;
  std::string folder;
  std::string root_title;
  uint32_t update_id = 1;
  uint64_t signature = 0;
  bool signature_taken = false;
  struct Probe {
    int64_t size;
    int64_t modified;
    MediaInfo info;
  };
  std::map<std::string, Probe> probes;
  // IDs a listing has handed out since the tree last changed: a control point fetches and
  // seeks what it browsed, and these need no walk through the listings (see FindObject).
  std::unordered_set<std::string> listed;
  // The entries of a playlist file that are items of the folder: (position in the file, item
  // ID), for a size, modification time and tree generation of the file.
  struct PlaylistItems {
    uint64_t size;
    int64_t modified;
    uint32_t update_id;
    std::vector<std::pair<uint32_t, std::string>> items;
  };
  std::map<std::string, PlaylistItems> playlists;
};

Shared& State() {
  static Shared* state = new Shared();  // lives as long as the process: handlers may still run
  return *state;
}

bool IsShownItem(const char* mime_type) { return KindOfMimeType(mime_type) != MediaKind::kOther; }

bool IsPlaylistName(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return false;
  const char* extension = name.c_str() + dot + 1;
  for (const char* known : {"wpl", "zpl", "m3u", "m3u8", "pls"}) {
    if (strcasecmp(extension, known) == 0) return true;
  }
  return false;
}

bool IsShownFile(const std::string& name) {
  return IsPlaylistName(name) ||
         IsShownItem(HTTP_get_mime_type(nullptr, HTTP_get_extension(name.c_str())));
}

// The header facts of an item, probed once per size and modification time.
MediaInfo CachedProbe(const std::string& path, int64_t size, int64_t modified,
                      const char* mime_type) {
  Shared& state = State();
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    const auto found = state.probes.find(path);
    if (found != state.probes.end() && found->second.size == size &&
        found->second.modified == modified) {
      return found->second.info;
    }
  }
  const MediaInfo info = ProbeMedia(path.c_str(), mime_type);  // outside the lock: file I/O
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.probes.size() >= kMaxCachedProbes) state.probes.clear();
  state.probes[path] = Shared::Probe{size, modified, info};
  return info;
}

std::string Folder() {
  std::lock_guard<std::mutex> lock(State().mutex);
  return State().folder;
}

std::string JoinRelative(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

// Fills an object from a directory entry; false when the entry is not shown.
// `known` is the entry's status when the caller has just read it.
bool MakeObject(const std::string& directory, const std::string& relative, const std::string& name,
                bool is_dir, const std::string& parent_id, Object* out,
                const upnp_stat* known = nullptr) {
  const std::string path = directory + "/" + name;
  upnp_stat info{};
  if (known != nullptr) {
    info = *known;
  } else if (upnp_file_stat(path.c_str(), &info) != 0) {
    return false;
  }
  Object object;
  object.id = IdOfRelativePath(relative);
  object.parent_id = parent_id;
  object.title = name;
  object.path = path;
  object.modified = info.mtime;
  if (is_dir) {
    if ((info.mode & UPNP_S_IFMT) != UPNP_S_IFDIR) return false;
    object.container = true;
  } else if (IsPlaylistName(name)) {
    if ((info.mode & UPNP_S_IFMT) != UPNP_S_IFREG) return false;
    object.container = true;
    object.playlist = true;
    object.title = name.substr(0, name.rfind('.'));
    object.size = static_cast<int64_t>(info.size);
  } else {
    if ((info.mode & UPNP_S_IFMT) != UPNP_S_IFREG) return false;
    object.mime_type = HTTP_get_mime_type(nullptr, HTTP_get_extension(name.c_str()));
    if (!IsShownItem(object.mime_type)) return false;
    // Players show the title: the name without its extension (which the MIME type stands for).
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) object.title = name.substr(0, dot);
    object.size = static_cast<int64_t>(info.size);
    object.media = CachedProbe(path, object.size, object.modified, object.mime_type);
  }
  *out = std::move(object);
  return true;
}

struct Entry {
  std::string name;
  bool is_dir;
};

// The shown entries of a directory (no links, no hidden names), containers first, by name.
std::vector<Entry> ReadDirectory(const std::string& path) {
  std::vector<Entry> entries;
  for (upnp_find_handle* handle = upnp_file_find_first_file(path.c_str()); handle != nullptr;
       handle = upnp_file_find_next_file(handle)) {
    if (upnp_file_find_is_link(handle) != 0) continue;
    entries.push_back(Entry{upnp_file_find_get_name(handle), upnp_file_find_is_dir(handle) != 0});
  }
  // As people read names: case ignored (bytes decide between names equal but for case).
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    if (a.is_dir != b.is_dir) return a.is_dir;
    const int order = strcasecmp(a.name.c_str(), b.name.c_str());
    return order != 0 ? order < 0 : a.name < b.name;
  });
  return entries;
}

size_t Depth(const std::string& relative) {
  return relative.empty()
             ? 0
             : static_cast<size_t>(std::count(relative.begin(), relative.end(), '/')) + 1;
}

std::vector<std::pair<uint32_t, std::string>> PlaylistItemsOf(const Object& playlist);

void CountChildren(Object* container, const std::string& relative) {
  if (container->playlist) {
    container->child_count = static_cast<int32_t>(PlaylistItemsOf(*container).size());
    return;
  }
  int32_t count = 0;
  if (Depth(relative) < kMaxDepth) {
    for (const Entry& entry : ReadDirectory(container->path)) {
      if (entry.is_dir || IsShownFile(entry.name)) ++count;
    }
  }
  container->child_count = count;
}

// Mixes a directory's path and modification time into a running signature (FNV-1a).
uint64_t Mix(uint64_t hash, const void* data, size_t length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < length; ++i) hash = (hash ^ bytes[i]) * 0x100000001b3ULL;
  return hash;
}

uint64_t TreeSignature(const std::string& folder) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  std::vector<std::pair<std::string, size_t>> pending{{folder, 0}};
  size_t seen = 0;
  while (!pending.empty() && seen < kMaxFoldersWatched) {
    const auto [path, depth] = pending.back();
    pending.pop_back();
    ++seen;
    upnp_stat info{};
    if (upnp_file_stat(path.c_str(), &info) != 0) continue;
    hash = Mix(hash, path.data(), path.size());
    hash = Mix(hash, &info.mtime, sizeof(info.mtime));
    // Names too: a file added or removed within the second of the last look leaves the
    // directory's time (in whole seconds) as it was.
    for (const Entry& entry : ReadDirectory(path)) {
      hash = Mix(hash, entry.name.c_str(), entry.name.size() + 1);
      if (entry.is_dir && depth + 1 < kMaxDepth) {
        pending.emplace_back(path + "/" + entry.name, depth + 1);
      }
    }
  }
  return hash;
}

bool WasListed(const std::string& id) {
  std::lock_guard<std::mutex> lock(State().mutex);
  return State().listed.count(id) != 0;
}

void RememberListed(const std::vector<Object>& objects) {
  Shared& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.listed.size() + objects.size() > kMaxCachedProbes) state.listed.clear();
  for (const Object& object : objects) state.listed.insert(object.id);
}

// The object of an entry a listing showed, from its status (just read).
bool MakeListedObject(const std::string& folder, const std::string& relative, const upnp_stat& info,
                      Object* out) {
  const size_t slash = relative.rfind('/');
  const std::string parent = slash == std::string::npos ? "" : relative.substr(0, slash);
  const bool is_dir = (info.mode & UPNP_S_IFMT) == UPNP_S_IFDIR;
  return MakeObject(parent.empty() ? folder : folder + "/" + parent, relative,
                    relative.substr(slash + 1), is_dir, IdOfRelativePath(parent), out, &info);
}

// An item as an entry of a playlist: its own ID at the playlist's position, the item's as refID.
Object EntryOf(const Object& playlist, uint32_t position, Object item) {
  item.ref_id = std::move(item.id);
  item.id = playlist.id + kPlaylistSeparator + std::to_string(position);
  item.parent_id = playlist.id;
  return item;
}

bool FindPlaylistEntry(const std::string& playlist_id, const std::string& position_text,
                       Object* out) {
  if (position_text.empty() || position_text.size() > 9 ||
      position_text.find_first_not_of("0123456789") != std::string::npos ||
      (position_text.size() > 1 && position_text[0] == '0')) {
    return false;  // one spelling per object
  }
  const auto position = static_cast<uint32_t>(std::stoul(position_text));
  Object playlist;
  if (!FindObject(playlist_id, &playlist, false) || !playlist.playlist) return false;
  for (const auto& [at, item_id] : PlaylistItemsOf(playlist)) {
    if (at != position) continue;
    Object item;
    if (!FindObject(item_id, &item, false) || item.container) return false;
    *out = EntryOf(playlist, position, std::move(item));
    return true;
  }
  return false;
}

}  // namespace

void SetSharedFolder(const std::string& folder, const std::string& root_title) {
  Shared& state = State();
  std::string cleaned = folder;
  while (cleaned.size() > 1 && cleaned.back() == '/') cleaned.pop_back();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.folder = cleaned;
  state.root_title = root_title;
  state.probes.clear();
  state.listed.clear();
  state.playlists.clear();
  state.signature_taken = false;
}

std::string IdOfRelativePath(const std::string& relative) {
  if (relative.empty()) return kRootId;
  static constexpr char kHex[] = "0123456789abcdef";
  std::string id;
  id.reserve(relative.size() * 2);
  for (const char c : relative) {
    const auto byte = static_cast<unsigned char>(c);
    id += kHex[byte >> 4];
    id += kHex[byte & 15];
  }
  return id;
}

bool RelativePathOfId(const std::string& id, std::string* relative) {
  relative->clear();
  if (id == kRootId) return true;
  if (id.empty() || id.size() % 2 != 0 || id.size() > 8192) return false;
  const auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;  // upper case too: one spelling per object
  };
  std::string path;
  for (size_t i = 0; i < id.size(); i += 2) {
    const int high = nibble(id[i]);
    const int low = nibble(id[i + 1]);
    if (high < 0 || low < 0) return false;
    const char c = static_cast<char>(high * 16 + low);
    if (c == '\0' || c == '\\') return false;
    path += c;
  }
  // Every component must be a plain name: no "", ".", ".." (nor any hidden name, which the
  // listings never show either).
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (end == start || path[start] == '.') return false;
    start = end + 1;
  }
  *relative = path;
  return true;
}

bool FindObject(const std::string& id, Object* out, bool count_children) {
  if (const size_t separator = id.find(kPlaylistSeparator); separator != std::string::npos) {
    return FindPlaylistEntry(id.substr(0, separator), id.substr(separator + 1), out);
  }
  std::string relative;
  if (!RelativePathOfId(id, &relative)) return false;
  const std::string folder = Folder();
  if (folder.empty()) return false;
  if (relative.empty()) {
    Object root;
    root.id = kRootId;
    root.parent_id = kRootParentId;
    {
      std::lock_guard<std::mutex> lock(State().mutex);
      root.title = State().root_title;
    }
    root.path = folder;
    root.container = true;
    upnp_stat info{};
    if (upnp_file_stat(folder.c_str(), &info) != 0) return false;
    root.modified = info.mtime;
    if (count_children) CountChildren(&root, relative);
    *out = std::move(root);
    return true;
  }
  if (Depth(relative) > kMaxDepth) return false;
  if (WasListed(id)) {
    // A listing showed this entry and the tree has not changed since: no link, no hidden name
    // on its way. Only its own status is read again.
    upnp_stat info{};
    if (upnp_file_stat((folder + "/" + relative).c_str(), &info) != 0) return false;
    if (!MakeListedObject(folder, relative, info, out)) return false;
    if (out->container && count_children) CountChildren(out, relative);
    return true;
  }
  // Walk down component by component through the listings, so that only entries a listing
  // shows (no links, no hidden names) can be reached.
  std::string walked;
  std::string parent_id = kRootId;
  size_t start = 0;
  while (true) {
    const size_t end = std::min(relative.find('/', start), relative.size());
    const std::string name = relative.substr(start, end - start);
    const bool last = end == relative.size();
    const std::vector<Entry> entries =
        ReadDirectory(walked.empty() ? folder : folder + "/" + walked);
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const Entry& e) { return e.name == name; });
    if (found == entries.end() || (!last && !found->is_dir)) return false;
    const std::string here = JoinRelative(walked, name);
    if (last) {
      if (!MakeObject(walked.empty() ? folder : folder + "/" + walked, here, name, found->is_dir,
                      parent_id, out)) {
        return false;
      }
      if (out->container && count_children) CountChildren(out, here);
      return true;
    }
    parent_id = IdOfRelativePath(here);
    walked = here;
    start = end + 1;
  }
}

bool ItemPathOfId(const std::string& id, std::string* path) {
  std::string relative;
  if (!RelativePathOfId(id, &relative) || relative.empty()) return false;
  const std::string folder = Folder();
  if (folder.empty() || Depth(relative) > kMaxDepth) return false;
  if (!WasListed(id)) {
    Object found;
    if (!FindObject(id, &found, false) || found.container) return false;
  }
  *path = folder + "/" + relative;
  return true;
}

bool ItemOfStatus(const std::string& id, const upnp_stat& info, Object* out) {
  std::string relative;
  const std::string folder = Folder();
  return RelativePathOfId(id, &relative) && !relative.empty() && !folder.empty() &&
         MakeListedObject(folder, relative, info, out) && !out->container;
}

bool ListChildren(const Object& container, std::vector<Object>* out) {
  out->clear();
  if (!container.container) return false;
  if (container.playlist) {
    for (const auto& [position, item_id] : PlaylistItemsOf(container)) {
      Object item;
      if (FindObject(item_id, &item, false) && !item.container) {
        out->push_back(EntryOf(container, position, std::move(item)));
      }
    }
    return true;
  }
  std::string relative;
  if (!RelativePathOfId(container.id, &relative)) return false;
  if (Depth(relative) >= kMaxDepth) return true;
  for (const Entry& entry : ReadDirectory(container.path)) {
    Object object;
    const std::string child = JoinRelative(relative, entry.name);
    if (!MakeObject(container.path, child, entry.name, entry.is_dir, container.id, &object)) {
      continue;
    }
    if (object.container) CountChildren(&object, child);
    out->push_back(std::move(object));
  }
  RememberListed(*out);
  return true;
}

void ListItemsBelow(const Object& container, size_t limit, std::vector<Object>* out) {
  out->clear();
  std::vector<Object> pending{container};
  while (!pending.empty() && out->size() < limit) {
    const Object folder = std::move(pending.back());
    pending.pop_back();
    std::vector<Object> children;
    if (!ListChildren(folder, &children)) continue;
    // Sub-folders are visited in name order: pushed in reverse. Playlists only refer to items
    // found in their folders anyway.
    for (auto it = children.rbegin(); it != children.rend(); ++it) {
      if (it->container && !it->playlist) pending.push_back(*it);
    }
    for (Object& child : children) {
      if (child.container) continue;
      if (out->size() >= limit) break;
      out->push_back(std::move(child));
    }
  }
}

uint32_t SystemUpdateId() {
  std::lock_guard<std::mutex> lock(State().mutex);
  return State().update_id;
}

bool CheckForChanges() {
  const std::string folder = Folder();
  if (folder.empty()) return false;
  const uint64_t signature = TreeSignature(folder);
  Shared& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (!state.signature_taken) {
    state.signature = signature;
    state.signature_taken = true;
    return false;
  }
  if (signature == state.signature) return false;
  state.signature = signature;
  state.listed.clear();  // an entry may have become a link or gone
  ++state.update_id;
  return true;
}

namespace {

// "." and ".." folded as text; ".." above a relative start is kept.
std::string Lexical(const std::string& path) {
  const bool absolute = !path.empty() && path[0] == '/';
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string part = path.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == ".." && !parts.empty() && parts.back() != "..") {
      parts.pop_back();
    } else if (part != ".." || !absolute) {
      parts.push_back(part);
    }
  }
  std::string out = absolute ? "/" : "";
  for (size_t i = 0; i < parts.size(); ++i) out += (i > 0 ? "/" : "") + parts[i];
  return out.empty() ? "." : out;
}

// The path of location relative to the shared folder, when it lies inside it.
bool RelativeInside(const std::string& folder, const std::string& location, std::string* relative) {
  const std::string root = Lexical(folder);
  const std::string path = Lexical(location);
  if (root == ".") {
    if (path[0] == '/' || path == ".." || path.compare(0, 3, "../") == 0) return false;
    *relative = path;
  } else if (root == "/") {
    *relative = path.substr(1);
  } else {
    if (path.size() <= root.size() + 1 || path.compare(0, root.size(), root) != 0 ||
        path[root.size()] != '/') {
      return false;
    }
    *relative = path.substr(root.size() + 1);
  }
  return !relative->empty() && *relative != ".";
}

// The entries of a playlist that are items of the folder. Each is resolved like any ID, through
// the listings, so an entry that leaves the folder, names a hidden file or passes a link leads
// nowhere. Kept per playlist until the file or the tree changes.
std::vector<std::pair<uint32_t, std::string>> PlaylistItemsOf(const Object& playlist) {
  upnp_stat info{};
  if (upnp_file_stat(playlist.path.c_str(), &info) != 0) return {};
  const uint32_t update_id = SystemUpdateId();
  Shared& state = State();
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    const auto found = state.playlists.find(playlist.path);
    if (found != state.playlists.end() && found->second.size == info.size &&
        found->second.modified == info.mtime && found->second.update_id == update_id) {
      return found->second.items;
    }
  }
  std::vector<std::pair<uint32_t, std::string>> items;
  std::vector<Object> resolved;
  const std::string folder = Folder();
  if (upnp_playlist* list = upnp_playlist_read(playlist.path.c_str())) {
    for (uint32_t i = 0; i < list->count; ++i) {
      std::string relative;
      Object item;
      if (list->entries[i].kind == UPNP_PLAYLIST_ENTRY_FILE &&
          RelativeInside(folder, list->entries[i].location, &relative) &&
          FindObject(IdOfRelativePath(relative), &item, false) && !item.container) {
        items.emplace_back(i, item.id);
        resolved.push_back(std::move(item));
      }
    }
    upnp_playlist_free(list);
  }
  RememberListed(resolved);  // resolved through the listings: their next look is a status read
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.playlists.size() >= kMaxCachedPlaylists) state.playlists.clear();
  state.playlists[playlist.path] = Shared::PlaylistItems{info.size, info.mtime, update_id, items};
  return items;
}

}  // namespace

}  // namespace mediaserver
