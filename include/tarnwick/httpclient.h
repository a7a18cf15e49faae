/* SPDX-License-Identifier: Apache-2.0 */
/*
 * HTTP client: one request per new TCP connection to another UPnP device (description fetches,
 * SOAP actions, XML posts, uploads and downloads), and the head and body readers that the HTTP
 * server shares with it.
 *
 * Conventions of this family:
 *  - Request senders return 0 when the request head went out and 1 otherwise; they accept only
 *    URLs that begin with "http://" and have at least 9 characters. When the host set no
 *    User-Agent, the first request sets "ktConnect DLNADOC/1.50".
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

/* ---- Connections and request heads ------------------------------------------------------- */
/* Connects to the host of an "http://" (port 80 by default) or "ftp://" (port 21) URL, user
 * information before an '@' skipped, and returns the socket, or -1. HTTP_open_ttl also sets the
 * IP time-to-live when ttl is not 0. With a connection time-out set, the connect is cut off by the
 * socket watchdog (upnp_enforce_socket_timeout) when it takes longer; the send time-out set
 * from it bounds the connect as well, also where no server runs and so no watchdog. */
TW_API int32_t HTTP_open(const char* url) TW_NOEXCEPT;
TW_API int32_t HTTP_open_ttl(const char* url, int32_t ttl) TW_NOEXCEPT;
/* Sends "<method> /<path> HTTP/1.1" with Accept, Host (the URL's text up to its path, cut at 256
 * characters), User-Agent (left out when extra_headers, complete CR LF lines or null, mention
 * "User-Agent" in any case) and extra_headers. */
TW_API int32_t HTTP_head_or_get_request(const char* method, int32_t socket, const char* url,
                                        const char* extra_headers) TW_NOEXCEPT;
TW_API int32_t HTTP_get_request(int32_t socket, const char* url,
                                const char* extra_headers) TW_NOEXCEPT;
TW_API int32_t HTTP_head_request(int32_t socket, const char* url,
                                 const char* extra_headers) TW_NOEXCEPT;
/* The GET request with HTTP/1.0. */
TW_API int32_t HTTP_get_request_1_0(int32_t socket, const char* url,
                                    const char* extra_headers) TW_NOEXCEPT;
/* Sends the head of a SOAP POST (SOAPACTION, text/xml, the length of body), built in 1024 bytes
 * and cut there; the body is the caller's to send. A null soap_action or body counts as "". */
TW_API int32_t HTTP_post_request(int32_t socket, const char* url, const char* soap_action,
                                 const char* body) TW_NOEXCEPT;
/* Sends a POST head for content_type and content_length (0: "Connection: Close" and no length
 * line), with "Expect: 100-continue" when expect_continue is non-zero and extra_headers behind
 * the User-Agent line. Refuses a null url or content type and a negative length. Built in 1024
 * bytes: a longer head goes out cut there, one longer than 8191 bytes is refused (logged). */
TW_API int32_t HTTP_post_header(int32_t socket, const char* url, const char* content_type,
                                int64_t content_length, int32_t expect_continue,
                                const char* extra_headers) TW_NOEXCEPT;

/* ---- Exchanges --------------------------------------------------------------------------- */
/* One exchange on a new connection: mode 1 is a SOAP POST of body with soap_action, mode 2 a
 * GET. Interim "HTTP/1.1 1xx" responses are skipped; the status is not examined, so an error
 * page's body comes back like any other. Returns the body (free with upnp_string_free) or null
 * (also for a null url or another mode). A receive_timeout_ms above 0 sets the socket's receive
 * time-out; upnp_recv sits such time-outs out, so it does not bound a silent peer. */
TW_API upnp_string* HTTP_talk(int32_t mode, const char* url, const char* soap_action,
                              const char* body) TW_NOEXCEPT;
TW_API upnp_string* _HTTP_talk(int32_t mode, const char* url, const char* soap_action,
                               const char* body, int32_t receive_timeout_ms) TW_NOEXCEPT;
TW_API upnp_string* HTTP_get(const char* url) TW_NOEXCEPT;
TW_API upnp_string* HTTP_get_with_timeout(const char* url, int32_t timeout_ms) TW_NOEXCEPT;
/* Invokes a SOAP action: a control_url beginning with "/" replaces the path of base_url, any
 * other is appended to base_url behind a "/" (the URL is cut at 1023 characters). Null when an
 * argument is null. */
TW_API upnp_string* HTTP_soap_action(const char* base_url, const char* control_url,
                                     const char* soap_action, const char* body) TW_NOEXCEPT;
/* Posts body_length bytes of an XML body (receive time-out 30 s, "Connection: close",
 * extra_headers before the length). 1 when an answer head was read: then *answer_out is a new
 * NUL-terminated block holding the answer body (free with upnp_free_impl) and
 * *answer_length_out its length (null and 0 when the answer had no body); 0 on failure,
 * including memory shortage for the copy. Both outputs may be null. */
TW_API int32_t HTTP_post(const char* url, const char* extra_headers, const char* body,
                         int32_t body_length, char** answer_out,
                         int32_t* answer_length_out) TW_NOEXCEPT;

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

/* ---- File transfers ---------------------------------------------------------------------- */
/*
 * A received body is written to a temporary file in the target's directory and renamed to the
 * target only once it arrived complete: a transfer that fails midway leaves no file under the
 * target name, and an earlier file there stays as it was. Each returns 0 on success, 1 on
 * failure (logged); a length output may be null and is 0 unless the call succeeded.
 */
/* Saves the body that follows head on socket (framed as HTTP_receive_body frames it; a head
 * without a body gives an empty file) to path; *length_out gets its byte count. A Content-Length
 * or chunked body that stops early is a failure. The socket stays open. */
TW_API int32_t HTTP_receive_file(int32_t socket, const char* head, const char* path,
                                 int64_t* length_out) TW_NOEXCEPT;
/* GETs url on a new connection (extra_headers as for HTTP_get_request) and saves the body of a
 * 2xx answer to path as HTTP_receive_file does; another status is a failure and writes
 * nothing. */
TW_API int32_t HTTP_download_file(const char* url, const char* extra_headers, const char* path,
                                  int64_t* length_out) TW_NOEXCEPT;
/* POSTs the regular file at path to url on a new connection: HTTP_post_header with content_type,
 * the file's size and extra_headers, then the file's bytes. 0 when all of it went out and the
 * answer's status is 2xx; *status_out gets that status (0 when no answer head arrived). */
TW_API int32_t HTTP_post_file(const char* url, const char* extra_headers, const char* path,
                              const char* content_type, int32_t* status_out) TW_NOEXCEPT;

TW_EXTERN_C_END

#endif /* TARNWICK_HTTPCLIENT_H */
