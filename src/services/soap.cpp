// SPDX-License-Identifier: Apache-2.0
// The error table, the SOAP fault built from it and the two fixed Connection Manager answers.
#include "services/soap.h"

#include <cstddef>

#include "base/fixed_text.h"
#include "base/status.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"
#include "util/string.h"

namespace tw::services {
namespace {

// UPnP control errors, then the library's own status numbers (0, 2, 8, 14), so a status can be
// reported through the same table. The first row is also the answer for unknown codes.
constexpr upnp_errmsg kBuiltinErrors[] = {
    {400, "Bad request"},
    {401, "Invalid Action"},
    {402, "Invalid Args"},
    {412, "Precondition failed"},
    {500, "Internal error"},
    {501, "Action Failed"},
    {600, "Argument Value Invalid"},
    {601, "Argument Value Out of Range"},
    {602, "Optional Action Not implemented"},
    {603, "Out of Memory"},
    {604, "Human Intervention Required"},
    {605, "String Argument Too Long"},
    {606, "Action not authorized"},
    {607, "Signature failure"},
    {608, "Signature missing"},
    {609, "Not encrypted"},
    {610, "Invalid Sequence"},
    {611, "Invalid control URL"},
    {612, "No such session"},
    {701, "No such object"},
    {702, "No contents"},
    {703, "Read error"},
    {704, "Format not supported for playback"},
    {705, "Transport is locked"},
    {706, "Invalid connection reference."},
    {708, "Invalid search criteria"},
    {710, "No such container"},
    {711, "Illegal seek target"},
    {712, "Bad metadata"},
    {713, "Restricted parent object"},
    {714, "Illegal MIME-type"},
    {715, "Content BUSY"},
    {716, "Resource not found"},
    {717, "Play speed not supported"},
    {718, "Invalid InstanceID"},
    {801, "Access denied"},
    {kStatusOk, "Success"},
    {kStatusInvalidArgument, "Bad parameter"},
    {kStatusOutOfMemory, "Out of memory"},
    {kStatusNotFound, "Failed"},
    {-1, ""},
};
static_assert(sizeof(kBuiltinErrors) / sizeof(kBuiltinErrors[0]) == 41,
              "40 rows and the end marker");

// Set by the host before the servers start; an atomic pointer all the same, since a worker may
// look a code up while a late host call replaces the table.
const upnp_errmsg* g_host_errors = nullptr;

constexpr int32_t kStatusBadRequest = 400;
constexpr int32_t kStatusPreconditionFailed = 412;
constexpr int32_t kStatusNotImplemented = 501;

// The declaration and the envelope share the first line; the lines end in a bare LF.
constexpr char kFaultFormat[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
    "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\n"
    " <s:Body>\n"
    "  <s:Fault>\n"
    "   <faultcode>s:Client</faultcode>\n"
    "   <faultstring>UPnPError</faultstring>\n"
    "   <detail>\n"
    "    <UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">\n"
    "     <errorCode>%d</errorCode>\n"
    "     <errorDescription>%s</errorDescription>\n"
    "    </UPnPError>\n"
    "   </detail>\n"
    "  </s:Fault>\n"
    " </s:Body>\n"
    "</s:Envelope>\n";

// The answers are one line: elements are separated by runs of four blanks.
#define TW_CMS_HEAD(action)                                                                  \
  "<?xml version=\"1.0\" encoding=\"utf-8\"?>"                                               \
  "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "                       \
  "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">    <s:Body>    <u:" action \
  " xmlns:u=\"urn:schemas-upnp-org:service:ConnectionManager:1\">    "
#define TW_CMS_TAIL(action) "    </u:" action ">    </s:Body>    </s:Envelope>"

constexpr char kConnectionInfoAnswer[] = TW_CMS_HEAD("GetCurrentConnectionInfoResponse")  //
    "<RcsID>-1</RcsID>    <AVTransportID>-1</AVTransportID>    <ProtocolInfo></ProtocolInfo>    "
    "<PeerConnectionManager></PeerConnectionManager>    <PeerConnectionID>0</PeerConnectionID>    "
    "<Direction>Output</Direction>    <Status>Unknown</Status>" TW_CMS_TAIL(
        "GetCurrentConnectionInfoResponse");
constexpr char kConnectionIdsAnswer[] = TW_CMS_HEAD("GetCurrentConnectionIDsResponse")  //
    "<ConnectionIDs>0</ConnectionIDs>" TW_CMS_TAIL("GetCurrentConnectionIDsResponse");
#undef TW_CMS_HEAD
#undef TW_CMS_TAIL
static_assert(sizeof(kConnectionInfoAnswer) <= kAnswerBufferSize, "fits its buffer");

const upnp_errmsg* Search(const upnp_errmsg* table, int32_t code) noexcept {
  for (; table->code >= 0 && table->text != nullptr; ++table) {
    if (table->code == code) return table;
  }
  return nullptr;
}

}  // namespace

const upnp_errmsg& FindError(int32_t code) noexcept {
  if (code < 0) return kBuiltinErrors[0];
  const upnp_errmsg* host = __atomic_load_n(&g_host_errors, __ATOMIC_ACQUIRE);
  const upnp_errmsg* row = host != nullptr ? Search(host, code) : nullptr;
  if (row == nullptr) row = Search(kBuiltinErrors, code);
  // Unknown codes report 400 "Bad request", not the code asked for: intended, hosts rely on it.
  return row != nullptr ? *row : kBuiltinErrors[0];
}

void SetHostErrors(const upnp_errmsg* table) noexcept {
  __atomic_store_n(&g_host_errors, table, __ATOMIC_RELEASE);
}

int32_t FaultStatus(int32_t code) noexcept {
  switch (code) {
    case kStatusBadRequest:
    case kStatusPreconditionFailed:
    case kStatusNotImplemented:
      return code;
    default:
      return kFaultDefaultStatus;
  }
}

upnp_string* BuildFault(int32_t code) noexcept {
  const upnp_errmsg& row = FindError(code);
  return util::StringFormat(kFaultFormat, static_cast<int>(row.code), row.text);
}

int32_t SendFault(HttpRequest& request, int32_t code) noexcept {
  upnp_string* fault = BuildFault(code);
  if (fault == nullptr) return HTTP_send_error_code(&request, kStatusNotImplemented);
  request.content_length = fault->length;
  request.mime_type = UPNP_SOAP_CONTENT_TYPE;
  int32_t result = HTTP_send_header(&request, FaultStatus(code));
  // The body takes the plain socket, not the TLS path of HTTP_send.
  if (result == kHttpOk && upnp_send(request.socket, fault->buffer, fault->length) < 0) {
    result = kHttpFail;
  }
  util::StringFree(fault);
  return result;
}

int32_t SendCmsAnswer(HttpRequest& request, CmsAnswer answer) noexcept {
  auto* buffer = static_cast<char*>(upnp_malloc_impl(kAnswerBufferSize));
  if (buffer == nullptr) return kHttpFail;
  const size_t length =
      CopyCut(buffer, kAnswerBufferSize,
              answer == CmsAnswer::kConnectionInfo ? kConnectionInfoAnswer : kConnectionIdsAnswer);
  request.content_length = static_cast<int64_t>(length);
  request.mime_type = UPNP_SOAP_CONTENT_TYPE;
  const int32_t result = HTTP_send(&request, buffer);
  upnp_free_impl(buffer);
  return result;
}

}  // namespace tw::services
