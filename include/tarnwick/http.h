/* SPDX-License-Identifier: Apache-2.0 */
/*
 * HTTP server (connections, handler registry, request parsing, response headers with DLNA
 * fields, bodies, error pages, authorization, remote access). The head and body readers it shares
 * with the HTTP client are declared in tarnwick/httpclient.h, which this header includes.
 *
 * Conventions of this family:
 *  - HTTP_* senders return 0 on success and 1 on failure; the caller closes the connection.
 *  - Texts handed out are fresh heap blocks from the accounted allocator; free them with
 *    upnp_free_impl (upnp_string records with upnp_string_free).
 *  - Handlers, hooks and texts are registered before the servers start and are read by the
 *    worker threads without a lock; HttpRequest records belong to one worker thread.
 */
#ifndef TARNWICK_HTTP_H
#define TARNWICK_HTTP_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* Method mask: a handler registers the OR of the methods it serves. */
#define HTTP_METHOD_GET 1u
#define HTTP_METHOD_HEAD 2u /* HEAD and OPTIONS */
#define HTTP_METHOD_POST 4u
#define HTTP_METHOD_SUBSCRIBE 8u
#define HTTP_METHOD_UNSUBSCRIBE 16u
#define HTTP_METHOD_NOTIFY 32u

/* Special values of HttpRequest.range_start / range_end. */
#define HTTP_RANGE_ABSENT (-1)  /* no range; as an end: to the end of the resource */
#define HTTP_RANGE_UNSET (-2)   /* a range header without a usable number, or not applicable */
#define HTTP_RANGE_REFUSED (-3) /* the DLNA operation flags of the request forbid the range */

/* A parsed time-seek request; owns `text`. Freed with upnp_timeseek_free. */
typedef struct upnp_timeseek {
  char* text;
  int64_t start_ms;
  int64_t end_ms;
} upnp_timeseek;

/*
 * Per-connection state of the file-streaming code, kept across the requests of one connection
 * and released with http_file_filecache_free (which also runs the file-completed hook).
 */
typedef struct HttpFileCache {
  void* blocks[4];           /* heap blocks owned by the cache (upnp_free_impl) */
  upnp_file* file;           /* open file, closed with upnp_file_close */
  int64_t modification_time; /* seconds since 1970; non-zero gives a Last-Modified line */
  upnp_timeseek* timeseek;   /* owned */
} HttpFileCache;

/*
 * The request record every handler receives. Allocated zero-filled per request and freed after
 * the handler returned: handlers must not keep a pointer to it.
 */
typedef struct HttpRequest {
  /* Connection and request. */
  int32_t socket;
  uint32_t method;        /* one HTTP_METHOD_* bit, 0 for other methods */
  char url[1024];         /* rewritten and URL-unescaped request target */
  int32_t http_version;   /* 10 or 11 */
  char* body;             /* request body text for handlers that take one, else null */
  int64_t content_length; /* request body length; then the response body length (<0 unknown) */
  int32_t close_connection;
  const char* mime_type; /* response MIME type, set by the handler */
  char client_ip[20];
  int32_t client_id;  /* client type from the client database */
  char base_url[128]; /* "http://%s:%d/" under which the client reached the server */
  char header[8192];  /* the complete request head, NUL-terminated */
  int32_t remote_access;
  uint8_t dlna_version; /* 10, 15 or 0 */
  HttpFileCache* file_cache;
  int32_t auth_required;
  int32_t remote_session_pending;
  int32_t tls;
  int32_t tls_session;
  /* Ranges. */
  int64_t range_start; /* first byte, or start time in ms; see HTTP_RANGE_* */
  int64_t range_end;   /* last byte, or end time in ms */
  int64_t total_size;  /* total size of the resource, filled by the senders */
  int64_t requested_range_start;
  int64_t requested_range_end;
  int32_t range_is_clock_time;
  int32_t duration_ms; /* media duration, 0 when unknown */
  int32_t is_timeseek;
  int32_t range_is_dtcp;
  /* Response. */
  char extra_headers[8192]; /* complete extra header lines, each ending in CR LF */
  int32_t dtcp_protected;
  int32_t chunked;
  /* Session. */
  char session_parameter[128]; /* "RAMSessionID=<token>" for authorized remote requests */
} HttpRequest;

/* Per-connection context, owned by the connection's worker thread. */
typedef struct HttpConnection {
  upnp_server_data* server;
  int32_t socket;
  HttpFileCache* file_cache;
  void* tls;
  int32_t tls_session;
} HttpConnection;

/* A URL handler: 0 keeps the connection open for another request, non-zero closes it. */
typedef int32_t (*upnp_http_handler_fn)(HttpRequest* request);
/* Adds response header lines with HTTP_add_header. */
typedef void (*upnp_http_header_handler_fn)(HttpRequest* request);
/* Validates a remote-access session token; non-zero when valid. */
typedef int32_t (*upnp_http_cookie_handler_fn)(const char* token, void* reserved);

/* Hooks of an outside TLS module; a null hook skips its step. */
typedef int32_t (*upnp_tls_startup_fn)(void);
typedef void (*upnp_tls_shutdown_fn)(void);
typedef int32_t (*upnp_tls_session_create_fn)(int32_t socket, void* tls);
typedef void (*upnp_tls_session_close_fn)(int32_t session, void* tls);
typedef int64_t (*upnp_tls_send_fn)(int32_t session, const void* data, int64_t length);
typedef int64_t (*upnp_tls_recv_fn)(int32_t session, void* data, int64_t length);
typedef int32_t (*upnp_tls_http_get_header_fn)(int32_t session, char* buffer, int32_t size);
typedef upnp_string* (*upnp_tls_http_receive_body_fn)(int32_t session, const char* head);
typedef void (*upnp_http_file_completed_fn)(HttpFileCache* cache);

/* ---- Connections and handler registry ---------------------------------------------------- */
/*
 * One listening socket per served address, one accept thread per listening socket and one worker
 * thread per connection. The handler lists are built before the servers start and read by the
 * workers without a lock; unregister only after the servers stopped.
 */

/* Creates, binds and listens. Does nothing when a pointer is null. *port_inout 0 takes the
 * default port; a taken port tries the next one, 1001 attempts in all. On failure *socket_out is
 * -1; on success *port_inout holds the bound port. */
TW_API void HTTP_create_server_socket(int32_t* socket_out, int32_t* port_inout,
                                      const char* ip) TW_NOEXCEPT;
/* Replaces the default port, 9000, that HTTP_create_server_socket starts from. */
TW_API void HTTP_set_default_port(int32_t port) TW_NOEXCEPT;
/* Beyond the classic API: the server's idle limit in seconds, off (0) by default. With seconds
 * above 0 the server closes a plain connection whose next request head has not completely
 * arrived within that time of the worker starting to wait for it: a peer that never sends, one
 * that went quiet between kept-alive requests, and one that sends its head too slowly all lose
 * their connection and free their thread. A request whose handler runs, however long, is not
 * affected, nor are TLS connections (their heads are read by the TLS hook). 0 or a negative
 * value switches the limit off. Takes effect at each connection's next head read; may be called
 * at any time from any thread. With the limit on, every peek for a head costs one poll more. */
TW_API void HTTP_set_server_idle_timeout(int32_t seconds) TW_NOEXCEPT;
/* Thread routine for one listening socket; arg is the upnp_server_data record. Returns null. */
TW_API void* HTTP_accept(void* server) TW_NOEXCEPT;
/* The accept loop; returns 0 when the server stops, its socket closes or its generation moves. */
TW_API int32_t HTTP_accept_Impl(upnp_server_data* server) TW_NOEXCEPT;
/* Thread routine for one connection; arg is an HttpConnection that the thread frees. */
TW_API void* HTTP_receive(void* connection) TW_NOEXCEPT;
/* Serves requests until one says close; closes the socket and frees the context. Returns 0. */
TW_API int32_t HTTP_receive_Impl(HttpConnection* connection) TW_NOEXCEPT;
/* Serves one request: 0 keeps the connection, non-zero closes it; a null argument gives 1. */
TW_API int32_t HTTP_send_receive(HttpConnection* connection) TW_NOEXCEPT;

/* Adds a URL handler for the methods in the mask; url null or "" serves every URL. Refused
 * and logged for a null handler or when a handler sharing a method has the same URL. */
TW_API void upnp_http_register_handler(upnp_http_handler_fn handler, uint32_t methods,
                                       const char* url, int32_t receives_body,
                                       int32_t is_public) TW_NOEXCEPT;
/* Adds a response-header handler in front of the others. */
TW_API void upnp_http_register_header_handler(upnp_http_header_handler_fn handler) TW_NOEXCEPT;
/* Sets the remote-access session-token validator, replacing an earlier one. */
TW_API void upnp_http_register_cookie_handler(upnp_http_cookie_handler_fn handler) TW_NOEXCEPT;
/* 1 when some registered URL handler is this very function, else 0. */
TW_API int32_t upnp_http_handler_is_registered(upnp_http_handler_fn handler) TW_NOEXCEPT;
/* Shuts the TLS module down when it was started, and frees both handler lists. */
TW_API void http_unregister_all_handlers(void) TW_NOEXCEPT;

/* The URL served for "/" and the empty target: at most 1023 characters, null empties it. */
TW_API void upnp_http_set_default_url(const char* url) TW_NOEXCEPT;
/* Remote access: the external base text, at most 127 characters, one trailing "/" dropped when
 * the text has two or more; the remote-access port, 0 for none. Enabled when text is not empty. */
TW_API void HTTP_set_dns_and_remote_port(const char* text, int32_t port) TW_NOEXCEPT;
/* ---- end of connections and handler registry --------------------------------------------- */

/* ---- Request header parsing -------------------------------------------------------------- */
/*
 * Stateless readers of head text (a NUL-terminated head whose lines end in CR LF), shared by the
 * server and the HTTP client. Header names are found by case-insensitive substring search over
 * the whole head, not line by line. Malformed input gives the neutral values stated per function;
 * nothing is logged.
 */

/* Fills the range fields of request (range_start/end, the requested copies, is_timeseek,
 * range_is_dtcp, range_is_clock_time) from its header; HTTP_RANGE_* mark the special cases.
 * No-op for null. */
TW_API void HTTP_get_range_header(HttpRequest* request) TW_NOEXCEPT;
/* A DLNA npt time ("ss.mmm", "h:mm:ss.mmm") in ms; the fraction counts as written (".5" is 5 ms)
 * and a form without fraction is taken as seconds, so "0:10:00" overflows to 2147483647.
 * (uint32_t)-2 when no digit is seen, 0 for null text. *clock_flag (may be null) is set to 1
 * when a ':' is met. */
TW_API uint32_t HTTP_parse_time_range(const char* text, int32_t* clock_flag) TW_NOEXCEPT;
/* Writes "%d:%d:%d.%03d" (hours wrap at 60) of milliseconds, cut at size; returns what snprintf
 * returned, 0 for a null buffer. */
TW_API int32_t upnp_range_to_string(int64_t milliseconds, char* buffer, size_t size) TW_NOEXCEPT;
/* Frees the record and its text; null is a no-op. */
TW_API void upnp_timeseek_free(upnp_timeseek* record) TW_NOEXCEPT;
/* Decodes "%XY" (digits not checked) and '+' in place; null is a no-op. */
TW_API void HTTP_unescape_url(char* text) TW_NOEXCEPT;
/* Moves *text_pointer over blanks and tabs, unless only blanks precede a CR or the end, in which
 * case it stays. Null arguments are no-ops. */
TW_API void http_skip_spaces(char** text_pointer) TW_NOEXCEPT;
/* The remote-access port set by HTTP_set_dns_and_remote_port, 0 when none. */
TW_API int32_t HTTP_get_remote_port(void) TW_NOEXCEPT;
/* ---- end of request header parsing ------------------------------------------------------- */

/* ---- Response header composition --------------------------------------------------------- */
/*
 * HTTP_send_header writes the status line and all header lines of a response in one send. It
 * reads the response fields of the request (content_length, mime_type, ranges, duration_ms,
 * extra_headers, dtcp_protected, chunked), applies the DLNA checks (a 200 may become 400 or 406)
 * and the client's quirks, and may change content_length and close_connection.
 */

/* The fixed server banner sent in every response. */
#define UPNP_SERVER_BANNER "Linux/2.x.x, UPnP/1.0, ktConnect UPnP SDK/1.0, Tarnwick UPnP SDK/1.1"

/* Composes and sends the response header for status; 0 when sent, 1 for a null request, a
 * memory shortage or a failed send. */
TW_API int32_t HTTP_send_header(HttpRequest* request, int32_t status) TW_NOEXCEPT;
/* Appends complete header lines (each ending in CR LF) to extra_headers, cut at its 8192 bytes.
 * Null arguments do nothing. */
TW_API void HTTP_add_header(HttpRequest* request, const char* lines) TW_NOEXCEPT;
/* Appends "EXT:" and a SERVER line with the banner. */
TW_API void HTTP_set_server_info(HttpRequest* request) TW_NOEXCEPT;
/* Appends the Expires, Pragma and Cache-Control no-cache lines. */
TW_API void HTTP_set_no_cache(HttpRequest* request) TW_NOEXCEPT;
/* ---- end of response header composition -------------------------------------------------- */

/* ---- MIME types -------------------------------------------------------------------------- */
/*
 * A fixed table of MIME types and their file name extensions; the first matching row wins.
 * Returned texts are constants (or belong to the client database): never free them.
 */

/* The MIME type for an extension without its dot (any case); a client-specific type of the
 * request's client wins when request is given. "application/octet-stream" when unknown, null
 * for a null extension. */
TW_API const char* HTTP_get_mime_type(const HttpRequest* request,
                                      const char* extension) TW_NOEXCEPT;
/* The first extension of the first row whose MIME type occurs in text ("" for the fallback
 * type), else the client database's extension for it, else null; null for null text. */
TW_API const char* HTTP_get_extension_by_mime_type(const char* text) TW_NOEXCEPT;
/* 1 when some row's MIME type occurs in text (case-sensitive), else 0. */
TW_API int32_t HTTP_is_known_mime_type(const char* text) TW_NOEXCEPT;
/* Pointer into file_name behind its last '.', or null when there is none or the name is null. */
TW_API const char* HTTP_get_extension(const char* file_name) TW_NOEXCEPT;
/* ---- end of MIME types ------------------------------------------------------------------- */

/* ---- Status and error responses and authorization ---------------------------------------- */
/*
 * Canned responses and the access check. Every sender returns 0 when the page went out and 1
 * for a null request, a memory shortage or a failed send (the caller then closes). The page
 * texts and credentials are set once at start-up; the defaults are filled on first use.
 */

/* Sends only a header for status with an empty body (content_length becomes 0); the result of
 * HTTP_send_header. */
TW_API int32_t HTTP_send_error_code(HttpRequest* request, int32_t status) TW_NOEXCEPT;
/* Sends status with text (null: empty) as the body; content_length becomes its length. */
TW_API int32_t HTTP_send_error_message(HttpRequest* request, int32_t status,
                                       const char* text) TW_NOEXCEPT;
/* 404 with the not-found page. The request's own response fields stay as they were, except
 * that a missing mime_type becomes the HTML type. */
TW_API int32_t HTTP_send_file_not_found(HttpRequest* request) TW_NOEXCEPT;
/* 401 with the access-restricted page. */
TW_API int32_t HTTP_send_unauthorized(HttpRequest* request) TW_NOEXCEPT;
/* 401 with the access-restricted page and a WWW-Authenticate Basic line whose realm is the host
 * name (the spelling of the name is part of the ABI). */
TW_API int32_t HTTP_send_access_restriced(HttpRequest* request) TW_NOEXCEPT;
/* 503 naming the request's URL, with detail (null: empty) appended. */
TW_API int32_t HTTP_send_service_unavailable(HttpRequest* request, const char* detail) TW_NOEXCEPT;
/* Page texts: title at most 63 characters, message at most 127; a null argument takes its
 * default. */
TW_API void HTTP_set_access_restriced_message(const char* title, const char* message) TW_NOEXCEPT;
TW_API void HTTP_set_file_not_found_message(const char* title, const char* message) TW_NOEXCEPT;
/* Credentials of the local Basic check, at most 63 characters each; password is stored
 * scrambled. A non-null alternate only fills a second pair that the check does not use. The
 * first call stores both (null as empty); later calls change a value only for a non-null
 * different one. */
TW_API void HTTP_set_username_and_pwd(const char* user, const char* password,
                                      const void* alternate) TW_NOEXCEPT;
/* 1 when the request may proceed, 0 when not (also for null). A remote request with a valid
 * session token may have url, base_url, session_parameter and extra_headers rewritten. */
TW_API int32_t HTTP_has_authorization(HttpRequest* request) TW_NOEXCEPT;
/* Escapes source for an HTML body into destination (size bytes, always terminated when size >
 * 0): stops at the first control byte; bytes >= 0x80 become "&#xHH;", '"' becomes "&quot;". */
TW_API void HTTP_escape_body(const char* source, char* destination, size_t size) TW_NOEXCEPT;
/* ---- end of status and error responses and authorization --------------------------------- */

/* ---- Body sending, chunked transfer, TLS and DTCP hooks ---------------------------------- */
/*
 * Response bodies: in memory with byte ranges, chunked for bodies built piece by piece, and the
 * one send path that also serves TLS connections through the outside module's hooks. Hooks and
 * the DTCP port are set before the servers start. Chunked responses always use the plain socket.
 */

/* Sends header and the content_length bytes at data, honouring a byte range of the request
 * (206, or 400/406/416 for unusable ranges); a HEAD gets no body. 0 on success, else non-zero
 * (1 for a null request or a failed body send). */
TW_API int32_t HTTP_send(HttpRequest* request, const char* data) TW_NOEXCEPT;
/* Beyond the classic API: sends the header composed for status (as HTTP_send_header does) and
 * then content_length bytes of an open file from offset as the body; a HEAD gets no body. The
 * caller sets the response fields first (content_length, mime_type, range_start/range_end and
 * total_size for a 206) and keeps ownership of the file. On a plain connection the header is
 * held back for the body and the body goes out with sendfile, never copied through the process;
 * a TLS connection gets the body through the TLS send hook, read in 64 KiB blocks, as does a
 * multi-part media file. The handle's position is unspecified afterwards. 0 when sent; 1 for a
 * null request or file, a negative offset, a failed send, or a file that ended before the
 * announced length (close_connection is then set, as the framing is lost). Bodies up to 16 KiB
 * are read and leave with the header in one write. sendfile cannot be told not to raise SIGPIPE
 * when the peer is gone: the server's connection threads block that signal, and a host calling
 * this from a thread of its own must block or ignore it there. */
TW_API int32_t HTTP_send_file(HttpRequest* request, int32_t status, upnp_file* file,
                              int64_t offset) TW_NOEXCEPT;
/* Sends length bytes on the request's connection, through the TLS send hook for a TLS request
 * (its result -2 also sets close_connection). The send result; -1 on failure, for a null
 * request or a TLS request without a send hook. */
TW_API int64_t upnp_send_ssl(HttpRequest* request, const void* data, int64_t length) TW_NOEXCEPT;
/* Sends a 200 header for a chunked body of content_type (null: the XML type). 1 when the send
 * failed, else 0 (also when no buffer could be had). */
TW_API int32_t HTTP_send_chunked_header(int32_t socket, const char* content_type) TW_NOEXCEPT;
/* Sends text as one chunk and empties it for reuse; null or empty sends nothing and gives 0.
 * 1 when a send failed. */
TW_API int32_t HTTP_send_chunked_part(int32_t socket, upnp_string* text) TW_NOEXCEPT;
/* Sends the last chunk "0\r\n\r\n"; 1 on failure, else 0. */
TW_API int32_t HTTP_send_chunked_end(int32_t socket) TW_NOEXCEPT;
/* Sets the eight TLS hooks, in this order; null hooks skip their step. */
TW_API void http_server_set_tls_callbacks(
    upnp_tls_startup_fn startup, upnp_tls_shutdown_fn shutdown,
    upnp_tls_session_create_fn session_create, upnp_tls_session_close_fn session_close,
    upnp_tls_send_fn send, upnp_tls_recv_fn recv, upnp_tls_http_get_header_fn http_get_header,
    upnp_tls_http_receive_body_fn http_receive_body) TW_NOEXCEPT;
/* The port announced in the DTCP content type of protected responses. */
TW_API void http_dtcp_set_port(int32_t port) TW_NOEXCEPT;
/* The function called with a connection's file cache when it is released; null: none. */
TW_API void http_set_cb_file_completed(upnp_http_file_completed_fn function) TW_NOEXCEPT;
/* Runs the file-completed hook, closes the file, frees the blocks, the time-seek record and the
 * cache; null is a no-op. */
TW_API void http_file_filecache_free(HttpFileCache* cache) TW_NOEXCEPT;
/* ---- end of body sending, chunked transfer, TLS and DTCP hooks --------------------------- */

/* ---- Remote access, redirects and URL parameters ----------------------------------------- */
/*
 * Serving clients outside the home network: the session token (session_parameter, set by
 * HTTP_has_authorization) is carried into every link of a body and into redirects.
 */

/* Replaces "<!-- TOKEN -->" by the session parameter and appends the parameter to every link of
 * body. Returns the string to use from then on; body is consumed when a new one is made (null
 * when memory ran out before any result existed). A null request or body, or a body without
 * text, comes back unchanged. */
TW_API upnp_string* http_post_process_for_remote_access(HttpRequest* request,
                                                        upnp_string* body) TW_NOEXCEPT;
/* Sends a bare 307 to location, with the session parameter appended; a location without "http"
 * is taken relative to base_url. Returns 1 (close the connection); null location sends nothing. */
TW_API int32_t upnp_http_redirect(HttpRequest* request, const char* location) TW_NOEXCEPT;
/* A new string: url with the query parameter name set to value (URL-encoded), appended after
 * the other parameters. url is freed. Null for any null argument (url is then still freed) or a
 * memory shortage. Free with upnp_string_free. */
TW_API upnp_string* HTTP_set_url_parameter(upnp_string* url, const char* name,
                                           const char* value) TW_NOEXCEPT;
/* "Accept-Language: <code>\r\n" for a known language code or alias, "*" for others; null for
 * null language or a memory shortage. Free with upnp_free_impl. */
TW_API char* upnp_http_build_language_header(const char* language) TW_NOEXCEPT;
/* ---- end of remote access, redirects and URL parameters ---------------------------------- */

TW_EXTERN_C_END

#endif /* TARNWICK_HTTP_H */
