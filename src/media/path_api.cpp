// SPDX-License-Identifier: Apache-2.0
// Entries for path texts and directory trees.
#include "media/path.h"
#include "platform/file_handle.h"
#include "tarnwick/media.h"

namespace {

bool Empty(const char* s) { return s == nullptr || s[0] == '\0'; }

}  // namespace

extern "C" {

TW_API char* upnp_file_fullpath(const char* path) noexcept {
  if (path == nullptr) return nullptr;
  return tw::media::FullPath(path);
}

TW_API char* upnp_file_build_path(const char* dir, const char* name) noexcept {
  if (Empty(dir) || Empty(name)) return nullptr;
  return tw::media::BuildPath(dir, name);
}

TW_API void upnp_file_split_path(const char* path, char** dir, char** name) noexcept {
  if (dir != nullptr) *dir = nullptr;
  if (name != nullptr) *name = nullptr;
  if (path == nullptr) return;
  tw::media::SplitPath(path, dir, name);
}

TW_API int upnp_file_create_path(const char* path) noexcept {
  if (Empty(path)) return -1;
  return tw::platform::CreatePath(path);
}

TW_API int upnp_file_ensure_path_exists(const char* path) noexcept {
  if (Empty(path)) return -1;
  if (tw::media::Exists(path)) return 0;
  return tw::platform::CreatePath(path);
}

TW_API int upnp_is_file(const char* path) noexcept {
  if (path == nullptr) return 0;
  return tw::media::IsRegularFile(path) ? 1 : 0;
}

TW_API int upnp_file_exists(const char* path) noexcept {
  if (path == nullptr) return 0;
  return tw::media::Exists(path) ? 1 : 0;
}

TW_API void upnp_file_empty_dir(const char* dir) noexcept {
  if (Empty(dir)) return;
  tw::media::EmptyDir(dir);
}

TW_API void upnp_file_remove_dir_tree(const char* dir) noexcept {
  if (Empty(dir)) return;
  tw::media::RemoveTree(dir, false);
}

TW_API void upnp_file_remove_dir_sub_tree(const char* dir) noexcept {
  if (Empty(dir)) return;
  tw::media::RemoveTree(dir, true);
}

TW_API void upnp_file_remove_dir_tree_background(const char* dir) noexcept {
  if (Empty(dir)) return;
  tw::media::RemoveTreeInBackground(dir);
}

}  // extern "C"
