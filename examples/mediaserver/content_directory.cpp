// SPDX-License-Identifier: Apache-2.0
// ContentDirectory (being written).
#include "host.h"

namespace mediaserver {

void RegisterContentDirectory() {}

}  // namespace mediaserver
