// SPDX-License-Identifier: Apache-2.0
// The DLNA side of a response header: the checks that turn a 200 into 400 or 406, the
// contentFeatures.dlna.org value derived from DLNA parameters embedded in a resource URL, and
// the transfer mode with the socket priority that goes with it. Arguments are non-null.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tw::http {

inline constexpr int32_t kStatusOk = 200;
inline constexpr int32_t kStatusBadRequest = 400;
inline constexpr int32_t kStatusNotAcceptable = 406;

// The status a successful (200) answer to this head must have instead: 200, 400 or 406.
// client_dlna_version is the client database's DLNA version of the client (0 when unknown).
int32_t CheckDlnaRequest(const char* head, uint32_t client_dlna_version) noexcept;

// Room for the contentFeatures line; longer lines are cut.
inline constexpr size_t kContentFeaturesLineSize = 256;
// Writes the whole "contentFeatures.dlna.org: ...\r\n" line for url into out
// (kContentFeaturesLineSize bytes).
void ContentFeaturesLine(const char* url, char* out) noexcept;

enum class SocketPriority { kNone, kInteractive, kBackground, kAudioVideo };

struct TransferMode {
  const char* line;         // the transferMode.dlna.org line to add, or null
  SocketPriority priority;  // only set when the client asked for the mode itself
};
// Echoes a transferMode.dlna.org request header, or derives the mode from the DLNA flags in
// the head when there is none.
TransferMode SelectTransferMode(const char* head) noexcept;

// The value behind a header name found at `name` (a pointer to its first character) of the
// given length: past the name and any blanks.
const char* HeaderValue(const char* name, size_t name_length) noexcept;

}  // namespace tw::http
