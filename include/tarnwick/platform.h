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
/* ---- end of file system and time --------------------------------------------------------- */

/* ---- Sockets and network interfaces ------------------------------------------------------ */
/* ---- end of sockets and network interfaces ----------------------------------------------- */

TW_EXTERN_C_END

#endif /* TARNWICK_PLATFORM_H */
