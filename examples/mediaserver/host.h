// SPDX-License-Identifier: Apache-2.0
// The example media server host: what its parts share. Everything here is set up in main()
// before upnp_server_start and only read afterwards, from the library's threads.
#pragma once

#include <string>

namespace mediaserver {

// Application properties (keys from 18 up belong to the host): the folder that is shared, and
// the seconds a connection may take to send its next request (0: no limit).
constexpr unsigned kFolderKey = 18;
constexpr unsigned kIdleTimeoutKey = 19;

struct Settings {
  std::string folder;         // absolute or relative path of the shared folder
  std::string friendly_name;  // the "friendlyname" property, or a default
  std::string udn;            // the media server's UDN
};
const Settings& CurrentSettings();
void SetSettings(const Settings& settings);

// Prints one host line to standard output ("mediaserver: ..."); thread-safe.
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Where each part lives (one file each, registered before upnp_server_start):
// description.cpp: the device description and the two service documents (SCPDs).
void RegisterDescriptionHandlers();
// content_directory.cpp: Browse, Search and the other ContentDirectory actions.
void RegisterContentDirectory();
// connection_manager.cpp: the ConnectionManager actions.
void RegisterConnectionManager();
// The ConnectionManager's source protocol list (GetProtocolInfo and its initial event).
std::string SourceProtocolInfo();
// streaming.cpp: the items' resources under "/media/", with byte ranges and DLNA headers.
void RegisterStreamingHandlers();
// status_page.cpp: the page at "/" (the server, its folders and the client devices it knows).
void RegisterStatusPage();
// discovery.cpp: answers M-SEARCH requests, passes alive announcements to the client database.
void RegisterSearchHandler();
// eventing.h: SUBSCRIBE/UNSUBSCRIBE and the events of both services.

// Text helpers shared by the handlers.
std::string XmlEscape(const std::string& text);
std::string UrlEscape(const std::string& text);

}  // namespace mediaserver
