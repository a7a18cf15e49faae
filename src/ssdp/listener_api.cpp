// SPDX-License-Identifier: Apache-2.0
// C entries for the SSDP handler registry and the listener thread.
#include <cstdint>

#include "ssdp/ssdp_internal.h"
#include "tarnwick/ssdp.h"

extern "C" {

TW_API void upnp_ssdp_register_handler(upnp_ssdp_handler_fn handler, const char* name) noexcept {
  tw::ssdp::RegisterHandler(handler, name);
}

TW_API int32_t upnp_ssdp_handler_is_registered(upnp_ssdp_handler_fn handler) noexcept {
  if (handler == nullptr) return 0;
  return tw::ssdp::HandlerRegistered(handler) ? 1 : 0;
}

TW_API void* SSDP_listen(void* server) noexcept {
  tw::ssdp::ThreadEntered();
  return tw::ssdp::CountedListenThread(server);
}

}  // extern "C"
