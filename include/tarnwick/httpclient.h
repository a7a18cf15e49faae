/* SPDX-License-Identifier: Apache-2.0 */
/*
 * HTTP client: one request per new TCP connection to another UPnP device (description fetches,
 * SOAP actions, XML posts, uploads and downloads), and the head and body readers that the HTTP
 * server shares with it.
 *
 * Conventions of this family:
 *  - Request senders return 0 when the request head went out and 1 otherwise; they accept only
 *    URLs that begin with "http://" and have at least 9 characters.
 *  - Exchanges open, use and close their own connection and never reuse one.
 *  - Texts handed out are fresh heap blocks from the accounted allocator; free them with
 *    upnp_free_impl (upnp_string records with upnp_string_free).
 *  - Failures are logged at error level in the UPNP_LOG_HTTP category; the readers of
 *    heads and bodies log nothing but an over-long head.
 */
#ifndef TARNWICK_HTTPCLIENT_H
#define TARNWICK_HTTPCLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* ---- Settings ---------------------------------------------------------------------------- */
/* Connect/send/receive time-out of the HTTP client in seconds, 30 by default; 0 arms none. The
 * setter returns the previous value. */
TW_API int32_t HTTP_set_connection_timeout(int32_t seconds) TW_NOEXCEPT;
TW_API int32_t HTTP_get_connection_timeout(void) TW_NOEXCEPT;
/* Sets the HTTP client's User-Agent (at most 127 characters, null: empty) unless one was set
 * already; marks it set. Requests set "ktConnect DLNADOC/1.50" when none was set. */
TW_API void HTTP_set_default_user_agent(const char* text) TW_NOEXCEPT;
/* Lets the next HTTP_set_default_user_agent take effect again. */
TW_API void HTTP_make_user_agent_settable(void) TW_NOEXCEPT;

/* ---- Reading heads ----------------------------------------------------------------------- */
/* Reads one head, up to and including the blank line, into buffer, NUL-terminated. Returns its
 * length, or 0 when the peer closed or a receive failed first. Bytes after the head stay in the
 * socket. A head longer than size - 1 is cut, the rest of it discarded, and gives size - 1. */
TW_API int32_t HTTP_get_header(int32_t socket, char* buffer, int32_t size) TW_NOEXCEPT;
/*
 * Stateless readers of head text (a NUL-terminated head whose lines end in CR LF). Header names
 * are found by case-insensitive substring search over the whole head, not line by line.
 */
/* The "content-type:" value up to CR LF as a new block (free with upnp_free_impl); null when
 * missing, not ended by CR LF, head null or memory short. */
TW_API char* HTTP_parse_header_mime_type(const char* head) TW_NOEXCEPT;
/* 1 when the head holds both "chunked\r\n" and "Transfer-Encoding" (any case), else 0. */
TW_API int32_t HTTP_parse_header_chunked(const char* head) TW_NOEXCEPT;
/* 1 when the "connection:" value starts with "close" (any case) or "close" occurs anywhere
 * after the header name, else 0 (also for null). */
TW_API int32_t upnp_http_has_connection_close(const char* head) TW_NOEXCEPT;
/* Status code of a response head (the number after the first space); 500 for null or no space. */
TW_API int32_t HTTP_parse_header_response(const char* head) TW_NOEXCEPT;
/* The "content-length:" value; 0 when missing, negative or the head is null. */
TW_API int64_t HTTP_parse_header_size(const char* head) TW_NOEXCEPT;

/* ---- Message bodies ---------------------------------------------------------------------- */
/*
 * Readers of the body that follows a head on a socket, framed by chunked coding, Content-Length,
 * or, for HTTP/1.0 and "Connection: close", the end of the connection. Nothing is logged; a short
 * body is returned as far as it arrived.
 */
/* The body as a new string to free with upnp_string_free, or null when the head announces none,
 * the head is null or nothing arrived. */
TW_API upnp_string* HTTP_receive_body(int32_t socket, const char* head) TW_NOEXCEPT;
/* Reads one chunk of a chunked body: its byte count with *data_out a new block holding the bytes,
 * freed with upnp_free_impl; 0 at the last chunk; -1 for a socket of -1, a null data_out, a
 * failed size line, memory shortage or a chunk of which nothing arrived. *data_out is null
 * unless the result is above 0. */
TW_API int32_t HTTP_receive_chunk(int32_t socket, char** data_out) TW_NOEXCEPT;

TW_EXTERN_C_END

#endif /* TARNWICK_HTTPCLIENT_H */
