// SPDX-License-Identifier: Apache-2.0
// The shared folder seen as ContentDirectory objects. Folders are containers, media files
// (audio, video, pictures) items, and playlist files (.wpl, .zpl, .m3u, .m3u8, .pls) playlist
// containers whose children are their entries that are items of the folder, in playlist order;
// hidden entries and other files are not shown.
//
// Object IDs: "0" is the shared folder itself; every other object's ID is the lower-case hex
// of its path relative to the folder ("Music/a.mp3" is "4d757369632f612e6d7033"). IDs are
// therefore stable across restarts, never contain characters that need escaping in XML, URLs
// or the DLNA markers of resource URLs, and are checked component by component when resolved:
// "..", ".", empty components, NUL and backslashes are refused, and each component must be an
// entry a listing shows (an ID a listing handed out since the tree last changed is taken as
// shown), so no ID names a file outside the folder. An entry of a playlist has the ID of the
// playlist, a '.' and the entry's position in the playlist file ("<hex>.3"), and refers to the
// item itself (refID); its resource is the item's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media_probe.h"
#include "tarnwick/platform.h"

namespace mediaserver {

constexpr char kRootId[] = "0";
constexpr char kRootParentId[] = "-1";

struct Object {
  std::string id;
  std::string parent_id;  // kRootParentId for the root
  std::string title;      // folders: the name (the root: the server's name); items: the name
                          // without its extension
  std::string path;       // where it is on disk
  bool container = false;
  int64_t size = 0;                 // items: bytes
  int64_t modified = 0;             // seconds since 1970 (UTC)
  int32_t child_count = 0;          // containers: the objects ListChildren gives
  const char* mime_type = nullptr;  // items: from the library's MIME table (static text)
  MediaInfo media;                  // items: what the header says (cached)
  bool playlist = false;            // containers: a playlist file
  std::string ref_id;               // entries of a playlist: the ID of the item itself
};

// Sets the shared folder (before the servers start).
void SetSharedFolder(const std::string& folder, const std::string& root_title);

// The object with this ID; false when the ID is malformed, tries to leave the folder, or names
// nothing that is shown. Counting a container's children means listing it: a caller that is
// about to list it anyway passes count_children false (child_count is then 0).
bool FindObject(const std::string& id, Object* out, bool count_children = true);

// The two halves of resolving an item for a fetch, so that the caller decides how the file's
// status is had (from a file it opens, or one it holds open already):
// the path of the item an ID names, resolved as FindObject resolves it (false: no such item);
bool ItemPathOfId(const std::string& id, std::string* path);
// and the item's object from that file's status (false: not a shown item).
bool ItemOfStatus(const std::string& id, const upnp_stat& info, Object* out);

// The children of a container: containers first, then items, each group by name. False when
// the object is not a container or the folder cannot be read.
bool ListChildren(const Object& container, std::vector<Object>* out);

// Every item below a container, depth first, at most `limit` of them (Search).
void ListItemsBelow(const Object& container, size_t limit, std::vector<Object>* out);

// The ContentDirectory's SystemUpdateID: starts at 1 and grows whenever CheckForChanges sees
// the shared tree change.
uint32_t SystemUpdateId();

// Compares the modification times of the shared folders with the last look; true (and a new
// SystemUpdateID) when something changed. Cheap enough to call every few seconds.
bool CheckForChanges();

// The hex ID of a relative path and back (exposed for the tests).
std::string IdOfRelativePath(const std::string& relative);
bool RelativePathOfId(const std::string& id, std::string* relative);

}  // namespace mediaserver
