// SPDX-License-Identifier: Apache-2.0
// Entries for plain files.
#include "media/file.h"
#include "tarnwick/media.h"

extern "C" {

TW_API upnp_file* upnp_file_open_read(const char* path) noexcept {
  if (path == nullptr) return nullptr;
  return tw::media::OpenFile(path, tw::media::OpenMode::kRead);
}

// A null path is passed on: the failure is logged with "(NULL)".
TW_API upnp_file* upnp_file_open_write(const char* path) noexcept {
  return tw::media::OpenFile(path, tw::media::OpenMode::kWrite);
}

TW_API upnp_file* upnp_file_open_append(const char* path) noexcept {
  if (path == nullptr) return nullptr;
  return tw::media::OpenFile(path, tw::media::OpenMode::kAppend);
}

TW_API void upnp_file_close(upnp_file* handle) noexcept {
  if (handle == nullptr) return;
  tw::media::ReleaseFile(handle, true);
}

TW_API void upnp_file_keep_open(upnp_file* handle) noexcept {
  if (handle == nullptr) return;
  tw::media::ReleaseFile(handle, false);
}

TW_API int upnp_file_eof(upnp_file* handle) noexcept {
  if (handle == nullptr) return 1;
  return tw::media::AtEof(handle) ? 1 : 0;
}

TW_API char* upnp_file_gets(char* buffer, int32_t size, upnp_file* handle) noexcept {
  if (buffer == nullptr || handle == nullptr || size < 2) return nullptr;
  return tw::media::GetLine(buffer, size, handle);
}

TW_API int upnp_file_copy(const char* source, const char* destination) noexcept {
  if (source == nullptr || destination == nullptr) return -1;
  return tw::media::CopyFile(source, destination);
}

}  // extern "C"
