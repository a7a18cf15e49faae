// SPDX-License-Identifier: Apache-2.0
// Entries for the buffered binary and bit reader.
#include <climits>

#include "base/status.h"
#include "media/reader.h"
#include "tarnwick/media.h"

namespace {

constexpr uint32_t kMaxBitsPerCall = 16;

}  // namespace

extern "C" {

TW_API upnp_file_b* upnp_file_open_read_b(const char* path, uint32_t buffer_size) noexcept {
  if (path == nullptr || buffer_size == 0) return nullptr;
  return tw::media::OpenReader(path, buffer_size);
}

TW_API void upnp_file_close_b(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return;
  tw::media::CloseReader(reader);
}

TW_API int32_t upnp_file_read_b(upnp_file_b* reader, void* buffer, uint32_t count) noexcept {
  if (reader == nullptr || (buffer == nullptr && count > 0)) return tw::kSysFail;
  if (count > static_cast<uint32_t>(INT32_MAX)) count = static_cast<uint32_t>(INT32_MAX);
  return static_cast<int32_t>(tw::media::ReadBytes(reader, static_cast<uint8_t*>(buffer), count));
}

TW_API int32_t upnp_file_read_byte(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return tw::kSysFail;
  return tw::media::ReadByte(reader);
}

TW_API int32_t upnp_file_read_line_b(upnp_file_b* reader, char* buffer, uint32_t size) noexcept {
  if (buffer != nullptr && size > 0) buffer[0] = '\0';
  if (reader == nullptr || buffer == nullptr || size < 2) return tw::kSysFail;
  return tw::media::ReadLine(reader, buffer, size);
}

TW_API int64_t upnp_file_tell_b(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return tw::kSysFail;
  return tw::media::Tell(reader);
}

TW_API int upnp_file_eof_b(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return 1;
  return tw::media::Tell(reader) >= static_cast<int64_t>(reader->file->size) ? 1 : 0;
}

TW_API int64_t upnp_file_seek_b(upnp_file_b* reader, int64_t offset, int32_t whence) noexcept {
  if (reader == nullptr) return tw::kSysFail;
  return tw::media::Seek(reader, offset, whence);
}

TW_API uint16_t upnp_file_read_word(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return 0;
  return static_cast<uint16_t>(tw::media::ReadLittleEndian(reader, 2));
}

TW_API uint32_t upnp_file_read_dword(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return 0;
  return static_cast<uint32_t>(tw::media::ReadLittleEndian(reader, 4));
}

TW_API uint64_t upnp_file_read_qword(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return 0;
  return tw::media::ReadLittleEndian(reader, 8);
}

TW_API uint16_t upnp_file_read_word_be(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return 0;
  return static_cast<uint16_t>(tw::media::ReadBigEndian(reader, 2));
}

TW_API uint32_t upnp_file_read_dword_be(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return 0;
  return static_cast<uint32_t>(tw::media::ReadBigEndian(reader, 4));
}

TW_API uint64_t upnp_file_read_qword_be(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return 0;
  return tw::media::ReadBigEndian(reader, 8);
}

TW_API uint32_t upnp_file_read_bit(upnp_file_b* reader) noexcept {
  if (reader == nullptr) return 0;
  return tw::media::ReadBit(reader);
}

TW_API uint32_t upnp_file_read_nbits(upnp_file_b* reader, uint32_t n) noexcept {
  if (reader == nullptr || n > kMaxBitsPerCall) return 0;
  return tw::media::ReadBits(reader, n);
}

}  // extern "C"
