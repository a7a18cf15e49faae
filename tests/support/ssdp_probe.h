// SPDX-License-Identifier: Apache-2.0
// A receiver for SSDP traffic on lo, for tests that compare datagrams byte for byte. Every
// receive ends at a deadline.
#pragma once

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
 public:
  // kGroup: bound to 239.255.255.250:1900 (address reuse) and joined to the group on lo.
  // kUnicast: bound to 127.0.0.1 on a free port.
  enum Mode { kGroup, kUnicast };
  explicit SsdpProbe(Mode mode = kGroup);
  ~SsdpProbe();
  SsdpProbe(const SsdpProbe&) = delete;
  SsdpProbe& operator=(const SsdpProbe&) = delete;

  bool ok() const { return fd_ >= 0; }
  int port() const { return port_; }
  // Datagrams from other senders are dropped unseen.
  void OnlyFrom(const std::string& address) { only_from_ = address; }
  // Up to max datagrams; stops when limit has passed or none came for quiet.
  std::vector<Datagram> Collect(size_t max, std::chrono::milliseconds limit,
                                std::chrono::milliseconds quiet = std::chrono::hours(1));
  bool Silent(std::chrono::milliseconds period) { return Collect(1, period).empty(); }

 private:
  int fd_ = -1;
  int port_ = 0;
  std::string only_from_;
};

// This test process's own loopback address, 127.0.0.2 .. 127.0.0.251 from the process id: test
// programs running side by side in one namespace see each other's group traffic and tell theirs
// apart by the sender.
std::string ProcessLoopbackAddress();

}  // namespace tw::test
