// SPDX-License-Identifier: Apache-2.0
// Internals of remote access: carrying the session token into links and redirects, and two
// small builders (a URL-parameter setter and the Accept-Language line).
#pragma once

#include <string_view>

#include "platform/allocator.h"
#include "tarnwick/http.h"

namespace tw::http {

// Appends the session parameter to every link of text (see the link table in the .cpp).
// Throws std::bad_alloc like every accounted container.
String AddSessionToLinks(std::string_view text, std::string_view session);
// The third send of a redirect: target, "?" and session parameter, blank line.
String RedirectTarget(std::string_view base_url, std::string_view location,
                      std::string_view session);
bool SendRedirect(HttpRequest& request, const char* location) noexcept;
upnp_string* PostProcessForRemoteAccess(const HttpRequest& request, upnp_string* body) noexcept;
upnp_string* SetUrlParameter(upnp_string* url, const char* name, const char* value) noexcept;
// The Accept-Language value for a language code or alias: the code, or "*".
std::string_view AcceptLanguage(std::string_view language) noexcept;

}  // namespace tw::http
