// SPDX-License-Identifier: Apache-2.0
// Readers of a message body that follows a head on a socket.
#pragma once

#include <cstdint>

#include "tarnwick/types.h"

namespace tw::httpclient {

// The body framed as the head says (chunked, Content-Length, or until the peer closes for
// HTTP/1.0 and "Connection: close"); null when there is none or nothing arrived.
upnp_string* ReceiveBody(int32_t socket, const char* head) noexcept;
// One chunk: its byte count and *data_out (an accounted block, which may be larger than the
// count), 0 at the last chunk, -1 when the size line fails, memory is short or nothing of the
// chunk arrived. Memory grows with the bytes that arrive, not with the announced size.
int32_t ReceiveChunk(int32_t socket, char** data_out) noexcept;

// Receives the body framed as ReceiveBody frames it and hands it to write piece by piece (up to
// 8 KiB each, as the bytes arrive); write returns false to stop the read.
using BodyWriter = bool (*)(void* context, const char* bytes, uint32_t count);
enum class BodyEnd {
  kNone,      // the head announces no body; nothing was read
  kComplete,  // every announced byte, the last chunk or the end of the stream arrived
  kShort,     // the peer stopped early or a receive failed
  kFailed,    // write refused, or memory ran out
};
BodyEnd StreamBody(int32_t socket, const char* head, BodyWriter write, void* context) noexcept;

}  // namespace tw::httpclient
