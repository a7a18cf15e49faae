// SPDX-License-Identifier: Apache-2.0
// The file handle shared by the raw file wrappers (platform/) and the file layer (media/).
// Allocated cleared from the accounted allocator and freed by upnp_file_close.
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
  uint64_t size;       // from stat at open time
  uint64_t position;   // kept up to date by reads and seeks; logical for multi-part files
  upnp_file_part* parts;
  upnp_file_part* current_part;
};
