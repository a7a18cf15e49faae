// SPDX-License-Identifier: Apache-2.0
// Entries: file names, titles, embedded URLs, IP addresses, lists, command lines, hex dumps.
#include <cstdarg>

#include "tarnwick/util.h"
#include "util/helpers.h"

extern "C" {

TW_API char* upnp_get_extension(const char* path) noexcept {
  return tw::DupToC(path == nullptr ? std::string_view("bin") : tw::util::ExtensionOf(path));
}

TW_API char* upnp_build_title_from_filename(const char* path) noexcept {
  if (path == nullptr) return nullptr;
  const std::string_view title = tw::util::TitleOf(path);
  return tw::DupToC(title.empty() ? std::string_view("No Title") : title);
}

TW_API char* upnp_remove_bad_chars(const char* text) noexcept {
  return text == nullptr ? nullptr : tw::util::ReplaceBadChars(text);
}

TW_API void upnp_util_convert_string_to_filename(char* buffer, size_t length) noexcept {
  if (buffer != nullptr) tw::util::MakeFileNameSafe(buffer, length);
}

TW_API char* upnp_util_create_embedded_url(const char* base, const char* target,
                                           const char* extension) noexcept {
  return target == nullptr ? nullptr : tw::util::CreateEmbeddedUrl(base, target, extension);
}

TW_API char* upnp_util_get_embedded_url(const char* url) noexcept {
  return url == nullptr ? nullptr : tw::util::GetEmbeddedUrl(url);
}

TW_API const char* upnp_extract_ipaddress(const char* text, uint32_t* offset,
                                          uint32_t* length) noexcept {
  uint32_t ignored_offset = 0;
  uint32_t ignored_length = 0;
  uint32_t* out_offset = offset != nullptr ? offset : &ignored_offset;
  uint32_t* out_length = length != nullptr ? length : &ignored_length;
  if (text == nullptr) {
    *out_offset = 0;
    *out_length = 0;
    return nullptr;
  }
  return tw::util::ExtractIpAddress(text, out_offset, out_length);
}

TW_API char* upnp_copy_ipaddress(const char* text) noexcept {
  uint32_t length = 0;
  const char* address = upnp_extract_ipaddress(text, nullptr, &length);
  return address == nullptr ? nullptr : tw::DupToC(std::string_view(address, length));
}

TW_API char** util_split_csv_split(const char* text, uint32_t* count) noexcept {
  uint32_t ignored = 0;
  uint32_t* out = count != nullptr ? count : &ignored;
  if (text == nullptr) {
    *out = 0;
    return nullptr;
  }
  return tw::util::SplitCsv(text, out);
}

TW_API void* upnp_group_malloc(int32_t n, ...) noexcept {
  va_list pairs;
  va_start(pairs, n);
  void* group = tw::util::GroupMalloc(n, pairs);
  va_end(pairs);
  return group;
}

TW_API void upnp_group_free(void* group) noexcept {
  if (group != nullptr) tw::util::GroupFree(group);
}

TW_API int32_t upnp_group_malloc_get_num(int32_t ignored, ...) noexcept {
  va_list pairs;
  va_start(pairs, ignored);
  const int32_t count = tw::util::GroupCountPairs(pairs);
  va_end(pairs);
  return count;
}

TW_API int kt_string_argv_to_string(char* const* argv, int32_t count, int32_t first,
                                    upnp_string** string) noexcept {
  if (argv == nullptr || string == nullptr) return -1;
  return tw::util::ArgvToString(argv, count, first, string) ? 0 : -1;
}

TW_API char** kt_util_create_argv_str(const char* command_line, int32_t* argc) noexcept {
  int32_t ignored = 0;
  int32_t* out = argc != nullptr ? argc : &ignored;
  if (command_line == nullptr) {
    *out = 0;
    return nullptr;
  }
  return tw::util::CreateArgv(command_line, out);
}

TW_API void kt_util_release_argv_str(char** argv) noexcept {
  if (argv != nullptr) tw::util::ReleaseArgv(argv);
}

TW_API int upnp_hexdump(const void* data, uint32_t length, void* stream, int32_t indent) noexcept {
  if (data == nullptr || length == 0 || stream == nullptr) return -1;
  tw::util::HexDump(static_cast<const uint8_t*>(data), length, stream, indent);
  return 0;
}

}  // extern "C"
