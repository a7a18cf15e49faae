// SPDX-License-Identifier: Apache-2.0
// Entries for the credentials and the access check.
#include "http/authorization.h"
#include "tarnwick/http.h"

extern "C" {

TW_API void HTTP_set_username_and_pwd(const char* user, const char* password,
                                      const void* alternate) noexcept {
  tw::http::SetCredentials(user, password, alternate != nullptr);
}

TW_API int32_t HTTP_has_authorization(HttpRequest* request) noexcept {
  if (request == nullptr) return 0;
  return tw::http::HasAuthorization(*request) ? 1 : 0;
}

}  // extern "C"
