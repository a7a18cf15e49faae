/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Server state shared by every network subsystem: the served interfaces and their server
 * records, the server state word, the global lock, the host's callback tables, local-network
 * matching and peer MAC lookup, the device identities and the resource registry.
 *
 * The server lifecycle that fills these tables (upnp_server_start and the restart on a network
 * change) is in server.h, which includes this header.
 */
#ifndef TARNWICK_CORE_H
#define TARNWICK_CORE_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* ---- Server records and state ----------------------------------------------------------- */
/*
 * The served interfaces and their server records. Threads read g_server_running and a record's
 * stop generation with atomic loads; writers use atomic stores (__atomic builtins) as well.
 */
/* 0 stopped, 1 running, -1 stopping. */
TW_API extern int32_t g_server_running;
/* Dotted IPv4 addresses of the served interfaces; g_nInterfaceCount entries are in use. */
TW_API extern char g_IPaddress[5][17];
TW_API extern int32_t g_nInterfaceCount;
/* HTTP port of the last started interface that is not the loopback address. */
TW_API extern int32_t g_localPort;
/* The server record of interface index, or null when index is not below g_nInterfaceCount.
 * The record belongs to the library. */
TW_API upnp_server_data* getHTTPServerData(int32_t index) TW_NOEXCEPT;
/* "address:port" of the first served interface (empty before the first start); owned by the
 * library. */
TW_API const char* getHttpServer(void) TW_NOEXCEPT;
/* ---- end of server records and state ----------------------------------------------------- */

/* ---- Global lock ------------------------------------------------------------------------- */
/*
 * Serialises host calls into shared tables. upnp_server_start creates it; upnp_server_stop
 * destroys it outside a network-change restart.
 */
/* 1 when the caller now holds the global lock; 0 when there is none (never started, or stopped
 * meanwhile): then nothing is held. Pair a 1 with upnp_global_unlock. */
TW_API int32_t upnp_global_lock(void) TW_NOEXCEPT;
/* Leaves the global lock if it exists. */
TW_API void upnp_global_unlock(void) TW_NOEXCEPT;
/* ---- end of global lock ------------------------------------------------------------------ */

/* ---- Socket time-out watchdog ----------------------------------------------------------- */
/*
 * A deadline for one socket around a blocking call: when it passes first, a background thread
 * (started by the first deadline, running while the server runs, polling every 250 ms) shuts the
 * socket down and closes it, which ends the blocked call with an error. Deadlines use the global
 * lock: without a started server none can be armed. While the server is stopped no deadline
 * fires; pending ones are forgotten and their sockets left open.
 */
/* Arms now + timeout_ms for socket and returns the handle, or null for a timeout_ms of 0 or a
 * socket of -1 (logged), memory shortage (logged) or a missing global lock. */
TW_API void* upnp_enforce_socket_timeout(uint32_t timeout_ms, int32_t socket) TW_NOEXCEPT;
/* Disarms handle (once per handle; null gives 0). 1 when the socket is closed now, by the
 * watchdog or here because close_socket is non-zero: the caller must not use or close it again.
 * 0 when it is still open and the caller's. A deadline forgotten while the server was stopped
 * also gives 1, although its socket was left open. */
TW_API uint32_t upnp_release_socket_timeout(void* handle, int32_t close_socket) TW_NOEXCEPT;
/* ---- end of socket time-out watchdog ----------------------------------------------------- */

/* ---- Callback tables ---------------------------------------------------------------------- */
/* Set once before upnp_server_start; read by the server lifecycle and the HTTP code. */
/* Port of the remote-access server made beside each local one at the next start; 0: none. */
TW_API void server_set_remote_port(int32_t port) TW_NOEXCEPT;

/* Link-protection hooks called by the server core; null hooks are skipped. */
typedef int32_t (*upnp_dtcp_init_source_fn)(void);
typedef void (*upnp_dtcp_exit_source_fn)(void);
/* Called with every interface address and its index at start, before the address is served. */
typedef int32_t (*upnp_dtcp_start_listen_fn)(const char* ip, int32_t index);
typedef void (*upnp_dtcp_nic_change_fn)(void);
/* A hook whose arguments are defined by the HTTP or SOAP code that calls it: pass the function
 * cast to this type; the caller casts it back. */
typedef void (*upnp_hook_fn)(void);
/* Called without arguments after a restart. */
typedef void (*upnp_cp_callback_fn)(void);

/* Stores the 16 link-protection hooks, in this order, replacing the whole table. */
TW_API void server_set_dtcp_callbacks(
    upnp_dtcp_init_source_fn init_source, upnp_dtcp_exit_source_fn exit_source,
    upnp_dtcp_start_listen_fn start_listen, upnp_dtcp_nic_change_fn nic_change,
    upnp_hook_fn is_dtcp_uri, upnp_hook_fn receive_file, upnp_hook_fn http_uri_build,
    upnp_hook_fn http_dtcpmimetype_build, upnp_hook_fn http_4thfield_convert,
    upnp_hook_fn add_fields, upnp_hook_fn send_file, upnp_hook_fn content_size,
    upnp_hook_fn support_has_dtcp, upnp_hook_fn support_has_move_source,
    upnp_hook_fn support_has_move_sink, upnp_hook_fn support_has_dis) TW_NOEXCEPT;
/* Stores the 5 media-rights registrar hooks, in this order. */
TW_API void server_set_wmdrm_callbacks(upnp_hook_fn is_wmdrm_request, upnp_hook_fn http_get_content,
                                       upnp_hook_fn soap_authorized, upnp_hook_fn soap_validated,
                                       upnp_hook_fn soap_registered) TW_NOEXCEPT;
/* Stores the control point's restart callback (null removes it). */
TW_API void server_set_cp_callback(upnp_cp_callback_fn fn) TW_NOEXCEPT;
/* ---- end of callback tables --------------------------------------------------------------- */

/* ---- Network matching and peer MAC lookup ------------------------------------------------ */
/*
 * Which served interface a peer's dotted address belongs to, by text: a peer matches a record
 * when the record's address starts with the peer's address up to its last dot (a /24 test for
 * dotted addresses; no netmask is consulted). Returned texts are new blocks from the accounted
 * allocator: free them with upnp_free_impl.
 */
/* A copy of the first served address that text mentions (not followed by a digit), or null. */
TW_API char* upnp_get_used_local_ip(const char* text) TW_NOEXCEPT;
/* 0 when peer's network is served: *local_out a copy of that address, *port_out its HTTP port;
 * 2 for a peer that is null, empty or does not start with a digit; 14 without a '.' or a match;
 * 8 when the copy could not be made. Every output may be null and starts at 0/null. */
TW_API int32_t upnp_get_matching_local_server(const char* peer, char** local_out, int32_t* port_out,
                                              int32_t* reserved_out) TW_NOEXCEPT;
/* 1 when upnp_get_matching_local_server(peer) gives 0, else 0. */
TW_API int32_t upnp_server_is_local_network(const char* peer) TW_NOEXCEPT;
/* The local address of upnp_get_matching_local_server as a new copy, or null. */
TW_API char* upnp_get_matching_local_ip(const char* peer) TW_NOEXCEPT;
/* 1 when address equals one of the g_nInterfaceCount entries of g_IPaddress, else 0. */
TW_API int32_t is_local_ip(const char* address) TW_NOEXCEPT;
/* 1 with the peer's hardware address from the ARP table as "XX:XX:XX:XX:XX:XX" in out (18
 * bytes), else 0 with out empty, after five attempts about 100 ms apart. */
TW_API int32_t GetMACaddress(const char* peer, char* out) TW_NOEXCEPT;
/* ---- end of network matching and peer MAC lookup ----------------------------------------- */

/* ---- Device identities ------------------------------------------------------------------- */
/*
 * UDNs "uuid:xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" of the devices this library announces, made
 * on the first call from a fixed prefix, a check byte of property 0 (friendlyname) and the MAC
 * address, then kept for the life of the process. Each getter returns its own buffer of 256
 * characters, owned by the library; it is empty when memory was short (the next call retries).
 */
/* Low byte goes into the media server's UDN, so several instances on one host differ. */
TW_API extern int32_t g_nInstance;
TW_API const char* upnp_get_server_udn(void) TW_NOEXCEPT;
TW_API const char* upnp_get_renderer_udn(void) TW_NOEXCEPT;
TW_API const char* upnp_get_renderer2_udn(void) TW_NOEXCEPT;
/* Remote UI server and remote UI client. */
TW_API const char* upnp_get_ruis_udn(void) TW_NOEXCEPT;
TW_API const char* upnp_get_ruic_udn(void) TW_NOEXCEPT;
TW_API const char* upnp_get_mtp_udn(void) TW_NOEXCEPT;
/* ---- end of device identities ------------------------------------------------------------ */

/* ---- Resource registry ------------------------------------------------------------------- */
/*
 * Static resources (icons, XML templates) by name: an in-memory cache of 100 entries, then the
 * file "<executable dir>/resources/<name>", then the host's getter. Files ending in .xml, .txt,
 * .ico, .jpg, .png or .db are cached after the first read. The cache lock exists between
 * upnp_resource_init and upnp_resource_exit; before init nothing is cached.
 */

/* The host's getter: returns 1 and hands over a block from upnp_malloc_impl (the caller frees
 * it with upnp_free_impl) with its size, or 0. */
typedef int (*upnp_resource_get_function)(const char* name, uint32_t* size_out, void** data_out);

/* Creates the lock if absent and clears the cache table. */
TW_API void upnp_resource_init(void) TW_NOEXCEPT;
/* Frees every cached entry and deletes the lock. */
TW_API void upnp_resource_exit(void) TW_NOEXCEPT;
/* Stores fn (null removes it); the last registration wins. */
TW_API void register_upnp_resource_get_function(upnp_resource_get_function fn) TW_NOEXCEPT;
/* 1 with a new block (free with upnp_free_impl) and its size, else 0; both outputs start at 0. The
 * name is cut at its last '?' in place. A block read from a file carries two zero bytes after
 * its size; one copied from the cache does not. */
TW_API int upnp_resource_get(char* name, uint32_t* size_out, void** data_out) TW_NOEXCEPT;
/* ---- end of resource registry ------------------------------------------------------------ */

TW_EXTERN_C_END

#endif /* TARNWICK_CORE_H */
