// SPDX-License-Identifier: Apache-2.0
// Internals of the server lifecycle shared by its files: start/stop/restart and the seams the unit
// tests use. The tables it fills live in core/core.h.
#pragma once

#include <cstdint>

#include "core/core.h"
#include "tarnwick/server.h"

namespace tw::server {

// ---- Lifecycle (server_lifecycle.cpp) ----
void Start(int32_t* state) noexcept;
void Stop(int32_t* state) noexcept;
void StartHeartbeatLate() noexcept;
void SearchAll() noexcept;
// Interface enumeration with property 1 as selection, at most five entries; the count.
int32_t EnumerateInterfaces(char (*table)[core::kAddressSize]) noexcept;

// ---- Restart on network change (nic_change.cpp) ----
void CheckNicChange(int64_t now) noexcept;
void TriggerNicChange() noexcept;
bool InRestart() noexcept;

// ---- Test seams ----
// Replaces the interface enumeration (null restores the system's). The source fills table with
// at most max entries and returns the count; selection is property 1.
using InterfaceSource = int32_t (*)(char (*table)[core::kAddressSize], int32_t max,
                                    const char* selection);
void SetInterfaceSourceForTesting(InterfaceSource source) noexcept;
// Pause of stop before it closes the sockets; a negative value restores 200 ms.
void SetStopPauseForTesting(int32_t ms) noexcept;
// Pause of the restart between stop and start; a negative value restores 1000 ms.
void SetRestartPauseForTesting(int32_t ms) noexcept;
// Threads started by start (accept loops, listeners, heartbeats) that have not returned yet.
int32_t LiveThreadsForTesting() noexcept;
// Forgets the NIC-check time, the request and restart flags, the remote port and every callback.
void ResetForTesting() noexcept;

}  // namespace tw::server
