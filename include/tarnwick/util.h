/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Text utilities: the dynamic string (upnp_string), plain-string tests and character classes,
 * character sets and encodings, parsing and formatting helpers, string scrambling.
 *
 * Every function that makes text returns a fresh heap string from the accounted allocator that
 * the caller frees with upnp_free_impl (upnp_string records with upnp_string_free); null means a
 * null input or a memory shortage. Invalid input is converted by fixed rules, not rejected.
 * None of these functions lock; all are reentrant.
 */
#ifndef TARNWICK_UTIL_H
#define TARNWICK_UTIL_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* ---- Dynamic string and character classes ------------------------------------------------ */
/* ---- end of dynamic string and character classes ----------------------------------------- */

/* ---- Character sets and encodings -------------------------------------------------------- */
/* ---- end of character sets and encodings ------------------------------------------------- */

/* ---- Parsing and formatting helpers ------------------------------------------------------ */
/* ---- end of parsing and formatting helpers ----------------------------------------------- */

/* ---- String scrambling ------------------------------------------------------------------- */
/* ---- end of string scrambling ------------------------------------------------------------ */

TW_EXTERN_C_END

#endif /* TARNWICK_UTIL_H */
