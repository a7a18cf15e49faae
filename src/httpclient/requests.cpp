// SPDX-License-Identifier: Apache-2.0
// Request heads of the HTTP client. Devices on the other end are often picky embedded servers,
// so the texts are fixed byte for byte, odd spacing and header case included.
#include "httpclient/requests.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/fixed_text.h"
#include "httpclient/settings.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace tw::httpclient {
namespace {

constexpr char kHttpScheme[] = "http://";
constexpr size_t kHttpSchemeLength = sizeof(kHttpScheme) - 1;
constexpr size_t kMinRequestUrl = 9;
// SOAP and general POST heads are built in this many bytes and cut when longer.
constexpr size_t kPostHeadSize = 1024;
// A general POST whose formatted length passes this is refused.
constexpr int kPostHeadLimit = 8191;
// The leading space belongs to the value: some control points expect exactly this line.
constexpr char kSoapContentType[] = " text/xml; charset=\"utf-8\"";

// "User-Agent: <text>\r\n", or "" when the extra lines carry their own. Sets the default user
// agent first when the host never set one.
void UserAgentLine(const char* extra_headers, char (&line)[kUserAgentSize + 16]) noexcept {
  line[0] = '\0';
  if (extra_headers != nullptr && upnp_istrstr(extra_headers, "User-Agent") != nullptr) return;
  SetDefaultUserAgent(kDefaultUserAgent);  // no-op once any user agent is set
  char agent[kUserAgentSize];
  CopyUserAgent(agent, sizeof(agent));
  FormatCut(line, sizeof(line), "User-Agent: %s\r\n", agent);
}

// The user agent itself, for the POST heads that always carry one.
void UserAgent(char (&agent)[kUserAgentSize]) noexcept {
  SetDefaultUserAgent(kDefaultUserAgent);
  CopyUserAgent(agent, sizeof(agent));
}

bool SendText(int32_t socket, const char* text, size_t length) noexcept {
  return upnp_send(socket, text, static_cast<int64_t>(length)) >= 0;
}

}  // namespace

bool SplitRequestUrl(const char* url, RequestTarget* out) noexcept {
  if (url == nullptr || std::strncmp(url, kHttpScheme, kHttpSchemeLength) != 0 ||
      std::strlen(url) < kMinRequestUrl) {
    return false;
  }
  const char* host = url + kHttpSchemeLength;
  size_t host_length = std::strcspn(host, "/");
  if (host_length > kMaxRequestHost) host_length = kMaxRequestHost;
  std::memcpy(out->host, host, host_length);
  out->host[host_length] = '\0';
  // From the ninth character on: the first host character never counts as the path's slash.
  const char* slash = std::strchr(url + kMinRequestUrl - 1, '/');
  out->path = slash != nullptr ? slash + 1 : "";
  return true;
}

char* FormatNew(const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  char* text = nullptr;
  if (length >= 0) text = static_cast<char*>(upnp_malloc_impl(static_cast<size_t>(length) + 1));
  if (text != nullptr) std::vsnprintf(text, static_cast<size_t>(length) + 1, format, again);
  va_end(again);
  return text;
}

bool SendHeadOrGet(const char* method, int32_t socket, const char* url, const char* extra_headers,
                   bool http_1_0) noexcept {
  RequestTarget target;
  if (!SplitRequestUrl(url, &target)) return false;
  char agent_line[kUserAgentSize + 16];
  UserAgentLine(extra_headers, agent_line);
  char* request = FormatNew("%s /%s HTTP/%s\r\nAccept: */*\r\nHost: %s\r\n%s%s\r\n", method,
                            target.path, http_1_0 ? "1.0" : "1.1", target.host, agent_line,
                            extra_headers != nullptr ? extra_headers : "");
  if (request == nullptr) return false;
  upnp_log_debug_impl(UPNP_LOG_HTTP,
                      http_1_0 ? "HTTP_get_request_1_0 Sending request:\n%s"
                               : "HTTP_head_or_get_request Sending request:\n%s",
                      request);
  const bool sent = SendText(socket, request, std::strlen(request));
  upnp_free_impl(request);
  return sent;
}

bool SendSoapPost(int32_t socket, const char* url, const char* soap_action,
                  const char* body) noexcept {
  RequestTarget target;
  if (!SplitRequestUrl(url, &target)) return false;
  char agent[kUserAgentSize];
  UserAgent(agent);
  char request[kPostHeadSize];
  FormatCut(request, sizeof(request),
            "POST /%s HTTP/1.1\r\nAccept: */*\r\nUser-Agent: %s\r\nHost: %s\r\nSOAPACTION: "
            "%s\r\nCONTENT-TYPE: %s\r\nContent-Length: %d\r\n\r\n",
            target.path, agent, target.host, soap_action != nullptr ? soap_action : "",
            kSoapContentType, body != nullptr ? static_cast<int>(std::strlen(body)) : 0);
  upnp_log_debug_impl(UPNP_LOG_HTTP, "HTTP_post_request Sending request:\n%s", request);
  return SendText(socket, request, std::strlen(request));
}

bool SendXmlPost(int32_t socket, const char* url, const char* extra_headers,
                 int32_t body_length) noexcept {
  RequestTarget target;
  if (!SplitRequestUrl(url, &target)) return false;
  char agent[kUserAgentSize];
  UserAgent(agent);
  char* request = FormatNew(
      "POST /%s HTTP/1.1\r\nAccept: */*\r\nUser-Agent: %s\r\nHost: %s\r\nCONTENT-TYPE: text/xml "
      "; charset=\"utf-8\"\r\n%sContent-Length: %d\r\nConnection: close\r\n\r\n",
      target.path, agent, target.host, extra_headers != nullptr ? extra_headers : "",
      static_cast<int>(body_length));
  if (request == nullptr) return false;
  upnp_log_debug_impl(UPNP_LOG_HTTP, "HTTP_post_request_neutral Sending request:\n%s", request);
  const bool sent = SendText(socket, request, std::strlen(request));
  upnp_free_impl(request);
  return sent;
}

bool SendPostHeader(int32_t socket, const char* url, const char* content_type,
                    int64_t content_length, bool expect_continue,
                    const char* extra_headers) noexcept {
  if (url == nullptr || content_type == nullptr || content_length < 0) return false;
  RequestTarget target;
  if (!SplitRequestUrl(url, &target)) return false;
  char length_line[48] = "";
  if (content_length != 0) {
    FormatCut(length_line, sizeof(length_line), "Content-Length: %" PRId64 "\r\n", content_length);
  }
  char agent_line[kUserAgentSize + 16];
  UserAgentLine(extra_headers, agent_line);
  char request[kPostHeadSize];
  const int formatted =
      FormatCut(request, sizeof(request),
                "POST /%s HTTP/1.1\r\nAccept: */*\r\nHost: %s\r\nConnection: %s\r\nContent-Type: "
                "%s\r\n%s%s%s%s\r\n",
                target.path, target.host, content_length != 0 ? "Keep-Alive" : "Close",
                content_type, length_line, expect_continue ? "Expect: 100-continue\r\n" : "",
                agent_line, extra_headers != nullptr ? extra_headers : "");
  if (formatted < 1) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_post_header: Could not create request for %s\n", url);
    return false;
  }
  if (formatted > kPostHeadLimit) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_post_header: Buffer too small for request: %s\n", url);
    return false;
  }
  // A head between 1024 and 8191 bytes goes out cut at 1023, as devices have always seen it.
  if (!SendText(socket, request, std::strlen(request))) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_post_header: Failed to send request to %s\n", url);
    return false;
  }
  upnp_log_debug_impl(UPNP_LOG_HTTP, "HTTP_post_header Sending request:\n%s", request);
  return true;
}

}  // namespace tw::httpclient
