/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform layer: accounted memory, critical sections, threads and child processes, files and
 * time, sockets and network interfaces.
 *
 * Conventions of this family:
 *  - Memory: every block the library hands out comes from upnp_malloc_impl & co. and is released
 *    with upnp_free_impl; never mix these blocks with the system allocator.
 *  - Wrappers return -1 for a missing socket/handle or a failed system call; status-style calls
 *    return 2 (invalid argument), 8 (out of memory) or 14 (not found).
 *  - Text results are fresh heap strings that the caller frees with upnp_free_impl.
 *  - Widths are fixed (int32_t, int64_t) so 32-bit ARM hosts see the same ABI.
 *
 * This header includes <pthread.h> because the host allocates CRITICAL_SECTION records itself.
 */
#ifndef TARNWICK_PLATFORM_H
#define TARNWICK_PLATFORM_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"

TW_EXTERN_C_BEGIN

/* ---- Memory accounting ------------------------------------------------------------------- */
/*
 * Every block carries an 8-byte header holding the requested size; the counters track payload
 * bytes only. Failure is reported by a null result alone (nothing is printed). Counters are
 * process-wide; reads are unlocked plain loads.
 */
TW_API void upnp_mem_init(void) TW_NOEXCEPT;
TW_API void upnp_mem_exit(void) TW_NOEXCEPT;
TW_API void* upnp_malloc_impl(size_t size) TW_NOEXCEPT;
/* count * size is not checked for overflow: callers pass sane products. */
TW_API void* upnp_calloc_impl(size_t count, size_t size) TW_NOEXCEPT;
/* On failure returns null, the old block stays valid and owned by the caller, and its size has
 * already been taken off the current count (freeing it later subtracts it again). */
TW_API void* upnp_realloc_impl(void* ptr, size_t size) TW_NOEXCEPT;
TW_API char* upnp_strdup_impl(const char* str) TW_NOEXCEPT;
/* A null pointer prints a note to stderr and does nothing else. */
TW_API void upnp_free_impl(void* ptr) TW_NOEXCEPT;
TW_API uint32_t upnp_mem_used(void) TW_NOEXCEPT;
TW_API uint32_t upnp_max_mem_used(void) TW_NOEXCEPT;

/* ---- Critical sections ------------------------------------------------------------------- */
/*
 * Re-entrant for the owning thread by a depth count over a non-recursive mutex. A re-entry logs
 * a problem line; leaving from a thread that is not the owner logs and releases anyway.
 */
typedef struct CRITICAL_SECTION {
  pthread_mutex_t mutex;
  pthread_t owner; /* 0 when free */
  int32_t depth;   /* extra entries by the owner; 0 when entered once */
} CRITICAL_SECTION;

TW_API void InitializeCriticalSection(CRITICAL_SECTION* cs) TW_NOEXCEPT;
TW_API void DeleteCriticalSection(CRITICAL_SECTION* cs) TW_NOEXCEPT;
TW_API void EnterCriticalSection(CRITICAL_SECTION* cs) TW_NOEXCEPT;
TW_API void LeaveCriticalSection(CRITICAL_SECTION* cs) TW_NOEXCEPT;

/* ---- Threads and child processes --------------------------------------------------------- */
/*
 * Threads are POSIX threads; their identifier is the pthread_t, 0 meaning "no thread". A
 * priority level (3..7, others count as 5) picks the scheduling priority the library asks for:
 * 3 -> 10, 4 -> 30, 5 -> 50, 6 -> 70, 7 -> 90, with the normal time-sharing policy and a
 * 128 KiB stack. That policy only takes priority 0, so every thread runs at the normal priority:
 * glibc drops the value while the attributes are prepared (the first start succeeds), bionic
 * refuses the start, which is then repeated with default attributes (logged as a problem line).
 *
 * Child processes started in the background are remembered in a process-wide table of at most
 * 50 entries. The table has no lock: use the process calls from one thread at a time.
 */
typedef void* (*upnp_thread_routine)(void* arg);
/* Polled about once a second while a child runs; a non-zero result kills the child. */
typedef int (*upnp_process_callback)(void* arg);

/* The new thread's identifier, or 0 when no thread was started; the caller joins or detaches. */
TW_API pthread_t upnp_start_joinable_thread(upnp_thread_routine routine, void* arg,
                                            int32_t level) TW_NOEXCEPT;
/* Starts a detached thread: 0 on success (or when none started), else the detach error. */
TW_API int upnp_start_thread(upnp_thread_routine routine, void* arg, int32_t level) TW_NOEXCEPT;
/* Ends the calling thread with a null result; never returns. The exit unwinds the stack, so no
 * C++ noexcept function may be active in the thread when it is called (that would terminate). */
TW_API void upnp_end_thread(void) TW_NOEXCEPT;
/* Hooks that do nothing on this platform. */
TW_API void upnp_init_thread(const char* name) TW_NOEXCEPT;
TW_API void upnp_kill_joinable_thread(pthread_t thread) TW_NOEXCEPT;
/* Sleeps ms milliseconds; a negative ms returns at once, an interrupted sleep is not resumed. */
TW_API void Sleep(int32_t ms) TW_NOEXCEPT;

/* Starts program (an absolute path, no search) in the background with params split into at most
 * 29 arguments (blank-separated, "double quotes" group). params is split IN PLACE and may be
 * null. 0 when started (or the fork failed, or program is null), 1 when program is still running
 * from an earlier call, 2 when the table is full. */
TW_API int system_call_no_wait(const char* program, char* params) TW_NOEXCEPT;
/* Runs program through /usr/bin/nice (directly when that is missing) and waits for its end: 0,
 * or -1 when the child died from a signal or the wait failed (callback variant only), or the
 * callback's non-zero result after the child was killed and reaped. params is copied, not
 * modified (-1 when that copy fails, or for a null program). priority is accepted and ignored.
 * A child that cannot execute anything exits with status 0. */
TW_API int system_call_waiting(const char* program, const char* params) TW_NOEXCEPT;
TW_API int system_call_waiting_prio(const char* program, const char* params, int32_t priority,
                                    upnp_process_callback callback, void* callback_arg) TW_NOEXCEPT;
/* 1 when a live background child runs exactly program, else 0; reaps every ended child. */
TW_API int check_active_processes(const char* program) TW_NOEXCEPT;
/* Kills (SIGKILL) and reaps every background child and empties the table; blocks until done. */
TW_API void terminate_active_processes(void) TW_NOEXCEPT;
/* Always 0 on this platform. */
TW_API int is_process_running(const char* name) TW_NOEXCEPT;
/* ---- end of threads and child processes -------------------------------------------------- */

/* ---- File system and time ---------------------------------------------------------------- */
/* File status filled by upnp_file_stat. Times are seconds since 1970 in 64 bits on every
 * platform; the mode uses the POSIX type bits below. */
typedef struct upnp_stat {
  uint64_t size;
  int64_t mtime;
  uint32_t mode;
} upnp_stat;

#define UPNP_S_IFMT 0170000u
#define UPNP_S_IFDIR 0040000u
#define UPNP_S_IFREG 0100000u
#define UPNP_S_IFLNK 0120000u

/* The file layer's handle (typedef upnp_file in types.h). */
struct upnp_file;

/*
 * Raw files. Descriptors are plain ints (-1 on failure). The upnp_file calls below work on the
 * handle of the file layer (media.h); they keep its 64-bit position up to date and return -1 for
 * a null handle or a failed system call.
 */
/* Read-only; -1 on failure. */
TW_API int32_t open_read(const char* path) TW_NOEXCEPT;
/* Write-only, created with mode 0644 when missing (an existing file is not truncated). */
TW_API int32_t open_write(const char* path) TW_NOEXCEPT;
/* Read-write, appending, created with mode 0644 when missing. */
TW_API int32_t open_append(const char* path) TW_NOEXCEPT;
TW_API int32_t close_file(int32_t fd) TW_NOEXCEPT;
/* A new zeroed handle on a write-only descriptor (created 0644); null for a null path or a failed
 * open. Close it with upnp_file_close. */
TW_API struct upnp_file* upnp_open_shared_write(const char* path) TW_NOEXCEPT;
/* Bytes read (a positive count also advances the handle's position), 0 at the end, -1. */
TW_API int32_t upnp_file_read(struct upnp_file* handle, void* buffer, uint32_t length) TW_NOEXCEPT;
/* Bytes written, or -1. */
TW_API int32_t upnp_file_write(struct upnp_file* handle, const void* buffer,
                               uint32_t length) TW_NOEXCEPT;
/* whence 0 start, 1 current, 2 end. The new position (also stored in the handle), or -1. */
TW_API int64_t upnp_file_seek(struct upnp_file* handle, int64_t offset, int32_t whence) TW_NOEXCEPT;
/* Forces written data to the disk; 0 or -1. */
TW_API int32_t upnp_file_flush(struct upnp_file* handle) TW_NOEXCEPT;
/* Follows links. -1 when an argument is null, else the system result (0 with record filled). */
TW_API int32_t upnp_file_stat(const char* path, upnp_stat* record) TW_NOEXCEPT;
/* Beyond the classic file layer: the status of an open handle, taken from its descriptor when
 * it was opened for reading (so no second system call, and no race with a replaced path). For a
 * multi-part media file the size is the total of its parts. 0 with record filled; -1 for a null
 * argument or a handle whose open failed. */
TW_API int32_t upnp_file_get_stat(const struct upnp_file* handle, upnp_stat* record) TW_NOEXCEPT;
/* Sets access and modification time to time (seconds since 1970), or to now when time is 0. */
TW_API int32_t upnp_file_touch(const char* path, int64_t time) TW_NOEXCEPT;
/* Mode 0777 less the process's umask. These four return the system result, -1 for null. */
TW_API int32_t upnp_file_mkdir(const char* path) TW_NOEXCEPT;
TW_API int32_t upnp_file_rename(const char* from, const char* to) TW_NOEXCEPT;
TW_API int32_t upnp_file_unlink(const char* path) TW_NOEXCEPT;
/* Removes an empty directory. */
TW_API int32_t upnp_dir_unlink(const char* path) TW_NOEXCEPT;
/* Turns every backslash of path into '/' in place; null is ignored. */
TW_API void to_unix_path(char* path) TW_NOEXCEPT;

/*
 * Directory listing. Entries ".", "..", "lost+found" and every name starting with '.' are
 * skipped. find_first returns the handle already on the first entry; find_next moves on and, at
 * the end, FREES the handle and returns null (do not close it then). Paths under /proc are
 * refused. The texts returned by the accessors belong to the handle and change with each step.
 */
typedef struct upnp_find_handle upnp_find_handle;

TW_API upnp_find_handle* upnp_file_find_first_file(const char* path) TW_NOEXCEPT;
TW_API upnp_find_handle* upnp_file_find_next_file(upnp_find_handle* handle) TW_NOEXCEPT;
/* Closes a handle that has not reached the end yet; null is ignored. */
TW_API void upnp_file_find_close(upnp_find_handle* handle) TW_NOEXCEPT;
/* "<base>/<name>" of the current entry; null for a null handle. */
TW_API const char* upnp_file_find_get_path(const upnp_find_handle* handle) TW_NOEXCEPT;
TW_API const char* upnp_file_find_get_name(const upnp_find_handle* handle) TW_NOEXCEPT;
/* 1 when the entry is a directory (following links) / is itself a symbolic link, else 0. */
TW_API int32_t upnp_file_find_is_dir(const upnp_find_handle* handle) TW_NOEXCEPT;
TW_API int32_t upnp_file_find_is_link(const upnp_find_handle* handle) TW_NOEXCEPT;

/* Kilobytes of the file system holding path: 0, 2 for a null argument, 14 when it cannot be
 * queried. The block size is divided by 1024 before multiplying (intended: blocks smaller than
 * 1 KiB give 0). */
TW_API int32_t upnp_get_disk_info(const char* path, uint64_t* total_kb,
                                  uint64_t* free_kb) TW_NOEXCEPT;
/* The same figures; outputs are optional and set to 0 first. 0, or -1 (also for ""). */
TW_API int32_t getdiskinfo(const char* path, uint64_t* total_kb, uint64_t* free_kb) TW_NOEXCEPT;

/* Per-user folders: new texts (free with upnp_free_impl), null when memory is short.
 * getAppDataDir: "/var/tarnwick" for root or an unknown user, else "<home>/.tarnwick".
 * getMy*Dir: "<home>/tarnwick/<kind>" for a known non-root user, else "<base>/tarnwick/<kind>"
 * ("/tarnwick/<kind>" without base); kind is videos, pictures or music. */
TW_API char* getAppDataDir(void) TW_NOEXCEPT;
TW_API char* getMyVideoDir(const char* base) TW_NOEXCEPT;
TW_API char* getMyPictureDir(const char* base) TW_NOEXCEPT;
TW_API char* getMyMusicDir(const char* base) TW_NOEXCEPT;
/* A copy of path (nothing is expanded on this platform); null for null. */
TW_API char* getPathExpandSpecialFolders(const char* path) TW_NOEXCEPT;

/*
 * Time. Times are int64_t seconds since 1970 (UTC). Where the C library's time_t has 64 bits
 * every date works; where it has 32 bits (32-bit Android, 32-bit ARM Linux without a 64-bit
 * time_t) a time outside 1901-12-13..2038-01-19 cannot be converted: formatting writes the
 * empty text, parsing returns -1 and upnp_file_touch fails with -1. Text results are cut at
 * size (always NUL-terminated when size > 0); each call returns out (null when out is null or
 * size is 0, nothing written then).
 */
/* Seconds that UTC is ahead of local standard time (west of Greenwich is positive), learned on
 * the first date parse; 1 until then (an intended "not yet known" value). */
TW_API extern int32_t g_timeZoneOffsetInSeconds;

/* Now as "Sun, 06 Nov 1994 08:49:37 GMT" (HTTP date). */
TW_API char* upnp_date_getGMT(char* out, size_t size) TW_NOEXCEPT;
/* time in the same format. */
TW_API char* upnp_date_formatGMT(int64_t time, char* out, size_t size) TW_NOEXCEPT;
/* "YYYY-MM-DDTHH:MM:SS" in local time (both names do the same). */
TW_API char* upnp_format_time_to_localdate(int64_t time, char* out, size_t size) TW_NOEXCEPT;
TW_API char* upnp_time_convertToLocaltime(int64_t time, char* out, size_t size) TW_NOEXCEPT;
/* "YYYY-MM-DDTHH:MM:SS" in GMT. */
TW_API char* upnp_time_convertToGMT(int64_t time, char* out, size_t size) TW_NOEXCEPT;
/* "YYYY-MM-DD" in GMT. */
TW_API char* upnp_date_convertToGMT(int64_t time, char* out, size_t size) TW_NOEXCEPT;
/* "HH:MM:SS" in local time. */
TW_API char* upnp_format_time_to_localtime(int64_t time, char* out, size_t size) TW_NOEXCEPT;
/* "YYYY-MM-DD[(T| )HH:MM:SS[.frac]]" read as GMT; missing parts count 0; 0 for null. */
TW_API int64_t upnp_convert_date_time_string_to_numeric(const char* text) TW_NOEXCEPT;
/* "H[:M[:S[.F]]]" to milliseconds; F is added as written (".5" is 5 ms, intended); 0 for null. */
TW_API int64_t upnp_convert_duration_string_to_numeric(const char* text) TW_NOEXCEPT;
/* Local "HH:MM:SS:mmm " (with the trailing blank) for log lines. */
TW_API char* upnp_get_logging_timestamp(char* out, size_t size) TW_NOEXCEPT;
/* Milliseconds of a monotonic clock, for measuring intervals only. */
TW_API int64_t getSystemTime(void) TW_NOEXCEPT;
/* ---- end of file system and time --------------------------------------------------------- */

/* ---- Exit functions ---------------------------------------------------------------------- */
/*
 * The host's exit hook. The library ends itself through upnp_exit (for instance after a critical
 * log message); a host that registers a function keeps control of its process.
 */
typedef void (*upnp_exit_function)(int32_t code);

/* Stores fn (null removes it); the last registration wins. */
TW_API void register_upnp_exit_function(upnp_exit_function fn) TW_NOEXCEPT;
/* With a registered function: calls it with code and returns. Without one: ends the process
 * through the C library's exit with code and does not return. */
TW_API void upnp_exit(int32_t code) TW_NOEXCEPT;
/* ---- end of exit functions --------------------------------------------------------------- */

/* ---- Sockets and network interfaces ------------------------------------------------------ */
/*
 * IPv4 only. Sockets are plain descriptors, -1 meaning none. Addresses cross this boundary as
 * dotted text in buffers of UPNP_ADDRESS_TEXT_SIZE bytes; ports are host-order integers, except the
 * raw network-order field of upnp_util_get_peername. Wrappers hand back the system result:
 * negative on failure with errno set, which getLastSocketError describes. A null text or buffer
 * gives -1 without a system call. Every call is thread-safe; none takes a library lock.
 */
#define UPNP_ADDRESS_TEXT_SIZE 17

/* Flags for upnp_recv; the library maps them to the system's values. Others are ignored. */
#define UPNP_MSG_PEEK 0x1
#define UPNP_MSG_WAITALL 0x2

/* A new stream / datagram socket, close-on-exec, or -1. */
TW_API int32_t upnp_socket_create_tcp(void) TW_NOEXCEPT;
TW_API int32_t upnp_socket_create_udp(void) TW_NOEXCEPT;
/* bind/connect to dotted address and host-order port; the system result, -1 for bad text. */
TW_API int32_t upnp_socket_bind(int32_t socket, const char* address, int32_t port) TW_NOEXCEPT;
TW_API int32_t upnp_socket_connect(int32_t socket, const char* address, int32_t port) TW_NOEXCEPT;
/* listen with a backlog of 128; the system result. */
TW_API int32_t upnp_socket_listen(int32_t socket) TW_NOEXCEPT;
/* The accepted descriptor, or -1; the peer address is discarded. */
TW_API int32_t upnp_socket_accept(int32_t socket) TW_NOEXCEPT;
/* The SSDP listener: UDP, address reuse, bound to 239.255.255.250:1900 and joined to that
 * group on interface_address. -1 on failure, which is logged; a half-made socket stays open. */
TW_API int32_t upnp_create_listen_socket(const char* interface_address) TW_NOEXCEPT;
/* Marks *socket -1 first, atomically so two closers never close one descriptor twice, then
 * shuts the old descriptor down both ways and closes it. -1 is skipped; 0 is only marked. */
TW_API void upnp_close_socket(int32_t* socket) TW_NOEXCEPT;

/* Sends all length bytes without SIGPIPE; EAGAIN/EINTR sleep 50 ms and retry without limit.
 * Returns the count of the LAST send call, not the total; 0 for nothing to send, -1 on failure. */
TW_API int64_t upnp_send(int32_t socket, const void* buffer, int64_t length) TW_NOEXCEPT;
/* One receive with UPNP_MSG_* flags; EAGAIN/EINTR sleep 50 ms and retry without limit, so a
 * receive time-out never ends it. The system result: bytes, 0 at end, -1. */
TW_API int32_t upnp_recv(int32_t socket, void* buffer, int32_t length, int32_t flags) TW_NOEXCEPT;
/* One datagram to address:port; the system result. */
TW_API int32_t upnp_sendto(int32_t socket, const void* buffer, int32_t length, const char* address,
                           int32_t port) TW_NOEXCEPT;
/* One datagram. Above 0 the sender's dotted address and host-order port are stored; otherwise
 * address_out becomes "" and port_out 0. Either output may be null. */
TW_API int32_t upnp_recvfrom(int32_t socket, void* buffer, int32_t length, char* address_out,
                             int32_t* port_out) TW_NOEXCEPT;
/* The peer's dotted address and its port AS THE RAW NETWORK-ORDER FIELD, deliberately unlike
 * upnp_recvfrom. The getpeername result; on failure "" and 0. Either output may be null. */
TW_API int32_t upnp_util_get_peername(int32_t socket, char* address_out,
                                      int32_t* port_out) TW_NOEXCEPT;

/* Socket options; each returns the system result. */
TW_API int32_t setSockOptReuseAddr(int32_t socket) TW_NOEXCEPT;
TW_API int32_t upnp_setSockOptReuseAddr(int32_t socket) TW_NOEXCEPT;
/* Time-outs in ms: ms / 1000 seconds plus ms % 1000 * 1000 microseconds. */
TW_API int32_t setSockOptReceiveTimeout(int32_t socket, int32_t ms) TW_NOEXCEPT;
TW_API int32_t setSockOptSendTimeout(int32_t socket, int32_t ms) TW_NOEXCEPT;
/* Outgoing multicast interface, where a refusal is only logged since some emulators lack the
 * option, and the multicast TTL as one byte; the result of setting the TTL. */
TW_API int32_t setSockOptMulticast(int32_t socket, int32_t ttl,
                                   const char* interface_address) TW_NOEXCEPT;
/* Logs the join, then joins group on interface_address; the system result. */
TW_API int32_t upnp_socket_setSockOptAddMembership(int32_t socket, const char* group,
                                                   const char* interface_address) TW_NOEXCEPT;
/* Sets the unicast TTL, then reads it back; the result of the read. */
TW_API int32_t setSockOptTTL(int32_t socket, int32_t ttl) TW_NOEXCEPT;
/* No-ops returning 0 on this platform: SIGPIPE is avoided by the send flag instead. */
TW_API int32_t setSockOptNoSignal(int32_t socket) TW_NOEXCEPT;
TW_API int32_t setSockOptAVPriority(int32_t socket) TW_NOEXCEPT;
TW_API int32_t setSockOptInteractivePriority(int32_t socket) TW_NOEXCEPT;
TW_API int32_t setSockOptBackgroundPriority(int32_t socket) TW_NOEXCEPT;

/* address in network order as dotted text into out; out, or null when it does not fit. */
TW_API char* upnp_inet_ntoa(uint32_t address, char* out, int32_t size) TW_NOEXCEPT;
/* The host name, always terminated; the system result. */
TW_API int32_t upnp_gethostname(char* out, int32_t size) TW_NOEXCEPT;
/* First IPv4 address of name as dotted text into out, UPNP_ADDRESS_TEXT_SIZE bytes. When it
 * cannot be resolved writes "127.0.0.1", logs a problem and returns -1; 0 when resolved. */
TW_API int32_t upnp_gethostbyname(const char* name, char* out) TW_NOEXCEPT;
/* The system's text for the calling thread's last error; valid until that thread's next call. */
TW_API const char* getLastSocketError(void) TW_NOEXCEPT;

/* Interface table: count_out entries of dotted text. A non-empty selection becomes the only
 * entry, unchecked; otherwise the up IPv4 interfaces in kernel order, at most max. Returns the
 * count. A failed enumeration is logged as critical, which ends the library. */
TW_API int32_t upnp_get_interfaces(int32_t* count_out, char (*table)[UPNP_ADDRESS_TEXT_SIZE],
                                   int32_t max, const char* selection) TW_NOEXCEPT;
/* Fills buffer of size bytes with whole kernel interface-request records, 32 bytes each on
 * 32-bit targets and 40 on 64-bit ones, whose field starts with the 16-bit interface flags,
 * followed by the IPv4 address bytes at field offset 4. The number of records, or -1. */
TW_API int32_t get_interface_addresses(void* buffer, int32_t size) TW_NOEXCEPT;
/* Name of interface number index, 0..7, into name_out: 1; 0 when there is no such entry; -2 when
 * size is too small for the name and its terminator; -1 for null, size 0 or a failed request. */
TW_API int32_t get_hwinterface(char* name_out, int32_t size, int32_t index) TW_NOEXCEPT;
/* Hardware address of interface_name as "xx:xx:xx:xx:xx:xx", lower case, cut to size: out, or
 * null on failure, which is logged. */
TW_API char* get_mac_address(const char* interface_name, char* out, int32_t size) TW_NOEXCEPT;
/* Six bytes: the first interface whose hardware address is not all zero, else 0x42 each. */
TW_API void upnp_get_mac(uint8_t* out) TW_NOEXCEPT;
/* ---- end of sockets and network interfaces ----------------------------------------------- */

TW_EXTERN_C_END

#endif /* TARNWICK_PLATFORM_H */
