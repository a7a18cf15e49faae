// SPDX-License-Identifier: Apache-2.0
// SOAP control requests: the action and its arguments read from the request with the library's
// XML parser, answers framed in the SOAP envelope, faults sent through the library.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tarnwick/http.h"

namespace mediaserver {

// UPnP error codes the services answer with (the library's error table has their texts).
constexpr int32_t kErrorBadRequest = 400;  // no SOAPACTION, or a body that is no envelope
constexpr int32_t kErrorInvalidAction = 401;
constexpr int32_t kErrorInvalidArgs = 402;
constexpr int32_t kErrorActionFailed = 501;
constexpr int32_t kErrorArgumentValueInvalid = 600;
constexpr int32_t kErrorNoSuchObject = 701;
constexpr int32_t kErrorInvalidSearchCriteria = 708;
constexpr int32_t kErrorNoSuchContainer = 710;

struct SoapAction {
  std::string service_type;  // "urn:schemas-upnp-org:service:ContentDirectory:1"
  std::string name;          // "Browse"
  std::vector<std::pair<std::string, std::string>> arguments;  // unescaped values, in order
  // The value of an argument; false when it is missing.
  bool Get(const char* argument, std::string* value) const;
};

// Reads the action from the SOAPACTION header and the body; false for a malformed request.
bool ReadSoapAction(const HttpRequest& request, SoapAction* action);

// Sends "u:<action>Response" with the given output arguments, each value escaped once.
int32_t SendSoapResponse(HttpRequest* request, const SoapAction& action,
                         const std::vector<std::pair<std::string, std::string>>& outputs);

}  // namespace mediaserver
