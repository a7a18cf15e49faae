// SPDX-License-Identifier: Apache-2.0
// Buffered binary and bit reader: the input is the file; its own bytes also pick the buffer size
// and a bounded sequence of reads, bit reads and seeks. Checks that reads deliver the file's bytes
// at the logical position, that results stay in range and that closing returns every accounted
// byte.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "tarnwick/media.h"

namespace {

constexpr size_t kMaxOps = 512;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

const std::string& TempPath() {
  static const std::string path = [] {
    const char* dir = getenv("TMPDIR");
    std::string p = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") +
                    "/tw_fuzz_reader." + std::to_string(getpid());
    return p;
  }();
  return path;
}

bool WriteInput(const uint8_t* data, size_t size) {
  FILE* f = std::fopen(TempPath().c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!WriteInput(data, size)) return 0;
  const uint32_t start = upnp_mem_used();
  const uint32_t buffer_size = 1 + (size > 0 ? data[0] % 97 : 0);
  upnp_file_b* r = upnp_file_open_read_b(TempPath().c_str(), buffer_size);
  Check(r != nullptr);
  const int64_t file_size = static_cast<int64_t>(size);
  uint8_t scratch[300];
  char line[40];
  for (size_t i = 1; i < size && i <= kMaxOps; ++i) {
    const uint8_t op = data[i];
    const uint8_t arg = data[(i * 7 + 3) % size];
    const int64_t before = upnp_file_tell_b(r);
    Check(before >= 0);
    switch (op % 14) {
      case 0: {
        // Exactly the file's bytes from the logical position, short only at the end.
        const int32_t n = upnp_file_read_b(r, scratch, arg);
        const int64_t left = before < file_size ? file_size - before : 0;
        Check(n == (left < arg ? left : arg));
        Check(n == 0 || std::memcmp(scratch, data + before, static_cast<size_t>(n)) == 0);
        Check(upnp_file_tell_b(r) == before + n);
        break;
      }
      case 1: {
        const int32_t b = upnp_file_read_byte(r);
        Check(before < file_size ? b == data[before] : b == -1);
        break;
      }
      case 2:
        upnp_file_read_word(r);
        break;
      case 3:
        upnp_file_read_dword(r);
        break;
      case 4:
        upnp_file_read_qword(r);
        break;
      case 5:
        upnp_file_read_word_be(r);
        break;
      case 6:
        upnp_file_read_dword_be(r);
        break;
      case 7:
        upnp_file_read_qword_be(r);
        break;
      case 8:
        Check(upnp_file_read_bit(r) <= 1);
        break;
      case 9: {
        const uint32_t n = arg % 18;  // 17 is out of range on purpose
        const uint32_t v = upnp_file_read_nbits(r, n);
        Check(n > 16 ? v == 0 : v <= (2u << n));
        break;
      }
      case 10: {
        const int32_t n = upnp_file_read_line_b(r, line, 1 + arg % sizeof line);
        Check(n == -1 || (n >= 0 && static_cast<size_t>(n) < sizeof line));
        break;
      }
      case 11: {
        const int64_t off = static_cast<int64_t>(arg) - 128;
        const int64_t got = upnp_file_seek_b(r, off, arg % 4);
        if (arg % 4 == 3) Check(got == 0 && upnp_file_tell_b(r) == before);
        break;
      }
      case 12: {
        const int64_t target = size > 0 ? arg % (size + 8) : arg;
        Check(upnp_file_seek_b(r, target, UPNP_FILE_SEEK_SET) == target);
        Check(upnp_file_tell_b(r) == target);
        break;
      }
      default:
        Check(upnp_file_eof_b(r) == (before >= file_size ? 1 : 0));
        break;
    }
  }
  upnp_file_close_b(r);
  unlink(TempPath().c_str());
  Check(upnp_mem_used() == start);
  return 0;
}
