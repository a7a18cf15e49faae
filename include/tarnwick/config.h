/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Configuration: the property table, the INI file, the command line and the program's directories.
 */
#ifndef TARNWICK_CONFIG_H
#define TARNWICK_CONFIG_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

TW_EXTERN_C_END

#endif /* TARNWICK_CONFIG_H */
