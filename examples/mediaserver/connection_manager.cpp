// SPDX-License-Identifier: Apache-2.0
// ConnectionManager (being written).
#include "host.h"

namespace mediaserver {

void RegisterConnectionManager() {}
std::string SourceProtocolInfo() { return ""; }

}  // namespace mediaserver
