// SPDX-License-Identifier: Apache-2.0
#include "media/file.h"

#include <cstring>

#include "tarnwick/log.h"
#include "tarnwick/media.h"

namespace tw::media {

namespace {

constexpr uint32_t kCopyBlock = 8192;

// A regular file may still take a write in several pieces.
bool WriteAll(upnp_file* out, const char* data, uint32_t count) {
  while (count > 0) {
    const int32_t put = upnp_file_write(out, data, count);
    if (put <= 0) return false;
    data += put;
    count -= static_cast<uint32_t>(put);
  }
  return true;
}

}  // namespace

bool AtEof(upnp_file* handle) noexcept {
  const int64_t pos = upnp_file_seek(handle, 0, UPNP_FILE_SEEK_CUR);
  return pos < 0 || static_cast<uint64_t>(pos) >= handle->size;
}

char* GetLine(char* buffer, int32_t size, upnp_file* handle) noexcept {
  std::memset(buffer, 0, static_cast<size_t>(size));
  // One byte is kept for the terminating NUL.
  const int32_t got = upnp_file_read(handle, buffer, static_cast<uint32_t>(size - 1));
  if (got <= 0) return nullptr;
  const void* lf = std::memchr(buffer, '\n', static_cast<size_t>(got));
  if (lf == nullptr) return buffer;
  const int32_t line = static_cast<int32_t>(static_cast<const char*>(lf) - buffer) + 1;
  // Give the bytes behind the line feed back to the file for the next call.
  if (line < got && upnp_file_seek(handle, line - got, UPNP_FILE_SEEK_CUR) < 0) return nullptr;
  buffer[line] = '\0';
  return buffer;
}

int CopyFile(const char* source, const char* destination) noexcept {
  upnp_file* in = OpenFile(source, OpenMode::kRead);
  if (in == nullptr) return -1;
  // The raw write open does not truncate; starting from a fresh file keeps a longer old destination
  // from leaving its tail behind. The source is already open, so copying a file onto itself still
  // reads the old bytes.
  upnp_file_unlink(destination);
  upnp_file* out = OpenFile(destination, OpenMode::kWrite);
  if (out == nullptr) {
    ReleaseFile(in, true);
    return -1;
  }
  char block[kCopyBlock];
  int result = 0;
  for (;;) {
    const int32_t got = upnp_file_read(in, block, kCopyBlock);
    if (got < 0) {
      result = -1;
      break;
    }
    if (!WriteAll(out, block, static_cast<uint32_t>(got))) {
      result = -1;
      break;
    }
    if (static_cast<uint32_t>(got) < kCopyBlock) break;
  }
  ReleaseFile(in, true);
  ReleaseFile(out, true);
  return result;
}

}  // namespace tw::media
