/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Service answers: the UPnP control error (code table, SOAP fault, sending it with its HTTP
 * status), the two fixed Connection Manager answers, and the MTP-over-IP device that announces
 * itself and serves its device and service descriptions.
 *
 * Conventions of this family:
 *  - Senders take the HttpRequest of the current handler call (the "connection") and return 0
 *    when the response went out, non-zero (1) on failure; the caller closes the connection then.
 *  - upnp_error hands out a upnp_string from the accounted allocator; free it with
 *    upnp_string_free. Texts from upnp_get_errmsg belong to the library or the host table.
 *  - The host error table is set before the servers start and read by worker threads without a
 *    lock; upnp_mtp_init and upnp_mtp_release run on the host's control thread, like
 *    upnp_server_start and upnp_server_stop.
 */
#ifndef TARNWICK_SERVICES_H
#define TARNWICK_SERVICES_H

#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/http.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* ---- Connection Manager answers and SOAP errors ------------------------------------------ */

/* One row of an error table: a UPnP or library status code and its description. */
typedef struct upnp_errmsg {
  int32_t code;
  const char* text;
} upnp_errmsg;

/* Content type of the SOAP answers and faults; the leading blank is part of the value. */
#define UPNP_SOAP_CONTENT_TYPE " text/xml; charset=\"utf-8\""

/* Installs a host table searched before the built-in one (null removes it). It ends at the first
 * row whose code is negative or whose text is null; the table is not copied, so it must outlive
 * every lookup. */
TW_API void upnp_set_errmsgs(const upnp_errmsg* table) TW_NOEXCEPT;
/* The description for code. A negative or unknown code gives the first built-in row,
 * "Bad request" (code 400). Never null. */
TW_API const char* upnp_get_errmsg(int32_t code) TW_NOEXCEPT;
/* A new string with the SOAP fault for the row found for code (that row's code and text, so an
 * unknown code reports 400; the text goes in unescaped), or null when memory is short. Free with
 * upnp_string_free. */
TW_API upnp_string* upnp_error(int32_t code) TW_NOEXCEPT;
/* Sends the fault for code with HTTP status 400, 412 or 501 when code is one of those, else 500.
 * The request's mime_type becomes UPNP_SOAP_CONTENT_TYPE, though the header of an error status
 * names the HTML type, as every error header does. 0 when sent; the header's result when the header
 * failed; 1 when the body failed. Without memory for the fault only an empty 501 goes out; a null
 * connection gives 1. */
TW_API int32_t upnp_send_error(HttpRequest* connection, int32_t code) TW_NOEXCEPT;
/* The fixed GetCurrentConnectionInfo answer (connection 0, direction Output, status Unknown).
 * 1 for a null connection or no memory, else the result of HTTP_send. */
TW_API int32_t upnp_cms_get_current_connection_info(HttpRequest* connection) TW_NOEXCEPT;
/* The fixed GetCurrentConnectionIDs answer (the one connection "0"); results as above. */
TW_API int32_t upnp_cms_get_current_connectionIDs(HttpRequest* connection) TW_NOEXCEPT;
/* ---- end of Connection Manager answers and SOAP errors ----------------------------------- */

/* ---- MTP-over-IP device ------------------------------------------------------------------ */
/*
 * A minimal device that makes the host discoverable as an MTP-over-IP device: the MTP SSDP role
 * plus a device description at "/MediaTransferProtocolDescription.xml" and a service description
 * with one null service at "/MediaTransferProtocol.xml".
 */

/* Registers both description handlers (GET and HEAD; once per process), initialises the
 * properties, sets the multicast TTL to 64, turns the MTP role on and starts the servers with
 * g_server_running as the state word. */
TW_API void upnp_mtp_init(void) TW_NOEXCEPT;
/* Stops the servers, turns the MTP role off and releases the properties. The handlers stay
 * registered. */
TW_API void upnp_mtp_release(void) TW_NOEXCEPT;
/* URL handlers: the device description (with the MTP UDN) and the service description. 1 for a
 * null connection, an empty 500 when the description cannot be built, else HTTP_send's result. */
TW_API int32_t upnp_mtp_send_device_description(HttpRequest* connection) TW_NOEXCEPT;
TW_API int32_t upnp_mtp_send_service_description(HttpRequest* connection) TW_NOEXCEPT;
/* ---- end of MTP-over-IP device ----------------------------------------------------------- */

TW_EXTERN_C_END

#endif /* TARNWICK_SERVICES_H */
