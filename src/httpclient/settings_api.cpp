// SPDX-License-Identifier: Apache-2.0
// Entries for the client's process-wide settings.
#include "httpclient/settings.h"
#include "tarnwick/httpclient.h"

extern "C" {

TW_API void HTTP_set_default_user_agent(const char* text) noexcept {
  tw::httpclient::SetDefaultUserAgent(text);
}

TW_API void HTTP_make_user_agent_settable(void) noexcept {
  tw::httpclient::MakeUserAgentSettable();
}

TW_API int32_t HTTP_set_connection_timeout(int32_t seconds) noexcept {
  return tw::httpclient::SetConnectionTimeout(seconds);
}

TW_API int32_t HTTP_get_connection_timeout(void) noexcept {
  return tw::httpclient::ConnectionTimeout();
}

}  // extern "C"
