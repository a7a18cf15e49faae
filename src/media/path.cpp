// SPDX-License-Identifier: Apache-2.0
#include "media/path.h"

#include <cstring>

#include "platform/allocator.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace tw::media {

namespace {

void RemoveEntries(const char* dir) {
  for (upnp_find_handle* h = upnp_file_find_first_file(dir); h != nullptr;
       h = upnp_file_find_next_file(h)) {
    const char* path = upnp_file_find_get_path(h);
    if (path == nullptr) continue;
    // A link is removed itself; descending through it would empty a directory elsewhere.
    if (upnp_file_find_is_dir(h) != 0 && upnp_file_find_is_link(h) == 0) {
      RemoveEntries(path);
      upnp_dir_unlink(path);
    } else {
      upnp_file_unlink(path);
    }
  }
}

void* RemoveTreeThread(void* arg) {
  char* dir = static_cast<char*>(arg);
  RemoveTree(dir, false);
  upnp_free_impl(dir);
  return nullptr;
}

}  // namespace

char* FullPath(std::string_view path) noexcept {
  char* copy = DupToC(path);
  if (copy != nullptr) to_unix_path(copy);
  return copy;
}

char* BuildPath(std::string_view dir, std::string_view name) noexcept {
  if (!dir.empty() && IsSeparator(dir.back())) dir.remove_suffix(1);
  if (!name.empty() && IsSeparator(name.front())) name.remove_prefix(1);
  const size_t total = dir.size() + 1 + name.size();
  char* out = static_cast<char*>(upnp_malloc_impl(total + 1));
  if (out == nullptr) return nullptr;
  std::memcpy(out, dir.data(), dir.size());
  out[dir.size()] = '/';
  std::memcpy(out + dir.size() + 1, name.data(), name.size());
  out[total] = '\0';
  return out;
}

bool SplitPath(std::string_view path, char** dir, char** name) noexcept {
  if (path.empty()) return true;
  // The first character is never taken as the split point, so "/abc" has no separator.
  size_t sep = std::string_view::npos;
  for (size_t i = path.size() - 1; i >= 1; --i) {
    if (IsSeparator(path[i])) {
      sep = i;
      break;
    }
  }
  std::string_view dir_text = path;
  std::string_view name_text = path;
  bool has_name = true;
  if (sep != std::string_view::npos) {
    if (sep == 2 && path[1] == ':') {
      // "x:\name": the separator stays with the drive so the directory is the drive's root.
      dir_text = path.substr(0, 3);
      has_name = path.size() >= 4;
      if (has_name) name_text = path.substr(3);
    } else {
      dir_text = path.substr(0, sep);
      has_name = sep + 1 < path.size();
      if (has_name) name_text = path.substr(sep + 1);
    }
  }
  CPtr dir_out;
  CPtr name_out;
  if (dir != nullptr) {
    dir_out.reset(DupToC(dir_text));
    if (!dir_out) return false;
  }
  if (name != nullptr && has_name) {
    name_out.reset(DupToC(name_text));
    if (!name_out) return false;
  }
  if (dir != nullptr) *dir = dir_out.release();
  if (name != nullptr) *name = name_out.release();
  return true;
}

bool Exists(const char* path) noexcept {
  upnp_stat st{};
  return upnp_file_stat(path, &st) == 0;
}

bool IsRegularFile(const char* path) noexcept {
  upnp_stat st{};
  return upnp_file_stat(path, &st) == 0 && (st.mode & UPNP_S_IFMT) == UPNP_S_IFREG;
}

void EmptyDir(const char* dir) noexcept {
  for (upnp_find_handle* h = upnp_file_find_first_file(dir); h != nullptr;
       h = upnp_file_find_next_file(h)) {
    const char* path = upnp_file_find_get_path(h);
    if (path != nullptr) upnp_file_unlink(path);
  }
}

void RemoveTree(const char* dir, bool keep_top) noexcept {
  RemoveEntries(dir);
  if (!keep_top) upnp_dir_unlink(dir);
}

void RemoveTreeInBackground(const char* dir) noexcept {
  char* copy = upnp_strdup_impl(dir);
  if (copy == nullptr) return;
  // The thread owns the copy. upnp_start_thread answers 0 whether or not a thread started, so a
  // start that fails outright (logged by the thread layer) cannot be told apart here.
  upnp_start_thread(RemoveTreeThread, copy, 3);
}

}  // namespace tw::media
