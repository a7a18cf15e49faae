/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Client database: the client-type table (read-only, loaded by upnp_client_db_init from the
 * resource "clients.db"), the client table of devices met on the network (kept in the file
 * "clients.data" of the appdata directory), identification of requests and SSDP announcements,
 * and the quirk queries the HTTP server asks per request.
 *
 * A client type is a signed 32-bit index into the client-type table (0..149); 1 is the unknown
 * device. Every query of a type of 150 or more answers 0 or null.
 *
 * Memory: strings returned as char* are new blocks the caller frees with upnp_free_impl;
 * upnp_string results are freed with upnp_string_free; functions returning const char* hand out
 * text owned by the database (valid until upnp_client_db_exit).
 *
 * Threads: the client-type table and the special MIME columns change only inside
 * upnp_client_db_init; every function that walks or edits client records takes the client
 * database lock itself (except upnp_client_db_add_new_client, whose caller holds it).
 */
#ifndef TARNWICK_CLIENTDB_H
#define TARNWICK_CLIENTDB_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

#define UPNP_CLIENT_TYPE_SLOTS 150 /* slots 0..148 take entries; 149 stays empty */
#define UPNP_CLIENT_TYPE_UNKNOWN 1
#define UPNP_CLIENT_TYPE_RTP 19 /* the type upnp_client_db_have_netgear_rtp_client looks for */

/* How a record's client type is kept (upnp_client.assignment). */
#define UPNP_CLIENT_DETECTED 0    /* detected anew from the request headers */
#define UPNP_CLIENT_FIXED 1       /* set by the user */
#define UPNP_CLIENT_FIXED_MATCH 2 /* fixed while the record's header patterns match */

/* One device met on the network. Strings are owned by the record (null when unknown). */
typedef struct upnp_client {
  int32_t client_type;
  char* ip;                    /* dotted IPv4 address last seen */
  char* header_pattern;        /* the type's "HH:" value when the type was assigned */
  char* second_header_pattern; /* the type's "H2:" value */
  char* friendly_name;
  char* mac; /* "AA:BB:CC:DD:EE:FF" */
  char* icon_url;
  char* icon_mime_type;
  char* udn;          /* "uuid:..." from the device's announcement */
  int32_t enabled;    /* 1: the device may use the server */
  int32_t seen;       /* 1 once its IP was confirmed during this run; not stored */
  int32_t assignment; /* UPNP_CLIENT_DETECTED, _FIXED or _FIXED_MATCH */
  char* view;         /* content view; null = the server's default view */
  struct upnp_client* next;
} upnp_client;

/* The client table, newest first. Walk it only under the client database lock (or through the
 * functions below). */
TW_API extern upnp_client* g_pClients;

/* ---- Lifecycle, tables and the client table file ------------------------------------------ */
/* Needs the configuration initialised (appdata, clearclientsonrestart). */
TW_API void upnp_client_db_init(void) TW_NOEXCEPT;
TW_API void upnp_client_db_exit(void) TW_NOEXCEPT;
TW_API void init_client_table(void) TW_NOEXCEPT;
TW_API void client_table_read(void) TW_NOEXCEPT;
TW_API void client_table_write(void) TW_NOEXCEPT;
TW_API void exit_client_table(void) TW_NOEXCEPT;
TW_API void exit_client_udn_table(void) TW_NOEXCEPT;
TW_API void client_table_free(upnp_client* record) TW_NOEXCEPT;
/* Forget every client and delete "clients.data". clear_clients is the same operation. */
TW_API void reset_clients(void) TW_NOEXCEPT;
TW_API void clear_clients(void) TW_NOEXCEPT;

/* ---- Editing clients ----------------------------------------------------------------------- */
/* The record's printout, "invalid MAC address", or null (null mac, no memory). */
TW_API upnp_string* upnp_client_add(const char* mac, int32_t client_type, int32_t enabled,
                                    const char* view) TW_NOEXCEPT;
/* "deleted!" or "not found!"; null for a null mac. */
TW_API upnp_string* upnp_client_delete(const char* mac) TW_NOEXCEPT;
/* The printouts of every record changed, or null when none changed. */
TW_API upnp_string* upnp_client_enable_by_friendlyname(const char* name,
                                                       int32_t enabled) TW_NOEXCEPT;
TW_API upnp_string* upnp_client_enable_by_udn(const char* udn, int32_t enabled) TW_NOEXCEPT;
TW_API upnp_string* upnp_client_enable_by_mac(const char* mac, int32_t enabled) TW_NOEXCEPT;
TW_API upnp_string* upnp_client_enable_by_ip(const char* ip, int32_t enabled) TW_NOEXCEPT;
/* A new record at the head of g_pClients (type 1, enabled = the auto-enable value); the caller
 * holds the client database lock. Null when memory is short. */
TW_API upnp_client* upnp_client_db_add_new_client(void) TW_NOEXCEPT;
/* The enabled value of newly found devices (initially 1). */
TW_API void upnp_client_db_set_autoenable(int32_t value) TW_NOEXCEPT;
/* "%03d,%s" items (type, "NA:" name) joined by ",", for every type with a name; or null. */
TW_API char* upnp_client_db_get_table(void) TW_NOEXCEPT;
/* A copy of the friendly name of the first record of that type that has one, or null. */
TW_API char* upnp_client_get_friendlyname(int32_t client_type) TW_NOEXCEPT;

/* ---- Identification ------------------------------------------------------------------------ */
/* 1 when a client type matched the request head; every output may be null, string outputs are
 * new copies. */
TW_API int32_t upnp_client_db_check_header(const char* headers, int32_t* client_type, int32_t* fix,
                                           char** pattern, char** second_pattern,
                                           char** name) TW_NOEXCEPT;
/* Client type to use for a request from client_ip reaching the server under own_address
 * ("http://%s:%d/"); headers is the request head. 0: not a client (the server's own requests). */
TW_API int32_t upnp_client_db_add_by_ip(const char* own_address, const char* client_ip,
                                        const char* headers) TW_NOEXCEPT;
/* Examines the announcing device of an SSDP alive packet on a thread of its own; returns at
 * once. Each UDN is examined once per run. */
TW_API void upnp_client_db_add_by_ssdp_alive(const char* packet) TW_NOEXCEPT;
/* The thread body behind upnp_client_db_add_by_ssdp_alive; takes and frees packet (a block from
 * upnp_malloc_impl) and ends the thread. */
TW_API void* upnp_client_db_check_client(void* packet) TW_NOEXCEPT;
/* Fetches and parses the description at url: 1 when that worked (client_type then holds the
 * matched type, or is left alone when none matched), else 0. Outputs may be null. */
TW_API int32_t upnp_client_db_check_device_description(const char* url, char** friendly_name,
                                                       char** second_pattern, char** pattern,
                                                       char** icon_url, char** icon_mime,
                                                       int32_t* client_type,
                                                       int32_t* fix) TW_NOEXCEPT;
/* The enabled value of the first record with this IP; the auto-enable value when none. */
TW_API int32_t upnp_client_db_access_allowed(const char* client_ip) TW_NOEXCEPT;

/* ---- Quirk queries: 1 when the type's entry holds the option, else 0 ------------------------ */
TW_API int32_t upnp_client_db_supports_option(int32_t client_type, const char* option) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_needs_4th_field(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_needs_duration(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_supports_icy_data(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_is_psp(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_exact_protocolinfo(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_allow_unlimited_xml(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_give_no_transcoded_pictures(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_is_sonybravia(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_viera_divxprofile(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_add_time_to_date(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_force_mp4_profile(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_philips_search(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_force_res(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_no_utf(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_give_roku_search(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_needs_1_0_proxyresponse(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_needs_1_0_response(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_needs_psp_style_content_length(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_needs_content_length_for_live(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_needs_absolute_uris(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_ignore_sort(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_redsonic_compliant(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_no_utf8_sort(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_suppress_events(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_can_not_register_device(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_can_not_work_with_embedded_albumart(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_needs_philips_srt_style(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_wmc_compliant(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_allways_close_connection(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_supports_chunked(int32_t client_type) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_is_musicclient(int32_t client_type) TW_NOEXCEPT;

/* ---- Keyword values ------------------------------------------------------------------------ */
/* 1 when a value of at least one character behind the three-character tag was copied into
 * buffer (cut at the first control character, at most size - 1 bytes). Before the server runs
 * (g_server_running != 1) a value is cut to its first character. */
TW_API int32_t upnp_client_db_getKeyword(const char* entry, char* buffer, size_t size,
                                         const char* tag) TW_NOEXCEPT;
/* atoi of what follows the first occurrence of text in the type's entry; 0 when missing. */
TW_API int32_t upnp_client_db_get_value(int32_t client_type, const char* text) TW_NOEXCEPT;
/* 10, 15, 0xFFFFFFFF ("XM:DLNANO") or 0 when the type says nothing. */
TW_API uint32_t upnp_client_db_DLNA_version(int32_t client_type) TW_NOEXCEPT;
/* New copies of the "DV:", "WB:", "DF:", "TR:" and "XM:AASCALE" values, or null. */
TW_API char* upnp_client_db_get_default_view(int32_t client_type) TW_NOEXCEPT;
TW_API char* upnp_client_db_get_webbrowse(int32_t client_type) TW_NOEXCEPT;
TW_API char* upnp_client_db_get_description_file(int32_t client_type) TW_NOEXCEPT;
TW_API char* upnp_client_db_get_supported_transcoding_profiles(int32_t client_type) TW_NOEXCEPT;
TW_API char* upnp_client_db_albumart_scaling(int32_t client_type) TW_NOEXCEPT;

/* ---- Views --------------------------------------------------------------------------------- */
TW_API void upnp_client_db_add_view(const char* name) TW_NOEXCEPT;
TW_API void upnp_client_db_set_defaultview(const char* name) TW_NOEXCEPT;
/* A copy of the view of the first record of that type, or null. */
TW_API char* upnp_client_db_get_updated_view(int32_t client_type) TW_NOEXCEPT;

/* ---- Special MIME types (50 pairs registered from the "MT:" keywords) ---------------------- */
TW_API void upnp_client_db_add_mime_table(const char* extension, const char* mime) TW_NOEXCEPT;
/* The extension registered for exactly this MIME type, or null. */
TW_API const char* upnp_client_db_special_mime_type_get_extension(const char* mime) TW_NOEXCEPT;
/* The first registered MIME type that is a prefix of text, or null. */
TW_API const char* upnp_client_db_get_from_mime_type_table(const char* text) TW_NOEXCEPT;
/* The MIME type the client wants for files with this extension, or null. */
TW_API const char* upnp_client_db_needs_special_mime_type(int32_t client_type,
                                                          const char* extension) TW_NOEXCEPT;

/* ---- Listing ------------------------------------------------------------------------------- */
/* Appends the record's lines and the "##########" separator; returns the string to use. */
TW_API upnp_string* upnp_print_client(upnp_string* string, const upnp_client* record) TW_NOEXCEPT;
/* The printouts of every record, or null for an empty table. */
TW_API upnp_string* upnp_get_connected_client_list(void) TW_NOEXCEPT;
TW_API int32_t upnp_client_db_have_netgear_rtp_client(void) TW_NOEXCEPT;

TW_EXTERN_C_END

#endif /* TARNWICK_CLIENTDB_H */
