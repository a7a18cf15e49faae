/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Client database: client types, known client devices, identification and quirk queries.
 * A client type is a signed 32-bit index into the client-type table; 1 is an unknown device.
 */
#ifndef TARNWICK_CLIENTDB_H
#define TARNWICK_CLIENTDB_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* ---- Identification and quirk queries ---------------------------------------------------- */
/* Client type to use for a request from client_ip reaching the server under own_address;
 * headers is the request head. 1 is the unknown device. */
TW_API int32_t upnp_client_db_add_by_ip(const char* own_address, const char* client_ip,
                                        const char* headers) TW_NOEXCEPT;
/* Quirk queries: 1 when the client type needs it, else 0. */
TW_API int32_t upnp_client_db_needs_1_0_response(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_redsonic_compliant(int32_t client_type) TW_NOEXCEPT;
/* 10, 15, 0xFFFFFFFF ("no DLNA") or 0 when unknown. */
TW_API uint32_t upnp_client_db_DLNA_version(int32_t client_type) TW_NOEXCEPT;
/* The MIME type the client wants for files with this extension, or null; the text belongs to the
 * client database. */
TW_API const char* upnp_client_db_needs_special_mime_type(int32_t client_type,
                                                          const char* extension) TW_NOEXCEPT;
/* The extension registered for exactly this MIME type, or null; owned by the client database. */
TW_API const char* upnp_client_db_special_mime_type_get_extension(const char* mime) TW_NOEXCEPT;
/* ---- end of identification and quirk queries --------------------------------------------- */

TW_EXTERN_C_END

#endif /* TARNWICK_CLIENTDB_H */
