// SPDX-License-Identifier: Apache-2.0
// Entries for the client's connections and exchanges.
#include "httpclient/exchange.h"
#include "tarnwick/httpclient.h"

namespace {

constexpr int32_t kModeSoap = 1;
constexpr int32_t kModeGet = 2;

}  // namespace

extern "C" {

TW_API int32_t HTTP_open(const char* url) noexcept { return tw::httpclient::Open(url, 0); }

TW_API int32_t HTTP_open_ttl(const char* url, int32_t ttl) noexcept {
  return tw::httpclient::Open(url, ttl);
}

TW_API upnp_string* _HTTP_talk(int32_t mode, const char* url, const char* soap_action,
                               const char* body, int32_t receive_timeout_ms) noexcept {
  return tw::httpclient::Talk(mode, url, soap_action, body, receive_timeout_ms);
}

TW_API upnp_string* HTTP_talk(int32_t mode, const char* url, const char* soap_action,
                              const char* body) noexcept {
  return tw::httpclient::Talk(mode, url, soap_action, body, 0);
}

TW_API upnp_string* HTTP_get(const char* url) noexcept {
  return tw::httpclient::Talk(kModeGet, url, nullptr, nullptr, 0);
}

TW_API upnp_string* HTTP_get_with_timeout(const char* url, int32_t timeout_ms) noexcept {
  return tw::httpclient::Talk(kModeGet, url, nullptr, nullptr, timeout_ms);
}

TW_API upnp_string* HTTP_soap_action(const char* base_url, const char* control_url,
                                     const char* soap_action, const char* body) noexcept {
  if (base_url == nullptr || control_url == nullptr || soap_action == nullptr || body == nullptr) {
    return nullptr;
  }
  char url[tw::httpclient::kSoapUrlSize];
  tw::httpclient::SoapActionUrl(base_url, control_url, url, sizeof(url));
  return tw::httpclient::Talk(kModeSoap, url, soap_action, body, 0);
}

TW_API int32_t HTTP_post(const char* url, const char* extra_headers, const char* body,
                         int32_t body_length, char** answer_out,
                         int32_t* answer_length_out) noexcept {
  return tw::httpclient::Post(url, extra_headers, body, body_length, answer_out, answer_length_out)
             ? 1
             : 0;
}

}  // extern "C"
