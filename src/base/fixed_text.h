// SPDX-License-Identifier: Apache-2.0
// Copying and formatting into fixed buffers where cutting a long text is the intended outcome
// (header lines, addresses, configured names). Both return the length the whole text would have
// had, as snprintf does, so a caller sees a cut as a result >= size. With size > 0 the result in
// out is always NUL-terminated; size 0 writes nothing, and out may then be null.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "tarnwick/export.h"

namespace tw {

// text must be non-null and must not overlap out.
inline size_t CopyCut(char* out, size_t size, const char* text) noexcept {
  const size_t length = std::strlen(text);
  if (size == 0) return length;
  const size_t kept = length < size ? length : size - 1;
  std::memcpy(out, text, kept);
  out[kept] = '\0';
  return length;
}

// vsnprintf's result (negative only for a bad format). A function of its own rather than
// snprintf at the call, so the compiler does not flag every deliberate cut.
TW_PRINTF(3, 4)
inline int FormatCut(char* out, size_t size, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  const int written = std::vsnprintf(out, size, format, args);
  va_end(args);
  return written;
}

}  // namespace tw
