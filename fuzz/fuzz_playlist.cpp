// SPDX-License-Identifier: Apache-2.0
// Playlists from arbitrary bytes: the first byte picks the format (WPL, M3U, PLS or by the
// content) and whether entries are resolved against a folder; the rest is the file. Checks the
// record's shape (texts present and UTF-8, kinds and counts in range), that a WPL written from
// it reads back with the same title and sources, and that every accounted byte comes back.
#include <cstdint>
#include <cstring>

#include "tarnwick/media.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

// Strictly UTF-8 (RFC 3629): no five-byte forms, overlong forms or surrogates.
bool Utf8(const char* text) {
  if (text == nullptr) return false;
  for (const auto* p = reinterpret_cast<const unsigned char*>(text); *p != 0;) {
    const unsigned char lead = *p++;
    if (lead < 0x80) continue;
    int more = lead >= 0xC2 && lead <= 0xDF   ? 1
               : lead >= 0xE0 && lead <= 0xEF ? 2
               : lead >= 0xF0 && lead <= 0xF4 ? 3
                                              : -1;
    if (more < 0) return false;
    const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (*p < low || *p > high) return false;
    for (; more > 0; --more) {
      if ((*p++ & 0xC0) != 0x80) return false;
    }
  }
  return true;
}

bool Same(const char* a, const char* b) {
  return (a == nullptr && b == nullptr) || (a != nullptr && b != nullptr && std::strcmp(a, b) == 0);
}

void CheckShape(const upnp_playlist* list) {
  Check(list->count <= UPNP_PLAYLIST_MAX_ENTRIES);
  Check((list->count == 0) == (list->entries == nullptr));
  Check(list->title == nullptr || Utf8(list->title));
  for (uint32_t i = 0; i < list->count; ++i) {
    const upnp_playlist_entry& e = list->entries[i];
    Check(Utf8(e.src) && e.src[0] != '\0' && std::strlen(e.src) <= UPNP_PLAYLIST_MAX_LINE);
    Check(Utf8(e.location) && e.location[0] != '\0');
    Check(e.title == nullptr || Utf8(e.title));
    Check(e.duration >= -1);
    Check(e.kind >= UPNP_PLAYLIST_ENTRY_FILE && e.kind <= UPNP_PLAYLIST_ENTRY_URL);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  upnp_mem_init();
  const uint32_t before = upnp_mem_used();
  const int32_t format = data[0] & 3;
  const char* base = (data[0] & 4) != 0 ? "/nonexistent/lists" : nullptr;
  const auto* text = reinterpret_cast<const char*>(data + 1);
  upnp_playlist* list = upnp_playlist_parse(text, static_cast<uint32_t>(size - 1), format, base);
  Check(list != nullptr);  // no allocation fails here
  CheckShape(list);

  // What the library writes it reads back: the same title (a WPL title is always written) and
  // the same sources, in order.
  upnp_string* wpl = upnp_playlist_to_wpl(list);
  Check(wpl != nullptr);
  upnp_playlist* back = upnp_playlist_parse(wpl->buffer, wpl->length, UPNP_PLAYLIST_WPL, base);
  Check(back != nullptr);
  CheckShape(back);
  Check(Same(back->title, list->title != nullptr ? list->title : ""));
  Check(back->count == list->count);
  for (uint32_t i = 0; i < list->count; ++i)
    Check(Same(back->entries[i].src, list->entries[i].src));
  upnp_playlist_free(back);
  upnp_string_free(wpl);
  upnp_string_free(upnp_playlist_to_m3u(list));
  upnp_playlist_free(list);
  Check(upnp_mem_used() == before);
  return 0;
}
