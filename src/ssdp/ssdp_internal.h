// SPDX-License-Identifier: Apache-2.0
// Internals shared by the discovery files: process-wide switches, the thread bookkeeping, the
// packet builders and the seams the unit tests use.
#pragma once

#include <cstdint>
#include <string_view>

#include "tarnwick/ssdp.h"
#include "tarnwick/types.h"

namespace tw::ssdp {

inline constexpr char kGroupAddress[] = "239.255.255.250";
inline constexpr int32_t kGroupPort = 1900;
inline constexpr int32_t kPacketSize = 512;    // packets and USNs are cut silently at this size
inline constexpr int32_t kReceiveSize = 1024;  // largest datagram handed to the handlers

// Priority levels of the threads (see upnp_start_thread).
inline constexpr int32_t kHeartbeatLevel = 3;
inline constexpr int32_t kListenLevel = 5;
inline constexpr int32_t kSearchLevel = 5;

// ---- Roles and settings (roles.cpp) ----
enum class Role : int { kMediaServer, kRenderer, kRemoteUiServer, kRemoteUiClient, kMtp };
bool RoleEnabled(Role role) noexcept;
void SetRole(Role role, int32_t value) noexcept;
bool ControlPoint() noexcept;
void SetControlPoint(int32_t value) noexcept;

enum class SearchOption : int { kRemoteUiClient, kRemoteUiServer, kIgd, kQuick };
bool SearchEnabled(SearchOption option) noexcept;
void SetSearch(SearchOption option, int32_t value) noexcept;

// Kept in milliseconds; the public calls speak seconds.
int32_t SearchIntervalMs() noexcept;
void SetSearchIntervalMs(int32_t ms) noexcept;
int32_t InitialSearchIntervalMs() noexcept;
void SetInitialSearchIntervalMs(int32_t ms) noexcept;

uint32_t BeatTime() noexcept;
void SetBeatTime(uint32_t seconds) noexcept;

// ---- Server state as the threads see it ----
bool ServerRunning() noexcept;
uint32_t Generation(const upnp_server_data& server) noexcept;
int32_t LoadSocket(const int32_t* slot) noexcept;
// Installs socket into an empty (-1) slot; false when another thread was first.
bool InstallSocket(int32_t* slot, int32_t socket) noexcept;

// ---- Messages (messages.cpp) ----
enum class Packet : int { kAlive, kAnswer };
// Every datagram of discovery leaves through here: upnp_sendto, unless a test replaced it.
int32_t SendDatagram(int32_t socket, const char* data, int32_t length, const char* address,
                     int32_t port) noexcept;
int32_t SendPacket(Packet kind, const char* dest_addr, int32_t dest_port, int32_t socket,
                   const char* local_addr, int32_t local_port, const char* type, const char* udn,
                   const char* path) noexcept;
int32_t SendByebyePacket(const char* dest_addr, int32_t dest_port, int32_t socket, const char* type,
                         const char* udn) noexcept;
void SendNotify(int32_t socket, const char* local_addr, int32_t local_port, const char* dest_addr,
                int32_t dest_port, const char* target, bool is_notify) noexcept;
void SendByebye(int32_t socket, const char* dest_addr, int32_t dest_port) noexcept;
// The remote UI server's own set on every record with an open announcement socket.
void SendRemoteUiServerSet(bool alive) noexcept;
// Makes the UDNs of the enabled roles now: their first making reads the configuration, whose
// lock ranks above the SSDP lock.
void PrepareUdns() noexcept;

enum class Search : int {
  kRendererMx3,
  kServerMx3,
  kRendererMx10,
  kServerMx10,
  kRemoteUiServerMx3,
  kRemoteUiClientMx3,
  kGatewayMx10
};
std::string_view SearchText(Search kind) noexcept;

// ---- Threads (threads.cpp) ----
// Counts the discovery threads alive, so tests can wait for every thread to have ended.
void ThreadEntered() noexcept;
void ThreadLeft() noexcept;
// Starts routine detached with the thread already counted (the routine calls ThreadLeft last),
// so a thread that hands over to a fresh one never lets the count touch zero in between.
void StartCountedThread(void* (*routine)(void*), void* arg, int32_t level) noexcept;
// Length of a heartbeat tick in milliseconds (100).
int32_t TickMs() noexcept;

// ---- Listener (listener.cpp) ----
// Calls every registered handler in registration order.
void CallHandlers(const char* message, upnp_server_data* server, const char* address,
                  int32_t port) noexcept;
// The work of one received datagram (message: its text, NUL-terminated): every handler, then
// the queued answers that are due. The listener and the search thread run it per datagram.
void HandleDatagram(const char* message, upnp_server_data* server, const char* address,
                    int32_t port) noexcept;
void RegisterHandler(upnp_ssdp_handler_fn handler, const char* name) noexcept;
bool HandlerRegistered(upnp_ssdp_handler_fn handler) noexcept;
void RunListener(upnp_server_data* server) noexcept;
// Thread body for a listener thread that is already counted; calls ThreadLeft last.
void* CountedListenThread(void* server) noexcept;

// ---- Heartbeat (heartbeat.cpp) ----
void RunHeartbeat(upnp_server_data* server) noexcept;
// Thread body for a heartbeat thread that is already counted; calls ThreadLeft last.
void* CountedHeartbeatThread(void* server) noexcept;
bool HeartbeatActive() noexcept;
void TriggerWakeup() noexcept;
void TriggerByebye() noexcept;
void TriggerShutdown() noexcept;
void RequestAlive(bool on) noexcept;
// True when the alive set is due after `ticks` counted ticks at beat time `beat` seconds.
bool PeriodicAliveDue(uint32_t ticks, uint32_t beat) noexcept;

// ---- Searches (search.cpp) ----
void StartSearch(upnp_server_data* server) noexcept;

// ---- Answer queue (queue.cpp) ----
void InitLock() noexcept;
void ExitLock() noexcept;
void Enqueue(upnp_ssdp_answer* answer) noexcept;
void ProcessQueue() noexcept;
void ClearQueue() noexcept;
// Appends address to the interface blacklist under the SSDP lock, unless the blacklist text is
// found in address; false when nothing was added.
bool AddToBlacklist(const char* address) noexcept;

// ---- Test seams ----
// Tick length for the heartbeat; 0 restores 100 ms.
void SetTickForTesting(int32_t ms) noexcept;
// Discovery threads currently running (including started but not yet running ones).
int32_t RunningThreadsForTesting() noexcept;
// Switches every role, search option and interval off, and the beat time back to 1810.
void ResetSettingsForTesting() noexcept;
// Empties the handler registry.
void ClearHandlersForTesting() noexcept;
// Clears every heartbeat request flag.
void ResetRequestsForTesting() noexcept;
// The tick count at which the last periodic (counted) alive set went out, 0 before the first.
uint32_t LastAliveTickCountForTesting() noexcept;
// Answers waiting in the queue.
int32_t QueuedAnswersForTesting() noexcept;
// Replaces what SendDatagram does (null restores upnp_sendto), so a harness can run the handler
// and queue road over made-up datagrams without a packet leaving the process.
using SendFn = int32_t (*)(int32_t socket, const char* data, int32_t length, const char* address,
                           int32_t port) noexcept;
void SetSendForTesting(SendFn send) noexcept;

}  // namespace tw::ssdp
