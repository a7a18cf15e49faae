// SPDX-License-Identifier: Apache-2.0
// DIDL-Lite (being written).
#include "didl.h"

namespace mediaserver {

DlnaParameters DlnaParametersOf(const Object&) { return {}; }
std::string ProtocolInfoOf(const Object&, const ClientContext&) { return ""; }
std::string ResourcePathOf(const Object& item) { return "/media/" + item.id; }
bool ObjectIdOfResourcePath(const char*, std::string*) { return false; }
std::string BuildDidl(const std::vector<Object>&, const ClientContext&, const std::string&) {
  return "";
}

}  // namespace mediaserver
