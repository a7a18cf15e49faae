// SPDX-License-Identifier: Apache-2.0
// Raw file calls, the directory search handle and disk space.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/status.h"
#include "platform/file_handle.h"
#include "platform/fs_internal.h"
#include "tarnwick/platform.h"

// The 64-bit variants keep sizes, offsets and inode numbers beyond 32 bits right on 32-bit ARM,
// where the plain calls use 32-bit fields (and readdir fails with EOVERFLOW on such entries).
#ifndef O_LARGEFILE
#define O_LARGEFILE 0
#endif

struct upnp_find_handle {
  DIR* dir;
  char* base;  // owned; the searched path without one trailing '/'
  char* path;  // owned; "<base>/<name>" of the current entry
  char* name;  // owned
  int32_t is_dir;
  int32_t is_link;
};

namespace tw::platform {
namespace {

void FillStat(const struct stat64& st, upnp_stat* record) noexcept {
  record->size = static_cast<uint64_t>(st.st_size);
  record->mtime = static_cast<int64_t>(st.st_mtime);
  record->mode = static_cast<uint32_t>(st.st_mode);
}

constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirMode = 0777;
constexpr size_t kMaxEntryPath = 2048;
constexpr size_t kKiB = 1024;

bool Skipped(const char* name) {
  // Covers ".", ".." and every other hidden name.
  return name[0] == '.' || std::strcmp(name, "lost+found") == 0;
}

char* DupText(const char* text) { return upnp_strdup_impl(text); }

}  // namespace

void FindClose(upnp_find_handle* handle) noexcept {
  if (handle->dir != nullptr) closedir(handle->dir);
  if (handle->base != nullptr) upnp_free_impl(handle->base);
  if (handle->path != nullptr) upnp_free_impl(handle->path);
  if (handle->name != nullptr) upnp_free_impl(handle->name);
  upnp_free_impl(handle);
}

upnp_find_handle* FindNext(upnp_find_handle* handle) noexcept {
  for (;;) {
    dirent64* entry = readdir64(handle->dir);
    if (entry == nullptr) break;
    if (Skipped(entry->d_name)) continue;
    char full[kMaxEntryPath];
    std::snprintf(full, sizeof full, "%s%c%s", handle->base, '/', entry->d_name);
    char* path = DupText(full);
    char* name = DupText(entry->d_name);
    if (path == nullptr || name == nullptr) {
      if (path != nullptr) upnp_free_impl(path);
      if (name != nullptr) upnp_free_impl(name);
      break;  // out of memory ends the listing like its end does
    }
    struct stat64 st;
    handle->is_link = lstat64(full, &st) == 0 && S_ISLNK(st.st_mode) ? 1 : 0;
    handle->is_dir = stat64(full, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
    if (handle->path != nullptr) upnp_free_impl(handle->path);
    if (handle->name != nullptr) upnp_free_impl(handle->name);
    handle->path = path;
    handle->name = name;
    return handle;
  }
  FindClose(handle);
  return nullptr;
}

upnp_find_handle* FindFirst(const char* path) noexcept {
  if (std::strncmp(path, "/proc", 5) == 0) return nullptr;
  const size_t length = std::strlen(path);
  char* open_path = static_cast<char*>(upnp_malloc_impl(length + 3));
  if (open_path == nullptr) return nullptr;
  std::snprintf(open_path, length + 3, "%s/.", path);
  DIR* dir = opendir(open_path);
  upnp_free_impl(open_path);
  if (dir == nullptr) return nullptr;
  auto* handle = static_cast<upnp_find_handle*>(upnp_calloc_impl(1, sizeof(upnp_find_handle)));
  if (handle == nullptr) {
    closedir(dir);
    return nullptr;
  }
  handle->dir = dir;
  handle->base = DupText(path);
  if (handle->base == nullptr) {
    FindClose(handle);
    return nullptr;
  }
  if (length > 0 && handle->base[length - 1] == '/') handle->base[length - 1] = '\0';
  return FindNext(handle);
}

uint64_t KilobytesOf(uint64_t block_size, uint64_t blocks) noexcept {
  return block_size / kKiB * blocks;
}

int32_t DiskInfo(const char* path, uint64_t* total_kb, uint64_t* free_kb) noexcept {
  struct statfs64 fs;
  if (statfs64(path, &fs) != 0) return tw::kSysFail;
  const auto block_size = static_cast<uint64_t>(fs.f_bsize);
  *total_kb = KilobytesOf(block_size, static_cast<uint64_t>(fs.f_blocks));
  *free_kb = KilobytesOf(block_size, static_cast<uint64_t>(fs.f_bavail));
  return 0;
}

int32_t Touch(const char* path, int64_t time) noexcept {
  if (time == 0) return utimensat(AT_FDCWD, path, nullptr, 0);
  timespec times[2] = {};
  times[0].tv_sec = static_cast<time_t>(time);
  if (static_cast<int64_t>(times[0].tv_sec) != time) return kSysFail;  // beyond a 32-bit time_t
  times[1] = times[0];
  return utimensat(AT_FDCWD, path, times, 0);
}

int32_t StatDescriptor(int32_t fd, upnp_stat* record) noexcept {
  struct stat64 st;
  const int rc = fstat64(fd, &st);
  if (rc != 0) return rc;
  FillStat(st, record);
  return 0;
}

int64_t ReadAt(const upnp_file* handle, void* buffer, uint32_t length, int64_t offset) noexcept {
  if (handle == nullptr || buffer == nullptr || offset < 0) return tw::kSysFail;
  for (;;) {
    const ssize_t n = pread64(handle->descriptor, buffer, length, static_cast<off64_t>(offset));
    if (n >= 0 || errno != EINTR) return n;
  }
}

}  // namespace tw::platform

extern "C" {

TW_API int32_t open_read(const char* path) noexcept {
  if (path == nullptr) return tw::kSysFail;
  return open(path, O_RDONLY | O_LARGEFILE);
}

TW_API int32_t open_write(const char* path) noexcept {
  if (path == nullptr) return tw::kSysFail;
  return open(path, O_WRONLY | O_CREAT | O_LARGEFILE, tw::platform::kFileMode);
}

TW_API int32_t open_append(const char* path) noexcept {
  if (path == nullptr) return tw::kSysFail;
  return open(path, O_RDWR | O_CREAT | O_APPEND | O_LARGEFILE, tw::platform::kFileMode);
}

TW_API int32_t close_file(int32_t fd) noexcept { return close(fd); }

TW_API upnp_file* upnp_open_shared_write(const char* path) noexcept {
  if (path == nullptr) return nullptr;
  const int fd = open(path, O_WRONLY | O_CREAT | O_LARGEFILE, tw::platform::kFileMode);
  if (fd < 0) return nullptr;
  auto* handle = static_cast<upnp_file*>(upnp_calloc_impl(1, sizeof(upnp_file)));
  if (handle == nullptr) {
    close(fd);
    return nullptr;
  }
  handle->descriptor = fd;
  return handle;
}

TW_API int32_t upnp_file_read(upnp_file* handle, void* buffer, uint32_t length) noexcept {
  if (handle == nullptr) return tw::kSysFail;
  const ssize_t n = read(handle->descriptor, buffer, length);
  if (n > 0) handle->position += static_cast<uint64_t>(n);
  return static_cast<int32_t>(n);
}

TW_API int32_t upnp_file_write(upnp_file* handle, const void* buffer, uint32_t length) noexcept {
  if (handle == nullptr) return tw::kSysFail;
  return static_cast<int32_t>(write(handle->descriptor, buffer, length));
}

TW_API int64_t upnp_file_seek(upnp_file* handle, int64_t offset, int32_t whence) noexcept {
  if (handle == nullptr) return tw::kSysFail;
  const off64_t position = lseek64(handle->descriptor, static_cast<off64_t>(offset), whence);
  if (position < 0) return tw::kSysFail;
  handle->position = static_cast<uint64_t>(position);
  return static_cast<int64_t>(position);
}

TW_API int32_t upnp_file_flush(upnp_file* handle) noexcept {
  if (handle == nullptr) return tw::kSysFail;
  return fsync(handle->descriptor);
}

TW_API int32_t upnp_file_stat(const char* path, upnp_stat* record) noexcept {
  if (path == nullptr || record == nullptr) return tw::kSysFail;
  struct stat64 st;
  const int rc = stat64(path, &st);
  if (rc != 0) return rc;
  tw::platform::FillStat(st, record);
  return 0;
}

TW_API int32_t upnp_file_get_stat(const upnp_file* handle, upnp_stat* record) noexcept {
  if (handle == nullptr || record == nullptr || handle->descriptor < 0) return tw::kSysFail;
  record->size = handle->size;
  record->mtime = handle->mtime;
  record->mode = handle->mode;
  return 0;
}

TW_API int32_t upnp_file_touch(const char* path, int64_t time) noexcept {
  if (path == nullptr) return tw::kSysFail;
  return tw::platform::Touch(path, time);
}

TW_API int32_t upnp_file_mkdir(const char* path) noexcept {
  if (path == nullptr) return tw::kSysFail;
  return mkdir(path, tw::platform::kDirMode);
}

TW_API int32_t upnp_file_rename(const char* from, const char* to) noexcept {
  if (from == nullptr || to == nullptr) return tw::kSysFail;
  return rename(from, to);
}

TW_API int32_t upnp_file_unlink(const char* path) noexcept {
  if (path == nullptr) return tw::kSysFail;
  return unlink(path);
}

TW_API int32_t upnp_dir_unlink(const char* path) noexcept {
  if (path == nullptr) return tw::kSysFail;
  return rmdir(path);
}

TW_API void to_unix_path(char* path) noexcept {
  if (path == nullptr) return;
  for (char* p = path; *p != '\0'; ++p) {
    if (*p == '\\') *p = '/';
  }
}

TW_API upnp_find_handle* upnp_file_find_first_file(const char* path) noexcept {
  if (path == nullptr) return nullptr;
  return tw::platform::FindFirst(path);
}

TW_API upnp_find_handle* upnp_file_find_next_file(upnp_find_handle* handle) noexcept {
  if (handle == nullptr) return nullptr;
  return tw::platform::FindNext(handle);
}

TW_API void upnp_file_find_close(upnp_find_handle* handle) noexcept {
  if (handle != nullptr) tw::platform::FindClose(handle);
}

TW_API const char* upnp_file_find_get_path(const upnp_find_handle* handle) noexcept {
  return handle != nullptr ? handle->path : nullptr;
}

TW_API const char* upnp_file_find_get_name(const upnp_find_handle* handle) noexcept {
  return handle != nullptr ? handle->name : nullptr;
}

TW_API int32_t upnp_file_find_is_dir(const upnp_find_handle* handle) noexcept {
  return handle != nullptr ? handle->is_dir : 0;
}

TW_API int32_t upnp_file_find_is_link(const upnp_find_handle* handle) noexcept {
  return handle != nullptr ? handle->is_link : 0;
}

TW_API int32_t upnp_get_disk_info(const char* path, uint64_t* total_kb,
                                  uint64_t* free_kb) noexcept {
  if (path == nullptr || total_kb == nullptr || free_kb == nullptr) {
    return tw::kStatusInvalidArgument;
  }
  return tw::platform::DiskInfo(path, total_kb, free_kb) == 0 ? tw::kStatusOk : tw::kStatusNotFound;
}

TW_API int32_t getdiskinfo(const char* path, uint64_t* total_kb, uint64_t* free_kb) noexcept {
  if (total_kb != nullptr) *total_kb = 0;
  if (free_kb != nullptr) *free_kb = 0;
  if (path == nullptr || path[0] == '\0') return tw::kSysFail;
  uint64_t total = 0;
  uint64_t free_space = 0;
  if (tw::platform::DiskInfo(path, &total, &free_space) != 0) return tw::kSysFail;
  if (total_kb != nullptr) *total_kb = total;
  if (free_kb != nullptr) *free_kb = free_space;
  return 0;
}

}  // extern "C"
