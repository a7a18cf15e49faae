// SPDX-License-Identifier: Apache-2.0
// The host's exit hook. Registration may race with a critical message on another thread, so the
// pointer is atomic; the hook itself runs on whichever thread asked to end the library.
#include <atomic>
#include <cstdlib>

#include "tarnwick/platform.h"

namespace tw::platform {
namespace {

std::atomic<upnp_exit_function> g_exit_function{nullptr};

}  // namespace
}  // namespace tw::platform

extern "C" {

TW_API void register_upnp_exit_function(upnp_exit_function fn) noexcept {
  tw::platform::g_exit_function.store(fn, std::memory_order_release);
}

TW_API void upnp_exit(int32_t code) noexcept {
  const upnp_exit_function fn = tw::platform::g_exit_function.load(std::memory_order_acquire);
  if (fn != nullptr) {
    fn(code);  // the host decides what ending means; control comes back to the caller
    return;
  }
  std::exit(code);
}

}  // extern "C"
