// SPDX-License-Identifier: Apache-2.0
// The head readers, the range reader and the response composer over arbitrary request heads.
// The first bytes of an input choose the response fields and client quirks, the rest is the
// head (its first line also gives the URL). Checks that the composed header stays inside its
// buffer and is well framed, that the range reader leaves only the documented markers or read
// numbers, and that every accounted byte comes back.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "http/response_header.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"

namespace {

constexpr size_t kKnobs = 24;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

uint8_t g_knobs[kKnobs];

int32_t Needs10(int32_t) noexcept { return g_knobs[0] & 1; }
int32_t Redsonic(int32_t) noexcept { return (g_knobs[0] >> 1) & 1; }
uint32_t DlnaVersion(int32_t) noexcept { return (g_knobs[0] & 4) != 0 ? 15u : 0u; }
char* Date(char* out, size_t size) noexcept {
  std::snprintf(out, size, "%s", "Sun, 06 Nov 1994 08:49:37 GMT");
  return out;
}
int32_t DtcpPort() noexcept { return 8999; }
constexpr tw::http::ResponseEnvironment kEnv = {Needs10, Redsonic, DlnaVersion, Date, DtcpPort};

int64_t Int64At(size_t at) {
  int64_t value;
  std::memcpy(&value, g_knobs + at, sizeof(value));
  return value;
}

const char* const kTypes[] = {nullptr, "audio/L16", "video/mpeg", "text/xml; charset=\"utf-8\""};
const int32_t kStatuses[] = {200, 206, 400, 401, 404, 406, 416, 500, 503, 302, -1, 0};

void ReadValues(const char* head) {
  char* type = HTTP_parse_header_mime_type(head);
  if (type != nullptr) {
    Check(std::strstr(type, "\r\n") == nullptr);
    upnp_free_impl(type);
  }
  Check(HTTP_parse_header_chunked(head) <= 1);
  Check(upnp_http_has_connection_close(head) <= 1);
  HTTP_parse_header_response(head);
  Check(HTTP_parse_header_size(head) >= 0);
  int32_t clock = 0;
  HTTP_parse_time_range(head, &clock);
  char* p = const_cast<char*>(head);
  http_skip_spaces(&p);
  Check(p >= head && p <= head + std::strlen(head));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kKnobs) return 0;
  const uint32_t start = upnp_mem_used();
  std::memcpy(g_knobs, data, kKnobs);
  const std::string head(reinterpret_cast<const char*>(data + kKnobs), size - kKnobs);

  auto* r = static_cast<HttpRequest*>(upnp_calloc_impl(1, sizeof(HttpRequest)));
  Check(r != nullptr);
  std::snprintf(r->header, sizeof(r->header), "%s", head.c_str());
  ReadValues(r->header);

  HTTP_get_range_header(r);
  // The requested copies are either untouched or the values as read.
  Check(r->requested_range_start == r->range_start ||
        r->requested_range_start == HTTP_RANGE_ABSENT);
  Check(r->is_timeseek <= 1 && r->range_is_dtcp <= 1);

  // URL: the head's first line, unescaped as the connection code does.
  const size_t line_end = head.find('\n');
  std::snprintf(r->url, sizeof(r->url), "%.*s",
                static_cast<int>(line_end == std::string::npos ? head.size() : line_end),
                head.c_str());
  HTTP_unescape_url(r->url);
  std::snprintf(r->base_url, sizeof(r->base_url), "%s", "http://127.0.0.1:9000/");
  r->http_version = (g_knobs[1] & 1) != 0 ? 10 : 11;
  r->method = 1u << (g_knobs[1] >> 1 & 7);
  r->dlna_version = (g_knobs[1] & 0x10) != 0 ? 15 : 0;
  r->chunked = (g_knobs[1] >> 5) & 1;
  r->dtcp_protected = (g_knobs[1] >> 6) & 1;
  r->close_connection = g_knobs[1] >> 7;
  r->mime_type = kTypes[g_knobs[2] % 4];
  r->range_is_clock_time = g_knobs[3] & 1;
  r->content_length = (g_knobs[3] & 2) != 0 ? 9999999999999999LL : Int64At(4);
  r->total_size = Int64At(12);
  r->duration_ms = static_cast<int32_t>(Int64At(16));
  if ((g_knobs[3] & 4) != 0) HTTP_add_header(r, r->header);
  const int32_t status = kStatuses[(g_knobs[3] >> 4) % 12];

  {
    static tw::http::ResponseHead head;  // over 8 KiB: kept off the stack
    tw::http::ComposeResponseHeader(*r, status, &head, kEnv);
    const std::string_view out(head.text, head.length);
    Check(out.size() < tw::http::kResponseHeaderSize);
    Check(out.compare(0, 5, "HTTP/") == 0);
    Check(std::strlen(r->extra_headers) < sizeof(r->extra_headers));
    // The full form, unless the buffer was filled, ends with the banner and the blank line.
    const std::string tail = std::string("\r\nServer: ") + UPNP_SERVER_BANNER + "\r\n\r\n";
    const bool redsonic = Redsonic(0) != 0 && std::strstr(r->header, "redsonic") != nullptr;
    if (out.size() < tw::http::kResponseHeaderSize - 1 && r->content_length >= 0 && !redsonic) {
      Check(out.size() > tail.size() &&
            out.compare(out.size() - tail.size(), tail.size(), tail) == 0);
    }
  }
  upnp_free_impl(r);
  Check(upnp_mem_used() == start);
  return 0;
}
