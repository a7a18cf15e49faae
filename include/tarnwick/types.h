/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Records shared by several subsystems. Every record here is allocated by the library through
 * the accounted allocator and released with the matching library call (or upnp_free_impl).
 */
#ifndef TARNWICK_TYPES_H
#define TARNWICK_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"

TW_EXTERN_C_BEGIN

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

/* Open file of the file layer (upnp_file_open_read & co.); opaque, freed by upnp_file_close. */
typedef struct upnp_file upnp_file;

TW_EXTERN_C_END

#endif /* TARNWICK_TYPES_H */
