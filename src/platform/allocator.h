// SPDX-License-Identifier: Apache-2.0
// C++ access to the accounted allocator: an STL allocator adapter, container aliases, object
// creation on accounted memory, and the no-throw guard that entry points wrap container code in.
//
// Only platform/memory.cpp talks to the system heap. Everything else, containers included, goes
// through upnp_malloc_impl/upnp_free_impl so that upnp_mem_used() tells the truth.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tarnwick/platform.h"

namespace tw {

template <typename T>
class Allocator {
 public:
  using value_type = T;

  // The block header keeps payloads 8-byte aligned; stricter types would need more.
  static_assert(alignof(T) <= 8, "accounted blocks are only 8-byte aligned");

  Allocator() noexcept = default;
  template <typename U>
  Allocator(const Allocator<U>&) noexcept {}  // NOLINT(google-explicit-constructor)

  T* allocate(std::size_t n) {
    if (n > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_alloc();
    void* p = upnp_malloc_impl(n * sizeof(T));
    if (p == nullptr) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, std::size_t) noexcept { upnp_free_impl(p); }

  template <typename U>
  bool operator==(const Allocator<U>&) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(const Allocator<U>&) const noexcept {
    return false;
  }
};

using String = std::basic_string<char, std::char_traits<char>, Allocator<char>>;
template <typename T>
using Vector = std::vector<T, Allocator<T>>;
template <typename K, typename V, typename Less = std::less<K>>
using Map = std::map<K, V, Less, Allocator<std::pair<const K, V>>>;

// Creates a T on accounted memory; null when memory is short or the constructor throws.
template <typename T, typename... Args>
T* New(Args&&... args) noexcept {
  static_assert(alignof(T) <= 8, "accounted blocks are only 8-byte aligned");
  void* p = upnp_malloc_impl(sizeof(T));
  if (p == nullptr) return nullptr;
  try {
    return ::new (p) T(std::forward<Args>(args)...);
  } catch (...) {
    upnp_free_impl(p);
    return nullptr;
  }
}

template <typename T>
void Delete(T* p) noexcept {
  if (p == nullptr) return;
  p->~T();
  upnp_free_impl(p);
}

struct Deleter {
  template <typename T>
  void operator()(T* p) const noexcept {
    Delete(p);
  }
};
template <typename T>
using UniquePtr = std::unique_ptr<T, Deleter>;

// Frees a C block from the accounted allocator (strings handed out by C-style helpers).
struct FreeDeleter {
  void operator()(void* p) const noexcept {
    if (p != nullptr) upnp_free_impl(p);
  }
};
using CPtr = std::unique_ptr<char, FreeDeleter>;

// Copies a view into a fresh NUL-terminated accounted block; null when memory is short.
inline char* DupToC(std::string_view s) noexcept {
  char* p = static_cast<char*>(upnp_malloc_impl(s.size() + 1));
  if (p == nullptr) return nullptr;
  if (!s.empty()) std::char_traits<char>::copy(p, s.data(), s.size());
  p[s.size()] = '\0';
  return p;
}

// Runs body; the only exception the library can meet is bad_alloc from an accounted container,
// which becomes the entry point's documented out-of-memory result.
template <typename R, typename F>
R Guard(R fallback, F&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return fallback;
  }
}

template <typename F>
void GuardVoid(F&& body) noexcept {
  try {
    body();
  } catch (...) {
  }
}

}  // namespace tw
