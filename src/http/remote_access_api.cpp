// SPDX-License-Identifier: Apache-2.0
// Entries for remote-access body rewriting, redirects, URL parameters and Accept-Language.
#include <cstdio>

#include "http/remote_access.h"
#include "tarnwick/http.h"
#include "tarnwick/util.h"

extern "C" {

TW_API upnp_string* http_post_process_for_remote_access(HttpRequest* request,
                                                        upnp_string* body) noexcept {
  if (request == nullptr || body == nullptr || body->buffer == nullptr) return body;
  return tw::http::PostProcessForRemoteAccess(*request, body);
}

TW_API int32_t upnp_http_redirect(HttpRequest* request, const char* location) noexcept {
  // Always 1: after a redirect the connection is closed, whether the sends worked or not.
  if (request != nullptr && location != nullptr) tw::http::SendRedirect(*request, location);
  return 1;
}

TW_API upnp_string* HTTP_set_url_parameter(upnp_string* url, const char* name,
                                           const char* value) noexcept {
  if (url == nullptr) return nullptr;
  if (name == nullptr || value == nullptr) {
    upnp_string_free(url);
    return nullptr;
  }
  return tw::http::SetUrlParameter(url, name, value);
}

TW_API char* upnp_http_build_language_header(const char* language) noexcept {
  if (language == nullptr) return nullptr;
  const std::string_view code = tw::http::AcceptLanguage(language);
  constexpr char kPrefix[] = "Accept-Language: ";
  const size_t size = sizeof(kPrefix) - 1 + code.size() + 3;
  auto* line = static_cast<char*>(upnp_malloc_impl(size));
  if (line == nullptr) return nullptr;
  std::snprintf(line, size, "%s%.*s\r\n", kPrefix, static_cast<int>(code.size()), code.data());
  return line;
}

}  // extern "C"
