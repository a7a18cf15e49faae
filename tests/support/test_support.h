// SPDX-License-Identifier: Apache-2.0
// Shared helpers of the unit tests, and the headers every test program uses.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/test_hooks.h"
#include "support/http_peer.h"
#include "support/ssdp_probe.h"
#include "tarnwick/upnp.h"

namespace tw::test {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

// Fails the test when accounted memory is not back to its start value after the test (derived
// fixtures call LeakCheck::TearDown last). A planned allocation failure never outlives the test.
class LeakCheck : public ::testing::Test {
 protected:
  void SetUp() override { start_ = upnp_mem_used(); }
  void TearDown() override {
    tw::platform::ClearAllocFailure();
    EXPECT_EQ(static_cast<int64_t>(upnp_mem_used()) - static_cast<int64_t>(start_), 0)
        << "accounted memory not released by the test";
  }
  uint32_t start_ = 0;
};

// Polls done every millisecond until it says yes or limit has passed: every wait of the tests
// goes through here, so none can hang. Never asks again after a yes (done may consume).
inline bool WaitFor(const std::function<bool()>& done,
                    std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Runs op with the n-th allocation failing for n = 0, 1, ... until it runs without the planned
// failure; check(result, failed) sees each result and must release it.
template <typename Op, typename Check>
void ForEachAllocFailure(Op op, Check check) {
  for (int n = 0; n < 64; ++n) {
    tw::platform::FailAllocAfter(n);
    auto result = op();
    const bool fired = tw::platform::AllocFailureFired();
    tw::platform::ClearAllocFailure();
    check(result, fired);
    if (!fired) return;
  }
  ADD_FAILURE() << "operation never completed";
}

// A fresh directory under $TMPDIR (or /tmp), removed with its contents on destruction.
class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string templ =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/twt.XXXXXX";
    path_ = mkdtemp(templ.data()) != nullptr ? templ : "";
    if (path_.empty()) ADD_FAILURE() << "mkdtemp failed for " << templ;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}
inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}
inline bool FileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

// Tests that open sockets skip unless lo is the only interface, so they never touch a network.
inline bool InLoopbackOnlyNamespace() {
  struct if_nameindex* names = if_nameindex();
  if (names == nullptr) return false;
  const bool only_lo =
      names[0].if_index != 0 && std::strcmp(names[0].if_name, "lo") == 0 && names[1].if_index == 0;
  if_freenameindex(names);
  return only_lo;
}

#define TW_REQUIRE_LOOPBACK_NAMESPACE()                                              \
  do {                                                                               \
    if (!::tw::test::InLoopbackOnlyNamespace())                                      \
      GTEST_SKIP() << "needs a loopback-only network namespace (run via make test)"; \
  } while (0)

// The log lines body writes at the given mode, as they reach standard output.
template <typename Body>
std::string Logged(uint32_t mode, Body&& body) {
  upnp_log_init(nullptr);
  upnp_log_set_mode(mode);
  testing::internal::CaptureStdout();
  body();
  std::string text = testing::internal::GetCapturedStdout();
  upnp_log_set_mode(0);
  upnp_log_exit();
  return text;
}

// The text of an accounted C string ("<null>" for none), which is freed.
inline std::string Str(char* text) {
  const std::string copy = text != nullptr ? text : "<null>";
  if (text != nullptr) upnp_free_impl(text);
  return copy;
}

// The text of a dynamic string ("<null>" for none or one without buffer), which is freed.
inline std::string Take(upnp_string* s) {
  std::string text = s != nullptr && s->buffer != nullptr ? std::string(s->buffer, s->length)
                                                          : std::string("<null>");
  upnp_string_free(s);
  return text;
}

// fn applied to each input, every result followed by ',': one comparison shows all the rows.
template <typename Fn>
std::string Results(Fn fn, std::initializer_list<const char*> inputs) {
  std::string got;
  for (const char* in : inputs) {
    const auto r = fn(in);
    if constexpr (std::is_arithmetic_v<decltype(r)>) {
      got += std::to_string(r) + ",";
    } else {
      got += std::string(r) + ",";
    }
  }
  return got;
}

// The value of the header line "name: value" in an HTTP or SSDP head, or "<none>".
inline std::string HeaderValue(const std::string& head, const std::string& name) {
  const size_t at = head.find("\r\n" + name + ": ");
  if (at == std::string::npos) return "<none>";
  const size_t from = at + name.size() + 4;
  return head.substr(from, head.find("\r\n", from) - from);
}

// Accounted HTTP requests.
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
