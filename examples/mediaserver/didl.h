// SPDX-License-Identifier: Apache-2.0
// DIDL-Lite for ContentDirectory answers, built as a node tree of the library's XML part and
// written with its compliant writer, and the resource URLs and protocolInfo of items.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "library.h"

namespace mediaserver {

// Who asks: quirks come from the client database by client type.
struct ClientContext {
  int32_t client_type = 0;  // HttpRequest::client_id
  std::string base_url;     // "http://ADDRESS:PORT/" under which the client reached us
};

// The DLNA parameters of an item: profile name ("" when none fits), operations, flags.
struct DlnaParameters {
  std::string profile;  // DLNA.ORG_PN value, e.g. "MP3", "JPEG_SM"
  std::string op;       // DLNA.ORG_OP value: "01" (byte seek)
  std::string flags;    // the eight significant hex digits of DLNA.ORG_FLAGS
};
DlnaParameters DlnaParametersOf(const Object& item);

// "object.container.storageFolder", "object.item.audioItem.musicTrack", "object.item.videoItem",
// "object.item.imageItem.photo", or "object.item".
const char* UpnpClassOf(const Object& object);

// "http-get:*:MIME:DLNA.ORG_PN=..;DLNA.ORG_OP=..;DLNA.ORG_FLAGS=.." for the item and client.
std::string ProtocolInfoOf(const Object& item, const ClientContext& client);

// The path of an item's resource on this server, beginning with "/media/": the object ID, the
// DLNA markers the HTTP server turns into contentFeatures.dlna.org, and the file's extension.
std::string ResourcePathOf(const Object& item);

// The object ID in a resource path ResourcePathOf made; false for anything else.
bool ObjectIdOfResourcePath(const char* path, std::string* id);

// The DIDL-Lite document of the objects (no XML declaration; values escaped once), filtered
// by a Browse/Search Filter ("*" or a comma-separated list; "" means the required properties
// only).
std::string BuildDidl(const std::vector<Object>& objects, const ClientContext& client,
                      const std::string& filter);

}  // namespace mediaserver
