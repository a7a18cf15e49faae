// SPDX-License-Identifier: Apache-2.0
// Entries for media files (possibly stored as several part files).
#include "base/status.h"
#include "media/file.h"
#include "tarnwick/media.h"

extern "C" {

TW_API upnp_file* upnp_mediafile_open_read(const char* path) noexcept {
  if (path == nullptr) return nullptr;
  return tw::media::OpenMediaFile(path);
}

TW_API int upnp_mediafile_add_part(upnp_file* handle, const char* path, uint64_t length) noexcept {
  if (handle == nullptr || path == nullptr) return tw::kStatusInvalidArgument;
  return tw::media::AddPart(handle, path, length);
}

TW_API int upnp_mediafile_stat(const char* path, upnp_stat* stat) noexcept {
  if (path == nullptr || stat == nullptr) return tw::kSysFail;
  return tw::media::MediaStat(path, stat);
}

TW_API int32_t upnp_mediafile_read(upnp_file* handle, void* buffer, uint32_t count) noexcept {
  if (handle == nullptr || (buffer == nullptr && count > 0)) return tw::kSysFail;
  return tw::media::MediaRead(handle, buffer, count);
}

TW_API int64_t upnp_mediafile_seek(upnp_file* handle, int64_t offset, int32_t whence) noexcept {
  if (handle == nullptr) return tw::kSysFail;
  return tw::media::MediaSeek(handle, offset, whence);
}

}  // extern "C"
