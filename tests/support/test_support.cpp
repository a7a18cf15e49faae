// SPDX-License-Identifier: Apache-2.0
#include "support/test_support.h"

#include <net/if.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace tw::test {

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {  // never asks again after a yes: done may consume what it looks at
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::string HeaderValue(const std::string& head, const std::string& name) {
  const size_t at = head.find("\r\n" + name + ": ");
  if (at == std::string::npos) return "<none>";
  const size_t from = at + name.size() + 4;
  return head.substr(from, head.find("\r\n", from) - from);
}

std::string Take(upnp_string* s) {
  std::string text = s != nullptr && s->buffer != nullptr ? std::string(s->buffer, s->length)
                                                          : std::string("<null>");
  upnp_string_free(s);
  return text;
}

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string templ =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/twtest.XXXXXX";
  char* made = mkdtemp(templ.data());
  if (made == nullptr) {
    ADD_FAILURE() << "mkdtemp failed for " << templ;
    return;
  }
  path_ = made;
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool FileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

void LogCapture::Start(uint32_t mode) {
  upnp_log_init(nullptr);
  upnp_log_set_mode(mode);
  testing::internal::CaptureStdout();
  active_ = true;
}

std::string LogCapture::Stop() {
  active_ = false;
  std::string text = testing::internal::GetCapturedStdout();
  upnp_log_set_mode(0);
  upnp_log_exit();
  return text;
}

bool InLoopbackOnlyNamespace() {
  struct if_nameindex* names = if_nameindex();
  if (names == nullptr) return false;
  bool only_lo = true;
  int count = 0;
  for (struct if_nameindex* it = names; it->if_index != 0; ++it) {
    ++count;
    if (std::strcmp(it->if_name, "lo") != 0) only_lo = false;
  }
  if_freenameindex(names);
  return only_lo && count == 1;
}

}  // namespace tw::test
