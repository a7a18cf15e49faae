// SPDX-License-Identifier: Apache-2.0
// The status page at "/" (being written).
#include "host.h"

namespace mediaserver {

void RegisterStatusPage() {}

}  // namespace mediaserver
