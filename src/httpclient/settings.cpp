// SPDX-License-Identifier: Apache-2.0
#include "httpclient/settings.h"

#include <atomic>
#include <cstring>

#include "base/fixed_text.h"
#include "platform/critical_section.h"
#include "tarnwick/platform.h"

namespace tw::httpclient {
namespace {

constexpr int32_t kDefaultConnectionTimeoutSeconds = 30;
std::atomic<int32_t> g_connection_timeout{kDefaultConnectionTimeoutSeconds};

struct UserAgentState {
  UserAgentState() noexcept { InitializeCriticalSection(&cs); }
  CRITICAL_SECTION cs;
  char text[kUserAgentSize] = {};
  bool is_set = false;
};

// Never destroyed: stays usable while the process exits.
UserAgentState& State() noexcept {
  static UserAgentState state;
  return state;
}

}  // namespace

void SetDefaultUserAgent(const char* text) noexcept {
  UserAgentState& state = State();
  CsGuard guard(&state.cs);
  if (state.is_set) return;
  CopyCut(state.text, sizeof(state.text), text != nullptr ? text : "");
  state.is_set = true;
}

void MakeUserAgentSettable() noexcept {
  UserAgentState& state = State();
  CsGuard guard(&state.cs);
  state.is_set = false;
}

bool CopyUserAgent(char* out, size_t size) noexcept {
  UserAgentState& state = State();
  CsGuard guard(&state.cs);
  CopyCut(out, size, state.text);
  return state.is_set;
}

int32_t SetConnectionTimeout(int32_t seconds) noexcept {
  return g_connection_timeout.exchange(seconds);
}

int32_t ConnectionTimeout() noexcept { return g_connection_timeout.load(); }

}  // namespace tw::httpclient
