/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Export and linkage macros shared by every public header.
 *
 * TW_API marks a declaration as part of the library's ABI. The library is built with hidden
 * visibility, so anything without TW_API stays internal to libtarnwick_upnp.so.
 * TW_NOEXCEPT goes on the declaration (not only the definition): C++ rejects a noexcept
 * definition whose earlier extern "C" declaration lacks it, and it tells C++ hosts that no
 * exception can cross the boundary.
 */
#ifndef TARNWICK_EXPORT_H
#define TARNWICK_EXPORT_H

#if defined(TW_BUILDING_LIBRARY)
#define TW_API __attribute__((visibility("default")))
#else
#define TW_API
#endif

#if defined(__cplusplus)
#define TW_NOEXCEPT noexcept
#define TW_EXTERN_C_BEGIN extern "C" {
#define TW_EXTERN_C_END }
#else
#define TW_NOEXCEPT
#define TW_EXTERN_C_BEGIN
#define TW_EXTERN_C_END
#endif

/* printf-style argument checking for the formatting entry points. */
#if defined(__GNUC__)
#define TW_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define TW_PRINTF(fmt_index, first_arg)
#endif

#endif /* TARNWICK_EXPORT_H */
