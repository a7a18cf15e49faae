// SPDX-License-Identifier: Apache-2.0
// The file layer over the raw platform calls: opening with a known size, line reads, copying, and
// media files stored as several consecutive part files.
#pragma once

#include <cstdint>

#include "platform/file_handle.h"
#include "tarnwick/platform.h"

namespace tw::media {

// The handle's opening and release live with the handle in platform/file_handle.h.
using platform::OpenFile;
using platform::OpenMode;
using platform::ReleaseFile;

bool AtEof(upnp_file* handle) noexcept;
// size >= 2.
char* GetLine(char* buffer, int32_t size, upnp_file* handle) noexcept;
int CopyFile(const char* source, const char* destination) noexcept;

upnp_file* OpenMediaFile(const char* path) noexcept;
// Status-style result: 0 or kStatusOutOfMemory.
int AddPart(upnp_file* handle, const char* path, uint64_t length) noexcept;
int MediaStat(const char* path, upnp_stat* st) noexcept;
int32_t MediaRead(upnp_file* handle, void* buffer, uint32_t count) noexcept;
int64_t MediaSeek(upnp_file* handle, int64_t offset, int32_t whence) noexcept;

}  // namespace tw::media
