// SPDX-License-Identifier: Apache-2.0
// ConnectionManager:1 at "/ConnectionManager/Control". The library answers the two connection
// queries itself (this server has only the one implicit connection 0); GetProtocolInfo lists
// what the server can send, with MIME types from the library's table.
#include <string>

#include "host.h"
#include "soap.h"
#include "tarnwick/http.h"
#include "tarnwick/services.h"

namespace mediaserver {
namespace {

constexpr char kServiceType[] = "urn:schemas-upnp-org:service:ConnectionManager:1";
constexpr int32_t kErrorInvalidConnection = 706;

// Extensions whose MIME types the server offers, in the order the list names them.
constexpr const char* kOfferedExtensions[] = {"mp3", "m4a", "wav", "aac", "flac", "ogg", "wma",
                                              "mp4", "m4v", "mov", "mkv", "avi",  "mpg", "ts",
                                              "wmv", "jpg", "png", "gif", "bmp"};
// The DLNA profiles didl.cpp gives, announced beside the plain entries.
constexpr const char* kProfileEntries[] = {
    "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3",      "http-get:*:audio/mp4:DLNA.ORG_PN=AAC_ISO_320",
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_TN",  "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_SM",
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_MED", "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_LRG",
    "http-get:*:image/png:DLNA.ORG_PN=PNG_TN",    "http-get:*:image/png:DLNA.ORG_PN=PNG_LRG",
};

int32_t OnControl(HttpRequest* request) {
  SoapAction action;
  if (!ReadSoapAction(*request, &action)) return upnp_send_error(request, kErrorBadRequest);
  if (action.service_type != kServiceType) return upnp_send_error(request, kErrorInvalidAction);
  if (action.name == "GetProtocolInfo") {
    return SendSoapResponse(request, action, {{"Source", SourceProtocolInfo()}, {"Sink", ""}});
  }
  if (action.name == "GetCurrentConnectionIDs") {
    return upnp_cms_get_current_connectionIDs(request);
  }
  if (action.name == "GetCurrentConnectionInfo") {
    std::string id;
    if (!action.Get("ConnectionID", &id)) return upnp_send_error(request, kErrorInvalidArgs);
    if (id != "0") return upnp_send_error(request, kErrorInvalidConnection);
    return upnp_cms_get_current_connection_info(request);
  }
  return upnp_send_error(request, kErrorInvalidAction);
}

}  // namespace

std::string SourceProtocolInfo() {
  std::string list;
  for (const char* entry : kProfileEntries) {
    list += list.empty() ? "" : ",";
    list += entry;
  }
  std::string seen = ",";
  for (const char* extension : kOfferedExtensions) {
    const char* mime = HTTP_get_mime_type(nullptr, extension);
    if (seen.find("," + std::string(mime) + ",") != std::string::npos) continue;
    seen += std::string(mime) + ",";
    list += ",http-get:*:" + std::string(mime) + ":*";
  }
  return list;
}

void RegisterConnectionManager() {
  upnp_http_register_handler(&OnControl, HTTP_METHOD_POST, "/ConnectionManager/Control", 1, 0);
}

}  // namespace mediaserver
