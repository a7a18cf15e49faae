// SPDX-License-Identifier: Apache-2.0
// The MTP-over-IP device: the SSDP role, two description handlers and the server it runs.
#include "services/mtp_device.h"

#include <cstddef>

#include "base/status.h"
#include "tarnwick/config.h"
#include "tarnwick/core.h"
#include "tarnwick/http.h"
#include "tarnwick/server.h"
#include "tarnwick/ssdp.h"
#include "util/string.h"

// The three web addresses of the device description are chosen when the library is built.
#ifndef TW_MTP_MANUFACTURER_URL
#define TW_MTP_MANUFACTURER_URL "http://tarnwick.example/"
#endif
#ifndef TW_MTP_MODEL_URL
#define TW_MTP_MODEL_URL "http://tarnwick.example/"
#endif
#ifndef TW_MTP_PRESENTATION_URL
#define TW_MTP_PRESENTATION_URL "http://tarnwick.example/"
#endif

namespace tw::services {

const char kMtpServiceDescription[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n"
    "<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">\r\n"
    " <specVersion>\r\n"
    "  <major>1</major>\r\n"
    "  <minor>0</minor>\r\n"
    " </specVersion>\r\n"
    " <serviceStateTable>\r\n"
    "  <stateVariable sendEvents=\"no\">\r\n"
    "   <name>X_MtpNullVariable</name>\r\n"
    "   <dataType>string</dataType>\r\n"
    "  </stateVariable>\r\n"
    " </serviceStateTable>\r\n"
    "</scpd>\r\n";

namespace {

constexpr uint32_t kGetAndHead = HTTP_METHOD_GET | HTTP_METHOD_HEAD;
constexpr int32_t kStatusInternalError = 500;
constexpr char kMulticastTtl[] = "64";

// Each PnP-X element declares its prefix itself. Arguments: manufacturer URL, model URL, UDN,
// presentation URL.
#define TW_PNPX "xmlns:pnpx=\"http://schemas.microsoft.com/windows/pnpx/2005/11\""
constexpr char kDeviceFormat[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n"
    "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\r\n"
    " <specVersion>\r\n"
    "  <major>1</major>\r\n"
    "  <minor>0</minor>\r\n"
    " </specVersion>\r\n"
    " <device>\r\n"
    "  <deviceType>urn:microsoft-com:device:mtp:1</deviceType>\r\n"
    "  <pnpx:X_hardwareId " TW_PNPX
    ">urn:microsoft-com:device:mtp:1</pnpx:X_hardwareId>\r\n"
    "  <pnpx:X_compatibleId " TW_PNPX
    ">urn:microsoft-com:device:mtp:1</pnpx:X_compatibleId>\r\n"
    "  <pnpx:X_deviceCategory " TW_PNPX
    ">Phones.CellPhone</pnpx:X_deviceCategory>\r\n"
    "  <friendlyName>MTP-IP Unit-Test device</friendlyName>\r\n"
    "  <manufacturer>Microsoft</manufacturer>\r\n"
    "  <manufacturerURL>%s</manufacturerURL>\r\n"
    "  <modelDescription>UPnP MTP-IP Device 1.0</modelDescription>\r\n"
    "  <modelName>MTP-IP1.0</modelName>\r\n"
    "  <modelNumber>1-00-00</modelNumber>\r\n"
    "  <modelURL>%s</modelURL>\r\n"
    "  <serialNumber>0000001</serialNumber>\r\n"
    "  <UDN>%s</UDN>\r\n"
    "  <UPC>00000-00001</UPC>\r\n"
    "  <serviceList>\r\n"
    "   <service>\r\n"
    "    <serviceType>urn:microsoft-com:service:MtpNullService:1</serviceType>\r\n"
    "    <serviceId>urn:microsoft-com:serviceId:MtpNullServiceId</serviceId>\r\n"
    "    <SCPDURL>/MediaTransferProtocol.xml</SCPDURL>\r\n"
    "    <controlURL></controlURL>\r\n"
    "    <eventSubURL></eventSubURL>\r\n"
    "   </service>\r\n"
    "  </serviceList>\r\n"
    "  <presentationURL>%s</presentationURL>\r\n"
    " </device>\r\n"
    "</root>\r\n";
#undef TW_PNPX

int32_t SendXml(HttpRequest& request, const char* text, size_t length) noexcept {
  request.content_length = static_cast<int64_t>(length);
  request.mime_type = UPNP_SOAP_CONTENT_TYPE;
  return HTTP_send(&request, text);
}

}  // namespace

upnp_string* BuildMtpDeviceDescription(const char* udn) noexcept {
  return util::StringFormat(kDeviceFormat, TW_MTP_MANUFACTURER_URL, TW_MTP_MODEL_URL,
                            udn != nullptr ? udn : "", TW_MTP_PRESENTATION_URL);
}

int32_t SendMtpDeviceDescription(HttpRequest& request) noexcept {
  upnp_string* description = BuildMtpDeviceDescription(upnp_get_mtp_udn());
  if (description == nullptr || description->length == 0) {
    util::StringFree(description);
    return HTTP_send_error_code(&request, kStatusInternalError);
  }
  const int32_t result = SendXml(request, description->buffer, description->length);
  util::StringFree(description);
  return result;
}

int32_t SendMtpServiceDescription(HttpRequest& request) noexcept {
  return SendXml(request, kMtpServiceDescription, sizeof(kMtpServiceDescription) - 1);
}

void MtpInit() noexcept {
  // The service handler stands for both: they are registered together, once.
  if (upnp_http_handler_is_registered(&upnp_mtp_send_service_description) == 0) {
    upnp_http_register_handler(&upnp_mtp_send_device_description, kGetAndHead, kMtpDescriptionPath,
                               0, 0);
    upnp_http_register_handler(&upnp_mtp_send_service_description, kGetAndHead, kMtpServicePath, 0,
                               0);
  }
  upnp_ini_file_init();
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_SSDPTTL, kMulticastTtl);
  upnp_ssdp_hasMediaTransferProtocol(1);
  upnp_server_start(&g_server_running);
}

void MtpRelease() noexcept {
  upnp_server_stop(&g_server_running);
  upnp_ssdp_hasMediaTransferProtocol(0);
  upnp_ini_file_release();
}

}  // namespace tw::services
