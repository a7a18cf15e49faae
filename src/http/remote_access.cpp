// SPDX-License-Identifier: Apache-2.0
// Body rewriting and redirects for remote-access clients, URL parameters and Accept-Language.
#include "http/remote_access.h"

#include <cstring>

#include "http/body_sender.h"
#include "tarnwick/util.h"

namespace tw::http {
namespace {

struct LinkPattern {
  std::string_view opening;
  std::string_view closing;
  std::string_view separator;  // used when the link already has a query
};
// Visited in this order, one pass each; the output of one row is the input of the next. XML
// bodies (url attributes, RSS elements) need the escaped ampersand.
constexpr LinkPattern kLinkPatterns[] = {
    {"href=\"", "\"", "&"},         {"src=\"", "\"", "&"},        {"url=\"", "\"", "&amp;"},
    {"<guid>", "</guid>", "&amp;"}, {"<url>", "</url>", "&amp;"}, {"<link>", "</link>", "&amp;"},
};
static_assert(sizeof(kLinkPatterns) / sizeof(kLinkPatterns[0]) == 6);

struct Language {
  std::string_view code;
  std::string_view alias;
};
constexpr Language kLanguages[] = {
    {"en", "en"}, {"de", "de"}, {"zh", "chs"}, {"zh", "cht"}, {"es", "es"}, {"fi", "fi"},
    {"fr", "fr"}, {"it", "it"}, {"ja", "jp"},  {"ko", "ko"},  {"nl", "nl"},
};
static_assert(sizeof(kLanguages) / sizeof(kLanguages[0]) == 11);

constexpr char kTokenMarker[] = "<!-- TOKEN -->";
constexpr char kRedirectStatus[] = "HTTP/1.1 307 Moved Temporarily\r\n";
constexpr char kLocation[] = "Location: ";

String RewriteLinks(std::string_view text, const LinkPattern& pattern, std::string_view session) {
  String out(Allocator<char>{});
  size_t copied = 0;  // text before this position is in out
  size_t search = 0;
  while (true) {
    const size_t open = text.find(pattern.opening, search);
    if (open == std::string_view::npos) break;
    const size_t link = open + pattern.opening.size();
    const size_t close = text.find(pattern.closing, link);
    if (close == std::string_view::npos) break;
    const std::string_view segment = text.substr(copied, close - copied);
    out.append(segment);
    // A segment that names the session already, anywhere since the previous link, is left
    // alone. Each row's pass starts at the top, so the first link of a later row is skipped
    // when an earlier row added the parameter in front of it. Intended: rewriting that link too
    // would give it the session twice. Pinned by
    // HttpRemoteAccess.EveryLinkPatternCarriesTheSessionWithItsSeparator.
    if (segment.find(session) == std::string_view::npos) {
      const bool has_query = text.substr(link, close - link).find('?') != std::string_view::npos;
      out.append(has_query ? pattern.separator : std::string_view("?"));
      out.append(session);
    }
    copied = close;  // the closing text is copied with the next segment
    search = close + pattern.closing.size();
  }
  out.append(text.substr(copied));
  return out;
}

upnp_string* ToUpnpString(const String& text) noexcept {
  upnp_string* result = upnp_string_create(nullptr, static_cast<uint32_t>(text.size() + 1));
  if (result == nullptr) return nullptr;
  if (!text.empty()) {
    result = upnp_string_add(result, text.data(), static_cast<uint32_t>(text.size()));
  }
  return result;
}

bool StartsWithParameter(std::string_view parameter, std::string_view name) noexcept {
  return parameter.size() > name.size() && parameter.substr(0, name.size()) == name &&
         parameter[name.size()] == '=';
}

}  // namespace

String AddSessionToLinks(std::string_view text, std::string_view session) {
  String current(text, Allocator<char>{});
  for (const LinkPattern& pattern : kLinkPatterns) {
    current = RewriteLinks(current, pattern, session);
  }
  return current;
}

upnp_string* PostProcessForRemoteAccess(const HttpRequest& request, upnp_string* body) noexcept {
  body = upnp_string_replace2(body, kTokenMarker, request.session_parameter);
  if (body == nullptr || request.session_parameter[0] == '\0') return body;
  if (body->buffer == nullptr) return body;
  // On a memory shortage the body goes out with the token replaced but links unchanged.
  upnp_string* rewritten = Guard<upnp_string*>(nullptr, [&] {
    return ToUpnpString(
        AddSessionToLinks(std::string_view(body->buffer, body->length), request.session_parameter));
  });
  if (rewritten == nullptr) return body;
  upnp_string_free(body);
  return rewritten;
}

String RedirectTarget(std::string_view base_url, std::string_view location,
                      std::string_view session) {
  String target(Allocator<char>{});
  // Any location naming "http" anywhere is taken as absolute.
  if (location.find("http") == std::string_view::npos) {
    target.append(base_url);
    if (!location.empty() && location.front() == '/') location.remove_prefix(1);
  }
  target.append(location);
  // A "?" even when the location has a query already: the location is not parsed, and the
  // Location line clients follow is fixed by this rule. Pinned by
  // HttpRemoteAccess.RedirectsAreBare307sWithTheSessionAppended.
  if (!session.empty()) {
    target.append("?");
    target.append(session);
  }
  target.append("\r\n\r\n");
  return target;
}

bool SendRedirect(HttpRequest& request, const char* location) noexcept {
  return Guard(false, [&] {
    const String target = RedirectTarget(request.base_url, location, request.session_parameter);
    return SendOnConnection(request, kRedirectStatus, sizeof(kRedirectStatus) - 1) >= 0 &&
           SendOnConnection(request, kLocation, sizeof(kLocation) - 1) >= 0 &&
           SendOnConnection(request, target.data(), static_cast<int64_t>(target.size())) >= 0;
  });
}

upnp_string* SetUrlParameter(upnp_string* url, const char* name, const char* value) noexcept {
  CPtr encoded_name(upnp_string_to_encoded_url(name, 1));
  CPtr encoded_value(upnp_string_to_encoded_url(value, 1));
  upnp_string* result = nullptr;
  if (encoded_name != nullptr && encoded_value != nullptr && url->buffer != nullptr) {
    result = Guard<upnp_string*>(nullptr, [&] {
      const std::string_view text(url->buffer, url->length);
      const size_t question = text.find('?');
      String out(text.substr(0, question), Allocator<char>{});
      if (question != std::string_view::npos) {
        std::string_view query = text.substr(question + 1);
        bool first = true;
        while (true) {
          const size_t amp = query.find('&');
          const std::string_view parameter = query.substr(0, amp);
          if (!StartsWithParameter(parameter, name)) {
            out.append(first ? "?" : "&");
            out.append(parameter);
            first = false;
          }
          if (amp == std::string_view::npos) break;
          query.remove_prefix(amp + 1);
        }
      }
      out.append(out.find('?') != String::npos ? "&" : "?");
      out.append(encoded_name.get());
      out.append("=");
      out.append(encoded_value.get());
      return ToUpnpString(out);
    });
  }
  upnp_string_free(url);
  return result;
}

std::string_view AcceptLanguage(std::string_view language) noexcept {
  for (const Language& row : kLanguages) {
    if (language == row.code || language == row.alias) return row.code;
  }
  return "*";
}

}  // namespace tw::http
