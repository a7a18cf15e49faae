// SPDX-License-Identifier: Apache-2.0
// Opening and releasing file handles, and creating directory paths.
#include <cstring>

#include "platform/file_handle.h"
#include "platform/fs_internal.h"
#include "platform/log_hook.h"
#include "tarnwick/platform.h"

namespace tw::platform {
namespace {

void FreeParts(upnp_file* handle) {
  upnp_file_part* part = handle->parts;
  while (part != nullptr) {
    upnp_file_part* next = part->next;
    if (part->path != nullptr) upnp_free_impl(part->path);
    upnp_free_impl(part);
    part = next;
  }
  handle->parts = nullptr;
  handle->current_part = nullptr;
}

bool HasDrivePrefix(const char* path) { return path[0] != '\0' && path[1] == ':'; }

// stat, then mkdir when stat fails. A mkdir that fails because another thread made the directory in
// the meantime still counts as success: the caller only wants the directory to be there.
bool MakeIfMissing(const char* path) {
  upnp_stat st{};
  if (upnp_file_stat(path, &st) == 0) return true;
  if (upnp_file_mkdir(path) == 0) return true;
  if (upnp_file_stat(path, &st) == 0) return true;
  Log(UPNP_LOG_LEVEL_ERROR, UPNP_LOG_SYSTEM, "upnp_file_create_path: error creating directory: %s",
      path);
  return false;
}

}  // namespace

upnp_file* OpenFile(const char* path, OpenMode mode) noexcept {
  int32_t fd = -1;
  if (path != nullptr) {
    switch (mode) {
      case OpenMode::kRead:
        fd = open_read(path);
        break;
      case OpenMode::kWrite:
        fd = open_write(path);
        break;
      case OpenMode::kAppend:
        fd = open_append(path);
        break;
    }
  }
  if (fd < 0) {
    if (mode == OpenMode::kWrite) {
      Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SYSTEM, "upnp_file_open_write file open write error \"%s\"",
          path != nullptr ? path : "(NULL)");
    }
    return nullptr;
  }
  auto* handle = static_cast<upnp_file*>(upnp_calloc_impl(1, sizeof(upnp_file)));
  if (handle == nullptr) {
    close_file(fd);
    if (mode == OpenMode::kWrite) {
      // The trailing blank belongs to the fixed text.
      Log(UPNP_LOG_LEVEL_ERROR, UPNP_LOG_SYSTEM,
          "upnp_file_open_write Malloc fails on upnp_file_open_write ");
    }
    return nullptr;
  }
  handle->descriptor = fd;
  if (mode != OpenMode::kWrite) {
    // The descriptor's own status, not the path's: one system call, and it describes the file
    // this handle reads even when the path is replaced meanwhile.
    upnp_stat st{};
    if (StatDescriptor(fd, &st) == 0) {
      handle->size = st.size;
      handle->mtime = st.mtime;
      handle->mode = st.mode;
    }
  }
  return handle;
}

void ReleaseFile(upnp_file* handle, bool close_descriptor) noexcept {
  if (close_descriptor && handle->descriptor != -1) close_file(handle->descriptor);
  FreeParts(handle);
  upnp_free_impl(handle);
}

int CreatePath(const char* path) noexcept {
  char* text = upnp_strdup_impl(path);
  if (text == nullptr) return -1;
  to_unix_path(text);
  const size_t len = std::strlen(text);
  size_t start = 0;
  if (HasDrivePrefix(text)) start = (len > 2 && text[2] == '/') ? 3 : 2;
  // Each prefix ending before a '/' is one directory level; a leading '/' is the root.
  bool ok = true;
  for (size_t i = start + 1; i < len && ok; ++i) {
    if (text[i] != '/') continue;
    text[i] = '\0';
    ok = MakeIfMissing(text);
    text[i] = '/';
  }
  if (ok) ok = MakeIfMissing(text);
  upnp_free_impl(text);
  return ok ? 0 : -1;
}

}  // namespace tw::platform
