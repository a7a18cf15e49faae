// SPDX-License-Identifier: Apache-2.0
// What a media file's own header says about it: the duration of audio and video, the size of a
// picture. Read with the library's buffered binary reader; nothing is decoded.
#pragma once

#include <cstdint>

namespace mediaserver {

enum class MediaKind { kOther, kAudio, kVideo, kImage };

struct MediaInfo {
  MediaKind kind = MediaKind::kOther;
  int64_t duration_ms = 0;  // audio and video; 0 when the header does not give it
  int32_t width = 0;        // pictures, and video when the header gives it; 0 unknown
  int32_t height = 0;
  int32_t sample_rate = 0;  // audio, in Hz; 0 unknown
  int32_t channels = 0;
  int32_t bits_per_sample = 0;
  int64_t bitrate = 0;  // bytes per second (the unit of DIDL-Lite's res@bitrate); 0 unknown
};

// The kind a MIME type of the library's table stands for ("audio/..." is audio, "image/..." a
// picture, "video/..." and the MPEG transport types video); kOther for the rest and for null.
MediaKind KindOfMimeType(const char* mime_type);

// Reads the header of the file at `path`. The kind comes from `mime_type`; the other fields
// from the header of WAV, MP3, MP4/M4A/MOV, JPEG and PNG files. A file that is not what its
// name says, is truncated or hostile gives zeros, never a crash; at most a bounded number of
// bytes is read.
MediaInfo ProbeMedia(const char* path, const char* mime_type);

}  // namespace mediaserver
