// SPDX-License-Identifier: Apache-2.0
// Buffered reader for binary media formats, with a bit reader on top.
#pragma once

#include <cstdint>

#include "platform/file_handle.h"

// Invariant: the buffer holds the file bytes just before the file's position; offset + available is
// the number of bytes the last refill (or a seek inside the buffer) left in it.
struct upnp_file_b {
  upnp_file* file;
  uint8_t* buffer;       // owned, buffer_size bytes
  uint32_t buffer_size;  // fixed at open
  uint32_t offset;       // next byte to hand out
  uint32_t available;    // bytes left behind offset
  uint32_t bit_word;     // bits not yet consumed, most significant first
  int32_t bit_count;     // valid bits in bit_word
};

namespace tw::media {

// buffer_size > 0. Null when the open fails or memory is short.
upnp_file_b* OpenReader(const char* path, uint32_t buffer_size) noexcept;
void CloseReader(upnp_file_b* reader) noexcept;
uint32_t ReadBytes(upnp_file_b* reader, uint8_t* out, uint32_t count) noexcept;
// 0..255, or -1 at the end of the file.
int32_t ReadByte(upnp_file_b* reader) noexcept;
// size >= 2; the length stored, or -1 when the file ended before any byte was stored.
int32_t ReadLine(upnp_file_b* reader, char* out, uint32_t size) noexcept;
int64_t Tell(const upnp_file_b* reader) noexcept;
int64_t Seek(upnp_file_b* reader, int64_t offset, int32_t whence) noexcept;
// width bytes (at most 8) as one number; bytes past the end count as 0.
uint64_t ReadLittleEndian(upnp_file_b* reader, uint32_t width) noexcept;
uint64_t ReadBigEndian(upnp_file_b* reader, uint32_t width) noexcept;
uint32_t ReadBit(upnp_file_b* reader) noexcept;
// n <= 16.
uint32_t ReadBits(upnp_file_b* reader, uint32_t n) noexcept;

}  // namespace tw::media
