// SPDX-License-Identifier: Apache-2.0
// Media files that may be stored as several consecutive part files. The handle's position is the
// logical one: the raw reads keep adding to it across parts, and a seek sets it explicitly.
#include <climits>
#include <cstring>

#include "base/status.h"
#include "media/file.h"
#include "tarnwick/media.h"

namespace tw::media {

namespace {

constexpr int32_t kGrowingFileRetryMs = 50;

// Makes part the open one; false (descriptor -1) when its file cannot be opened.
bool SwitchTo(upnp_file* handle, upnp_file_part* part) {
  if (handle->descriptor != -1) close_file(handle->descriptor);
  handle->current_part = part;
  handle->descriptor = open_read(part->path);
  return handle->descriptor >= 0;
}

}  // namespace

upnp_file* OpenMediaFile(const char* path) noexcept {
  upnp_file* handle = OpenFile(path, OpenMode::kRead);
  if (handle == nullptr) return nullptr;
  handle->complete = 1;
  handle->position = 0;
  return handle;
}

int AddPart(upnp_file* handle, const char* path, uint64_t length) noexcept {
  auto* part = static_cast<upnp_file_part*>(upnp_calloc_impl(1, sizeof(upnp_file_part)));
  if (part == nullptr) return kStatusOutOfMemory;
  part->path = upnp_strdup_impl(path);
  if (part->path == nullptr) {
    upnp_free_impl(part);
    return kStatusOutOfMemory;
  }
  part->length = length;
  uint64_t total = length;
  if (handle->parts == nullptr) {
    handle->parts = part;
    // The handle was opened on the first part.
    handle->current_part = part;
  } else {
    upnp_file_part* last = handle->parts;
    total += last->length;
    while (last->next != nullptr) {
      last = last->next;
      total += last->length;
    }
    last->next = part;
  }
  handle->size = total;
  return kStatusOk;
}

int MediaStat(const char* path, upnp_stat* st) noexcept {
  const int result = upnp_file_stat(path, st);
  if (result == 0) return 0;
  upnp_file* handle = OpenMediaFile(path);
  if (handle == nullptr) return result;
  std::memset(st, 0, sizeof(*st));
  st->size = handle->size;
  ReleaseFile(handle, true);
  return 0;
}

int32_t MediaRead(upnp_file* handle, void* buffer, uint32_t count) noexcept {
  if (count > static_cast<uint32_t>(INT32_MAX)) count = static_cast<uint32_t>(INT32_MAX);
  char* out = static_cast<char*>(buffer);
  int32_t got = upnp_file_read(handle, out, count);
  if (got == 0 && handle->complete == 0 && count > 0) {
    // The file may still be growing (a recording in progress): give the writer one chance.
    Sleep(kGrowingFileRetryMs);
    got = upnp_file_read(handle, out, count);
  }
  if (got < 0) return -1;
  uint32_t done = static_cast<uint32_t>(got);
  // Every part is tried at most once, so the loop ends with the list.
  while (done < count && handle->current_part != nullptr && handle->current_part->next != nullptr) {
    if (!SwitchTo(handle, handle->current_part->next)) break;
    const int32_t more = upnp_file_read(handle, out + done, count - done);
    if (more < 0) break;
    done += static_cast<uint32_t>(more);
  }
  return static_cast<int32_t>(done);
}

int64_t MediaSeek(upnp_file* handle, int64_t offset, int32_t whence) noexcept {
  if (handle->parts == nullptr) return upnp_file_seek(handle, offset, whence);
  int64_t base = 0;
  switch (whence) {
    case UPNP_FILE_SEEK_SET:
      break;
    case UPNP_FILE_SEEK_CUR:
      base = static_cast<int64_t>(handle->position);
      break;
    case UPNP_FILE_SEEK_END:
      base = static_cast<int64_t>(handle->size);
      break;
    default:
      return -1;
  }
  int64_t target = 0;
  if (__builtin_add_overflow(base, offset, &target) || target < 0) return -1;
  // The part holding the target; a target at or past the end stays in the last part.
  uint64_t part_start = 0;
  upnp_file_part* part = handle->parts;
  while (part->next != nullptr && static_cast<uint64_t>(target) >= part_start + part->length) {
    part_start += part->length;
    part = part->next;
  }
  if (part != handle->current_part || handle->descriptor < 0) {
    if (!SwitchTo(handle, part)) return -1;
  }
  const int64_t inside = target - static_cast<int64_t>(part_start);
  if (upnp_file_seek(handle, inside, UPNP_FILE_SEEK_SET) < 0) return -1;
  handle->position = static_cast<uint64_t>(target);
  return target;
}

}  // namespace tw::media
