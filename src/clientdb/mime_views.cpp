// SPDX-License-Identifier: Apache-2.0
// The special MIME columns filled from the "MT:" keywords, and the view names the host offers.
//
// The MIME columns change only while the client-type table is loaded and are read without a
// lock. The view list and the default view name are written under the client database lock
// (when it exists) and read under it by the record code, which is why KnownDefaultView must be
// called with the lock held or before the servers start.
#include <array>
#include <cstdio>
#include <cstring>

#include "clientdb/clientdb.h"
#include "clientdb/types.h"
#include "platform/allocator.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "util/string.h"

namespace tw::clientdb {
namespace {

constexpr size_t kExtensionMax = 9;
constexpr size_t kMimeMax = 63;

struct MimePair {
  char* mime;       // owned; null marks a free slot, and walks stop at the first free one
  char* extension;  // owned
};
std::array<MimePair, kMimeSlots> g_mimes{};

char* g_views = nullptr;  // "name#name#...", owned
char g_default_view[kDefaultViewSize] = "";

// At most limit bytes of text, cut at the first byte of 32 or below or ','.
char* CutCopy(const char* text, size_t limit) noexcept {
  size_t n = 0;
  while (n<limit&& static_cast<unsigned char>(text[n])> 32 && text[n] != ',') ++n;
  return DupToC(std::string_view(text, n));
}

bool AtWordStart(const char* entry, const char* at) noexcept {
  return at > entry && (at[-1] == ':' || at[-1] == ',');
}

}  // namespace

void AddMime(const char* extension, const char* mime) noexcept {
  if (extension == nullptr || mime == nullptr) return;
  CPtr ext(CutCopy(extension, kExtensionMax));
  CPtr type(CutCopy(mime, kMimeMax));
  if (ext == nullptr || type == nullptr) return;
  for (MimePair& pair : g_mimes) {
    if (pair.mime == nullptr) {
      pair.mime = type.release();
      pair.extension = ext.release();
      return;
    }
    if (std::strcmp(pair.mime, type.get()) == 0 && std::strcmp(pair.extension, ext.get()) == 0) {
      return;
    }
  }
  upnp_log_err_impl(UPNP_LOG_CLIENT_DB, "upnp_client_db_add_mime_table MIME TYPE TABLE FULL!");
}

void FreeMimeTable() noexcept {
  for (MimePair& pair : g_mimes) {
    if (pair.mime != nullptr) upnp_free_impl(pair.mime);
    if (pair.extension != nullptr) upnp_free_impl(pair.extension);
    pair = MimePair{};
  }
}

const char* ExtensionForMime(const char* mime) noexcept {
  if (mime == nullptr) return nullptr;
  for (const MimePair& pair : g_mimes) {
    if (pair.mime == nullptr) break;
    if (std::strcmp(pair.mime, mime) == 0) return pair.extension;
  }
  return nullptr;
}

const char* MimeWithPrefixOf(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  for (const MimePair& pair : g_mimes) {
    if (pair.mime == nullptr) break;
    if (std::strncmp(text, pair.mime, std::strlen(pair.mime)) == 0) return pair.mime;
  }
  return nullptr;
}

// Only the first place the extension appears behind "MT:" is considered: "vi" is not found in
// "MT:mkv,avi ..." because its first match stands behind a letter.
const char* SpecialMimeType(int32_t client_type, const char* extension) noexcept {
  const char* entry = TypeEntry(client_type);
  if (entry == nullptr || extension == nullptr) return nullptr;
  const char* tag = std::strstr(entry, "MT:");
  if (tag == nullptr) return nullptr;
  const char* at = util::IStrStr(tag, extension);
  if (at == nullptr || !AtWordStart(entry, at)) return nullptr;
  const char* behind = at + std::strlen(extension);
  if (*behind != ' ' && *behind != ',') return nullptr;
  const char* blank = std::strchr(behind, ' ');
  return blank != nullptr ? MimeWithPrefixOf(blank + 1) : nullptr;
}

const char* ViewList() noexcept { return g_views; }

const char* DefaultView() noexcept { return g_default_view; }

void AddView(const char* name) noexcept {
  if (name == nullptr) return;
  Guard guard;  // none before upnp_client_db_init: the host is still setting up alone then
  const size_t old_size = g_views != nullptr ? std::strlen(g_views) : 0;
  const size_t name_size = std::strlen(name);
  auto* text = static_cast<char*>(upnp_malloc_impl(old_size + name_size + 2));
  if (text != nullptr) {
    if (old_size > 0) std::memcpy(text, g_views, old_size);
    std::memcpy(text + old_size, name, name_size);
    text[old_size + name_size] = '#';
    text[old_size + name_size + 1] = '\0';
  }
  if (text == nullptr) return;  // memory short: the list stays as it was
  if (g_views != nullptr) upnp_free_impl(g_views);
  g_views = text;
}

void FreeViews() noexcept {
  Guard guard;
  if (g_views != nullptr) upnp_free_impl(g_views);
  g_views = nullptr;
}

void SetDefaultView(const char* name) noexcept {
  if (name == nullptr) return;
  Guard guard;
  if (std::strcmp(g_default_view, name) == 0) return;
  std::snprintf(g_default_view, sizeof(g_default_view), "%s", name);
}

}  // namespace tw::clientdb
