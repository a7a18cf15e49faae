// SPDX-License-Identifier: Apache-2.0
// The client's response readers over arbitrary bytes from a peer. The input (after one knob byte)
// is written into a local stream pair whose write side is then shut, and read back the way the
// client reads a response: the head, then the body in one piece (knob bit 0 clear) or chunk by
// chunk (set). Checks that nothing reads past its buffer, that no body holds more bytes than the
// peer sent, and that every accounted byte comes back.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "tarnwick/httpclient.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace {

// Inputs up to this size fit the pair's buffer, so the whole input is written before reading.
constexpr size_t kMaxInput = 65536;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

bool WriteAll(int fd, const uint8_t* data, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t n = send(fd, data + done, size - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > kMaxInput) return 0;
  const uint8_t knobs = data[0];
  const uint8_t* wire = data + 1;
  const size_t wire_size = size - 1;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
  const int buffer_size = static_cast<int>(kMaxInput * 2);
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &buffer_size, sizeof(buffer_size));
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &buffer_size, sizeof(buffer_size));
  const uint32_t start = upnp_mem_used();
  if (WriteAll(fds[0], wire, wire_size)) {
    shutdown(fds[0], SHUT_WR);
    char head[8192];
    const int32_t head_length = HTTP_get_header(fds[1], head, sizeof(head));
    Check(head_length >= 0 && head_length < static_cast<int32_t>(sizeof(head)));
    Check(head_length == 0 || std::strlen(head) <= static_cast<size_t>(head_length));
    if (head_length > 0) {
      if ((knobs & 1) == 0) {
        upnp_string* body = HTTP_receive_body(fds[1], head);
        if (body != nullptr) {
          Check(body->length <= wire_size && body->buffer[body->length] == '\0');
          upnp_string_free(body);
        }
      } else {
        // Every read takes at least one byte or ends the stream, so the input bounds the loop.
        size_t total = 0;
        for (size_t round = 0; round <= wire_size + 1; ++round) {
          char* chunk = nullptr;
          const int32_t n = HTTP_receive_chunk(fds[1], &chunk);
          Check((n > 0) == (chunk != nullptr));
          if (n > 0) {
            total += static_cast<size_t>(n);
            upnp_free_impl(chunk);
          }
          if (n < 0) break;
        }
        Check(total <= wire_size);
      }
    }
  }
  close(fds[0]);
  close(fds[1]);
  Check(upnp_mem_used() == start);
  return 0;
}
