// SPDX-License-Identifier: Apache-2.0
// The MIME types the server announces per file name extension. Row order matters: every lookup
// takes the first match, so "video/mpeg" answers for "video/mpeg2" texts and the first
// "audio/x-wav" row shadows the second. The texts are kept exactly as clients have seen them,
// the leading space of the XML row included.
#include "http/mime_table.h"

#include <cstddef>
#include <cstring>
#include <string_view>

#include "tarnwick/util.h"

namespace tw::http {
namespace {

constexpr size_t kMaxExtensions = 13;

// Every view is made from a string literal, so data() is NUL-terminated and can be handed out.
struct MimeRow {
  std::string_view type;
  std::string_view extensions[kMaxExtensions];
};

constexpr MimeRow kMimeTable[] = {
    {"text/plain; charset=utf-8", {"txt"}},
    {"text/html; charset=utf-8", {"htm", "html"}},
    {"audio/mpeg", {"mp3"}},
    {"audio/MPA", {"mpa"}},
    {"audio/x-mpeg", {"mp2"}},
    {"audio/mp1", {"mp1"}},
    {"audio/x-ms-wma", {"wma"}},
    {"audio/L16", {"lpcm", "pcm"}},
    {"audio/x-wav", {"wav"}},
    {"image/jpeg", {"jpg", "jpeg"}},
    {"image/tiff", {"tif", "tiff"}},
    {"image/gif", {"gif"}},
    {"image/png", {"png"}},
    {"audio/x-mpegurl", {"m3u"}},
    {"image/x-ycbcr-yuv420", {"yuv"}},
    {"video/x-msvideo", {"avi", "divx"}},
    {"video/mpeg",
     {"mpg", "mpe", "m1v", "vob", "mts", "m2ts", "m2t", "m2p", "m2v", "mp2t", "mp2p", "mpg2",
      "mod"}},
    {"video/mpeg2", {"mpeg", "mpeg2", "vdr", "spts", "tp", "ts", "tts"}},
    {"video/mp4", {"mp4", "m4v"}},
    {"video/quicktime", {"mov"}},
    {"video/x-ms-wmv", {"wmv"}},
    {"audio/mp4", {"m4a", "mp4.a", "3gp.a", "m4b"}},
    {"audio/x-aac", {"aac", "apl"}},
    {"audio/x-ac3", {"ac3"}},
    {"video/x-ms-asf", {"asf"}},
    {"audio/x-aiff", {"aif", "aiff"}},
    {"audio/x-flac", {"flac"}},
    {"application/ogg", {"ogg"}},
    {"text/css", {"css"}},
    {"text/javascript", {"js"}},
    {"image/bmp", {"bmp"}},
    {"video/x-ms-dvr", {"dvr-ms"}},
    {"video/x-xvid", {"xvid"}},
    {"application/x-shockwave-flash", {"swf"}},
    {"video/flv", {"flv"}},
    {" text/xml; charset=\"utf-8\"", {"xml"}},
    {"audio/amr", {"amr"}},
    {"audio/amr-wb", {"awb"}},
    {"video/x-matroska", {"mkv"}},
    {"audio/x-matroska", {"mka"}},
    {"audio/x-wav", {"wav"}},
    {"video/3gpp", {"3gp", "3gpp"}},
    {"application/vnd.ms-wpl", {"wpl"}},
    {"application/x-srt", {"srt"}},
    {"application/x-sub", {"sub"}},
    {"application/x-ssa", {"ssa"}},
    {"application/smil", {"smi"}},
    {"application/x-psb", {"psb"}},
    {"application/x-ass", {"ass"}},
    {"video/vnd.dlna.mpeg-tts", {"mpg-tts", "dtcp"}},
    // The fallback type ends the table; it lists no extension.
    {kOctetStream, {}},
};
static_assert(sizeof(kMimeTable) / sizeof(kMimeTable[0]) == 51, "MIME table has 51 rows");
static_assert(kMimeTable[sizeof(kMimeTable) / sizeof(kMimeTable[0]) - 1].extensions[0].empty(),
              "the fallback row lists no extension");

bool EqualsNoCase(std::string_view a, const char* b) noexcept {
  size_t i = 0;
  for (; i < a.size(); ++i) {
    if (b[i] == '\0' || upnp_tolower(static_cast<unsigned char>(a[i])) !=
                            upnp_tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return b[i] == '\0';
}

const MimeRow* RowContainedIn(const char* text) noexcept {
  for (const MimeRow& row : kMimeTable) {
    if (std::strstr(text, row.type.data()) != nullptr) return &row;
  }
  return nullptr;
}

}  // namespace

const char* MimeTypeOf(const char* extension) noexcept {
  for (const MimeRow& row : kMimeTable) {
    for (std::string_view ext : row.extensions) {
      if (ext.empty()) break;
      if (EqualsNoCase(ext, extension)) return row.type.data();
    }
  }
  return kOctetStream;
}

const char* ExtensionOfMimeType(const char* text) noexcept {
  const MimeRow* row = RowContainedIn(text);
  if (row == nullptr) return nullptr;
  return row->extensions[0].empty() ? "" : row->extensions[0].data();
}

bool IsKnownMimeType(const char* text) noexcept { return RowContainedIn(text) != nullptr; }

const char* FileExtension(const char* file_name) noexcept {
  const char* dot = std::strrchr(file_name, '.');
  return dot == nullptr ? nullptr : dot + 1;
}

}  // namespace tw::http
