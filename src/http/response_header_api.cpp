// SPDX-License-Identifier: Apache-2.0
// Entries for response header composition and the HTTP client's user agent.
#include <cstdio>

#include "base/status.h"
#include "http/response_header.h"
#include "tarnwick/http.h"

extern "C" {

TW_API int32_t HTTP_send_header(HttpRequest* request, int32_t status) noexcept {
  if (request == nullptr) return tw::kHttpFail;
  return tw::http::SendResponseHeader(*request, status) ? tw::kHttpOk : tw::kHttpFail;
}

TW_API void HTTP_add_header(HttpRequest* request, const char* lines) noexcept {
  if (request == nullptr || lines == nullptr) return;
  tw::http::AddHeaderLines(*request, lines);
}

TW_API void HTTP_set_server_info(HttpRequest* request) noexcept {
  if (request == nullptr) return;
  char lines[128];
  std::snprintf(lines, sizeof(lines), "EXT:\r\nSERVER: %s\r\n", UPNP_SERVER_BANNER);
  tw::http::AddHeaderLines(*request, lines);
}

TW_API void HTTP_set_no_cache(HttpRequest* request) noexcept {
  if (request == nullptr) return;
  tw::http::AddHeaderLines(*request,
                           "Expires: 0\r\nPragma: no-cache\r\nCache-Control: no-cache\r\n");
}

}  // extern "C"
