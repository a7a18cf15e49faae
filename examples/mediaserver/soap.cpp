// SPDX-License-Identifier: Apache-2.0
// SOAP (being written).
#include "soap.h"

namespace mediaserver {

bool SoapAction::Get(const char*, std::string*) const { return false; }
bool ReadSoapAction(const HttpRequest&, SoapAction*) { return false; }
int32_t SendSoapResponse(HttpRequest*, const SoapAction&,
                         const std::vector<std::pair<std::string, std::string>>&) {
  return 1;
}

}  // namespace mediaserver
