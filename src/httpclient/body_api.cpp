// SPDX-License-Identifier: Apache-2.0
// Entries for the message-body readers.
#include "httpclient/body_reader.h"
#include "tarnwick/httpclient.h"

extern "C" {

TW_API upnp_string* HTTP_receive_body(int32_t socket, const char* head) noexcept {
  if (head == nullptr) return nullptr;
  return tw::httpclient::ReceiveBody(socket, head);
}

TW_API int32_t HTTP_receive_chunk(int32_t socket, char** data_out) noexcept {
  if (data_out == nullptr) return -1;
  if (socket == -1) {
    *data_out = nullptr;
    return -1;
  }
  return tw::httpclient::ReceiveChunk(socket, data_out);
}

}  // extern "C"
