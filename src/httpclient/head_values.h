// SPDX-License-Identifier: Apache-2.0
// Values read from the text of a request or response head, shared by the server and the client.
// Header names are found by case-insensitive substring search over the whole head, not line by
// line. Arguments are non-null (the entries check them); nothing here keeps state or logs.
#pragma once

#include <cstdint>

namespace tw::httpclient {

// The status of a response head that has none.
inline constexpr int32_t kNoResponseStatus = 500;
// Past blanks and tabs, unless only blanks stand before a CR or the end: then p itself, so an
// empty value still points at its leading blanks.
const char* SkipSpaces(const char* p) noexcept;
// The "content-type:" value as a new accounted block, or null (no header, no CR LF behind it,
// memory short).
char* ContentTypeValue(const char* head) noexcept;
bool IsChunked(const char* head) noexcept;
bool HasConnectionClose(const char* head) noexcept;
int32_t ResponseStatus(const char* head) noexcept;
int64_t ContentLength(const char* head) noexcept;

}  // namespace tw::httpclient
