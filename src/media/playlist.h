// SPDX-License-Identifier: Apache-2.0
// Playlists: WPL, M3U and PLS read into upnp_playlist records, WPL and extended M3U written.
// The functions may throw std::bad_alloc from accounted containers; the entries wrap them.
#pragma once

#include <cstdint>
#include <string_view>

#include "tarnwick/media.h"

namespace tw::media {

// By the extension of path: UPNP_PLAYLIST_* (UNKNOWN when none of the known ones).
int32_t PlaylistFormatOfName(std::string_view path) noexcept;
upnp_playlist* ParsePlaylist(std::string_view text, int32_t format, const char* base_dir);
upnp_playlist* ReadPlaylist(const char* path);
upnp_playlist* NewPlaylist(const char* title);
bool AddPlaylistEntry(upnp_playlist* list, const char* src, const char* title, int32_t duration);
upnp_string* PlaylistToWpl(const upnp_playlist& list);
upnp_string* PlaylistToM3u(const upnp_playlist& list);
bool WritePlaylist(const upnp_playlist& list, const char* path, int32_t format);
void FreePlaylist(upnp_playlist* list) noexcept;

}  // namespace tw::media
