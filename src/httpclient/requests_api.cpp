// SPDX-License-Identifier: Apache-2.0
// Entries for the client's request heads.
#include "httpclient/requests.h"
#include "tarnwick/httpclient.h"

namespace {

int32_t Result(bool sent) noexcept { return sent ? 0 : 1; }

}  // namespace

extern "C" {

TW_API int32_t HTTP_head_or_get_request(const char* method, int32_t socket, const char* url,
                                        const char* extra_headers) noexcept {
  if (method == nullptr) return 1;
  return Result(tw::httpclient::SendHeadOrGet(method, socket, url, extra_headers, false));
}

TW_API int32_t HTTP_get_request(int32_t socket, const char* url,
                                const char* extra_headers) noexcept {
  return Result(tw::httpclient::SendHeadOrGet("GET", socket, url, extra_headers, false));
}

TW_API int32_t HTTP_head_request(int32_t socket, const char* url,
                                 const char* extra_headers) noexcept {
  return Result(tw::httpclient::SendHeadOrGet("HEAD", socket, url, extra_headers, false));
}

TW_API int32_t HTTP_get_request_1_0(int32_t socket, const char* url,
                                    const char* extra_headers) noexcept {
  return Result(tw::httpclient::SendHeadOrGet("GET", socket, url, extra_headers, true));
}

TW_API int32_t HTTP_post_request(int32_t socket, const char* url, const char* soap_action,
                                 const char* body) noexcept {
  return Result(tw::httpclient::SendSoapPost(socket, url, soap_action, body));
}

TW_API int32_t HTTP_post_header(int32_t socket, const char* url, const char* content_type,
                                int64_t content_length, int32_t expect_continue,
                                const char* extra_headers) noexcept {
  return Result(tw::httpclient::SendPostHeader(socket, url, content_type, content_length,
                                               expect_continue != 0, extra_headers));
}

}  // extern "C"
