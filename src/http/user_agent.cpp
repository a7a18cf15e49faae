// SPDX-License-Identifier: Apache-2.0
#include "http/user_agent.h"

#include <cstring>

#include "base/fixed_text.h"
#include "platform/critical_section.h"
#include "tarnwick/platform.h"

namespace tw::http {
namespace {

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

}  // namespace tw::http
