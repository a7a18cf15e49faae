// SPDX-License-Identifier: Apache-2.0
// Timings of the server core, inside the private loopback namespace (scripts/run-bench.sh):
//   start-up: upnp_server_start until the HTTP port answers a GET;
//   search answer: an M-SEARCH sent to the group until the first answer datagram arrives, with
//   a host handler that answers through the library's queue (as the example media server does).
// A plain timed program: each figure is the median (and spread) of repeated runs.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "server/server_core.h"
#include "tarnwick/config.h"
#include "tarnwick/http.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/server.h"
#include "tarnwick/ssdp.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kStartRuns = 30;
constexpr int kSearchRuns = 200;
constexpr int kTimeoutMs = 3000;

double Micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

int32_t Pong(HttpRequest* request) {
  request->mime_type = "text/plain";
  request->content_length = 4;
  return HTTP_send(request, "pong");
}

// One GET; true when a 200 came back.
bool Answers(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = false;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    const char request[] = "GET /ping HTTP/1.1\r\nHost: b\r\nConnection: close\r\n\r\n";
    send(fd, request, sizeof(request) - 1, MSG_NOSIGNAL);
    char buffer[512];
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, kTimeoutMs) == 1) {
      const ssize_t got = recv(fd, buffer, sizeof(buffer) - 1, 0);
      ok = got > 12 && std::strncmp(buffer, "HTTP/1.1 200", 12) == 0;
    }
  }
  close(fd);
  return ok;
}

int32_t AnswerSearch(const char* message, upnp_server_data* server, const char* address,
                     int32_t port) {
  if (std::strncmp(message, "M-SEARCH * ", 11) != 0) return 0;
  const char* st = std::strstr(message, "\r\nST: ");
  if (st == nullptr) return 0;
  st += 6;
  const char* end = std::strstr(st, "\r\n");
  if (end == nullptr || end - st >= 128) return 0;
  auto* answer = static_cast<upnp_ssdp_answer*>(upnp_calloc_impl(1, sizeof(upnp_ssdp_answer)));
  if (answer == nullptr) return 0;
  answer->delay = 1;
  std::memcpy(answer->target, st, static_cast<size_t>(end - st));
  std::snprintf(answer->address, sizeof(answer->address), "%s", address);
  answer->port = port;
  answer->server = server;
  SSDP_queue_notify_packet(answer);
  return 0;
}

struct Spread {
  double median, low, p90, high;
};
Spread Summarise(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return {values[n / 2], values.front(), values[(n * 9) / 10], values.back()};
}

bool InLoopbackNamespace() {
  struct if_nameindex* names = if_nameindex();
  if (names == nullptr) return false;
  bool only_lo = true;
  for (struct if_nameindex* entry = names; entry->if_index != 0; ++entry) {
    if (std::strcmp(entry->if_name, "lo") != 0) only_lo = false;
  }
  if_freenameindex(names);
  return only_lo;
}

bool MeasureStartup() {
  std::vector<double> runs;
  for (int run = 0; run < kStartRuns; ++run) {
    const Clock::time_point began = Clock::now();
    upnp_server_start(&g_server_running);
    const int port = getHTTPServerData(0)->http_port;
    bool up = false;
    for (int attempt = 0; attempt < 1000 && !up; ++attempt) up = Answers(port);
    const Clock::time_point answered = Clock::now();
    upnp_server_stop(&g_server_running);
    if (!up) {
      std::printf("start-up: the HTTP port never answered\n");
      return false;
    }
    runs.push_back(Micros(answered - began));
  }
  const Spread s = Summarise(runs);
  std::printf(
      "server start-up until the HTTP port answers (%d runs): median %.0f us  "
      "(min %.0f, p90 %.0f, max %.0f)\n",
      kStartRuns, s.median, s.low, s.p90, s.high);
  return true;
}

bool MeasureSearch() {
  upnp_ssdp_isMediaServer();
  upnp_ssdp_register_handler(&AnswerSearch, "bench");
  upnp_server_start(&g_server_running);
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local));
  sockaddr_in group{};
  group.sin_family = AF_INET;
  group.sin_port = htons(1900);
  inet_pton(AF_INET, "239.255.255.250", &group.sin_addr);
  const std::string search =
      "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\n"
      "ST: urn:schemas-upnp-org:device:MediaServer:1\r\n\r\n";
  // The listener must be in place before the first search counts.
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
  while (__atomic_load_n(&getHTTPServerData(0)->ssdp_listen_socket, __ATOMIC_ACQUIRE) == -1 &&
         Clock::now() < deadline) {
    usleep(1000);
  }
  std::vector<double> runs;
  char buffer[2048];
  for (int run = 0; run < kSearchRuns; ++run) {
    const Clock::time_point sent = Clock::now();
    sendto(fd, search.data(), search.size(), 0, reinterpret_cast<sockaddr*>(&group), sizeof(group));
    bool answered = false;
    pollfd p{fd, POLLIN, 0};
    while (!answered && poll(&p, 1, kTimeoutMs) == 1) {
      const ssize_t got = recv(fd, buffer, sizeof(buffer) - 1, 0);
      if (got <= 0) break;
      buffer[got] = '\0';
      answered = std::strncmp(buffer, "HTTP/1.1 200 OK", 15) == 0;
    }
    if (!answered) {
      std::printf("search answer: no answer within %d ms\n", kTimeoutMs);
      close(fd);
      upnp_server_stop(&g_server_running);
      return false;
    }
    runs.push_back(Micros(Clock::now() - sent));
    // The queue sends each answer three times; let the copies go before the next search.
    pollfd q{fd, POLLIN, 0};
    while (poll(&q, 1, 20) == 1) recv(fd, buffer, sizeof(buffer), 0);
  }
  close(fd);
  upnp_server_stop(&g_server_running);
  const Spread s = Summarise(runs);
  std::printf(
      "M-SEARCH until the first answer arrives (%d searches): median %.0f us  "
      "(min %.0f, p90 %.0f, max %.0f)\n",
      kSearchRuns, s.median, s.low, s.p90, s.high);
  return true;
}

}  // namespace

int main() {
  if (!InLoopbackNamespace()) {
    std::printf("server bench: run inside the loopback-only namespace (scripts/run-bench.sh)\n");
    return 1;
  }
  upnp_mem_init();
  upnp_log_init(nullptr);
  upnp_log_set_mode(0);
  upnp_ini_file_init();
  char data[] = "/tmp/tw-server-bench-XXXXXX";
  if (mkdtemp(data) == nullptr) return 1;
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_APPDATA, data);
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NMCMODE, "0");
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "127.0.0.1");
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_HTTPPORT, "19500");
  upnp_http_register_handler(&Pong, HTTP_METHOD_GET, "/ping", 0, 0);
  // Stop's 200 ms pause is not part of any figure here; shortening it only shortens the run.
  tw::server::SetStopPauseForTesting(20);
  const bool ok = MeasureStartup() && MeasureSearch();
  http_unregister_all_handlers();
  upnp_ini_file_release();
  std::remove((std::string(data) + "/tmsbyebye").c_str());
  rmdir(data);
  return ok ? 0 : 1;
}
