/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Tarnwick UPnP SDK: the umbrella header. Include this one header from C99 or C++ hosts.
 *
 * Every function is a flat C call that never throws. Memory handed to the host comes from the
 * accounted allocator and is released with upnp_free_impl (or the record's own free call).
 */
#ifndef TARNWICK_UPNP_H
#define TARNWICK_UPNP_H

#include "tarnwick/clientdb.h"
#include "tarnwick/config.h"
#include "tarnwick/core.h"
#include "tarnwick/export.h"
#include "tarnwick/http.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/log.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"
#include "tarnwick/server.h"
#include "tarnwick/services.h"
#include "tarnwick/ssdp.h"
#include "tarnwick/types.h"
#include "tarnwick/util.h"
#include "tarnwick/xml.h"

#endif /* TARNWICK_UPNP_H */
