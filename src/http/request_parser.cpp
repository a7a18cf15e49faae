// SPDX-License-Identifier: Apache-2.0
// Values read from just behind a header name found anywhere in the head (case-insensitive
// substring search, not line splitting: a name inside another header's value is found too).
#include "http/request_parser.h"

#include <cstring>

#include "platform/allocator.h"
#include "tarnwick/util.h"

namespace tw::http {
void UnescapeUrl(char* text) noexcept {
  char* out = text;
  for (const char* in = text;; ++in) {
    char c = *in;
    if (c == '%' && in[1] != '\0' && in[2] != '\0') {
      // Not checked for hex digits on purpose: other characters count as 0.
      c = static_cast<char>(hexchar_to_i(static_cast<unsigned char>(in[1])) * 16 +
                            hexchar_to_i(static_cast<unsigned char>(in[2])));
      in += 2;
    } else if (c == '+') {
      c = ' ';
    }
    *out++ = c;
    if (*in == '\0') break;
  }
}

}  // namespace tw::http
