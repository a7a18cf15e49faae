// SPDX-License-Identifier: Apache-2.0
// Entries for reading a head off a socket and the values in it.
#include "httpclient/head_reader.h"
#include "httpclient/head_values.h"
#include "tarnwick/httpclient.h"

extern "C" {

TW_API int32_t HTTP_get_header(int32_t socket, char* buffer, int32_t size) noexcept {
  if (socket == -1 || buffer == nullptr) return 0;
  return tw::httpclient::ReadHead(socket, buffer, size);
}

TW_API char* HTTP_parse_header_mime_type(const char* head) noexcept {
  if (head == nullptr) return nullptr;
  return tw::httpclient::ContentTypeValue(head);
}

TW_API int32_t HTTP_parse_header_chunked(const char* head) noexcept {
  if (head == nullptr) return 0;
  return tw::httpclient::IsChunked(head) ? 1 : 0;
}

TW_API int32_t upnp_http_has_connection_close(const char* head) noexcept {
  if (head == nullptr) return 0;
  return tw::httpclient::HasConnectionClose(head) ? 1 : 0;
}

TW_API int32_t HTTP_parse_header_response(const char* head) noexcept {
  if (head == nullptr) return tw::httpclient::kNoResponseStatus;
  return tw::httpclient::ResponseStatus(head);
}

TW_API int64_t HTTP_parse_header_size(const char* head) noexcept {
  if (head == nullptr) return 0;
  return tw::httpclient::ContentLength(head);
}

}  // extern "C"
