// SPDX-License-Identifier: Apache-2.0
// Entries for playlists: argument checks, and a memory shortage inside becomes the documented
// null or -1 result.
#include "media/playlist.h"
#include "platform/allocator.h"
#include "tarnwick/media.h"

extern "C" {

TW_API upnp_playlist* upnp_playlist_read(const char* path) noexcept {
  if (path == nullptr || path[0] == '\0') return nullptr;
  return tw::Guard<upnp_playlist*>(nullptr, [&] { return tw::media::ReadPlaylist(path); });
}

TW_API upnp_playlist* upnp_playlist_parse(const char* text, uint32_t length, int32_t format,
                                          const char* base_dir) noexcept {
  if (text == nullptr) return nullptr;
  if (format < UPNP_PLAYLIST_UNKNOWN || format > UPNP_PLAYLIST_PLS) format = UPNP_PLAYLIST_UNKNOWN;
  if (base_dir != nullptr && base_dir[0] == '\0') base_dir = nullptr;
  return tw::Guard<upnp_playlist*>(nullptr, [&] {
    return tw::media::ParsePlaylist(std::string_view(text, length), format, base_dir);
  });
}

TW_API upnp_playlist* upnp_playlist_new(const char* title) noexcept {
  return tw::Guard<upnp_playlist*>(nullptr, [&] { return tw::media::NewPlaylist(title); });
}

TW_API int32_t upnp_playlist_add_entry(upnp_playlist* list, const char* src, const char* title,
                                       int32_t duration) noexcept {
  if (list == nullptr || src == nullptr || src[0] == '\0') return -1;
  return tw::Guard<int32_t>(
      -1, [&] { return tw::media::AddPlaylistEntry(list, src, title, duration) ? 0 : -1; });
}

TW_API upnp_string* upnp_playlist_to_wpl(const upnp_playlist* list) noexcept {
  if (list == nullptr) return nullptr;
  return tw::Guard<upnp_string*>(nullptr, [&] { return tw::media::PlaylistToWpl(*list); });
}

TW_API upnp_string* upnp_playlist_to_m3u(const upnp_playlist* list) noexcept {
  if (list == nullptr) return nullptr;
  return tw::Guard<upnp_string*>(nullptr, [&] { return tw::media::PlaylistToM3u(*list); });
}

TW_API int32_t upnp_playlist_write(const upnp_playlist* list, const char* path,
                                   int32_t format) noexcept {
  if (list == nullptr || path == nullptr || path[0] == '\0') return -1;
  if (format != UPNP_PLAYLIST_WPL && format != UPNP_PLAYLIST_M3U) return -1;
  return tw::Guard<int32_t>(-1,
                            [&] { return tw::media::WritePlaylist(*list, path, format) ? 0 : -1; });
}

TW_API void upnp_playlist_free(upnp_playlist* list) noexcept { tw::media::FreePlaylist(list); }

}  // extern "C"
