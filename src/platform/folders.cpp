// SPDX-License-Identifier: Apache-2.0
// The product's per-user folders.
#include <pwd.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstring>

#include "platform/allocator.h"
#include "platform/folders_internal.h"
#include "tarnwick/platform.h"

namespace tw::platform {
namespace {

constexpr std::string_view kProduct = "tarnwick";
constexpr std::string_view kSystemAppData = "/var/tarnwick";
constexpr size_t kPasswdBuffer = 4096;

// The home directory of the running user when that user is known and not root, else empty.
// getpwuid_r keeps this safe from any thread; its text buffer comes from the accounted heap.
String CurrentUserHome() {
  String home;
  const uid_t uid = getuid();
  if (uid == 0) return home;
  char* buffer = static_cast<char*>(upnp_malloc_impl(kPasswdBuffer));
  if (buffer == nullptr) throw std::bad_alloc();
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(uid, &entry, buffer, kPasswdBuffer, &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr) {
    try {
      home = found->pw_dir;
    } catch (...) {
      upnp_free_impl(buffer);
      throw;
    }
  }
  upnp_free_impl(buffer);
  return home;
}

char* Finish(const String& text) { return DupToC(text); }

}  // namespace

char* AppDataDirFor(const char* home) noexcept {
  return Guard<char*>(nullptr, [&]() -> char* {
    if (home == nullptr) return DupToC(kSystemAppData);
    String dir(home);
    dir += "/.";
    dir += kProduct;
    return Finish(dir);
  });
}

char* MediaDirFor(const char* home, const char* base, std::string_view kind) noexcept {
  return Guard<char*>(nullptr, [&]() -> char* {
    String dir;
    if (home != nullptr) {
      dir = home;
      dir += '/';
    } else {
      if (base != nullptr) dir = base;
      if (dir.empty() || (dir.back() != '/' && dir.back() != '\\')) dir += '/';
    }
    dir += kProduct;
    dir += '/';
    dir += kind;
    return Finish(dir);
  });
}

char* MediaDir(const char* base, std::string_view kind) noexcept {
  return Guard<char*>(nullptr, [&]() -> char* {
    const String home = CurrentUserHome();
    return MediaDirFor(home.empty() ? nullptr : home.c_str(), base, kind);
  });
}

}  // namespace tw::platform

extern "C" {

TW_API char* getAppDataDir(void) noexcept {
  return tw::Guard<char*>(nullptr, []() -> char* {
    const tw::String home = tw::platform::CurrentUserHome();
    return tw::platform::AppDataDirFor(home.empty() ? nullptr : home.c_str());
  });
}

TW_API char* getMyVideoDir(const char* base) noexcept {
  return tw::platform::MediaDir(base, "videos");
}

TW_API char* getMyPictureDir(const char* base) noexcept {
  return tw::platform::MediaDir(base, "pictures");
}

TW_API char* getMyMusicDir(const char* base) noexcept {
  return tw::platform::MediaDir(base, "music");
}

TW_API char* getPathExpandSpecialFolders(const char* path) noexcept {
  if (path == nullptr) return nullptr;
  return upnp_strdup_impl(path);
}

}  // extern "C"
