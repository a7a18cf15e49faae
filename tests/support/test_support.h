// SPDX-License-Identifier: Apache-2.0
// Shared helpers for the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tarnwick/platform.h"

namespace tw::test {

// Fixture base: fails the test when accounted memory is not back to its start value after the
// test body and its own TearDown have run (derived fixtures call LeakCheck::TearDown last).
class LeakCheck : public ::testing::Test {
 protected:
  void SetUp() override { start_ = upnp_mem_used(); }
  void TearDown() override {
    EXPECT_EQ(static_cast<int64_t>(upnp_mem_used()) - static_cast<int64_t>(start_), 0)
        << "accounted memory not released by the test";
  }
  uint32_t start_ = 0;
};

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

}  // namespace tw::test
