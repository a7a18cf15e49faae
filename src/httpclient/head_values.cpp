// SPDX-License-Identifier: Apache-2.0
// Values read from just behind a header name found anywhere in the head (case-insensitive
// substring search, not line splitting: a name inside another header's value is found too).
#include "httpclient/head_values.h"

#include <cstring>
#include <string_view>

#include "platform/allocator.h"
#include "tarnwick/util.h"
#include "util/helpers.h"

namespace tw::httpclient {
namespace {

constexpr char kContentType[] = "content-type:";
constexpr char kContentLength[] = "content-length:";
constexpr char kConnection[] = "connection:";

}  // namespace

const char* SkipSpaces(const char* p) noexcept {
  const char* q = p;
  while (*q == ' ' || *q == '\t') ++q;
  if (*q == '\r' || *q == '\0') return p;
  return q;
}

char* ContentTypeValue(const char* head) noexcept {
  const char* name = upnp_istrstr(head, kContentType);
  if (name == nullptr) return nullptr;
  const char* value = name + sizeof(kContentType) - 1;
  while (*value == ' ') ++value;  // only spaces here, unlike SkipSpaces
  const char* end = std::strstr(value, "\r\n");
  if (end == nullptr) return nullptr;
  return DupToC(std::string_view(value, static_cast<size_t>(end - value)));
}

bool IsChunked(const char* head) noexcept {
  return upnp_istrstr(head, "chunked\r\n") != nullptr &&
         upnp_istrstr(head, "Transfer-Encoding") != nullptr;
}

bool HasConnectionClose(const char* head) noexcept {
  const char* name = upnp_istrstr(head, kConnection);
  if (name == nullptr) return false;
  const char* value = SkipSpaces(name + sizeof(kConnection) - 1);
  if (upnp_starts_with(value, "close")) return true;
  // Any later "close" counts as well, even in another header: tolerant of odd value lists.
  return std::strstr(name + sizeof(kConnection) - 1, "close") != nullptr;
}

int32_t ResponseStatus(const char* head) noexcept {
  const char* space = std::strchr(head, ' ');
  if (space == nullptr) return kNoResponseStatus;
  return util::Atoi(space + 1);
}

int64_t ContentLength(const char* head) noexcept {
  const char* name = upnp_istrstr(head, kContentLength);
  if (name == nullptr) return 0;
  int64_t value = upnp_ascii_to_long_long(SkipSpaces(name + sizeof(kContentLength) - 1));
  return value < 0 ? 0 : value;
}

}  // namespace tw::httpclient
