// SPDX-License-Identifier: Apache-2.0
// Entries for the MIME type table.
#include "http/mime_table.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/http.h"

extern "C" {

TW_API const char* HTTP_get_mime_type(const HttpRequest* request, const char* extension) noexcept {
  if (extension == nullptr) return nullptr;
  if (request != nullptr) {
    const char* special = upnp_client_db_needs_special_mime_type(request->client_id, extension);
    if (special != nullptr) return special;
  }
  return tw::http::MimeTypeOf(extension);
}

TW_API const char* HTTP_get_extension_by_mime_type(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  const char* extension = tw::http::ExtensionOfMimeType(text);
  if (extension != nullptr) return extension;
  return upnp_client_db_special_mime_type_get_extension(text);
}

TW_API int32_t HTTP_is_known_mime_type(const char* text) noexcept {
  if (text == nullptr) return 0;
  return tw::http::IsKnownMimeType(text) ? 1 : 0;
}

TW_API const char* HTTP_get_extension(const char* file_name) noexcept {
  if (file_name == nullptr) return nullptr;
  return tw::http::FileExtension(file_name);
}

}  // extern "C"
