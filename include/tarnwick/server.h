/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Server lifecycle: starting and stopping the HTTP servers, SSDP and the heartbeat, and the
 * restart when the network interfaces change. The service answers built on it are in services.h.
 *
 * The tables the lifecycle fills (server records, state word, global lock, callback tables,
 * network matching, device identities, resources) are declared in core.h, and the exit
 * functions in platform.h; both are included here.
 */
#ifndef TARNWICK_SERVER_H
#define TARNWICK_SERVER_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/core.h"
#include "tarnwick/export.h"
#include "tarnwick/platform.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* ---- Server lifecycle -------------------------------------------------------------------- */
/*
 * Start makes, per usable local IPv4 address (at most 5; "127.0.0.1" when none is found), one
 * HTTP listening socket with its accept thread, optionally a remote-access socket, and the SSDP
 * listener and heartbeat threads. The library's threads run while g_server_running is 1, so a
 * host normally passes &g_server_running as the state word. Start and stop run on the caller's
 * thread; threads are detached and end by themselves when the state word leaves 1, their socket
 * is closed or their record's stop generation moves on. Callback tables (core.h) are set before
 * start.
 */
/* Starts everything; state (may be null) becomes 1. A state already 1 only starts a late
 * renderer heartbeat (when the renderer role is on and no restart runs). */
TW_API void upnp_server_start(int32_t* state) TW_NOEXCEPT;
/* Stops everything; state (may be null) goes -1, then 0. A state of 0 or -1 returns at once.
 * Outside a restart this also destroys the global lock. Takes about 200 ms. */
TW_API void upnp_server_stop(int32_t* state) TW_NOEXCEPT;
/* Starts one heartbeat thread per served record unless a heartbeat is active already. */
TW_API void upnp_server_start_heartbeat_late(void) TW_NOEXCEPT;
/* Starts the search threads on every served record. */
TW_API void M_Search(void) TW_NOEXCEPT;
/* 1 while a restart after a network change runs, else 0. */
TW_API int32_t upnp_server_is_in_restart(void) TW_NOEXCEPT;
/* Makes the next check_NIC_change compare the interfaces at once. */
TW_API void Server_trigger_NICchange(void) TW_NOEXCEPT;
/* now: seconds of the caller's clock. When asked to (Server_trigger_NICchange), or with property
 * 2 set every 30 s, compares the interfaces with the served ones and restarts the servers on a
 * difference. Call it from one thread only. */
TW_API void check_NIC_change(int64_t now) TW_NOEXCEPT;
/* ---- end of server lifecycle ------------------------------------------------------------- */

TW_EXTERN_C_END

#endif /* TARNWICK_SERVER_H */
