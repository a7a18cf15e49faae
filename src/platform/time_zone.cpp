// SPDX-License-Identifier: Apache-2.0
#include "platform/time_zone.h"

#include <time.h>

namespace tw::platform {

void LoadTimeZone() noexcept { tzset(); }

}  // namespace tw::platform
