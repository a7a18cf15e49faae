// SPDX-License-Identifier: Apache-2.0
// Entries for the error table, the SOAP fault and the Connection Manager answers.
#include "base/status.h"
#include "services/soap.h"
#include "tarnwick/http.h"
#include "tarnwick/services.h"

extern "C" {

TW_API void upnp_set_errmsgs(const upnp_errmsg* table) noexcept {
  tw::services::SetHostErrors(table);
}

TW_API const char* upnp_get_errmsg(int32_t code) noexcept {
  return tw::services::FindError(code).text;
}

TW_API upnp_string* upnp_error(int32_t code) noexcept { return tw::services::BuildFault(code); }

TW_API int32_t upnp_send_error(HttpRequest* connection, int32_t code) noexcept {
  // A null connection still goes through the header call, which reports the failure.
  if (connection == nullptr) return HTTP_send_header(nullptr, tw::services::kFaultDefaultStatus);
  return tw::services::SendFault(*connection, code);
}

TW_API int32_t upnp_cms_get_current_connection_info(HttpRequest* connection) noexcept {
  if (connection == nullptr) return tw::kHttpFail;
  return tw::services::SendCmsAnswer(*connection, tw::services::CmsAnswer::kConnectionInfo);
}

TW_API int32_t upnp_cms_get_current_connectionIDs(HttpRequest* connection) noexcept {
  if (connection == nullptr) return tw::kHttpFail;
  return tw::services::SendCmsAnswer(*connection, tw::services::CmsAnswer::kConnectionIds);
}

}  // extern "C"
