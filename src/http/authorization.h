// SPDX-License-Identifier: Apache-2.0
// Internals of the access check: local Basic credentials and remote-access session tokens.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tarnwick/http.h"

namespace tw::http {

inline constexpr size_t kCredentialSize = 64;
inline constexpr char kSessionName[] = "RAMSessionID";

void SetCredentials(const char* user, const char* password, bool alternate) noexcept;
// Forgets every credential (back to the state before the first SetCredentials); for tests.
void ResetCredentials() noexcept;
// Copies of the alternate pair (not used by the check).
void AlternateCredentials(char* user, char* password) noexcept;

bool HasAuthorization(HttpRequest& request) noexcept;

// The client shares the first three octets of the server address in base_url.
bool SameNetwork(const char* client_ip, const char* base_url) noexcept;

// "%s, %02d-%s-%04d %02d:%02d:%02d GMT" of a time in seconds since 1970 (UTC), into out.
void FormatCookieExpiry(int64_t time, char* out, size_t size) noexcept;

}  // namespace tw::http
