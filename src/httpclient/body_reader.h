// SPDX-License-Identifier: Apache-2.0
// Readers of a message body that follows a head on a socket.
#pragma once

#include <cstdint>

#include "tarnwick/types.h"

namespace tw::httpclient {

// The body framed as the head says (chunked, Content-Length, or until the peer closes for
// HTTP/1.0 and "Connection: close"); null when there is none or nothing arrived.
upnp_string* ReceiveBody(int32_t socket, const char* head) noexcept;
// One chunk: its byte count and *data_out (an accounted block), 0 at the last chunk, -1 when
// the size line fails, memory is short or nothing of the chunk arrived.
int32_t ReceiveChunk(int32_t socket, char** data_out) noexcept;

}  // namespace tw::httpclient
