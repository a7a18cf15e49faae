// SPDX-License-Identifier: Apache-2.0
// The accounted allocator: the only place in the library that calls the system heap.
#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/memory_release.h"
#include "platform/test_hooks.h"
#include "tarnwick/platform.h"

namespace {

constexpr std::size_t kHeaderSize = 8;
// Two bytes more than the header needs, on reallocation only. Intended: it is the documented
// block layout, and nothing in the library reads the spare bytes. The counters never see them,
// so no test can tell; trimming it to 8 changes only the layout a raw-block reader expects.
constexpr std::size_t kReallocExtra = 10;

// Counters are 32-bit by contract; updates are atomic read-modify-writes, reads relaxed loads.
std::atomic<uint32_t> g_current{0};
std::atomic<uint64_t> g_allocations{0};  // blocks handed out (tests count them per request)
std::atomic<int32_t> g_maximum{0};
std::atomic<int32_t> g_initialised{0};
// Made and deleted by upnp_mem_init and upnp_mem_exit, whose initialised flag says whether a
// free comes too early or too late; the counters themselves are lock-free (Account).
CRITICAL_SECTION g_mem_cs;

// Failure injection for tests: -1 off, otherwise allocations left before the one that fails.
std::atomic<int> g_fail_countdown{-1};
std::atomic<bool> g_fail_fired{false};

bool InjectFailure() noexcept {
  int left = g_fail_countdown.load(std::memory_order_relaxed);
  while (left >= 0) {
    if (g_fail_countdown.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
      if (left == 0) {
        g_fail_fired.store(true, std::memory_order_relaxed);
        return true;
      }
      return false;
    }
  }
  return false;
}

inline uint32_t HeaderSize(const void* payload) noexcept {
  uint32_t size;
  std::memcpy(&size, static_cast<const unsigned char*>(payload) - kHeaderSize, sizeof(size));
  return size;
}

inline void* Stamp(void* block, std::size_t size) noexcept {
  const uint32_t size32 = static_cast<uint32_t>(size);
  std::memcpy(block, &size32, sizeof(size32));
  return static_cast<unsigned char*>(block) + kHeaderSize;
}

// Adds `added` and removes `removed` payload bytes, raising the high-water mark (compared as a
// signed value, so a count driven below zero by the realloc asymmetry never becomes the maximum).
// Lock-free: every thread of the server allocates, and a lock here made them queue on each
// other. Each update's result is a value the count really had, so the maximum stays exact.
void Account(uint32_t added, uint32_t removed) noexcept {
  const uint32_t delta = added - removed;  // modulo 2^32, as the 32-bit counter is
  const uint32_t now = g_current.fetch_add(delta, std::memory_order_relaxed) + delta;
  int32_t maximum = g_maximum.load(std::memory_order_relaxed);
  while (static_cast<int32_t>(now) > maximum &&
         !g_maximum.compare_exchange_weak(maximum, static_cast<int32_t>(now),
                                          std::memory_order_relaxed)) {
  }
  if (added != 0) g_allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

namespace tw::platform {

void FailAllocAfter(int n) noexcept {
  g_fail_fired.store(false, std::memory_order_relaxed);
  g_fail_countdown.store(n < 0 ? -1 : n, std::memory_order_relaxed);
}
void ClearAllocFailure() noexcept { g_fail_countdown.store(-1, std::memory_order_relaxed); }
bool AllocFailureFired() noexcept { return g_fail_fired.load(std::memory_order_relaxed); }

void ReleaseFreeHeap() noexcept {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

uint64_t AllocationCount() noexcept { return g_allocations.load(std::memory_order_relaxed); }

}  // namespace tw::platform

extern "C" {

TW_API void upnp_mem_init(void) noexcept {
  // The first allocations can race here; the host is expected to call this (or allocate) once
  // before starting threads, as with every other init call of the library.
  if (g_initialised.load(std::memory_order_acquire) == 0) {
    InitializeCriticalSection(&g_mem_cs);
    g_initialised.store(1, std::memory_order_release);
  }
}

TW_API void upnp_mem_exit(void) noexcept {
  if (g_initialised.load(std::memory_order_acquire) != 0) {
    g_initialised.store(0, std::memory_order_release);
    DeleteCriticalSection(&g_mem_cs);
  }
}

TW_API void* upnp_malloc_impl(size_t size) noexcept {
  if (InjectFailure()) return nullptr;
  if (size > SIZE_MAX - kHeaderSize) return nullptr;
  void* block = std::malloc(size + kHeaderSize);
  if (block == nullptr) return nullptr;
  void* payload = Stamp(block, size);
  if (g_initialised.load(std::memory_order_acquire) == 0) upnp_mem_init();
  Account(static_cast<uint32_t>(size), 0);
  return payload;
}

TW_API void* upnp_calloc_impl(size_t count, size_t size) noexcept {
  // The product is deliberately unchecked; callers pass small, sane counts.
  const size_t total = count * size;
  void* p = upnp_malloc_impl(total);
  if (p != nullptr) std::memset(p, 0, total);
  return p;
}

TW_API char* upnp_strdup_impl(const char* str) noexcept {
  if (str == nullptr) return nullptr;
  const size_t n = std::strlen(str) + 1;
  char* p = static_cast<char*>(upnp_malloc_impl(n));
  if (p != nullptr) std::memcpy(p, str, n);
  return p;
}

TW_API void* upnp_realloc_impl(void* ptr, size_t size) noexcept {
  if (ptr == nullptr) return upnp_malloc_impl(size);
  const uint32_t old_size = HeaderSize(ptr);
  void* old_block = static_cast<unsigned char*>(ptr) - kHeaderSize;
  void* block = nullptr;
  if (!InjectFailure() && size <= SIZE_MAX - kReallocExtra) {
    block = std::realloc(old_block, size + kReallocExtra);
  }
  if (block == nullptr) {
    // Intended asymmetry: the old block is still allocated and owned by the caller, but it stops
    // being counted now; freeing it later subtracts its size a second time.
    if (g_initialised.load(std::memory_order_acquire) != 0) Account(0, old_size);
    return nullptr;
  }
  void* payload = Stamp(block, size);
  if (g_initialised.load(std::memory_order_acquire) == 0) upnp_mem_init();
  Account(static_cast<uint32_t>(size), old_size);
  return payload;
}

TW_API void upnp_free_impl(void* ptr) noexcept {
  if (ptr == nullptr) {
    std::fputs("upnp_free: NULL pointer\n", stderr);
    return;
  }
  if (g_initialised.load(std::memory_order_acquire) == 0) {
    // Free never creates the lock: it may run during teardown after upnp_mem_exit.
    std::fputs("upnp_free: MemCriticalSection not initialized when upnp_free called\n", stderr);
  }
  Account(0, HeaderSize(ptr));
  std::free(static_cast<unsigned char*>(ptr) - kHeaderSize);
}

TW_API uint32_t upnp_mem_used(void) noexcept { return g_current.load(std::memory_order_relaxed); }

TW_API uint32_t upnp_max_mem_used(void) noexcept {
  return static_cast<uint32_t>(g_maximum.load(std::memory_order_relaxed));
}

}  // extern "C"
