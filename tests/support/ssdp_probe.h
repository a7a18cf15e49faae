// SPDX-License-Identifier: Apache-2.0
// A receiver for SSDP traffic on lo, for tests that compare datagrams byte for byte.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace tw::test {

struct Datagram {
  std::string text;
  int port = 0;  // sender's port
  std::chrono::steady_clock::time_point at;
};

class SsdpProbe {
  using milliseconds = std::chrono::milliseconds;

 public:
  // kGroup: 239.255.255.250:1900, joined on lo (address reuse); kUnicast: 127.0.0.1, a free port.
  enum Mode { kGroup, kUnicast };
  explicit SsdpProbe(Mode mode = kGroup) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    ip_mreq join{};
    inet_pton(AF_INET, "239.255.255.250", &join.imr_multiaddr);
    inet_pton(AF_INET, "127.0.0.1", &join.imr_interface);
    const int on = 1;
    socklen_t length = sizeof(local);
    bool ready = fd_ >= 0;
    if (ready && mode == kGroup) {
      local.sin_port = htons(1900);
      local.sin_addr = join.imr_multiaddr;
      ready = setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
              bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0 &&
              setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof(join)) == 0;
    } else if (ready) {
      local.sin_addr = join.imr_interface;
      ready = bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0 &&
              getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length) == 0;
    }
    port_ = ntohs(local.sin_port);
    if (!ready && fd_ >= 0) close(fd_);
    if (!ready) fd_ = -1;
  }
  ~SsdpProbe() {
    if (fd_ >= 0) close(fd_);
  }
  SsdpProbe(const SsdpProbe&) = delete;
  SsdpProbe& operator=(const SsdpProbe&) = delete;

  bool ok() const { return fd_ >= 0; }
  int port() const { return port_; }
  void OnlyFrom(const std::string& address) { only_from_ = address; }
  // Up to max datagrams; stops when limit has passed or none came for quiet.
  std::vector<Datagram> Collect(size_t max, milliseconds limit,
                                milliseconds quiet = std::chrono::hours(1)) {
    std::vector<Datagram> got;
    std::vector<char> buffer(65536);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (fd_ >= 0 && got.size() < max) {
      const auto left =
          std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd wait{fd_, POLLIN, 0};
      if (left.count() < 0 || poll(&wait, 1, static_cast<int>(std::min(left, quiet).count())) != 1)
        break;
      sockaddr_in sender{};
      socklen_t length = sizeof(sender);
      const ssize_t size = recvfrom(fd_, buffer.data(), buffer.size(), 0,
                                    reinterpret_cast<sockaddr*>(&sender), &length);
      char from[INET_ADDRSTRLEN] = "";
      inet_ntop(AF_INET, &sender.sin_addr, from, sizeof(from));
      if (size < 0 || (!only_from_.empty() && only_from_ != from)) continue;
      got.push_back({std::string(buffer.data(), static_cast<size_t>(size)), ntohs(sender.sin_port),
                     std::chrono::steady_clock::now()});
    }
    return got;
  }
  bool Silent(milliseconds period) { return Collect(1, period).empty(); }

 private:
  int fd_ = -1;
  int port_ = 0;
  std::string only_from_;
};

// This process's own loopback address: test programs running side by side see each other's group
// traffic and tell theirs apart by the sender.
inline std::string ProcessLoopbackAddress() {
  return "127.0.0." + std::to_string(2 + getpid() % 250);
}

}  // namespace tw::test
