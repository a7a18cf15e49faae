// SPDX-License-Identifier: Apache-2.0
// What the HTTP tests share: accounted requests.
#pragma once

#include <memory>

#include "support/http_peer.h"
#include "support/test_support.h"

namespace tw::test {

struct FreeRequest {
  void operator()(HttpRequest* r) const { upnp_free_impl(r); }
};
using RequestPtr = std::unique_ptr<HttpRequest, FreeRequest>;

// A zeroed, accounted HTTP/1.1 GET of url; its head holds `lines` and the blank line.
inline RequestPtr GetRequest(const std::string& url, const std::string& lines = "") {
  RequestPtr r(static_cast<HttpRequest*>(upnp_calloc_impl(1, sizeof(HttpRequest))));
  std::snprintf(r->url, sizeof(r->url), "%s", url.c_str());
  std::snprintf(r->header, sizeof(r->header), "GET %s HTTP/1.1\r\n%s\r\n", url.c_str(),
                lines.c_str());
  r->http_version = 11;
  r->method = HTTP_METHOD_GET;
  return r;
}

}  // namespace tw::test
