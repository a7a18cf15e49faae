// SPDX-License-Identifier: Apache-2.0
// Whether a request may proceed: HTTP Basic credentials for local clients, and for clients on
// the remote-access port a session token that the host's cookie handler validates.
#include "http/authorization.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/calendar.h"
#include "base/fixed_text.h"
#include "http/registry.h"
#include "platform/allocator.h"
#include "tarnwick/log.h"
#include "tarnwick/util.h"

namespace tw::http {
namespace {

// The stored password is scrambled; its scrambled form needs 3 + 2 * 63 + 1 bytes.
constexpr size_t kScrambledSize = 3 + 2 * (kCredentialSize - 1) + 1;
constexpr size_t kPlainSize = 1024;
constexpr int64_t kCookieLifetimeSeconds = 86400;
constexpr size_t kExpirySize = 64;
constexpr char kQueryMarker[] = "/ra?";
constexpr char kBrowseUrl[] = "/webbrowse";
constexpr char kSameNetworkName[] = "ra_has_same_network";

// Written by configuration at start-up, read by the workers without a lock.
struct Credentials {
  bool set;
  char user[kCredentialSize];
  char password[kScrambledSize];  // scrambled form
  char alternate_user[kCredentialSize];
  char alternate_password[kCredentialSize];
};
Credentials g_credentials = {};

// Stores password (at most 63 plain characters) in its scrambled form; a text that is
// scrambled already (configuration files keep it so) is stored as it is.
void StorePassword(const char* password) noexcept {
  if (std::strncmp(password, "::", 2) == 0) {
    CopyCut(g_credentials.password, sizeof(g_credentials.password), password);
    return;
  }
  char plain[kCredentialSize];
  CopyCut(plain, sizeof(plain), password);
  g_credentials.password[0] = '\0';
  if (plain[0] != '\0') {
    upnp_string_encrypt(plain, g_credentials.password, sizeof(g_credentials.password));
  }
}

// The plain form of a password that may be given scrambled or plain.
void PlainPassword(const char* text, char* out, size_t size) noexcept {
  if (std::strncmp(text, "::", 2) == 0) {
    upnp_string_decrypt(text, out, size);
  } else {
    CopyCut(out, size, text);
  }
}

bool StoredPasswordEquals(const char* password) noexcept {
  char stored[kPlainSize] = "";
  char given[kPlainSize] = "";
  PlainPassword(g_credentials.password, stored, sizeof(stored));
  PlainPassword(password, given, sizeof(given));
  return std::strcmp(stored, given) == 0;
}

bool LocalAuthorization(const HttpRequest& request) noexcept {
  if (g_credentials.user[0] == '\0' || g_credentials.password[0] == '\0') return true;
  char plain[kPlainSize] = "";
  upnp_string_decrypt(g_credentials.password, plain, sizeof(plain));
  char pair[kCredentialSize + kPlainSize + 1];
  std::snprintf(pair, sizeof(pair), "%s:%s", g_credentials.user, plain);
  CPtr encoded(upnp_string_to_base64(pair));
  if (encoded == nullptr) return false;
  // Only the encoded pair is looked for, anywhere in the head; the Authorization header name
  // and its Basic keyword are not examined.
  return std::strstr(request.header, encoded.get()) != nullptr;
}

// Length of the text up to the first ';', CR LF pair or the end.
size_t CookieValueLength(const char* value) noexcept {
  size_t n = 0;
  while (value[n] != '\0' && value[n] != ';' && !(value[n] == '\r' && value[n + 1] == '\n')) ++n;
  return n;
}

bool TokenIsValid(const char* token) noexcept {
  if (token[0] == '\0') return false;
  const upnp_http_cookie_handler_fn handler = CookieHandler();
  return handler != nullptr && handler(token, nullptr) != 0;
}

}  // namespace

void SetCredentials(const char* user, const char* password, bool alternate) noexcept {
  if (alternate) {
    CopyCut(g_credentials.alternate_user, kCredentialSize, user != nullptr ? user : "");
    CopyCut(g_credentials.alternate_password, kCredentialSize, password != nullptr ? password : "");
    return;
  }
  if (!g_credentials.set) {
    CopyCut(g_credentials.user, kCredentialSize, user != nullptr ? user : "");
    StorePassword(password != nullptr ? password : "");
    g_credentials.set = true;
    return;
  }
  if (user != nullptr && std::strcmp(user, g_credentials.user) != 0) {
    CopyCut(g_credentials.user, kCredentialSize, user);
  }
  if (password != nullptr && !StoredPasswordEquals(password)) StorePassword(password);
}

void ResetCredentials() noexcept { g_credentials = {}; }

void AlternateCredentials(char* user, char* password) noexcept {
  CopyCut(user, kCredentialSize, g_credentials.alternate_user);
  CopyCut(password, kCredentialSize, g_credentials.alternate_password);
}

bool SameNetwork(const char* client_ip, const char* base_url) noexcept {
  upnp_log_info_impl(UPNP_LOG_HTTP, "%s: remote-access: ClientIP=%s InternalIP=%s",
                     kSameNetworkName, client_ip, base_url);
  bool same = false;
  size_t compared = 0;
  const char* first_slash = std::strchr(base_url, '/');
  const char* host = first_slash != nullptr ? std::strchr(first_slash + 1, '/') : nullptr;
  if (host != nullptr) {
    ++host;
    const char* dot = host;
    for (int i = 0; i < 3 && dot != nullptr; ++i) {
      dot = std::strchr(dot, '.');
      if (dot != nullptr && i < 2) ++dot;
    }
    if (dot != nullptr) {
      compared = static_cast<size_t>(dot - host) + 1;  // up to and including the third dot
      same = std::strncmp(client_ip, host, compared) == 0;
    }
  }
  upnp_log_info_impl(UPNP_LOG_HTTP, "%s: nReturn=%d (compared %d)", kSameNetworkName, same ? 1 : 0,
                     static_cast<int>(compared));
  return same;
}

void FormatCookieExpiry(int64_t time, char* out, size_t size) noexcept {
  // Civil date from days since 1970 in 64-bit arithmetic, so the expiry stays right where the
  // C library's time_t has only 32 bits.
  int64_t days = time / 86400;
  int64_t seconds = time % 86400;
  if (seconds < 0) {
    seconds += 86400;
    --days;
  }
  const int64_t weekday = ((days % 7) + 11) % 7;  // 1970-01-01 was a Thursday
  const int64_t z = days + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int64_t day = doy - (153 * mp + 2) / 5 + 1;
  const int64_t month = mp < 10 ? mp + 3 : mp - 9;
  const int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
  std::snprintf(out, size, "%s, %02d-%s-%04d %02d:%02d:%02d GMT", kDayNames[weekday],
                static_cast<int>(day), kMonthNames[month - 1], static_cast<int>(year),
                static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60),
                static_cast<int>(seconds % 60));
}

bool HasAuthorization(HttpRequest& request) noexcept {
  if (request.remote_session_pending == 0) return LocalAuthorization(request);

  // The token is at most as long as the URL or the head it comes from; on the heap because
  // worker threads run on small stacks.
  constexpr size_t kTokenSize = sizeof(request.header);
  CPtr token_owner(static_cast<char*>(upnp_malloc_impl(kTokenSize)));
  if (token_owner == nullptr) return false;
  char* token = token_owner.get();
  token[0] = '\0';
  bool from_query = false;
  if (const char* query = std::strstr(request.url, kQueryMarker); query != nullptr) {
    CopyCut(token, kTokenSize, query + sizeof(kQueryMarker) - 1);
    if (token[0] == '\0') return false;
    CopyCut(request.url, sizeof(request.url), kBrowseUrl);
    from_query = true;
  } else {
    char cookie_name[64];
    std::snprintf(cookie_name, sizeof(cookie_name), "Cookie: %s=", kSessionName);
    if (const char* cookie = std::strstr(request.header, cookie_name); cookie != nullptr) {
      const char* value = cookie + std::strlen(cookie_name);
      const size_t length = CookieValueLength(value);
      std::memcpy(token, value, length);
      token[length] = '\0';
    }
    if (token[0] == '\0') {
      const char* in_url = std::strstr(request.url, kSessionName);
      if (in_url == nullptr) return true;  // no session at all: nothing to check
      constexpr size_t kNameLength = sizeof(kSessionName) - 1;
      if (std::strlen(in_url) > kNameLength) {
        // Behind the name and the one character that should be '=', up to a CR.
        const char* value = in_url + kNameLength + 1;
        const size_t length = std::strcspn(value, "\r");
        std::memcpy(token, value, length);
        token[length] = '\0';
      }
    }
  }
  if (!TokenIsValid(token)) return false;

  if (from_query && std::strstr(request.extra_headers, "Set-Cookie:") == nullptr) {
    char expiry[kExpirySize];
    FormatCookieExpiry(static_cast<int64_t>(std::time(nullptr)) + kCookieLifetimeSeconds, expiry,
                       sizeof(expiry));
    constexpr char kFormat[] = "Set-Cookie: %s=%s; expires=%s\r\n";
    const size_t line_size =
        sizeof(kFormat) + sizeof(kSessionName) + std::strlen(token) + sizeof(expiry);
    CPtr line(static_cast<char*>(upnp_malloc_impl(line_size)));
    if (line == nullptr) return false;
    std::snprintf(line.get(), line_size, kFormat, kSessionName, token, expiry);
    HTTP_add_header(&request, line.get());
  }
  char remote_base[kRemoteBaseSize];
  if (CopyRemoteBaseUrl(remote_base, sizeof(remote_base))) {
    if (!SameNetwork(request.client_ip, request.base_url)) {
      CopyCut(request.base_url, sizeof(request.base_url), remote_base);
    }
    std::snprintf(request.session_parameter, sizeof(request.session_parameter), "%s=%s",
                  kSessionName, token);
  } else {
    request.session_parameter[0] = '\0';
  }
  return true;
}

}  // namespace tw::http
