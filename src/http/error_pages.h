// SPDX-License-Identifier: Apache-2.0
// Internals of the canned responses: page texts, page composition and the senders.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/http.h"

namespace tw::http {

// Pages are composed in a buffer of this size; longer pages are cut.
inline constexpr size_t kPageSize = 1024;
inline constexpr size_t kPageTitleSize = 64;
inline constexpr size_t kPageMessageSize = 128;
inline constexpr char kHtmlType[] = "text/html; charset=utf-8";

enum class Page { kNotFound, kUnauthorized, kAccessRestricted, kServiceUnavailable };

void SetPageTexts(Page page, const char* title, const char* message) noexcept;
// Writes the page into out (kPageSize bytes); returns its length after the cut. `url` and
// `detail` are used by the service-unavailable page only.
size_t ComposePage(Page page, const char* url, const char* detail, char* out) noexcept;
// Sends the page with its status; false on allocation or send failure.
bool SendPage(HttpRequest& request, Page page, const char* detail) noexcept;
bool SendErrorMessage(HttpRequest& request, int32_t status, const char* text) noexcept;

// Writes the escaped source into destination; see HTTP_escape_body.
void EscapeBody(const char* source, char* destination, size_t size) noexcept;

}  // namespace tw::http
