// SPDX-License-Identifier: Apache-2.0
// Shared fixtures of the discovery and server tests.
#pragma once

#include "base/ascii.h"
#include "core/udn.h"
#include "platform/socket.h"
#include "ssdp/ssdp_internal.h"
#include "support/test_support.h"

namespace tw::test {

using namespace std::chrono_literals;

// lo has no hardware address, so the MAC bytes are 0x42 each; an unset friendly name gives the
// check byte 0x69.
inline std::string Udn(const std::string& digits) {
  return "uuid:5" + digits + "1726e-7769-636b-5369-424242424242";
}
inline const std::string kServerUdn = Udn("50"), kRendererUdn = Udn("60"), kRuisUdn = Udn("70"),
                         kRuicUdn = Udn("80"), kMtpUdn = Udn("90");

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
inline std::string MaskDate(std::string text) {
  const std::string key = "\r\nDATE: ", shape = "Aaa, 00 Aaa 0000 00:00:00 AAA\r\n";
  for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
    std::string seen = text.substr(at + key.size(), shape.size());
    for (char& c : seen)
      c = ascii::IsUpper(c) ? 'A' : ascii::IsLower(c) ? 'a' : ascii::IsDigit(c) ? '0' : c;
    if (seen == shape && text.compare(at + 34, 3, "GMT") == 0) text.replace(at + 8, 29, "<date>");
  }
  return text;
}
// The value of header `name` of each datagram, or for "" its text with the date masked.
inline std::vector<std::string> Fields(const std::vector<Datagram>& got, const std::string& name) {
  std::vector<std::string> values;
  for (const Datagram& d : got)
    values.push_back(name.empty() ? MaskDate(d.text) : HeaderValue(d.text, name));
  return values;
}
// Everything that arrives until 300 ms pass without a datagram.
inline std::vector<Datagram> Drain(SsdpProbe& probe) { return probe.Collect(100, 5s, 300ms); }

// The calls of the Record<name> handlers, each as CallText gives it.
inline std::mutex g_calls_mutex;
inline std::vector<std::string> g_calls;
inline std::string CallText(char name, const void* server, const std::string& address, int port,
                            const std::string& text) {
  return std::string(1, name) + " " + std::to_string(reinterpret_cast<uintptr_t>(server)) + " " +
         address + ":" + std::to_string(port) + " " + text;
}
template <char kName>
int32_t Record(const char* text, upnp_server_data* server, const char* address, int32_t port) {
  std::lock_guard<std::mutex> lock(g_calls_mutex);
  g_calls.push_back(CallText(kName, server, address, port, text));
  return 0;
}
inline std::vector<std::string> CallsWith(const std::string& token) {
  std::lock_guard<std::mutex> lock(g_calls_mutex);
  std::vector<std::string> found;
  for (const std::string& call : g_calls) {
    if (call.find(token) != std::string::npos) found.push_back(call);
  }
  return found;
}

struct UdpSocket {
  int32_t fd = upnp_socket_create_udp();
  ~UdpSocket() { upnp_close_socket(&fd); }
  operator int32_t() const { return fd; }  // NOLINT(runtime/explicit)
};

inline upnp_ssdp_answer* NewAnswer(int32_t delay, int port, upnp_server_data* server,
                                   const std::string& target = "upnp:rootdevice") {
  auto* answer = static_cast<upnp_ssdp_answer*>(upnp_calloc_impl(1, sizeof(upnp_ssdp_answer)));
  *answer = {delay, "", "127.0.0.1", port, server, 0};
  std::snprintf(answer->target, sizeof(answer->target), "%s", target.c_str());
  return answer;
}

// Fresh settings (no start delay, data in a temporary directory) and discovery state.
class DiscoveryTest : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    upnp_ini_file_init();
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NMCMODE, "0");
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_APPDATA, dir_.path().c_str());
    ssdp::ResetSettingsForTesting();
    ssdp::ResetRequestsForTesting();
    ssdp::ClearHandlersForTesting();
    strIFblacklist[0] = '\0';
  }
  void TearDown() override {
    SSDP_exit();
    while (upnp_ini_file_is_initialized() != 0) upnp_ini_file_release();
    LeakCheck::TearDown();
  }
  TempDir dir_;
};

class SsdpTest : public DiscoveryTest {
 protected:
  void SetUp() override {
    DiscoveryTest::SetUp();
    ssdp::SetTickForTesting(0);
    core::ResetDeviceUdnsForTesting();
    __atomic_store_n(&g_nInstance, 0, __ATOMIC_RELAXED);
    address_ = ProcessLoopbackAddress();
    std::snprintf(record_.ip_address, sizeof(record_.ip_address), "%s", address_.c_str());
    record_.http_port = 9000;
    record_.http_socket = record_.ssdp_listen_socket = record_.ssdp_search_socket =
        record_.ssdp_notify_socket = -1;
    SetState(1);
    std::lock_guard<std::mutex> lock(g_calls_mutex);
    g_calls.clear();
    TW_REQUIRE_LOOPBACK_NAMESPACE();  // after the setup above, which the teardown expects
  }
  void TearDown() override {
    EndThreads();
    DiscoveryTest::TearDown();
  }
  static void SetState(int32_t s) { __atomic_store_n(&g_server_running, s, __ATOMIC_RELEASE); }
  static bool ThreadsEnd() {
    return WaitFor([] { return ssdp::RunningThreadsForTesting() == 0; });
  }
  void NextGeneration() { __atomic_add_fetch(&record_.stop_generation, 1, __ATOMIC_ACQ_REL); }
  // What a server stop does. Receives are woken by a shutdown and sockets closed once no thread
  // uses them, so no close races a receive.
  void EndThreads() {
    SetState(0);
    NextGeneration();
    for (const int32_t* slot : {&record_.ssdp_listen_socket, &record_.ssdp_search_socket}) {
      if (ssdp::LoadSocket(slot) > 0) shutdown(ssdp::LoadSocket(slot), SHUT_RDWR);
    }
    EXPECT_TRUE(ThreadsEnd());
    for (int32_t* slot :
         {&record_.ssdp_listen_socket, &record_.ssdp_search_socket, &record_.ssdp_notify_socket}) {
      upnp_close_socket(slot);
    }
  }
  std::string Location(const std::string& device) const {
    return "http://" + address_ + ":9000/" + device + "Description.xml";
  }

  std::string address_;
  upnp_server_data record_{};
};

}  // namespace tw::test
