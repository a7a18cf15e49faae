// SPDX-License-Identifier: Apache-2.0
// Answers to M-SEARCH requests. The library hands every datagram of the multicast listener to
// the registered handlers; this one reads ST and MX and gives the answers to the library's queue,
// which sends them (three times, as UDP is lossy) from the interface the search came in on.
// Devices announcing themselves (NOTIFY ssdp:alive) go to the client database, which identifies
// them from their descriptions.
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "host.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/platform.h"
#include "tarnwick/ssdp.h"

namespace mediaserver {
namespace {

constexpr int32_t kMinMx = 1;
constexpr int32_t kMaxMx = 5;  // searchers may not ask for more than 5 s of spreading

// The value of header line "name:" (any case), blanks trimmed, or "".
std::string Header(const char* message, const char* name) {
  const size_t length = std::strlen(name);
  for (const char* line = std::strstr(message, "\r\n"); line != nullptr;
       line = std::strstr(line + 2, "\r\n")) {
    const char* start = line + 2;
    if (strncasecmp(start, name, length) != 0 || start[length] != ':') continue;
    const char* value = start + length + 1;
    while (*value == ' ' || *value == '\t') ++value;
    const char* end = std::strstr(value, "\r\n");
    std::string text(value, end != nullptr ? static_cast<size_t>(end - value) : std::strlen(value));
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.pop_back();
    return text;
  }
  return "";
}

int32_t OnDatagram(const char* message, upnp_server_data* server, const char* address,
                   int32_t port) {
  if (message == nullptr || server == nullptr) return 0;
  if (std::strncmp(message, "NOTIFY * ", 9) == 0) {
    // Examined on a thread of the library's; each device once per run.
    if (Header(message, "NTS") == "ssdp:alive") upnp_client_db_add_by_ssdp_alive(message);
    return 0;
  }
  if (std::strncmp(message, "M-SEARCH * ", 11) != 0) return 0;
  if (Header(message, "MAN") != "\"ssdp:discover\"") return 0;
  const std::string target = Header(message, "ST");
  if (target.empty() || target.size() >= sizeof(upnp_ssdp_answer::target)) return 0;
  int32_t mx = std::atoi(Header(message, "MX").c_str());
  if (mx < kMinMx) mx = kMinMx;
  if (mx > kMaxMx) mx = kMaxMx;

  auto* answer = static_cast<upnp_ssdp_answer*>(upnp_calloc_impl(1, sizeof(upnp_ssdp_answer)));
  if (answer == nullptr) return 0;
  // The queue answers at once and keeps an answer valid for `delay` seconds.
  answer->delay = mx;
  std::memcpy(answer->target, target.c_str(), target.size() + 1);
  std::strncpy(answer->address, address, sizeof(answer->address) - 1);
  answer->port = port;
  answer->server = server;
  Say("M-SEARCH from %s:%d for %s (MX %d)", address, static_cast<int>(port), target.c_str(),
      static_cast<int>(mx));
  SSDP_queue_notify_packet(answer);
  return 0;
}

}  // namespace

void RegisterSearchHandler() { upnp_ssdp_register_handler(&OnDatagram, "mediaserver M-SEARCH"); }

}  // namespace mediaserver
