// SPDX-License-Identifier: Apache-2.0
// The status line and header lines of every response, composed in one buffer and sent at once.
#include "http/response_header.h"

#include <cstring>
#include <string_view>

#include "base/fixed_text.h"
#include "http/hooks.h"
#include "http/mime_table.h"
#include "http/registry.h"
#include "http/request_parser.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace tw::http {
namespace {

struct StatusText {
  int32_t status;
  std::string_view text;  // from a literal: NUL-terminated
  bool forces_html;       // error pages are HTML whatever type the handler set
};

// "Unauthorised", "Invalid Args" and "Action Failed" are fixed wordings: clients match status
// texts, and "Unauthorized" would not be the same line. Pinned by
// HttpResponseHeader.StatusTextsAndTheTypesTheyForce.
constexpr StatusText kStatusTexts[] = {
    {200, "200 OK", false},
    {206, "206 Partial Content", false},
    {400, "400 Bad Request", true},
    {401, "401 Unauthorised", true},
    {402, "402 Invalid Args", true},
    {404, "404 Not Found", true},
    {406, "406 Not Acceptable", true},
    {412, "412 Precondition Failed", true},
    {416, "416 Requested Range Not Satisfiable", true},
    {500, "500 Internal Server Error", true},
    {501, "501 Action Failed", true},
    {503, "503 Service Unavailable", true},
};
static_assert(sizeof(kStatusTexts) / sizeof(kStatusTexts[0]) == 12, "12 status texts");

constexpr int32_t kStatusPartial = 206;
constexpr int32_t kStatusNotFound = 404;
constexpr int32_t kStatusRangeNotSatisfiable = 416;
constexpr int32_t kHttp10 = 10;
constexpr char kOk[] = "200 OK";
constexpr char kNotFound[] = "404 Not Found";
constexpr char kPartialContent[] = "206 Partial Content";
constexpr char kHtmlType[] = "text/html; charset=utf-8";
// The length handlers give for a stream whose size nobody knows.
constexpr int64_t kUnknownStreamLength = 9999999999999999LL;

// Sizes of the work buffers; texts longer than these are cut.
constexpr uint32_t kLineSize = 128;
constexpr uint32_t kRangeLineSize = 512;
constexpr size_t kDateSize = 32;
constexpr size_t kNumberSize = 25;
constexpr size_t kTimeSize = 32;

const StatusText* FindStatus(int32_t status) noexcept {
  for (const StatusText& entry : kStatusTexts) {
    if (entry.status == status) return &entry;
  }
  return nullptr;
}

// The work buffers of one composition besides the head itself. Together with the head they
// are over 9 KiB, but they live only while one response is composed, so they sit on the
// sending thread's stack (worker threads have 128 KiB) instead of costing an allocation.
struct WorkBuffers {
  explicit WorkBuffers(char* head) noexcept : header(head) {}
  char* header;  // kResponseHeaderSize bytes: the caller's ResponseHead
  char content_length[kLineSize];
  char range[kRangeLineSize];
  char content_type[kLineSize];
  char last_modified[kLineSize];
  char status_line[kLineSize];
};

std::string_view Number(int64_t value, char (&buffer)[kNumberSize]) noexcept {
  upnp_longlong_to_string(value, buffer, sizeof(buffer));
  return buffer;
}

void WriteRangeLine(const HttpRequest& r, bool time_seek, char* out) noexcept {
  char start[kNumberSize];
  char end[kNumberSize];
  char total[kNumberSize];
  Number(r.range_start, start);
  Number(r.range_end, end);
  Number(r.total_size, total);
  if (!time_seek) {
    FormatCut(out, kRangeLineSize, "Content-Range: bytes %s-%s/%s\r\n", start, end, total);
    return;
  }
  // Times go out as 32-bit millisecond counts.
  int32_t from = static_cast<int32_t>(r.requested_range_start);
  int32_t to = static_cast<int32_t>(r.requested_range_end);
  if (to < 0) to = r.duration_ms;
  int32_t duration = r.duration_ms;
  if (r.range_is_clock_time == 0) {
    // The milliseconds are not padded ("001.5" for 1005 ms), intended: clients parse it so.
    FormatCut(out, kRangeLineSize,
              "TimeSeekRange.dlna.org: npt=%03d.%d-%03d.%d/%03d.%d bytes=%s-%s/%s\r\n", from / 1000,
              from % 1000, to / 1000, to % 1000, duration / 1000, duration % 1000, start, end,
              total);
    return;
  }
  char from_text[kTimeSize];
  char to_text[kTimeSize];
  char duration_text[kTimeSize];
  FormatRangeTime(from, from_text, sizeof(from_text));
  FormatRangeTime(to, to_text, sizeof(to_text));
  FormatRangeTime(duration, duration_text, sizeof(duration_text));
  FormatCut(out, kRangeLineSize, "TimeSeekRange.dlna.org: npt=%s-%s/%s bytes=%s-%s/%s\r\n",
            from_text, to_text, duration_text, start, end, total);
}

// The host of base_url: behind the scheme, up to the port's ':'.
void HostOfBaseUrl(const char* base_url, char* out, size_t size) noexcept {
  const char* host = std::strstr(base_url, "://");
  host = host != nullptr ? host + 3 : base_url;
  size_t length = std::strcspn(host, ":");
  FormatCut(out, size, "%.*s", static_cast<int>(length), host);
}

void ApplyPriority(int32_t socket, SocketPriority priority) noexcept {
  switch (priority) {
    case SocketPriority::kInteractive:
      setSockOptInteractivePriority(socket);
      break;
    case SocketPriority::kBackground:
      setSockOptBackgroundPriority(socket);
      break;
    case SocketPriority::kAudioVideo:
      setSockOptAVPriority(socket);
      break;
    case SocketPriority::kNone:
      break;
  }
}

// The steps of ComposeResponseHeader, in the order it runs them. Each writes one part of the head
// into its work buffer; the order matters where a step changes what a later step reads.

// Records filled by hand may lack terminators; every later step reads these fields as C strings.
void TerminateRequestTexts(HttpRequest& r) noexcept {
  r.header[sizeof(r.header) - 1] = '\0';
  r.url[sizeof(r.url) - 1] = '\0';
  r.extra_headers[sizeof(r.extra_headers) - 1] = '\0';
}

// Last-Modified line of the file being sent (empty without one); reads nothing the others change.
void WriteLastModified(const HttpRequest& r, char* out) noexcept {
  out[0] = '\0';
  if (r.file_cache == nullptr || r.file_cache->modification_time == 0) return;
  char when[kDateSize] = "";
  upnp_date_formatGMT(r.file_cache->modification_time, when, sizeof(when));
  FormatCut(out, kLineSize, "Last-Modified: %s\r\n", when);
}

// The status that goes out: refusals turn a 200 into an error before any line depends on it.
int32_t StatusAfterChecks(HttpRequest& r, int32_t status, const ResponseEnvironment& env) noexcept {
  if (std::strstr(r.url, "com.awox.transcode") != nullptr && status == kStatusOk) {
    // Transcoding requests of that family are refused as not found, deliberately.
    r.content_length = 0;
    return kStatusNotFound;
  }
  if (status == kStatusOk) return CheckDlnaRequest(r.header, env.dlna_version(r.client_id));
  return status;
}

struct StatusChoice {
  std::string_view text;  // the status text of the status line
  const char* mime;       // the handler's type, or the one an error page forces
};

// Status text and the type it forces; before the range step, which may replace the text.
StatusChoice ChooseStatus(HttpRequest& r, int32_t status, bool answer_as_10) noexcept {
  const StatusText* entry = FindStatus(status);
  StatusChoice choice = {entry != nullptr ? entry->text : kOk,
                         entry != nullptr && entry->forces_html ? kHtmlType : r.mime_type};
  if (status == kStatusRangeNotSatisfiable && answer_as_10) {
    // Those clients cannot cope with 416; they get a not-found and a closed connection.
    r.close_connection = 1;
    choice.text = kNotFound;
  }
  return choice;
}

// Range line of a 206, returning the text the status line must carry; so it runs before that.
std::string_view WriteRangeFor(const HttpRequest& r, int32_t status, std::string_view text,
                               char* out) noexcept {
  out[0] = '\0';
  if (status != kStatusPartial) return text;
  if (upnp_istrstr(r.header, "TimeSeekRange") == nullptr ||
      std::strstr(r.header, "Range:") != nullptr) {
    WriteRangeLine(r, false, out);
    return kPartialContent;
  }
  // A time-seek answer is a full 200 whose TimeSeekRange line says what it holds.
  if (r.duration_ms > 0) WriteRangeLine(r, true, out);
  return kOk;
}

// Status line "HTTP/1.x <text>"; the short forms of WriteHead turn it into 1.0 afterwards.
void WriteStatusLine(bool answer_as_10, std::string_view text, char* out) noexcept {
  const char* version = answer_as_10 ? "HTTP/1.0 " : "HTTP/1.1 ";
  FormatCut(out, kLineSize, "%s%.*s", version, static_cast<int>(text.size()), text.data());
}

// Type to announce, once ChooseStatus forced any: a missing one is logged and made binary.
const char* MimeOrDefault(const HttpRequest& r, const char* mime) noexcept {
  if (mime != nullptr) return mime;
  upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_send_header NO MIME TYPE given!\n%s", r.url);
  return kOctetStream;
}

// ";rate=..;channels=.." that raw PCM (audio/L16) needs behind its type; needs the final type.
void WritePcmParameters(const HttpRequest& r, const char* mime, char (&out)[kLineSize]) noexcept {
  out[0] = '\0';
  if (std::strcmp(mime, "audio/L16") != 0) return;
  const char* rate = std::strstr(r.url, "rate");
  const char* channels = std::strstr(r.url, "channels");
  FormatCut(out, sizeof(out), ";rate=%d;channels=%d", rate != nullptr ? Atoi(rate + 4) : 0,
            channels != nullptr ? Atoi(channels + 8) : 0);
}

// Content-Length line; first switches an unknown-length DLNA stream to the form WriteHead closes.
void WriteContentLength(HttpRequest& r, char* out) noexcept {
  if (r.dlna_version != 0 && r.content_length == kUnknownStreamLength) {
    // Unknown length: WriteHead sends the unknown-length form, ended by closing the connection.
    r.content_length = -1;
    r.close_connection = 1;
  }
  out[0] = '\0';
  if (r.content_length >= 0 && r.chunked == 0) {
    char length[kNumberSize];
    FormatCut(out, kLineSize, "Content-Length: %s\r\n", Number(r.content_length, length).data());
  }
}

// DLNA, transfer-mode and DTCP lines into extra_headers, then the host's handlers, which see them.
SocketPriority AddExtraLines(HttpRequest& r) noexcept {
  const char* head = r.header;
  if (upnp_istrstr(head, "\ngetContentFeatures.dlna.org:") != nullptr) {
    char line[kContentFeaturesLineSize];
    ContentFeaturesLine(r.url, line);
    AddHeaderLines(r, line);
  }
  if (upnp_istrstr(head, "GetAvailableSeekRange.DLNA.ORG:") != nullptr && r.duration_ms != 0) {
    char line[kLineSize];
    FormatCut(line, sizeof(line), "AvailableSeekRange.DLNA.ORG: 1 npt=0.000-%03d.%d\r\n",
              r.duration_ms / 1000, r.duration_ms % 1000);
    AddHeaderLines(r, line);
  }
  const TransferMode mode = SelectTransferMode(head);
  if (mode.line != nullptr) AddHeaderLines(r, mode.line);
  if (r.dtcp_protected != 0) AddHeaderLines(r, "Pragma: no-cache\r\nCache-control: no-cache\r\n");
  for (const HeaderHandlerNode* node = HeaderHandlers(); node != nullptr; node = node->next) {
    if (node->handler != nullptr) node->handler(&r);
  }
  r.extra_headers[sizeof(r.extra_headers) - 1] = '\0';
  return mode.priority;
}

// Content-Type value (DTCP form for protected reads); after the handlers, which may set DTCP.
void WriteContentType(const HttpRequest& r, const char* mime, const char* pcm_parameters,
                      const ResponseEnvironment& env, char* out) noexcept {
  if (r.dtcp_protected != 0 && (r.method == HTTP_METHOD_GET || r.method == HTTP_METHOD_HEAD)) {
    char host[kLineSize];
    HostOfBaseUrl(r.base_url, host, sizeof(host));
    FormatCut(out, kLineSize,
              "application/x-dtcp1;DTCP1HOST=%s;DTCP1PORT=%d;CONTENTFORMAT=\"%s\"%s", host,
              env.dtcp_port(), mime, pcm_parameters);
  } else {
    FormatCut(out, kLineSize, "%s%s", mime, pcm_parameters);
  }
}

// Joins the parts in one of three forms, returning the length; last, as handlers change the
// request.
size_t WriteHead(const HttpRequest& r, const ResponseEnvironment& env, const char* date,
                 const WorkBuffers& work) noexcept {
  const char* transfer_encoding = r.chunked != 0 ? "Transfer-Encoding: chunked\r\n" : "";
  int length;
  bool force_10;
  if (env.redsonic_compliant(r.client_id) != 0 && std::strstr(r.header, "redsonic") != nullptr) {
    // "Accept-Range: 0 bytes" (sic) is what these clients expect.
    length = FormatCut(work.header, kResponseHeaderSize,
                       "%s\r\nContent-Type: %s\r\n%sAccept-Range: 0 bytes\r\n"
                       "User-Agent: redsonic\r\n\r\n",
                       work.status_line, work.content_type, work.content_length);
    force_10 = true;
  } else if (r.content_length < 0) {
    length = FormatCut(work.header, kResponseHeaderSize,
                       "%s\r\nContent-Type: %s\r\nConnection: close\r\n%s%s\r\n", work.status_line,
                       work.content_type, transfer_encoding, r.extra_headers);
    force_10 = true;
  } else {
    length = FormatCut(
        work.header, kResponseHeaderSize,
        "%s\r\nContent-Type: %s\r\n%s%sDate: %s\r\nPragma: no-cache\r\nCache-control: "
        "no-cache\r\n%sAccept-Ranges: bytes\r\nConnection: %s\r\n%s%sEXT:\r\nServer: %s\r\n\r\n",
        work.status_line, work.content_type, transfer_encoding, work.content_length, date,
        work.last_modified, r.close_connection != 0 ? "close" : "keep-alive", work.range,
        r.extra_headers, UPNP_SERVER_BANNER);
    force_10 = false;
  }
  if (length < 0) length = 0;
  if (static_cast<size_t>(length) > kResponseHeaderSize - 1) length = kResponseHeaderSize - 1;
  // Both short forms always go out with an HTTP/1.0 status line: the body ends with the
  // connection (or the client is one that wants 1.0 anyway).
  if (force_10 && length > 7) work.header[7] = '0';
  return static_cast<size_t>(length);
}

}  // namespace

const ResponseEnvironment& LiveEnvironment() noexcept {
  static constexpr ResponseEnvironment kLive = {
      upnp_client_db_needs_1_0_response, upnp_client_db_redsonic_compliant,
      upnp_client_db_DLNA_version, upnp_date_getGMT, DtcpPort};
  return kLive;
}

void AddHeaderLines(HttpRequest& request, const char* lines) noexcept {
  char* buffer = request.extra_headers;
  constexpr size_t kSize = sizeof(request.extra_headers);
  buffer[kSize - 1] = '\0';
  size_t used = std::strlen(buffer);
  size_t length = std::strlen(lines);
  if (length > kSize - 1 - used) length = kSize - 1 - used;
  std::memmove(buffer + used, lines, length);
  buffer[used + length] = '\0';
}

void ComposeResponseHeader(HttpRequest& r, int32_t status, ResponseHead* out,
                           const ResponseEnvironment& env) noexcept {
  WorkBuffers work(out->text);
  TerminateRequestTexts(r);
  char date[kDateSize] = "";
  env.date_now(date, sizeof(date));
  const bool answer_as_10 = r.http_version == kHttp10 && env.needs_1_0_response(r.client_id) != 0;
  WriteLastModified(r, work.last_modified);
  status = StatusAfterChecks(r, status, env);
  out->status = status;
  StatusChoice choice = ChooseStatus(r, status, answer_as_10);
  choice.text = WriteRangeFor(r, status, choice.text, work.range);
  WriteStatusLine(answer_as_10, choice.text, work.status_line);
  const char* mime = MimeOrDefault(r, choice.mime);
  char pcm_parameters[kLineSize];
  WritePcmParameters(r, mime, pcm_parameters);
  WriteContentLength(r, work.content_length);
  out->priority = AddExtraLines(r);
  WriteContentType(r, mime, pcm_parameters, env, work.content_type);
  out->length = WriteHead(r, env, date, work);
}

void PrepareResponseHeader(HttpRequest& request, int32_t status, ResponseHead* out) noexcept {
  ComposeResponseHeader(request, status, out);
  ApplyPriority(request.socket, out->priority);
  upnp_log_info_impl(UPNP_LOG_HTTP, "HTTP_send_header %s", out->text);
}

bool SendResponseHeader(HttpRequest& request, int32_t status) noexcept {
  ResponseHead head;
  PrepareResponseHeader(request, status, &head);
  return upnp_send_ssl(&request, head.text, static_cast<int64_t>(head.length)) >= 0;
}

}  // namespace tw::http
