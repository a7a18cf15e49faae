// SPDX-License-Identifier: Apache-2.0
// Readers of the client-type table and the tables beside it, for the entries of queries_api.cpp
// and the record code. Copies are accounted blocks (upnp_free_impl); null for a missing value or
// a type outside 0..149.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/types.h"

namespace tw::clientdb {

// upnp_client_db_DLNA_version's answers.
constexpr uint32_t kDlnaUnspecified = 0;
constexpr uint32_t kDlna10 = 10;
constexpr uint32_t kDlna15 = 15;
constexpr uint32_t kDlnaNone = 0xFFFFFFFFu;  // "XM:DLNANO": -1 in the unsigned result
constexpr std::size_t kAlbumArtScalingMax = 63;

// upnp_client_db_getKeyword: cut to one character while the server is not running.
int32_t GetKeyword(const char* entry, char* buffer, std::size_t size, const char* tag) noexcept;
int32_t ValueAfter(int32_t client_type, const char* text) noexcept;
uint32_t DlnaVersion(int32_t client_type) noexcept;
// The text behind tag up to the line feed (at most 1023 bytes).
char* LineValue(int32_t client_type, const char* tag) noexcept;
char* DescriptionFile(int32_t client_type) noexcept;
char* TranscodingProfiles(int32_t client_type) noexcept;
char* AlbumArtScaling(int32_t client_type) noexcept;
// True when the type's entry has a "DV:" keyword (the printout's and the file's last field).
bool HasDefaultView(int32_t client_type) noexcept;
// "%03d,%s" of every named type joined by ","; null when none has a name or memory is short.
char* TypeTable() noexcept;

// ---- mime_views.cpp ----
void AddMime(const char* extension, const char* mime) noexcept;
const char* ExtensionForMime(const char* mime) noexcept;
const char* MimeWithPrefixOf(const char* text) noexcept;
const char* SpecialMimeType(int32_t client_type, const char* extension) noexcept;
// The view list ("name#name#..."), or null; written under the lock, see mime_views.cpp.
const char* ViewList() noexcept;
void AddView(const char* name) noexcept;
void SetDefaultView(const char* name) noexcept;

}  // namespace tw::clientdb
