// SPDX-License-Identifier: Apache-2.0
// The fixed MIME type table and its lookups: the logic behind mime_api.cpp. Every text handed
// out is a NUL-terminated constant of the table.
#pragma once

#include <cstdint>

namespace tw::http {

inline constexpr char kOctetStream[] = "application/octet-stream";

// The type of the first row listing the extension (ASCII case ignored); kOctetStream when none.
const char* MimeTypeOf(const char* extension) noexcept;
// The first extension of the first row whose type occurs in text ("" for the fallback row), or
// null when no row's type occurs in it.
const char* ExtensionOfMimeType(const char* text) noexcept;
bool IsKnownMimeType(const char* text) noexcept;
// Behind the last '.', or null.
const char* FileExtension(const char* file_name) noexcept;

}  // namespace tw::http
