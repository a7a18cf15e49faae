// SPDX-License-Identifier: Apache-2.0
// Header names are matched without regard to case; the DLNA markers (FLAGS00d, PlaySpeed.dlna.org
// and the like) are matched exactly, anywhere in the head, usually inside the request URL.
#include "http/dlna_headers.h"

#include <cstring>

#include "base/fixed_text.h"
#include "http/request_parser.h"
#include "tarnwick/util.h"

namespace tw::http {
namespace {

constexpr char kTransferModeName[] = "transferMode.dlna.org:";
constexpr char kGetContentFeaturesName[] = "\ngetContentFeatures.dlna.org:";
constexpr char kFlagsSuffix[] = "000000000000000000000000";  // 24 zeros after the primary flags

bool Has(const char* head, const char* marker) noexcept {
  return std::strstr(head, marker) != nullptr;
}

// Flags of content that can only be fetched interactively (no streaming, no seeking).
bool HasInteractiveFlags(const char* head) noexcept {
  return Has(head, "FLAGS00d") || Has(head, "FLAGS00f");
}

bool HasStreamingFlags(const char* head) noexcept {
  return Has(head, "FLAGS015") || Has(head, "FLAGS017");
}

// One "DLNA.ORG_xx=value" part from the text behind marker in url, cut at the first '-' and
// then at the first '/'. False (out empty) when url lacks the marker.
bool UrlPart(const char* url, const char* marker, const char* label, const char* suffix, char* out,
             size_t size) noexcept {
  out[0] = '\0';
  const char* found = std::strstr(url, marker);
  if (found == nullptr) return false;
  const char* value = found + std::strlen(marker);
  size_t length = std::strcspn(value, "-");
  size_t slash = std::strcspn(value, "/");
  if (slash < length) length = slash;
  FormatCut(out, size, "%s%.*s%s", label, static_cast<int>(length), value, suffix);
  return true;
}

const char* Separator(const char* part) noexcept { return part[0] != '\0' ? ";" : ""; }

}  // namespace

const char* HeaderValue(const char* name, size_t name_length) noexcept {
  const char* value = name + name_length;
  while (*value == ' ' || *value == '\t') ++value;
  return value;
}

int32_t CheckDlnaRequest(const char* head, uint32_t client_dlna_version) noexcept {
  int32_t status = kStatusOk;
  const char* mode = upnp_istrstr(head, kTransferModeName);
  if (mode != nullptr) {
    const char* value = HeaderValue(mode, sizeof(kTransferModeName) - 1);
    if (upnp_starts_with(value, "Streaming") && HasInteractiveFlags(head)) {
      status = kStatusNotAcceptable;
    }
    // Matched with its case, unlike Streaming: clients that ask for it write it so.
    if (std::strncmp(value, "Interactive", 11) == 0 && HasStreamingFlags(head)) {
      status = kStatusNotAcceptable;
    }
  }
  // The client database may report "no DLNA" as all bits set, which also counts as above 0.
  if (upnp_istrstr(head, "HOST:") == nullptr && client_dlna_version > 0 &&
      !Has(head, "getCaptionInfo.sec")) {
    status = kStatusBadRequest;
  }
  const char* features = upnp_istrstr(head, kGetContentFeaturesName);
  if (features != nullptr && *HeaderValue(features, sizeof(kGetContentFeaturesName) - 1) != '1') {
    status = kStatusBadRequest;
  }
  if (!Has(head, "DLNA.ORG_FLAG=")) {
    if (HasInteractiveFlags(head) &&
        (Has(head, "PlaySpeed.dlna.org") || Has(head, "realTimeInfo.dlna.org"))) {
      status = kStatusBadRequest;
    }
  } else if (!Has(head, "Streaming")) {
    status = kStatusBadRequest;
  }
  return status;
}

void ContentFeaturesLine(const char* url, char* out) noexcept {
  constexpr size_t kSize = kContentFeaturesLineSize;
  constexpr char kAnyContent[] = "contentFeatures.dlna.org: *\r\n";
  if (Has(url, "NON-DLNA")) {
    CopyCut(out, kSize, kAnyContent);
    return;
  }
  char pn[kSize];
  char op[kSize];
  char ci[kSize];
  char flags[kSize];
  bool found = UrlPart(url, "-PN", "DLNA.ORG_PN=", "", pn, kSize);
  found = UrlPart(url, "-OP", "DLNA.ORG_OP=", "", op, kSize) || found;
  found = UrlPart(url, "-CI", "DLNA.ORG_CI=", "", ci, kSize) || found;
  found = UrlPart(url, "-FLAGS", "DLNA.ORG_FLAGS=", kFlagsSuffix, flags, kSize) || found;
  if (!found) {
    CopyCut(out, kSize, kAnyContent);
    return;
  }
  // No operation at all is the same as no OP part.
  if (std::strcmp(op, "DLNA.ORG_OP=00") == 0) op[0] = '\0';
  // Without a PN part the value starts with ';', intended: clients accept it so.
  FormatCut(out, kSize, "contentFeatures.dlna.org: %s%s%s%s%s%s%s\r\n", pn, Separator(op), op,
            Separator(ci), ci, Separator(flags), flags);
}

TransferMode SelectTransferMode(const char* head) noexcept {
  static constexpr char kInteractive[] = "transferMode.dlna.org: Interactive\r\n";
  static constexpr char kBackground[] = "transferMode.dlna.org: Background\r\n";
  static constexpr char kStreaming[] = "transferMode.dlna.org: Streaming\r\n";
  const char* mode = upnp_istrstr(head, kTransferModeName);
  if (mode != nullptr) {
    const char* value = HeaderValue(mode, sizeof(kTransferModeName) - 1);
    if (upnp_starts_with(value, "Interactive")) return {kInteractive, SocketPriority::kInteractive};
    if (upnp_starts_with(value, "Background")) return {kBackground, SocketPriority::kBackground};
    if (upnp_starts_with(value, "Streaming")) return {kStreaming, SocketPriority::kAudioVideo};
    return {nullptr, SocketPriority::kNone};
  }
  // Derived from the flags, the mode is announced without touching the socket.
  if (HasInteractiveFlags(head)) return {kInteractive, SocketPriority::kNone};
  if (HasStreamingFlags(head)) return {kStreaming, SocketPriority::kNone};
  return {nullptr, SocketPriority::kNone};
}

}  // namespace tw::http
