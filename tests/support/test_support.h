// SPDX-License-Identifier: Apache-2.0
// Shared helpers of the unit tests, and the headers every test program uses: test files add only
// the internal and operating-system headers they need beyond these.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/test_hooks.h"
#include "tarnwick/upnp.h"

namespace tw::test {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

// Fixture base: fails the test when accounted memory is not back to its start value after the
// test body and its own TearDown have run (derived fixtures call LeakCheck::TearDown last). A
// planned allocation failure never outlives the test.
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

// Polls done every millisecond until it says yes (true) or limit has passed (false).
// Every wait of the tests goes through here, so none can hang.
bool WaitFor(const std::function<bool()>& done,
             std::chrono::milliseconds limit = std::chrono::seconds(10));

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
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
bool FileExists(const std::string& path);

// True when the process sits in a network namespace whose only interface is "lo". Tests that
// open sockets GTEST_SKIP() otherwise, so they never touch a real network.
bool InLoopbackOnlyNamespace();

#define TW_REQUIRE_LOOPBACK_NAMESPACE()                                              \
  do {                                                                               \
    if (!::tw::test::InLoopbackOnlyNamespace())                                      \
      GTEST_SKIP() << "needs a loopback-only network namespace (run via make test)"; \
  } while (0)

// Captures the library's log lines: logging to standard output with the given mode while active.
// Stop returns what was written and switches the log off again.
class LogCapture {
 public:
  LogCapture() = default;
  ~LogCapture() {
    if (active_) Stop();
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void Start(uint32_t mode);
  std::string Stop();
  bool active() const { return active_; }

 private:
  bool active_ = false;
};

// Runs body with the log captured at the given mode and returns what it wrote.
template <typename Body>
std::string Logged(uint32_t mode, Body&& body) {
  LogCapture capture;
  capture.Start(mode);
  body();
  return capture.Stop();
}

// Frees an accounted C string when it leaves scope.
struct Owned {
  explicit Owned(char* p) : ptr(p) {}
  ~Owned() {
    if (ptr != nullptr) upnp_free_impl(ptr);
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  const char* get() const { return ptr; }
  std::string str() const { return ptr != nullptr ? std::string(ptr) : std::string("<null>"); }
  char* ptr;
};

// The text of a dynamic string ("<null>" for none or one without buffer), which is freed.
std::string Take(upnp_string* s);

// The value of the header line "name: value" in an HTTP or SSDP head, or "<none>".
std::string HeaderValue(const std::string& head, const std::string& name);

}  // namespace tw::test
