/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SSDP discovery: announcements (NOTIFY alive and byebye), answers to searches, M-SEARCH
 * requests, the multicast listener with its handler registry, the heartbeat thread, the search
 * threads and the queue of delayed search answers.
 *
 * Conventions of this family:
 *  - Everything goes to the group 239.255.255.250, port 1900, over IPv4 UDP, except search
 *    answers, which go to the searcher's address and port.
 *  - Packet senders return the result of upnp_sendto (bytes sent, or negative); a failed send
 *    is never retried.
 *  - Device roles, request flags and search settings are process-wide words; set them from any
 *    thread, the SSDP threads read them every time they need them.
 *  - The thread routines (SSDP_listen, SSDP_heartbeat) take a upnp_server_data record that must
 *    outlive the thread; they end by themselves when g_server_running leaves 1, when the
 *    record's socket is closed or when its stop generation changes.
 *  - Only the answer queue is under a lock (the SSDP lock); no call needs the global lock.
 */
#ifndef TARNWICK_SSDP_H
#define TARNWICK_SSDP_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* ---- Messages and device roles ----------------------------------------------------------- */
/* Max-age of every alive and search answer in seconds, and the pace of the heartbeat; 1810. */
TW_API extern uint32_t g_UPNP_SSDP_BEAT_TIME;
/* 1 once upnp_ssdp_have_wmdrm was called (read by the HTTP side), else 0. */
TW_API extern int32_t g_bHaveWMDRM;

/* Role switches. The is* calls switch a role on for good; the has* calls store value. */
TW_API void upnp_ssdp_isMediaServer(void) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_getMediaServer(void) TW_NOEXCEPT;
TW_API void upnp_ssdp_isRenderer(void) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_getRenderer(void) TW_NOEXCEPT;
/* The control point announces nothing; the flag only decides whether searches are sent. */
TW_API void upnp_ssdp_isControlPoint(int32_t value) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_getControlPoint(void) TW_NOEXCEPT;
TW_API void upnp_ssdp_hasRemoteUIServer(int32_t value) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_getRemoteUIServer(void) TW_NOEXCEPT;
TW_API void upnp_ssdp_hasRemoteUIClient(int32_t value) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_getRemoteUIClient(void) TW_NOEXCEPT;
/* 1 when the remote UI server or the remote UI client role is on, else 0. */
TW_API int32_t upnp_ssdp_getRemoteUI(void) TW_NOEXCEPT;
TW_API void upnp_ssdp_hasMediaTransferProtocol(int32_t value) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_getMTP(void) TW_NOEXCEPT;
/* Sets g_bHaveWMDRM to 1; the announced lists do not change. */
TW_API void upnp_ssdp_have_wmdrm(void) TW_NOEXCEPT;

/* Which optional M-SEARCH requests the search sender adds to its bursts; all start at 0. */
TW_API void upnp_ssdp_enable_search_remoteui_client(int32_t value) TW_NOEXCEPT;
TW_API void upnp_ssdp_enable_search_remoteui_server(int32_t value) TW_NOEXCEPT;
TW_API void upnp_ssdp_enable_search_igd(int32_t value) TW_NOEXCEPT;
/* Stored as 0 or 1: the MX 3 renderer and server searches go out before the MX 10 ones. */
TW_API void upnp_ssdp_set_enable_quick_msearches(int32_t value) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_get_quick_msearches_enabled(void) TW_NOEXCEPT;

/* Sets g_UPNP_SSDP_BEAT_TIME to seconds when it is above 59; smaller values are ignored. */
TW_API void SSDP_set_upnp_beattime(uint32_t seconds) TW_NOEXCEPT;

/* One NOTIFY ssdp:alive to dest_addr:dest_port, announcing http://local_addr:local_port<path>.
 * type null announces the UDN itself. The result of upnp_sendto; -1 for a null dest_addr. */
TW_API int32_t SSDP_notify_packet(const char* dest_addr, int32_t dest_port, int32_t socket,
                                  const char* local_addr, int32_t local_port, const char* type,
                                  const char* udn, const char* path) TW_NOEXCEPT;
/* The same as a search answer (HTTP/1.1 200 OK with DATE and ST). */
TW_API int32_t SSDP_http_packet(const char* dest_addr, int32_t dest_port, int32_t socket,
                                const char* local_addr, int32_t local_port, const char* type,
                                const char* udn, const char* path) TW_NOEXCEPT;
/* One NOTIFY ssdp:byebye; type null for the UDN itself. */
TW_API int32_t SSDP_byebye_packet(const char* dest_addr, int32_t dest_port, int32_t socket,
                                  const char* type, const char* udn) TW_NOEXCEPT;
/* For every enabled role, each entry that target selects ("ssdp:all", the UDN,
 * "upnp:rootdevice" or a type, compared exactly) gets a search answer; with is_notify non-zero
 * every entry gets an alive, whatever target. A null target is logged and sends nothing. */
TW_API void SSDP_send_notify(int32_t socket, const char* local_addr, int32_t local_port,
                             const char* dest_addr, int32_t dest_port, const char* target,
                             int32_t is_notify) TW_NOEXCEPT;
/* Every byebye entry of the enabled roles. */
TW_API void SSDP_send_byebye(int32_t socket, const char* dest_addr, int32_t dest_port) TW_NOEXCEPT;
/* The remote UI server's alive (or byebye) set alone, to the group, on every server record
 * whose announcement socket is open; two passes, 210 ms of sleep after each. */
TW_API void SSDP_ruis_send_announcement(void) TW_NOEXCEPT;
TW_API void SSDP_ruis_send_byebye(void) TW_NOEXCEPT;
/* ---- end of messages and device roles ---------------------------------------------------- */

/* ---- Listener and handler registry ------------------------------------------------------- */
/* Comma-separated interface addresses on which no listener could be made, at most 511
 * characters; the host may read and preset it. */
TW_API extern char strIFblacklist[512];

/* Gets every datagram received on the multicast or search socket of server, as text, with the
 * sender's address text and port. The result is ignored. Handlers run on several threads at
 * once and must guard their own state. */
typedef int32_t (*upnp_ssdp_handler_fn)(const char* message, upnp_server_data* server,
                                        const char* address, int32_t port);

/* Appends handler (at most 19; there is no removal); a null handler or a full registry is
 * logged and ignored. name (may be null) only goes into the log. Register before the servers
 * start: the registry is read without a lock. */
TW_API void upnp_ssdp_register_handler(upnp_ssdp_handler_fn handler, const char* name) TW_NOEXCEPT;
/* 1 when handler is registered, else 0. */
TW_API int32_t upnp_ssdp_handler_is_registered(upnp_ssdp_handler_fn handler) TW_NOEXCEPT;
/* Thread routine: the multicast listener of one server record (arg). Returns null. */
TW_API void* SSDP_listen(void* server) TW_NOEXCEPT;
/* ---- end of listener and handler registry ------------------------------------------------ */

/* ---- Heartbeat, search sender and answer queue ------------------------------------------- */
/*
 * A search answer to send later. The handler allocates it with upnp_malloc_impl and fills the
 * first five fields; once given to SSDP_queue_notify_packet it belongs to the queue, which frees
 * it with upnp_free_impl.
 */
typedef struct upnp_ssdp_answer {
  int32_t delay;            /* seconds from queueing to the due time */
  char target[128];         /* the search target to answer */
  char address[20];         /* the searcher's dotted address */
  int32_t port;             /* the searcher's port */
  upnp_server_data* server; /* the record of the interface to answer from */
  int32_t due;              /* set by the queue: seconds of a monotonic clock */
} upnp_ssdp_answer;

/* Creates the SSDP lock if absent. */
TW_API void SSDP_init(void) TW_NOEXCEPT;
/* SSDP_queue_clear, then deletes the SSDP lock (a later queue call makes it again). */
TW_API void SSDP_exit(void) TW_NOEXCEPT;
/* Queues answer (null is ignored) with due = now + delay. When memory is short the answer is
 * neither queued nor freed. */
TW_API void SSDP_queue_notify_packet(upnp_ssdp_answer* answer) TW_NOEXCEPT;
/* Sends every queued answer whose due time is now or later three times and frees it; answers
 * already overdue stay queued until SSDP_queue_clear (intended). */
TW_API void SSDP_process_queued_notify_packets(void) TW_NOEXCEPT;
/* Frees every queued answer. */
TW_API void SSDP_queue_clear(void) TW_NOEXCEPT;

/* Thread routine: announcements of one server record (arg). Returns null. */
TW_API void* SSDP_heartbeat(void* server) TW_NOEXCEPT;
/* 1 while a heartbeat runs (one flag for all records: the last one to end clears it). */
TW_API int32_t upnp_ssdp_heartbeat_active(void) TW_NOEXCEPT;
/* Starts the search thread of server (null is ignored). */
TW_API void SSDP_m_search(upnp_server_data* server) TW_NOEXCEPT;

/* Heartbeat requests. wakeup: leave the suspended state and announce at once. byebye: send one
 * byebye set, then stay silent until wakeup. shutdown: every heartbeat ends at its next tick. */
TW_API void SSDP_trigger_wakeup(void) TW_NOEXCEPT;
TW_API void SSDP_trigger_byebye(void) TW_NOEXCEPT;
TW_API void SSDP_trigger_shutdown(void) TW_NOEXCEPT;
/* Asks the heartbeats for an alive set now: sets the request, sleeps 500 ms, clears it. */
TW_API void upnp_ssdp_send_alive(void) TW_NOEXCEPT;

/* Search intervals in seconds (kept in milliseconds inside); both start at 0. With an initial
 * interval the first three rounds follow each other at it, later ones at the regular interval;
 * a regular interval of 0 ends the searches after those rounds (after one without an initial
 * interval). */
TW_API void upnp_ssdp_set_msearch_interval(int32_t seconds) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_get_msearch_interval(void) TW_NOEXCEPT;
TW_API void upnp_ssdp_set_msearch_initial_interval(int32_t seconds) TW_NOEXCEPT;
TW_API int32_t upnp_ssdp_get_msearch_initial_interval(void) TW_NOEXCEPT;
/* ---- end of heartbeat, search sender and answer queue ------------------------------------ */

TW_EXTERN_C_END

#endif /* TARNWICK_SSDP_H */
