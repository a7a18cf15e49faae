// SPDX-License-Identifier: Apache-2.0
// The MediaServer device description at "/TMSDeviceDescription.xml" (the path the library
// announces for the media-server role), minimal service documents, and control and event URLs
// that refuse politely: browsing is not part of this example yet.
#include <cstring>
#include <string>

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

// A service document without actions: valid, and honest about what is implemented.
constexpr char kScpd[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
    "<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">\r\n"
    "  <specVersion><major>1</major><minor>0</minor></specVersion>\r\n"
    "  <actionList/>\r\n"
    "  <serviceStateTable>\r\n"
    "    <stateVariable sendEvents=\"no\">\r\n"
    "      <name>A_ARG_TYPE_Dummy</name>\r\n"
    "      <dataType>string</dataType>\r\n"
    "    </stateVariable>\r\n"
    "  </serviceStateTable>\r\n"
    "</scpd>\r\n";

// UPnP error 401 (Invalid Action) as a SOAP fault with HTTP status 500.
constexpr char kInvalidAction[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
    "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\r\n"
    "<s:Body><s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>"
    "<detail><UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>401</errorCode>"
    "<errorDescription>Invalid Action</errorDescription></UPnPError></detail></s:Fault>"
    "</s:Body></s:Envelope>\r\n";

int32_t SendText(HttpRequest* request, const char* text, size_t length) {
  request->mime_type = kXmlType;
  request->content_length = static_cast<int64_t>(length);
  return HTTP_send(request, text);
}

int32_t OnDescription(HttpRequest* request) {
  const std::string xml = DeviceDescription();
  return SendText(request, xml.c_str(), xml.size());
}

int32_t OnScpd(HttpRequest* request) { return SendText(request, kScpd, sizeof(kScpd) - 1); }

int32_t OnControl(HttpRequest* request) {
  request->mime_type = kXmlType;
  return HTTP_send_error_message(request, 500, kInvalidAction);
}

}  // namespace

void RegisterDescriptionHandlers() {
  const uint32_t get = HTTP_METHOD_GET | HTTP_METHOD_HEAD;
  upnp_http_register_handler(&OnDescription, get, "/TMSDeviceDescription.xml", 0, 0);
  for (const Service& service : kServices) {
    const std::string base = std::string("/") + service.base;
    upnp_http_register_handler(&OnScpd, get, (base + "/scpd.xml").c_str(), 0, 0);
    upnp_http_register_handler(&OnControl, HTTP_METHOD_POST, (base + "/Control").c_str(), 1, 0);
    // The event URLs are left to the library's 404: nothing here sends events yet.
  }
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
