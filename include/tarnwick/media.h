/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Media files: file utilities, multi-part media files and the buffered binary and bit reader.
 */
#ifndef TARNWICK_MEDIA_H
#define TARNWICK_MEDIA_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

TW_EXTERN_C_END

#endif /* TARNWICK_MEDIA_H */
