// SPDX-License-Identifier: Apache-2.0
// Media header probing (being written).
#include "media_probe.h"

#include <cstring>

namespace mediaserver {

MediaKind KindOfMimeType(const char* mime_type) {
  if (mime_type == nullptr) return MediaKind::kOther;
  if (std::strncmp(mime_type, "audio/", 6) == 0) return MediaKind::kAudio;
  if (std::strncmp(mime_type, "image/", 6) == 0) return MediaKind::kImage;
  if (std::strncmp(mime_type, "video/", 6) == 0) return MediaKind::kVideo;
  return MediaKind::kOther;
}

MediaInfo ProbeMedia(const char* /*path*/, const char* mime_type) {
  MediaInfo info;
  info.kind = KindOfMimeType(mime_type);
  return info;
}

}  // namespace mediaserver
