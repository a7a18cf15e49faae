// SPDX-License-Identifier: Apache-2.0
// What the HTTP tests share: their common includes and a few helpers.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/test_hooks.h"
#include "support/http_peer.h"
#include "support/test_support.h"
#include "tarnwick/http.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

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

// The value of header `name` in a response head ("<missing>" without it).
inline std::string HeaderValue(const std::string& head, const std::string& name) {
  const size_t at = head.find("\r\n" + name + ": ");
  if (at == std::string::npos) return "<missing>";
  const size_t from = at + name.size() + 4;
  return head.substr(from, head.find("\r\n", from) - from);
}

// The text of s ("<null>" for none), which is freed.
inline std::string Take(upnp_string* s) {
  const std::string out =
      s != nullptr && s->buffer != nullptr ? std::string(s->buffer, s->length) : "<null>";
  upnp_string_free(s);
  return out;
}

// The HTTP log written while it lives, read back by Text().
class HttpLog {
 public:
  HttpLog() {
    EXPECT_EQ(upnp_log_init(dir_.File("http.log").c_str()), 1);
    upnp_log_set_mode(UPNP_LOG_HTTP);
  }
  std::string Text() {
    upnp_log_exit();
    upnp_log_set_mode(0);
    return ReadFile(dir_.File("http.log"));
  }

 private:
  TempDir dir_;
};

}  // namespace tw::test
