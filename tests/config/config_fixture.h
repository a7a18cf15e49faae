// SPDX-License-Identifier: Apache-2.0
// Shared fixture of the config tests: a fresh table per test, released before the leak check.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_support.h"
#include "tarnwick/config.h"
#include "tarnwick/log.h"

namespace tw::test {

class ConfigTest : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    upnp_ini_file_init();
  }
  void TearDown() override {
    while (upnp_ini_file_is_initialized() != 0) upnp_ini_file_release();
    upnp_log_set_mode(0);
    LeakCheck::TearDown();
  }
  static std::string Value(uint32_t key) {
    const char* v = upnp_ini_file_getString(key);
    return v != nullptr ? std::string(v) : std::string("<null>");
  }
  static int32_t Parse(std::vector<std::string> args, const std::string& program = "prog") {
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (auto& s : args) argv.push_back(s.data());
    return upnp_ini_file_parse_cmdline(static_cast<int32_t>(args.size()), argv.data());
  }
  // Log to a file; LogText() closes it and returns what was written.
  void StartLog() {
    ASSERT_EQ(upnp_log_init(dir_.File("test.log").c_str()), 1);
    upnp_log_set_mode(UPNP_LOG_SYSTEM);
  }
  std::string LogText() {
    upnp_log_exit();
    return ReadFile(dir_.File("test.log"));
  }
  TempDir dir_;
};

// UTF-16LE bytes of a Latin-1 text.
inline std::string Utf16le(const std::string& latin1) {
  std::string out;
  for (char c : latin1) out += std::string{c, '\0'};
  return out;
}

}  // namespace tw::test
