// SPDX-License-Identifier: Apache-2.0
// Entries for the client's file transfers.
#include "httpclient/transfer.h"
#include "tarnwick/httpclient.h"

extern "C" {

TW_API int32_t HTTP_receive_file(int32_t socket, const char* head, const char* path,
                                 int64_t* length_out) noexcept {
  if (length_out != nullptr) *length_out = 0;
  if (socket == -1 || head == nullptr || path == nullptr) return 1;
  return tw::httpclient::ReceiveFile(socket, head, path, length_out) ? 0 : 1;
}

TW_API int32_t HTTP_download_file(const char* url, const char* extra_headers, const char* path,
                                  int64_t* length_out) noexcept {
  if (length_out != nullptr) *length_out = 0;
  if (url == nullptr || path == nullptr) return 1;
  return tw::httpclient::DownloadFile(url, extra_headers, path, length_out) ? 0 : 1;
}

TW_API int32_t HTTP_post_file(const char* url, const char* extra_headers, const char* path,
                              const char* content_type, int32_t* status_out) noexcept {
  if (status_out != nullptr) *status_out = 0;
  if (url == nullptr || path == nullptr || content_type == nullptr) return 1;
  return tw::httpclient::PostFile(url, extra_headers, path, content_type, status_out) ? 0 : 1;
}

}  // extern "C"
