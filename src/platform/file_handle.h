// SPDX-License-Identifier: Apache-2.0
// The file handle shared by the raw file wrappers (platform/), the log's file and the file layer
// (media/): its record, its opening and release, and the directory creation the log and the
// configuration need before they open a file. Allocated cleared from the accounted allocator and
// freed by upnp_file_close.
#pragma once

#include <cstdint>

#include "tarnwick/types.h"

// One part of a media file stored as consecutive part files.
struct upnp_file_part {
  char* path;       // owned
  uint64_t length;  // bytes in this part
  upnp_file_part* next;
};

struct upnp_file {
  int32_t descriptor;  // -1 when the open failed
  int32_t complete;    // 1 for media files; 0 lets an empty read retry once (growing files)
  uint64_t size;       // from the descriptor's status at open time (reads: logical size)
  int64_t mtime;       // the same status: modification time and mode (upnp_file_get_stat)
  uint32_t mode;
  uint64_t position;  // kept up to date by reads and seeks; logical for multi-part files
  upnp_file_part* parts;
  upnp_file_part* current_part;
};

namespace tw::platform {

enum class OpenMode { kRead, kWrite, kAppend };

// A cleared handle from the accounted allocator; null when the open fails or memory is short.
// kWrite logs both failures (a null path included).
upnp_file* OpenFile(const char* path, OpenMode mode) noexcept;
// Frees the part list and the handle; closes the descriptor only when close_descriptor.
void ReleaseFile(upnp_file* handle, bool close_descriptor) noexcept;

// Reads up to length bytes at offset of a single-part handle's descriptor (pread: the handle's
// position is left alone). The bytes read, 0 at the end, -1 on failure.
int64_t ReadAt(const upnp_file* handle, void* buffer, uint32_t length, int64_t offset) noexcept;

// Creates every missing directory along path ("/" or "\\" separators, an optional "x:" drive
// prefix): 0, or -1 when memory is short or a directory cannot be made, which is logged.
int CreatePath(const char* path) noexcept;

}  // namespace tw::platform
