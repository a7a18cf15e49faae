/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Server core and services: exit functions, and (as they land) the server lifecycle, callback
 * tables, the resource registry and the service answers.
 */
#ifndef TARNWICK_SERVER_H
#define TARNWICK_SERVER_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"

TW_EXTERN_C_BEGIN

/* ---- Exit functions ---------------------------------------------------------------------- */
/* ---- end of exit functions --------------------------------------------------------------- */

/* ---- Resource registry ------------------------------------------------------------------- */
/* ---- end of resource registry ------------------------------------------------------------ */

TW_EXTERN_C_END

#endif /* TARNWICK_SERVER_H */
