// SPDX-License-Identifier: Apache-2.0
// Not-found, unauthorized, access-restricted and service-unavailable pages, the bare status and
// the status with a text body, and the escaper for text placed in HTML.
#include "http/error_pages.h"

#include <cstdio>
#include <cstring>

#include "base/fixed_text.h"
#include "http/body_sender.h"
#include "platform/allocator.h"
#include "tarnwick/platform.h"

namespace tw::http {
namespace {

constexpr int32_t kStatusUnauthorized = 401;
constexpr int32_t kStatusNotFound = 404;
constexpr int32_t kStatusServiceUnavailable = 503;
constexpr size_t kHostNameSize = 128;
constexpr size_t kRealmLineSize = 192;

constexpr char kRestrictedTitle[] = "Unauthorized";
constexpr char kRestrictedMessage[] = "Access to this page is restricted.";
constexpr char kNotFoundTitle[] = "Not Found";
constexpr char kNotFoundMessage[] = "The requested URL was not found on this server.";

// Configured texts of one page; `set` false means the defaults apply. Written at start-up,
// read by the workers without a lock.
struct PageTexts {
  bool set;
  char title[kPageTitleSize];
  char message[kPageMessageSize];
};
PageTexts g_restricted = {};
PageTexts g_not_found = {};

void Fill(PageTexts& texts, const char* title, const char* message, const char* default_title,
          const char* default_message) noexcept {
  CopyCut(texts.title, sizeof(texts.title), title != nullptr ? title : default_title);
  CopyCut(texts.message, sizeof(texts.message), message != nullptr ? message : default_message);
  texts.set = true;
}

const PageTexts& Texts(Page page) noexcept {
  if (page == Page::kNotFound) {
    if (!g_not_found.set) Fill(g_not_found, nullptr, nullptr, kNotFoundTitle, kNotFoundMessage);
    return g_not_found;
  }
  if (!g_restricted.set) {
    Fill(g_restricted, nullptr, nullptr, kRestrictedTitle, kRestrictedMessage);
  }
  return g_restricted;
}

int32_t StatusOf(Page page) noexcept {
  switch (page) {
    case Page::kNotFound:
      return kStatusNotFound;
    case Page::kServiceUnavailable:
      return kStatusServiceUnavailable;
    case Page::kUnauthorized:
    case Page::kAccessRestricted:
      break;
  }
  return kStatusUnauthorized;
}

bool SendPlain(int32_t socket, const char* data, size_t length) noexcept {
  return upnp_send(socket, data, static_cast<int64_t>(length)) >= 0;
}

}  // namespace

void SetPageTexts(Page page, const char* title, const char* message) noexcept {
  if (page == Page::kNotFound) {
    Fill(g_not_found, title, message, kNotFoundTitle, kNotFoundMessage);
  } else {
    Fill(g_restricted, title, message, kRestrictedTitle, kRestrictedMessage);
  }
}

size_t ComposePage(Page page, const char* url, const char* detail, char* out) noexcept {
  int length;
  if (page == Page::kServiceUnavailable) {
    // No closing BODY tag: the page is fixed text that clients show as it is, and its length is
    // part of the response. Pinned byte for byte by HttpErrorPages.BareStatusAndTextBodies.
    length = std::snprintf(out, kPageSize,
                           "<HTML><HEAD><TITLE>503 Service Unavailable</TITLE></HEAD><BODY>"
                           "<H1>Service Unavailable</H1>Server can't provide %s resource now."
                           "<br>%s</HTML>",
                           url != nullptr ? url : "", detail != nullptr ? detail : "");
  } else {
    const PageTexts& texts = Texts(page);
    length =
        std::snprintf(out, kPageSize,
                      "<HTML><HEAD><TITLE>%d %s</TITLE></HEAD><BODY><H1>%s</H1>%s</BODY>"
                      "</HTML>",
                      static_cast<int>(StatusOf(page)), texts.title, texts.title, texts.message);
  }
  if (length < 0) {
    out[0] = '\0';
    return 0;
  }
  return static_cast<size_t>(length) < kPageSize ? static_cast<size_t>(length) : kPageSize - 1;
}

bool SendPage(HttpRequest& request, Page page, const char* detail) noexcept {
  CPtr page_text(static_cast<char*>(upnp_malloc_impl(kPageSize)));
  if (page_text == nullptr) return false;
  const size_t length = ComposePage(page, request.url, detail, page_text.get());

  // The header goes out from a copy so that the caller's request keeps its own response
  // fields (content length, extra lines) for whatever it does next.
  auto* copy = static_cast<HttpRequest*>(upnp_malloc_impl(sizeof(HttpRequest)));
  if (copy == nullptr) return false;
  std::unique_ptr<HttpRequest, FreeDeleter> copy_owner(copy);
  if (request.mime_type == nullptr) request.mime_type = kHtmlType;
  std::memcpy(copy, &request, sizeof(HttpRequest));
  copy->content_length = static_cast<int64_t>(length);
  if (page == Page::kAccessRestricted) {
    char host[kHostNameSize] = "";
    upnp_gethostname(host, static_cast<int32_t>(sizeof(host)));
    char line[kRealmLineSize];
    // A bare LF ends this line (then HTTP_add_header's CR LF): the challenge is fixed text, and a
    // client that parses it strictly sees the realm line exactly so. Pinned by
    // HttpErrorPages.PagesGoOutByteExactFromACopyOfTheRequest.
    std::snprintf(line, sizeof(line), "WWW-Authenticate: Basic realm=\"%s\"\n", host);
    HTTP_add_header(copy, line);
  }
  if (HTTP_send_header(copy, StatusOf(page)) != 0) return false;

  // The 401 pages go through the TLS-aware path so a refused TLS client still gets its page;
  // the others use the plain socket send even on a TLS connection: the TLS module owns the other
  // pages. Pinned by HttpErrorPages.OverTlsOnlyThe401PagesUseTheHookForTheirBody.
  if (page == Page::kUnauthorized || page == Page::kAccessRestricted) {
    return SendOnConnection(request, page_text.get(), static_cast<int64_t>(length)) >= 0;
  }
  return SendPlain(request.socket, page_text.get(), length);
}

bool SendErrorMessage(HttpRequest& request, int32_t status, const char* text) noexcept {
  if (text == nullptr) text = "";
  const size_t length = std::strlen(text);
  request.content_length = static_cast<int64_t>(length);
  if (HTTP_send_header(&request, status) != 0) return false;
  return SendPlain(request.socket, text, length);
}

void EscapeBody(const char* source, char* destination, size_t size) noexcept {
  if (destination == nullptr || size == 0) return;
  destination[0] = '\0';
  if (source == nullptr) return;
  const size_t limit = size - 1;
  size_t written = 0;
  for (const auto* p = reinterpret_cast<const unsigned char*>(source); *p >= 32; ++p) {
    char entity[8];
    const char* piece;
    size_t piece_length;
    if (*p >= 128) {
      piece_length = static_cast<size_t>(
          std::snprintf(entity, sizeof(entity), "&#x%X;", static_cast<unsigned>(*p)));
      piece = entity;
    } else if (*p == '"') {
      piece = "&quot;";
      piece_length = 6;
    } else {
      entity[0] = static_cast<char>(*p);
      piece = entity;
      piece_length = 1;
    }
    // An entity that does not fit whole is left out rather than cut in the middle.
    if (written + piece_length > limit) break;
    std::memcpy(destination + written, piece, piece_length);
    written += piece_length;
  }
  destination[written] = '\0';
}

}  // namespace tw::http
