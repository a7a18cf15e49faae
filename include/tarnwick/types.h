/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Records and constants shared by several subsystems. Every record here is allocated by the
 * library through the accounted allocator and released with the matching library call (or
 * upnp_free_impl).
 */
#ifndef TARNWICK_TYPES_H
#define TARNWICK_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"

TW_EXTERN_C_BEGIN

/* Log categories: single bits naming the subsystem that speaks (the log filter is in log.h). */
#define UPNP_LOG_SYSTEM 1u
#define UPNP_LOG_SSDP 2u
#define UPNP_LOG_DB 4u
#define UPNP_LOG_HTTP 8u
#define UPNP_LOG_CLIENT_DB 16u
#define UPNP_LOG_EVENTING 32u
#define UPNP_LOG_XML 64u
#define UPNP_LOG_PLUGIN 128u
#define UPNP_LOG_SCAN 256u
#define UPNP_LOG_RMEDIA 512u
#define UPNP_LOG_CONFLUX 1024u
#define UPNP_LOG_CGI 2048u
#define UPNP_LOG_PERF 4096u

/* Log levels. */
#define UPNP_LOG_LEVEL_DEBUG 0
#define UPNP_LOG_LEVEL_INFO 1
#define UPNP_LOG_LEVEL_PROBLEM 2
#define UPNP_LOG_LEVEL_ERROR 3
#define UPNP_LOG_LEVEL_CRITICAL 4

/*
 * Growable NUL-terminated byte string. A null pointer is the empty, not-yet-created string:
 * every appending call accepts it and returns the record to use from then on, so callers always
 * store the result back. `buffer[length]` is NUL while the record is sound; the buffer may
 * become null when a growth fails, which callers detect through upnp_string_get_cstring.
 */
typedef struct upnp_string {
  uint32_t length;   /* bytes in use, without the terminating NUL */
  uint32_t capacity; /* bytes allocated for buffer */
  char* buffer;      /* owned by the record */
} upnp_string;

/*
 * Per-interface server record: one per local IPv4 address served (same index as the interface
 * table), plus one per interface for remote access. Threads bound to a record remember its
 * stop generation at start and end when it changes.
 */
typedef struct upnp_server_data {
  int32_t http_socket;        /* listening socket, -1 when none */
  char ip_address[17];        /* dotted IPv4 text */
  int32_t http_port;          /* configured port before the socket exists, bound port after */
  int32_t ssdp_listen_socket; /* multicast listener, -1 when none */
  int32_t ssdp_search_socket; /* search sender, -1 when none */
  int32_t ssdp_notify_socket; /* announcements, -1 when none */
  uint32_t stop_generation;   /* bumped by every stop, kept across starts */
  int32_t search_running;     /* search sender thread active */
  int32_t search_wakeup;      /* search sender wake-up request */
  int32_t remote;             /* 1 in a remote-access record */
  int32_t remote_option;      /* remote-access record option */
  int32_t auth_required;      /* requests must pass the authorization check */
  void* tls;                  /* TLS context of the outside TLS module, null for plain HTTP */
} upnp_server_data;

/* Open file of the file layer (upnp_file_open_read & co.); opaque, freed by upnp_file_close. */
typedef struct upnp_file upnp_file;

TW_EXTERN_C_END

#endif /* TARNWICK_TYPES_H */
