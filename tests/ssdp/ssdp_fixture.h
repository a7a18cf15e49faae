// SPDX-License-Identifier: Apache-2.0
// Shared fixture of the discovery tests: fresh configuration, settings and registry per test, a
// server record on this process's own loopback address, and a teardown that ends every
// discovery thread before accounted memory is checked.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "server/udn.h"
#include "ssdp/ssdp_internal.h"
#include "support/ssdp_probe.h"
#include "support/test_support.h"
#include "tarnwick/config.h"
#include "tarnwick/log.h"
#include "tarnwick/server.h"
#include "tarnwick/ssdp.h"

namespace tw::test {

using namespace std::chrono_literals;

// UDNs in the test namespace: lo has no hardware address, so the MAC bytes are 0x42 each, and
// an unset friendly name gives the check byte 0x69.
inline std::string Udn(const std::string& digits) {
  return "uuid:5" + digits + "1726e-7769-636b-5369-424242424242";
}
inline const std::string kServerUdn = Udn("50"), kRendererUdn = Udn("60"), kRuisUdn = Udn("70"),
                         kRuicUdn = Udn("80"), kMtpUdn = Udn("90");

inline bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

inline const std::string kServer =
    "\r\nSERVER: Linux/2.x.x, UPnP/1.0, ktConnect UPnP SDK/1.0, Tarnwick UPnP SDK/1.1";
inline std::string Alive(const std::string& location, const std::string& nt, const std::string& usn,
                         unsigned beat = 1810) {
  return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=" +
         std::to_string(beat) + "\r\nLOCATION: " + location + "\r\nNT: " + nt +
         "\r\nNTS: ssdp:alive" + kServer + "\r\nUSN: " + usn + "\r\n\r\n";
}
inline std::string Byebye(const std::string& nt, const std::string& usn) {
  return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNT: " + nt +
         "\r\nNTS: ssdp:byebye\r\nUSN: " + usn + "\r\n\r\n";
}
// A search answer with <date> for its DATE value (see MaskDate).
inline std::string Answer(const std::string& location, const std::string& st,
                          const std::string& usn) {
  return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1810\r\nDATE: <date>\r\nEXT:\r\nLOCATION: " +
         location + kServer + "\r\nST: " + st + "\r\nUSN: " + usn + "\r\nContent-Length: 0\r\n\r\n";
}
// Writes <date> for a DATE value that is a whole HTTP date; any other value stays as it is.
inline std::string MaskDate(const std::string& text) {
  const size_t start = text.find("\r\nDATE: ") + 8, end = text.find("\r\n", start);
  if (start < 8 || end == std::string::npos) return text;
  const std::string value = text.substr(start, end - start);
  std::tm parsed{};
  const char* rest = strptime(value.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parsed);
  if (value.size() != 29 || rest == nullptr || *rest != '\0') return text;
  return text.substr(0, start) + "<date>" + text.substr(end);
}
// The value of the header line "name: value", or "<none>"; of each datagram.
inline std::string Field(const std::string& text, const std::string& name) {
  const size_t at = text.find("\r\n" + name + ": ");
  if (at == std::string::npos) return "<none>";
  const size_t start = at + name.size() + 4;
  return text.substr(start, text.find("\r\n", start) - start);
}
inline std::vector<std::string> Fields(const std::vector<Datagram>& got, const std::string& name) {
  std::vector<std::string> values;
  for (const Datagram& d : got) values.push_back(Field(d.text, name));
  return values;
}

class SsdpTest : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    upnp_ini_file_init();
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NMCMODE, "0");
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_APPDATA, dir_.path().c_str());
    ssdp::ResetSettingsForTesting();
    ssdp::ResetRequestsForTesting();
    ssdp::ClearHandlersForTesting();
    ssdp::SetTickForTesting(0);
    server::ResetDeviceUdnsForTesting();
    strIFblacklist[0] = '\0';
    address_ = ProcessLoopbackAddress();
    std::snprintf(record_.ip_address, sizeof(record_.ip_address), "%s", address_.c_str());
    record_.http_port = 9000;
    record_.http_socket = record_.ssdp_listen_socket = record_.ssdp_search_socket =
        record_.ssdp_notify_socket = -1;
    SetState(1);
  }
  void TearDown() override {
    EndThreads();
    if (capturing_) StopLog();
    SSDP_exit();
    while (upnp_ini_file_is_initialized() != 0) upnp_ini_file_release();
    LeakCheck::TearDown();
  }
  static void SetState(int32_t state) {
    __atomic_store_n(&g_server_running, state, __ATOMIC_RELEASE);
  }
  // What a server stop does; then every discovery thread must end within 10 s. Blocked receives
  // are woken by a shutdown and descriptors closed only when no thread uses them any more, so
  // the thread sanitizer sees no close racing a receive.
  void EndThreads() {
    SetState(0);
    __atomic_add_fetch(&record_.stop_generation, 1, __ATOMIC_ACQ_REL);
    for (const int32_t* slot : {&record_.ssdp_listen_socket, &record_.ssdp_search_socket}) {
      if (ssdp::LoadSocket(slot) > 0) shutdown(ssdp::LoadSocket(slot), SHUT_RDWR);
    }
    EXPECT_TRUE(WaitFor([] { return ssdp::RunningThreadsForTesting() == 0; }));
    for (int32_t* slot :
         {&record_.ssdp_listen_socket, &record_.ssdp_search_socket, &record_.ssdp_notify_socket}) {
      upnp_close_socket(slot);
    }
  }
  // SSDP and system log lines go to standard output while captured.
  void StartLog() {
    upnp_log_init(nullptr);
    upnp_log_set_mode(UPNP_LOG_SSDP | UPNP_LOG_SYSTEM);
    testing::internal::CaptureStdout();
    capturing_ = true;
  }
  std::string StopLog() {
    capturing_ = false;
    std::string text = testing::internal::GetCapturedStdout();
    upnp_log_set_mode(0);
    upnp_log_exit();
    return text;
  }
  std::string Location(const std::string& path) const {
    return "http://" + address_ + ":9000" + path;
  }

  TempDir dir_;
  std::string address_;
  upnp_server_data record_{};
  bool capturing_ = false;
};

}  // namespace tw::test
