// SPDX-License-Identifier: Apache-2.0
// Received SSDP datagrams through the road the listener and the search thread run per datagram:
// the registered handlers, then the answers of the queue that are due. The input is one or more
// datagrams split at zero bytes (a handler sees a datagram only up to its first zero byte
// anyway), each cut at 1024 bytes as the listener cuts them. The host handler is the example
// media server's: an M-SEARCH with MAN "ssdp:discover" queues an answer for its ST, delayed by
// its MX; alive announcements and search answers go through the reader the client database
// examines announcing devices with. Nothing reaches a socket: discovery's send is replaced by a
// sink that checks every answer. Checks the fields read, the answers' framing, address and
// count, that overdue answers stay queued and that every accounted byte comes back.
#include <strings.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "clientdb/identify.h"
#include "ssdp/ssdp_internal.h"
#include "tarnwick/platform.h"
#include "tarnwick/ssdp.h"

namespace {

constexpr size_t kMaxDatagrams = 8;
constexpr int32_t kMinMx = 1;
constexpr int32_t kMaxMx = 5;
constexpr int32_t kOverdue = -1;
constexpr int32_t kFirstSenderPort = 40000;
constexpr char kSender[] = "127.0.0.1";
constexpr int kSendsPerAnswer = 3;
constexpr size_t kLocationMax = 255;
constexpr size_t kAddressMax = 19;
constexpr size_t kUdnCutFrom = 9;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

upnp_server_data g_record;

// What the handlers of the current input did.
struct Round {
  int32_t calls = 0;  // calls of the second handler
  const char* message = nullptr;
  size_t message_length = 0;
  // By sender port - kFirstSenderPort: the target and delay of the answer queued for that
  // datagram (no target: none), and the packets sent to that port.
  std::vector<std::string> targets;
  std::vector<int32_t> delays;
  std::vector<int32_t> packets;
};
Round g_round;

// The value of header line "name:" (any case), blanks trimmed, or "" (the example's reader).
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

bool Blank(char c) { return static_cast<unsigned char>(c) <= 32; }

// The device an announcement or a search answer names, as the client database reads it from
// the first 1023 bytes: the location and the address start behind the first "http://", the UDN
// is a "uuid:" text of the packet; each part is a terminated copy within its limit.
void ReadDevice(const char* message) {
  const std::string packet(message, strnlen(message, 1023));
  const char* http = strcasestr(packet.c_str(), "http://");
  tw::clientdb::Announcement device;
  const bool ok = device.Read(message);
  Check(!ok || (device.location != nullptr && device.ip != nullptr && device.udn != nullptr));
  if (http == nullptr) {
    Check(device.location == nullptr && device.ip == nullptr && device.udn == nullptr);
    return;
  }
  if (device.location != nullptr) {
    const size_t n = std::strlen(device.location);
    Check(n >= 7 && n <= kLocationMax && std::strncmp(device.location, http, n) == 0);
    for (size_t i = 0; i < n; ++i) Check(!Blank(device.location[i]));
    Check(n == kLocationMax || Blank(http[n]));
  }
  if (device.ip != nullptr) {
    const size_t n = std::strlen(device.ip);
    Check(n <= kAddressMax && std::strncmp(device.ip, http + 7, n) == 0);
    Check(std::strpbrk(device.ip, ":/") == nullptr);
  }
  if (device.udn != nullptr) {
    Check(device.ip != nullptr);
    const size_t n = std::strlen(device.udn);
    Check(n >= 5 && std::strncmp(device.udn, "uuid:", 5) == 0);
    Check(packet.find(device.udn) != std::string::npos);
    for (size_t i = 0; i < n; ++i) {
      Check(static_cast<unsigned char>(device.udn[i]) >= 32);
      Check(i < kUdnCutFrom || device.udn[i] != ':');
    }
  }
}

// The example media server's handler. Unlike the example, an MX below 1 queues an answer that is
// overdue at once, so the queue's keeping of overdue answers runs too.
int32_t OnDatagram(const char* message, upnp_server_data* server, const char* address,
                   int32_t port) {
  Check(message != nullptr && server == &g_record && address != nullptr);
  if (std::strncmp(message, "NOTIFY * ", 9) == 0) {
    if (Header(message, "NTS") == "ssdp:alive") ReadDevice(message);
    return 0;
  }
  if (std::strncmp(message, "HTTP/1.1 200", 12) == 0) {
    ReadDevice(message);
    return 0;
  }
  if (std::strncmp(message, "M-SEARCH * ", 11) != 0) return 0;
  if (Header(message, "MAN") != "\"ssdp:discover\"") return 0;
  const std::string target = Header(message, "ST");
  if (target.empty() || target.size() >= sizeof(upnp_ssdp_answer::target)) return 0;
  int32_t mx = std::atoi(Header(message, "MX").c_str());
  if (mx < kMinMx) mx = kOverdue;
  if (mx > kMaxMx) mx = kMaxMx;

  auto* answer = static_cast<upnp_ssdp_answer*>(upnp_calloc_impl(1, sizeof(upnp_ssdp_answer)));
  Check(answer != nullptr);
  answer->delay = mx;
  std::memcpy(answer->target, target.c_str(), target.size() + 1);
  std::strncpy(answer->address, address, sizeof(answer->address) - 1);
  answer->port = port;
  answer->server = server;
  const size_t slot = static_cast<size_t>(port - kFirstSenderPort);
  g_round.targets.at(slot) = target;
  g_round.delays.at(slot) = mx;
  SSDP_queue_notify_packet(answer);
  return 0;
}

// A second handler: it runs after the first on the same, unchanged text.
int32_t AfterDatagram(const char* message, upnp_server_data*, const char*, int32_t) {
  Check(message == g_round.message && std::strlen(message) == g_round.message_length);
  ++g_round.calls;
  return 0;
}

// Where discovery's datagrams go instead of a socket: only search answers of this input's
// queued answers may come, each a framed packet for its target to its searcher.
int32_t Sink(int32_t, const char* data, int32_t length, const char* address,
             int32_t port) noexcept {
  Check(length > 0 && static_cast<size_t>(length) == std::strlen(data));
  Check(length < tw::ssdp::kPacketSize);
  const std::string packet(data, static_cast<size_t>(length));
  Check(packet.compare(0, 17, "HTTP/1.1 200 OK\r\n") == 0);
  Check(packet.size() >= 4 && packet.compare(packet.size() - 4, 4, "\r\n\r\n") == 0);
  Check(std::strcmp(address, kSender) == 0);
  const size_t slot = static_cast<size_t>(port - kFirstSenderPort);
  Check(port >= kFirstSenderPort && slot < g_round.targets.size());
  const std::string& target = g_round.targets[slot];
  Check(!target.empty());
  if (target != "ssdp:all") {
    Check(packet.find("\r\nST: " + target + "\r\n") != std::string::npos);
  }
  ++g_round.packets[slot];
  return length;
}

int64_t NowMs() { return getSystemTime(); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every role answers, so a search target can select entries of each list.
  upnp_ssdp_isMediaServer();
  upnp_ssdp_isRenderer();
  upnp_ssdp_hasRemoteUIServer(1);
  upnp_ssdp_hasRemoteUIClient(1);
  upnp_ssdp_hasMediaTransferProtocol(1);
  tw::ssdp::SetSendForTesting(Sink);
  upnp_ssdp_register_handler(OnDatagram, "fuzz host");
  upnp_ssdp_register_handler(AfterDatagram, "fuzz observer");
  std::snprintf(g_record.ip_address, sizeof(g_record.ip_address), "%s", kSender);
  g_record.http_port = 9000;
  g_record.http_socket = g_record.ssdp_listen_socket = g_record.ssdp_search_socket =
      g_record.ssdp_notify_socket = -1;
  SSDP_init();
  tw::ssdp::PrepareUdns();  // made once, kept for the process: outside the accounting below
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint32_t start = upnp_mem_used();
  const char* text = reinterpret_cast<const char*>(data);
  // The datagrams, each in a block of its own size so reading past its end is caught.
  std::vector<std::vector<char>> datagrams;
  for (size_t at = 0; at <= size && datagrams.size() < kMaxDatagrams;) {
    const size_t n = strnlen(text + at, size - at);
    const size_t kept = n < static_cast<size_t>(tw::ssdp::kReceiveSize)
                            ? n
                            : static_cast<size_t>(tw::ssdp::kReceiveSize);
    std::vector<char> datagram(text + at, text + at + kept);
    datagram.push_back('\0');
    datagrams.push_back(std::move(datagram));
    at += n + 1;
  }

  g_round = Round{};
  g_round.targets.resize(datagrams.size());
  g_round.delays.resize(datagrams.size());
  g_round.packets.resize(datagrams.size());
  int32_t overdue = 0;
  for (size_t i = 0; i < datagrams.size(); ++i) {
    g_round.message = datagrams[i].data();
    g_round.message_length = datagrams[i].size() - 1;
    const int64_t before = NowMs();
    tw::ssdp::HandleDatagram(g_round.message, &g_record, kSender,
                             kFirstSenderPort + static_cast<int32_t>(i));
    const bool quick = NowMs() - before < 1000;
    Check(g_round.calls == static_cast<int32_t>(i + 1));
    const bool answered = !g_round.targets[i].empty();
    const int32_t packets = g_round.packets[i];
    Check(packets % kSendsPerAnswer == 0 && (answered || packets == 0));
    // An answer is sent until its due time; an overdue one stays queued, unsent, and one due
    // later goes out at once (unless the handling took so long that it came due meanwhile).
    if (answered && g_round.delays[i] < 0) {
      Check(packets == 0);
      ++overdue;
    } else if (answered && quick && g_round.targets[i] == "ssdp:all") {
      Check(packets > 0);  // every role answers everything
    }
    Check(quick ? tw::ssdp::QueuedAnswersForTesting() == overdue
                : tw::ssdp::QueuedAnswersForTesting() >= overdue);
  }
  SSDP_queue_clear();
  Check(tw::ssdp::QueuedAnswersForTesting() == 0);
  g_round = Round{};
  Check(upnp_mem_used() == start);
  return 0;
}
