// SPDX-License-Identifier: Apache-2.0
// Entries for the head readers and the range reader.
#include <cstring>

#include "http/registry.h"
#include "http/request_parser.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"

extern "C" {

TW_API void HTTP_get_range_header(HttpRequest* request) noexcept {
  if (request == nullptr) return;
  // The head buffer is always terminated in its last byte; enforce it so a record filled by
  // hand can never lead the readers past its end.
  request->header[sizeof(request->header) - 1] = '\0';
  tw::http::ReadRanges(*request);
}

TW_API uint32_t HTTP_parse_time_range(const char* text, int32_t* clock_flag) noexcept {
  if (text == nullptr) return 0;
  return tw::http::ParseTimeRange(text, clock_flag);
}

TW_API int32_t upnp_range_to_string(int64_t milliseconds, char* buffer, size_t size) noexcept {
  if (buffer == nullptr) return 0;
  return tw::http::FormatRangeTime(milliseconds, buffer, size);
}

TW_API void upnp_timeseek_free(upnp_timeseek* record) noexcept {
  if (record == nullptr) return;
  if (record->text != nullptr) upnp_free_impl(record->text);
  upnp_free_impl(record);
}

TW_API void HTTP_unescape_url(char* text) noexcept {
  if (text == nullptr) return;
  tw::http::UnescapeUrl(text);
}

TW_API void http_skip_spaces(char** text_pointer) noexcept {
  if (text_pointer == nullptr || *text_pointer == nullptr) return;
  *text_pointer = const_cast<char*>(tw::http::SkipSpaces(*text_pointer));
}

TW_API int32_t HTTP_get_remote_port(void) noexcept { return tw::http::RemotePort(); }

}  // extern "C"
