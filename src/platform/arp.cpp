// SPDX-License-Identifier: Apache-2.0
// ARP-table requests. Every failure is an ordinary "no entry": the loopback interface never has
// neighbours, and emulators may not implement the request at all.
#include "platform/arp.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "platform/socket.h"

namespace tw::platform {

bool ArpQuery(const char* peer, int32_t if_index, uint8_t mac[kHardwareAddressSize]) noexcept {
  if (peer == nullptr || mac == nullptr || if_index < 0) return false;
  char name[IF_NAMESIZE] = {};
  if (if_indextoname(static_cast<unsigned>(if_index), name) == nullptr) return false;
  uint32_t address = 0;
  if (!ParseIpv4(peer, &address)) return false;

  arpreq request{};
  auto* protocol = reinterpret_cast<sockaddr_in*>(&request.arp_pa);
  protocol->sin_family = AF_INET;
  protocol->sin_addr.s_addr = address;
  std::memcpy(request.arp_dev, name,
              sizeof(request.arp_dev) < sizeof(name) ? sizeof(request.arp_dev) : sizeof(name));
  request.arp_dev[sizeof(request.arp_dev) - 1] = '\0';

  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const int result = ioctl(fd, SIOCGARP, &request);
  close(fd);
  if (result != 0) return false;
  std::memcpy(mac, request.arp_ha.sa_data, kHardwareAddressSize);
  return true;
}

}  // namespace tw::platform
