// SPDX-License-Identifier: Apache-2.0
// Entries for the canned responses, their texts and the HTML escaper.
#include "base/status.h"
#include "http/error_pages.h"
#include "tarnwick/http.h"

extern "C" {

TW_API int32_t HTTP_send_error_code(HttpRequest* request, int32_t status) noexcept {
  if (request == nullptr) return tw::kHttpFail;
  request->content_length = 0;
  return HTTP_send_header(request, status);
}

TW_API int32_t HTTP_send_error_message(HttpRequest* request, int32_t status,
                                       const char* text) noexcept {
  if (request == nullptr) return tw::kHttpFail;
  return tw::http::SendErrorMessage(*request, status, text) ? tw::kHttpOk : tw::kHttpFail;
}

TW_API int32_t HTTP_send_file_not_found(HttpRequest* request) noexcept {
  if (request == nullptr) return tw::kHttpFail;
  return tw::http::SendPage(*request, tw::http::Page::kNotFound, nullptr) ? tw::kHttpOk
                                                                          : tw::kHttpFail;
}

TW_API int32_t HTTP_send_unauthorized(HttpRequest* request) noexcept {
  if (request == nullptr) return tw::kHttpFail;
  return tw::http::SendPage(*request, tw::http::Page::kUnauthorized, nullptr) ? tw::kHttpOk
                                                                              : tw::kHttpFail;
}

TW_API int32_t HTTP_send_access_restriced(HttpRequest* request) noexcept {
  if (request == nullptr) return tw::kHttpFail;
  return tw::http::SendPage(*request, tw::http::Page::kAccessRestricted, nullptr) ? tw::kHttpOk
                                                                                  : tw::kHttpFail;
}

TW_API int32_t HTTP_send_service_unavailable(HttpRequest* request, const char* detail) noexcept {
  if (request == nullptr) return tw::kHttpFail;
  return tw::http::SendPage(*request, tw::http::Page::kServiceUnavailable, detail) ? tw::kHttpOk
                                                                                   : tw::kHttpFail;
}

TW_API void HTTP_set_access_restriced_message(const char* title, const char* message) noexcept {
  tw::http::SetPageTexts(tw::http::Page::kAccessRestricted, title, message);
}

TW_API void HTTP_set_file_not_found_message(const char* title, const char* message) noexcept {
  tw::http::SetPageTexts(tw::http::Page::kNotFound, title, message);
}

TW_API void HTTP_escape_body(const char* source, char* destination, size_t size) noexcept {
  tw::http::EscapeBody(source, destination, size);
}

}  // extern "C"
