// SPDX-License-Identifier: Apache-2.0
// The MediaServer device description at "/TMSDeviceDescription.xml" (the path the library
// announces for the media-server role) and the service documents of its two services. The
// control URLs belong to content_directory.cpp and connection_manager.cpp, the event URLs to
// eventing.cpp.
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host.h"
#include "tarnwick/http.h"

namespace mediaserver {
namespace {

constexpr char kXmlType[] = "text/xml; charset=\"utf-8\"";

struct Service {
  const char* type;
  const char* id;
  const char* base;  // "/<base>/scpd.xml", "/<base>/Control", "/<base>/Event"
};
constexpr Service kServices[] = {
    {"urn:schemas-upnp-org:service:ContentDirectory:1", "urn:upnp-org:serviceId:ContentDirectory",
     "ContentDirectory"},
    {"urn:schemas-upnp-org:service:ConnectionManager:1", "urn:upnp-org:serviceId:ConnectionManager",
     "ConnectionManager"},
};

std::string DeviceDescription() {
  const Settings& settings = CurrentSettings();
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
      "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\r\n"
      "  <specVersion><major>1</major><minor>0</minor></specVersion>\r\n"
      "  <device>\r\n"
      "    <deviceType>urn:schemas-upnp-org:device:MediaServer:1</deviceType>\r\n"
      "    <dlna:X_DLNADOC "
      "xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">DMS-1.50</dlna:X_DLNADOC>\r\n"
      "    <friendlyName>" +
      XmlEscape(settings.friendly_name) +
      "</friendlyName>\r\n"
      "    <manufacturer>Tarnwick</manufacturer>\r\n"
      "    <modelDescription>Example host of the Tarnwick UPnP SDK</modelDescription>\r\n"
      "    <modelName>Tarnwick Example Media Server</modelName>\r\n"
      "    <modelNumber>0.1</modelNumber>\r\n"
      "    <UDN>" +
      XmlEscape(settings.udn) +
      "</UDN>\r\n"
      "    <serviceList>\r\n";
  for (const Service& service : kServices) {
    const std::string base = std::string("/") + service.base;
    xml +=
        "      <service>\r\n"
        "        <serviceType>" +
        std::string(service.type) +
        "</serviceType>\r\n"
        "        <serviceId>" +
        std::string(service.id) +
        "</serviceId>\r\n"
        "        <SCPDURL>" +
        base +
        "/scpd.xml</SCPDURL>\r\n"
        "        <controlURL>" +
        base +
        "/Control</controlURL>\r\n"
        "        <eventSubURL>" +
        base +
        "/Event</eventSubURL>\r\n"
        "      </service>\r\n";
  }
  xml +=
      "    </serviceList>\r\n"
      "    <presentationURL>/</presentationURL>\r\n"
      "  </device>\r\n"
      "</root>\r\n";
  return xml;
}

// ---- Service documents ----------------------------------------------------------------------
// Each SCPD is written from two tables: the actions with their arguments, and the state
// variables the arguments refer to.

struct Argument {
  const char* name;
  bool out;
  const char* variable;
};
struct Action {
  const char* name;
  std::vector<Argument> arguments;
};
struct Variable {
  const char* name;
  const char* type;
  bool evented;
  std::vector<const char*> allowed;
};
struct ServiceDocument {
  std::vector<Action> actions;
  std::vector<Variable> variables;
};

const ServiceDocument& ContentDirectoryDocument() {
  static const ServiceDocument document{
      {
          {"Browse",
           {{"ObjectID", false, "A_ARG_TYPE_ObjectID"},
            {"BrowseFlag", false, "A_ARG_TYPE_BrowseFlag"},
            {"Filter", false, "A_ARG_TYPE_Filter"},
            {"StartingIndex", false, "A_ARG_TYPE_Index"},
            {"RequestedCount", false, "A_ARG_TYPE_Count"},
            {"SortCriteria", false, "A_ARG_TYPE_SortCriteria"},
            {"Result", true, "A_ARG_TYPE_Result"},
            {"NumberReturned", true, "A_ARG_TYPE_Count"},
            {"TotalMatches", true, "A_ARG_TYPE_Count"},
            {"UpdateID", true, "A_ARG_TYPE_UpdateID"}}},
          {"Search",
           {{"ContainerID", false, "A_ARG_TYPE_ObjectID"},
            {"SearchCriteria", false, "A_ARG_TYPE_SearchCriteria"},
            {"Filter", false, "A_ARG_TYPE_Filter"},
            {"StartingIndex", false, "A_ARG_TYPE_Index"},
            {"RequestedCount", false, "A_ARG_TYPE_Count"},
            {"SortCriteria", false, "A_ARG_TYPE_SortCriteria"},
            {"Result", true, "A_ARG_TYPE_Result"},
            {"NumberReturned", true, "A_ARG_TYPE_Count"},
            {"TotalMatches", true, "A_ARG_TYPE_Count"},
            {"UpdateID", true, "A_ARG_TYPE_UpdateID"}}},
          {"GetSearchCapabilities", {{"SearchCaps", true, "SearchCapabilities"}}},
          {"GetSortCapabilities", {{"SortCaps", true, "SortCapabilities"}}},
          {"GetSystemUpdateID", {{"Id", true, "SystemUpdateID"}}},
      },
      {
          {"A_ARG_TYPE_ObjectID", "string", false, {}},
          {"A_ARG_TYPE_Result", "string", false, {}},
          {"A_ARG_TYPE_BrowseFlag", "string", false, {"BrowseMetadata", "BrowseDirectChildren"}},
          {"A_ARG_TYPE_Filter", "string", false, {}},
          {"A_ARG_TYPE_SortCriteria", "string", false, {}},
          {"A_ARG_TYPE_SearchCriteria", "string", false, {}},
          {"A_ARG_TYPE_Index", "ui4", false, {}},
          {"A_ARG_TYPE_Count", "ui4", false, {}},
          {"A_ARG_TYPE_UpdateID", "ui4", false, {}},
          {"SearchCapabilities", "string", false, {}},
          {"SortCapabilities", "string", false, {}},
          {"SystemUpdateID", "ui4", true, {}},
          {"ContainerUpdateIDs", "string", true, {}},
          {"TransferIDs", "string", true, {}},
      }};
  return document;
}

const ServiceDocument& ConnectionManagerDocument() {
  static const ServiceDocument document{
      {
          {"GetProtocolInfo",
           {{"Source", true, "SourceProtocolInfo"}, {"Sink", true, "SinkProtocolInfo"}}},
          {"GetCurrentConnectionIDs", {{"ConnectionIDs", true, "CurrentConnectionIDs"}}},
          {"GetCurrentConnectionInfo",
           {{"ConnectionID", false, "A_ARG_TYPE_ConnectionID"},
            {"RcsID", true, "A_ARG_TYPE_RcsID"},
            {"AVTransportID", true, "A_ARG_TYPE_AVTransportID"},
            {"ProtocolInfo", true, "A_ARG_TYPE_ProtocolInfo"},
            {"PeerConnectionManager", true, "A_ARG_TYPE_ConnectionManager"},
            {"PeerConnectionID", true, "A_ARG_TYPE_ConnectionID"},
            {"Direction", true, "A_ARG_TYPE_Direction"},
            {"Status", true, "A_ARG_TYPE_ConnectionStatus"}}},
      },
      {
          {"SourceProtocolInfo", "string", true, {}},
          {"SinkProtocolInfo", "string", true, {}},
          {"CurrentConnectionIDs", "string", true, {}},
          {"A_ARG_TYPE_ConnectionStatus",
           "string",
           false,
           {"OK", "ContentFormatMismatch", "InsufficientBandwidth", "UnreliableChannel",
            "Unknown"}},
          {"A_ARG_TYPE_ConnectionManager", "string", false, {}},
          {"A_ARG_TYPE_Direction", "string", false, {"Input", "Output"}},
          {"A_ARG_TYPE_ProtocolInfo", "string", false, {}},
          {"A_ARG_TYPE_ConnectionID", "i4", false, {}},
          {"A_ARG_TYPE_AVTransportID", "i4", false, {}},
          {"A_ARG_TYPE_RcsID", "i4", false, {}},
      }};
  return document;
}

std::string Scpd(const ServiceDocument& document) {
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
      "<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">\r\n"
      "  <specVersion><major>1</major><minor>0</minor></specVersion>\r\n"
      "  <actionList>\r\n";
  for (const Action& action : document.actions) {
    xml += "    <action><name>" + std::string(action.name) + "</name><argumentList>\r\n";
    for (const Argument& argument : action.arguments) {
      xml += "      <argument><name>" + std::string(argument.name) + "</name><direction>" +
             (argument.out ? "out" : "in") + "</direction><relatedStateVariable>" +
             argument.variable + "</relatedStateVariable></argument>\r\n";
    }
    xml += "    </argumentList></action>\r\n";
  }
  xml += "  </actionList>\r\n  <serviceStateTable>\r\n";
  for (const Variable& variable : document.variables) {
    xml += "    <stateVariable sendEvents=\"" + std::string(variable.evented ? "yes" : "no") +
           "\"><name>" + variable.name + "</name><dataType>" + variable.type + "</dataType>";
    if (!variable.allowed.empty()) {
      xml += "<allowedValueList>";
      for (const char* value : variable.allowed) {
        xml += "<allowedValue>" + std::string(value) + "</allowedValue>";
      }
      xml += "</allowedValueList>";
    }
    xml += "</stateVariable>\r\n";
  }
  xml += "  </serviceStateTable>\r\n</scpd>\r\n";
  return xml;
}

int32_t SendText(HttpRequest* request, const char* text, size_t length) {
  request->mime_type = kXmlType;
  request->content_length = static_cast<int64_t>(length);
  return HTTP_send(request, text);
}

// Built once per name and UDN: a control point fetches it again and again, and a request that
// allocates nothing leaves nothing in the memory its thread used.
std::shared_ptr<const std::string> CurrentDescription() {
  static std::mutex mutex;
  static std::shared_ptr<const std::string> xml;
  static Settings built_for;
  const Settings& settings = CurrentSettings();
  std::lock_guard<std::mutex> lock(mutex);
  if (xml == nullptr || settings.friendly_name != built_for.friendly_name ||
      settings.udn != built_for.udn) {
    built_for = settings;
    xml = std::make_shared<const std::string>(DeviceDescription());
  }
  return xml;
}

int32_t OnDescription(HttpRequest* request) {
  const std::shared_ptr<const std::string> xml = CurrentDescription();
  return SendText(request, xml->c_str(), xml->size());
}

int32_t OnContentDirectoryScpd(HttpRequest* request) {
  static const std::string xml = Scpd(ContentDirectoryDocument());
  return SendText(request, xml.c_str(), xml.size());
}

int32_t OnConnectionManagerScpd(HttpRequest* request) {
  static const std::string xml = Scpd(ConnectionManagerDocument());
  return SendText(request, xml.c_str(), xml.size());
}

}  // namespace

void RegisterDescriptionHandlers() {
  const uint32_t get = HTTP_METHOD_GET | HTTP_METHOD_HEAD;
  upnp_http_register_handler(&OnDescription, get, "/TMSDeviceDescription.xml", 0, 0);
  upnp_http_register_handler(&OnContentDirectoryScpd, get, "/ContentDirectory/scpd.xml", 0, 0);
  upnp_http_register_handler(&OnConnectionManagerScpd, get, "/ConnectionManager/scpd.xml", 0, 0);
}

std::string XmlEscape(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string UrlEscape(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                       (byte >= '0' && byte <= '9') || std::strchr("-._~", c) != nullptr;
    if (plain) {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    }
  }
  return out;
}

}  // namespace mediaserver
