// SPDX-License-Identifier: Apache-2.0
// GENA for the two services (being written).
#include "eventing.h"

namespace mediaserver {

void RegisterEventHandlers() {}
void NotifyContentChanged() {}
void ExpireSubscriptions() {}
void StopEventing() {}

}  // namespace mediaserver
