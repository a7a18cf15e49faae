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

CRITICAL_SECTION g_lock;
std::atomic<bool> g_lock_exists{false};
// Guarded by g_lock. Entries are never removed before ExitResources, so a pointer to a filled
// entry stays valid after the lock is released.
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

const CacheEntry* FindCached(const char* name) noexcept {
  if (!g_lock_exists.load()) return nullptr;
  CsGuard guard(&g_lock);
  for (const auto& entry : g_cache) {
    if (entry.name == nullptr) break;
    if (std::strcmp(entry.name, name) == 0) return &entry;
  }
  return nullptr;
}

void AddToCache(const char* name, const void* data, uint32_t size) noexcept {
  if (!IsCacheable(name) || data == nullptr || size == 0 || !g_lock_exists.load()) return;
  CsGuard guard(&g_lock);
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
  if (!g_lock_exists.load()) {
    InitializeCriticalSection(&g_lock);
    g_lock_exists.store(true);
  }
  // Clearing without freeing is intended: init runs once before use, and an init after a
  // missing exit must not free blocks that a concurrent reader might still be copying.
  CsGuard guard(&g_lock);
  g_cache.fill(CacheEntry{});
}

void ExitResources() noexcept {
  if (!g_lock_exists.load()) return;
  {
    CsGuard guard(&g_lock);
    for (auto& entry : g_cache) {
      if (entry.name != nullptr) upnp_free_impl(entry.name);
      if (entry.data != nullptr) upnp_free_impl(entry.data);
      entry = CacheEntry{};
    }
  }
  g_lock_exists.store(false);
  DeleteCriticalSection(&g_lock);
}

void SetResourceGetter(upnp_resource_get_function getter) noexcept { g_getter.store(getter); }

bool GetResource(const char* base_dir, char* name, uint32_t* size_out, void** data_out) noexcept {
  // The caller's text is cut in place: "icon.png?size=48" is looked up and cached as icon.png.
  char* query = std::strrchr(name, '?');
  if (query != nullptr) *query = '\0';
  if (const CacheEntry* hit = FindCached(name); hit != nullptr) {
    // A cached copy carries no terminator bytes, unlike a block read from the file.
    void* copy = upnp_malloc_impl(hit->size);
    if (copy == nullptr) return false;
    std::memcpy(copy, hit->data, hit->size);
    *size_out = hit->size;
    *data_out = copy;
    return true;
  }
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
