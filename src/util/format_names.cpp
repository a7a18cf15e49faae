// SPDX-License-Identifier: Apache-2.0
// File names, titles, proxy URLs for embedded content and IP addresses inside text.
#include <cstring>
#include <string_view>

#include "base/ascii.h"
#include "tarnwick/util.h"
#include "util/helpers.h"

namespace tw::util {
namespace {

constexpr std::string_view kEmbeddedMarker = "httpproxy/embedded";
// Capacity of the work string: proxy URLs are short, so one allocation usually suffices.
constexpr uint32_t kEmbeddedUrlCapacity = 255;
// An extension is appended only when shorter than this; it is stripped when at most 3 long.
constexpr size_t kMaxAppendedExtension = 5;
constexpr size_t kMaxStrippedExtension = 3;

char* ReplaceEach(const char* text, std::string_view bad) noexcept {
  char* copy = DupToC(text);
  if (copy == nullptr) return nullptr;
  for (char* p = copy; *p != '\0'; ++p) {
    if (bad.find(*p) != std::string_view::npos) *p = '#';
  }
  return copy;
}

}  // namespace

std::string_view ExtensionOf(std::string_view path) noexcept {
  const size_t dot = path.rfind('.');
  if (dot == std::string_view::npos) return "bin";
  return path.substr(dot + 1);
}

std::string_view TitleOf(std::string_view path) noexcept {
  const size_t slash = path.find_last_of("/\\");
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  const size_t dot = name.rfind('.');
  if (dot != std::string_view::npos) name = name.substr(0, dot);
  return name;
}

char* ReplaceBadChars(const char* text) noexcept { return ReplaceEach(text, " /\\?:*"); }

void MakeFileNameSafe(char* buffer, size_t length) noexcept {
  constexpr std::string_view kBad = "/\\*?<>:|\"";
  for (size_t i = 0; i < length; ++i) {
    if (kBad.find(buffer[i]) != std::string_view::npos) buffer[i] = '#';
  }
}

char* CreateEmbeddedUrl(const char* base, const char* target, const char* extension) noexcept {
  CPtr encoded(upnp_string_to_encoded_url(target, 0));
  if (!encoded) return nullptr;
  upnp_string* url = upnp_string_create(base != nullptr ? base : "", kEmbeddedUrlCapacity);
  // Appending to a record whose growth failed is not allowed, so every step checks the buffer.
  auto append = [&url](const char* text) {
    if (upnp_string_get_cstring(url) == nullptr) return false;
    url = upnp_string_concat(url, text);
    return upnp_string_get_cstring(url) != nullptr;
  };
  bool ok = true;
  if (base != nullptr) {
    const size_t base_length = std::strlen(base);
    if (base_length == 0 || base[base_length - 1] != '/') ok = append("/");
  }
  ok = ok && append(kEmbeddedMarker.data()) && append(encoded.get());
  // An empty extension would only leave a bare '.', so it counts as not given.
  if (ok && extension != nullptr && extension[0] != '\0' &&
      std::strlen(extension) < kMaxAppendedExtension) {
    ok = append(".") && append(extension);
  }
  char* result = ok ? upnp_string_copy_cstring(url) : nullptr;
  upnp_string_free(url);
  return result;
}

char* GetEmbeddedUrl(const char* url) noexcept {
  const char* marker = std::strstr(url, kEmbeddedMarker.data());
  if (marker == nullptr) return nullptr;
  char* target = DupToC(marker + kEmbeddedMarker.size());
  if (target == nullptr) return nullptr;
  // Any last dot with up to three bytes behind it counts as an extension, so a target whose
  // own name ends like "a.b" loses ".b" too; intended, the proxy cannot tell them apart.
  char* dot = std::strrchr(target, '.');
  if (dot != nullptr && std::strlen(dot + 1) <= kMaxStrippedExtension) *dot = '\0';
  return target;
}

const char* ExtractIpAddress(const char* text, uint32_t* offset, uint32_t* length) noexcept {
  *offset = 0;
  *length = 0;
  const char* start = text;
  while (*start != '\0' && !ascii::IsDigit(*start)) ++start;
  if (*start == '\0') return nullptr;
  size_t run = 0;
  while (ascii::IsDigit(start[run]) || start[run] == '.') ++run;
  while (start[run - 1] == '.') --run;  // the run starts with a digit, so this stops there
  *offset = static_cast<uint32_t>(start - text);
  *length = static_cast<uint32_t>(run);
  return start;
}

}  // namespace tw::util
