// SPDX-License-Identifier: Apache-2.0
// The resource cache and the file and host fallbacks behind it.
#include "core/resource.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/allocator.h"
#include "platform/critical_section.h"
#include "tarnwick/log.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace tw::core {
namespace {

// Paths are built in a fixed buffer and cut silently at its size, as every path of the library.
constexpr size_t kPathSize = 1024;
// Files are read in slices so each read call stays within its 32-bit length.
constexpr uint32_t kReadSlice = 1u << 20;
// The log channel of the cache-full message. Intended: it is 3 (system and SSDP bits), not one
// category bit, so the line shows whenever either of those categories is logged.
constexpr uint32_t kCacheLogChannel = 3;

constexpr std::array<std::string_view, 6> kCacheableExtensions = {"xml", "txt", "ico",
                                                                  "jpg", "png", "db"};
static_assert(kCacheableExtensions.size() == 6);

struct CacheEntry {
  char* name;  // owned; null marks a free slot, and the walk stops at the first free one
  void* data;  // owned
  uint32_t size;
};

// Live between InitResources and ExitResources.
LazyCriticalSection g_lock;
// Guarded by g_lock.
std::array<CacheEntry, kResourceCacheEntries> g_cache{};
std::atomic<upnp_resource_get_function> g_getter{nullptr};

bool IsCacheable(const char* name) noexcept {
  const char* dot = std::strrchr(name, '.');
  if (dot == nullptr) return false;
  const std::string_view extension(dot + 1);
  for (const auto& allowed : kCacheableExtensions) {
    if (extension == allowed) return true;  // exact and case-sensitive: "PNG" is not cached
  }
  return false;
}

// 1 with a fresh copy of the cached entry, -1 when the copy cannot be made, 0 when the name is
// not cached. The copy is taken under the lock, so an exit on another thread cannot free the
// entry while it is read.
int CopyCached(const char* name, uint32_t* size_out, void** data_out) noexcept {
  LazyGuard guard(g_lock);
  if (!guard.held()) return 0;
  for (const auto& entry : g_cache) {
    if (entry.name == nullptr) break;
    if (std::strcmp(entry.name, name) != 0) continue;
    void* copy = upnp_malloc_impl(entry.size);
    if (copy == nullptr) return -1;
    std::memcpy(copy, entry.data, entry.size);
    *size_out = entry.size;
    *data_out = copy;
    return 1;
  }
  return 0;
}

void AddToCache(const char* name, const void* data, uint32_t size) noexcept {
  if (!IsCacheable(name) || data == nullptr || size == 0) return;
  LazyGuard guard(g_lock);
  if (!guard.held()) return;
  for (auto& entry : g_cache) {
    if (entry.name == nullptr) {
      char* name_copy = upnp_strdup_impl(name);
      void* data_copy = upnp_malloc_impl(size);
      if (name_copy == nullptr || data_copy == nullptr) {
        // Out of memory: the slot stays free and the resource is simply not cached.
        if (name_copy != nullptr) upnp_free_impl(name_copy);
        if (data_copy != nullptr) upnp_free_impl(data_copy);
        return;
      }
      std::memcpy(data_copy, data, size);
      entry = CacheEntry{name_copy, data_copy, size};
      return;
    }
    if (std::strcmp(entry.name, name) == 0) return;
  }
  upnp_log_err_impl(kCacheLogChannel, "add_to_cache - too many files");
}

// Reads the whole file into a block with two zero bytes behind the data. 0 when the file is not
// a readable regular file; -1 when it is but cannot be delivered (size or memory).
int ReadResourceFile(const char* path, uint32_t* size_out, void** data_out) noexcept {
  upnp_stat status{};
  if (upnp_file_stat(path, &status) != 0 || (status.mode & UPNP_S_IFMT) != UPNP_S_IFREG) return 0;
  upnp_file* file = upnp_file_open_read(path);
  if (file == nullptr) return 0;
  if (status.size > UINT32_MAX - 2u) {
    upnp_file_close(file);
    return -1;
  }
  const auto size = static_cast<uint32_t>(status.size);
  auto* data = static_cast<uint8_t*>(upnp_malloc_impl(static_cast<size_t>(size) + 2));
  if (data == nullptr) {
    upnp_file_close(file);
    return -1;
  }
  uint32_t done = 0;
  while (done < size) {
    const uint32_t want = size - done < kReadSlice ? size - done : kReadSlice;
    const int32_t got = upnp_file_read(file, data + done, want);
    if (got <= 0) break;  // the file shrank since its status was taken: deliver what is there
    done += static_cast<uint32_t>(got);
  }
  upnp_file_close(file);
  data[done] = 0;
  data[done + 1] = 0;
  *size_out = done;
  *data_out = data;
  return 1;
}

}  // namespace

void InitResources() noexcept {
  g_lock.Create();
  // Clearing without freeing is intended: an init after a missing exit forgets the old entries
  // (a leak the host caused) rather than freeing blocks it did not expect to lose.
  LazyGuard guard(g_lock);
  if (guard.held()) g_cache.fill(CacheEntry{});
}

void ExitResources() noexcept {
  LazyGuard guard(g_lock);
  if (!guard.held()) return;
  for (auto& entry : g_cache) {
    if (entry.name != nullptr) upnp_free_impl(entry.name);
    if (entry.data != nullptr) upnp_free_impl(entry.data);
    entry = CacheEntry{};
  }
  g_lock.Destroy();
}

void SetResourceGetter(upnp_resource_get_function getter) noexcept { g_getter.store(getter); }

bool GetResource(const char* base_dir, char* name, uint32_t* size_out, void** data_out) noexcept {
  // The caller's text is cut in place: "icon.png?size=48" is looked up and cached as icon.png.
  char* query = std::strrchr(name, '?');
  if (query != nullptr) *query = '\0';
  // A cached copy carries no terminator bytes, unlike a block read from the file.
  if (const int cached = CopyCached(name, size_out, data_out); cached != 0) return cached > 0;
  char path[kPathSize];
  std::snprintf(path, sizeof(path), "%s%cresources%c%s", base_dir, '/', '/', name);
  const int read = ReadResourceFile(path, size_out, data_out);
  if (read > 0) {
    AddToCache(name, *data_out, *size_out);
    return true;
  }
  if (read < 0) return false;
  const upnp_resource_get_function getter = g_getter.load();
  return getter != nullptr && getter(name, size_out, data_out) != 0;
}

}  // namespace tw::core
