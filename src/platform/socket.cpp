// SPDX-License-Identifier: Apache-2.0
// Thin IPv4 socket wrappers. Addresses are dotted text at this boundary so that no caller above
// the platform layer ever needs a socket header.
#include "platform/socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "base/fixed_text.h"
#include "platform/log_hook.h"
#include "tarnwick/platform.h"

namespace tw::platform {

bool ParseIpv4(const char* text, uint32_t* address_out) noexcept {
  if (text == nullptr || address_out == nullptr) return false;
  in_addr parsed{};
  // inet_aton, like inet_addr, takes the short forms ("127.1") too, but reports bad text
  // instead of turning it into 255.255.255.255.
  if (inet_aton(text, &parsed) == 0) return false;
  *address_out = parsed.s_addr;
  return true;
}

int32_t SetTcpNoDelay(int32_t socket) noexcept {
  const int on = 1;
  return setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool WaitReadableUntil(int32_t socket, int64_t deadline_ms) noexcept {
  constexpr int64_t kMaxPollMs = 0x7fffffff;
  for (;;) {  // ends at the deadline at the latest: each round waits only for the time left
    const int64_t left = deadline_ms - getSystemTime();
    if (left <= 0) return false;
    pollfd waiting{socket, POLLIN, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(left < kMaxPollMs ? left : kMaxPollMs));
    if (ready > 0) return true;  // POLLHUP/POLLERR too: the receive then reports it
    if (ready == 0) continue;    // woke up a little early, or the wait was capped
    if (errno != EINTR) return false;
  }
}

int32_t SocketLocalPort(int32_t socket) noexcept {
  sockaddr_in local{};
  socklen_t length = sizeof(local);
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) != 0) return -1;
  if (local.sin_family != AF_INET) return -1;
  return ntohs(local.sin_port);
}

}  // namespace tw::platform

namespace {

constexpr int32_t kFail = -1;
constexpr int kListenBacklog = 128;
constexpr long kRetryPauseMs = 50;
constexpr char kSsdpGroup[] = "239.255.255.250";
constexpr int32_t kSsdpPort = 1900;
constexpr char kLoopback[] = "127.0.0.1";
// One send call never gets more than this, so a 64-bit length also works where size_t is 32 bits.
constexpr int64_t kMaxSendChunk = int64_t{1} << 30;

const char* OrNull(const char* text) noexcept { return text != nullptr ? text : "<null>"; }

bool MakeAddress(const char* text, int32_t port, sockaddr_in* out) noexcept {
  *out = sockaddr_in{};
  out->sin_family = AF_INET;
  out->sin_port = htons(static_cast<uint16_t>(port));
  if (tw::platform::ParseIpv4(text, &out->sin_addr.s_addr)) return true;
  errno = EINVAL;  // so getLastSocketError explains the -1
  return false;
}

// Writes dotted text into a UPNP_ADDRESS_TEXT_SIZE buffer (always fits: at most 15 characters).
void FormatAddress(in_addr address, char* out) noexcept {
  if (inet_ntop(AF_INET, &address, out, UPNP_ADDRESS_TEXT_SIZE) == nullptr) out[0] = '\0';
}

void PauseMs(long ms) noexcept {
  timespec left{ms / 1000, (ms % 1000) * 1000000L};
  // Bounded: every interrupted round sleeps on with what is left.
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

bool IsTransient(int error) noexcept {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

int MapRecvFlags(int32_t flags) noexcept {
  int mapped = 0;
  if ((flags & UPNP_MSG_PEEK) != 0) mapped |= MSG_PEEK;
  if ((flags & UPNP_MSG_WAITALL) != 0) mapped |= MSG_WAITALL;
  return mapped;
}

int32_t SetTimeout(int32_t socket, int option, int32_t ms) noexcept {
  timeval value{};
  value.tv_sec = ms / 1000;
  value.tv_usec = (ms % 1000) * 1000;
  return setsockopt(socket, SOL_SOCKET, option, &value, sizeof(value));
}

// glibc and bionic offer either the GNU strerror_r (returns the text) or the XSI one (fills buf).
[[maybe_unused]] const char* ErrorText(char* result, char*) noexcept { return result; }
[[maybe_unused]] const char* ErrorText(int result, char* buffer) noexcept {
  return result == 0 ? buffer : "Unknown error";
}

}  // namespace

namespace tw::platform {

void BlockBrokenPipeSignal() noexcept {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
}

void DropPendingBrokenPipe() noexcept {
  // Takes the SIGPIPE a failed sendfile left pending on this thread (blocked by
  // BlockBrokenPipeSignal); without the block there is nothing pending and this returns at once.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  const timespec no_wait{};
  sigtimedwait(&pipe, nullptr, &no_wait);
}

int64_t SendPair(int32_t socket, const void* first, int64_t first_length, const void* second,
                 int64_t second_length, bool more_follows) noexcept {
  if (socket < 0 || first_length < 0 || second_length < 0) return kFail;
  iovec pieces[2];
  int count = 0;
  for (const auto& [data, length] : {std::pair{first, first_length}, {second, second_length}}) {
    if (length > 0) pieces[count++] = {const_cast<void*>(data), static_cast<size_t>(length)};
  }
  msghdr message{};
  message.msg_iov = pieces;
  message.msg_iovlen = static_cast<size_t>(count);
  const int flags = MSG_NOSIGNAL | (more_follows ? MSG_MORE : 0);
  int64_t total = 0;
  // Retried like upnp_send; a partial write moves the pieces on and sends the rest.
  while (message.msg_iovlen > 0) {
    const ssize_t sent = sendmsg(socket, &message, flags);
    if (sent < 0) {
      if (IsTransient(errno)) {
        PauseMs(kRetryPauseMs);
        continue;
      }
      return kFail;
    }
    if (sent == 0) return kFail;  // cannot progress; never spin
    total += sent;
    size_t left = static_cast<size_t>(sent);
    while (message.msg_iovlen > 0 && left >= message.msg_iov[0].iov_len) {
      left -= message.msg_iov[0].iov_len;
      ++message.msg_iov;
      --message.msg_iovlen;
    }
    if (message.msg_iovlen > 0) {
      message.msg_iov[0].iov_base = static_cast<char*>(message.msg_iov[0].iov_base) + left;
      message.msg_iov[0].iov_len -= left;
    }
  }
  return total;
}

int64_t SendFileRange(int32_t socket, int32_t fd, int64_t offset, int64_t count) noexcept {
  if (socket < 0 || fd < 0 || offset < 0 || count < 0) return kFail;
  off64_t position = static_cast<off64_t>(offset);
  int64_t total = 0;
  while (total < count) {
    const int64_t remaining = count - total;
    const size_t chunk = static_cast<size_t>(remaining < kMaxSendChunk ? remaining : kMaxSendChunk);
    const ssize_t sent = sendfile64(socket, fd, &position, chunk);
    if (sent < 0) {
      if (IsTransient(errno)) {
        PauseMs(kRetryPauseMs);
        continue;
      }
      if (errno == EPIPE) DropPendingBrokenPipe();
      return kFail;
    }
    if (sent == 0) break;  // the file ended before the range did
    total += sent;
  }
  return total;
}

}  // namespace tw::platform

extern "C" {

TW_API int32_t upnp_socket_create_tcp(void) noexcept {
  return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

TW_API int32_t upnp_socket_create_udp(void) noexcept {
  return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

TW_API int32_t upnp_socket_bind(int32_t socket, const char* address, int32_t port) noexcept {
  sockaddr_in target;
  if (!MakeAddress(address, port, &target)) return kFail;
  return bind(socket, reinterpret_cast<const sockaddr*>(&target), sizeof(target));
}

TW_API int32_t upnp_socket_connect(int32_t socket, const char* address, int32_t port) noexcept {
  sockaddr_in target;
  if (!MakeAddress(address, port, &target)) return kFail;
  return connect(socket, reinterpret_cast<const sockaddr*>(&target), sizeof(target));
}

TW_API int32_t upnp_socket_listen(int32_t socket) noexcept {
  return listen(socket, kListenBacklog);
}

TW_API int32_t upnp_socket_accept(int32_t socket) noexcept {
  return accept4(socket, nullptr, nullptr, SOCK_CLOEXEC);
}

TW_API int32_t upnp_create_listen_socket(const char* interface_address) noexcept {
  const int32_t listener = upnp_socket_create_udp();
  if (listener < 0) {
    tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SSDP,
                      "LOG_SOCK:### upnp_socket_create_udp failed");
    return kFail;
  }
  setSockOptNoSignal(listener);
  setSockOptReuseAddr(listener);
  // On the two failures below the socket is intentionally left open: callers only ever see -1
  // and the listener is retried on the next start, so nothing else would close it either.
  if (upnp_socket_bind(listener, kSsdpGroup, kSsdpPort) < 0) {
    tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SSDP, "LOG_SOCK:### upnp_socket_bind failed");
    return kFail;
  }
  if (upnp_socket_setSockOptAddMembership(listener, kSsdpGroup, interface_address) < 0) {
    tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SSDP,
                      "LOG_SOCK:### setSockOptAddMembership failed");
    return kFail;
  }
  return listener;
}

TW_API void upnp_close_socket(int32_t* socket) noexcept {
  if (socket == nullptr) return;
  // Marked first and atomically: the watchdog and the owning thread may close the same slot,
  // and only the one that saw the old descriptor may close it.
  const int32_t old = __atomic_exchange_n(socket, -1, __ATOMIC_ACQ_REL);
  // 0 is standard input, never a socket of ours; a slot holding it is only reset.
  if (old <= 0) return;
  shutdown(old, SHUT_RDWR);
  close(old);
}

TW_API int64_t upnp_send(int32_t socket, const void* buffer, int64_t length) noexcept {
  if (socket < 0 || buffer == nullptr) return kFail;
  const char* bytes = static_cast<const char*>(buffer);
  int64_t total = 0;
  int64_t last = 0;
  // The transient-error retry has no count limit on purpose: a stuck peer is ended by the
  // socket time-out watchdog, whose close makes the next send fail for good.
  while (total < length) {
    const int64_t remaining = length - total;
    const size_t chunk = static_cast<size_t>(remaining < kMaxSendChunk ? remaining : kMaxSendChunk);
    const ssize_t sent = send(socket, bytes + total, chunk, MSG_NOSIGNAL);
    if (sent < 0) {
      if (IsTransient(errno)) {
        PauseMs(kRetryPauseMs);
        continue;
      }
      return kFail;
    }
    if (sent == 0) return 0;  // cannot progress; never spin
    last = sent;
    total += sent;
  }
  // The count of the final send call, not the total, as platform.h documents; the library's own
  // callers only test it for failure. Pinned by
  // SocketTest.SendSitsOutWouldBlockAndReturnsLastCallCount.
  return last;
}

TW_API int32_t upnp_recv(int32_t socket, void* buffer, int32_t length, int32_t flags) noexcept {
  if (socket < 0 || buffer == nullptr || length < 0) return kFail;
  const int system_flags = MapRecvFlags(flags);
  // As in upnp_send, the retry is unlimited by design; the watchdog bounds it.
  for (;;) {
    const ssize_t received = recv(socket, buffer, static_cast<size_t>(length), system_flags);
    if (received >= 0 || !IsTransient(errno)) return static_cast<int32_t>(received);
    PauseMs(kRetryPauseMs);
  }
}

TW_API int32_t upnp_sendto(int32_t socket, const void* buffer, int32_t length, const char* address,
                           int32_t port) noexcept {
  if (buffer == nullptr || length < 0) return kFail;
  sockaddr_in target;
  if (!MakeAddress(address, port, &target)) return kFail;
  return static_cast<int32_t>(sendto(socket, buffer, static_cast<size_t>(length), 0,
                                     reinterpret_cast<const sockaddr*>(&target), sizeof(target)));
}

TW_API int32_t upnp_recvfrom(int32_t socket, void* buffer, int32_t length, char* address_out,
                             int32_t* port_out) noexcept {
  int32_t received = kFail;
  sockaddr_in sender{};
  if (buffer != nullptr && length >= 0) {
    socklen_t sender_length = sizeof(sender);
    received =
        static_cast<int32_t>(recvfrom(socket, buffer, static_cast<size_t>(length), MSG_NOSIGNAL,
                                      reinterpret_cast<sockaddr*>(&sender), &sender_length));
  }
  if (received > 0) {
    if (address_out != nullptr) FormatAddress(sender.sin_addr, address_out);
    if (port_out != nullptr) *port_out = ntohs(sender.sin_port);
  } else {
    if (address_out != nullptr) address_out[0] = '\0';
    if (port_out != nullptr) *port_out = 0;
  }
  return received;
}

TW_API int32_t upnp_util_get_peername(int32_t socket, char* address_out,
                                      int32_t* port_out) noexcept {
  sockaddr_in peer{};
  socklen_t peer_length = sizeof(peer);
  const int32_t result = getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &peer_length);
  if (result != 0 || peer.sin_family != AF_INET) {
    if (address_out != nullptr) address_out[0] = '\0';
    if (port_out != nullptr) *port_out = 0;
    return result != 0 ? result : kFail;
  }
  if (address_out != nullptr) FormatAddress(peer.sin_addr, address_out);
  // Intended: the port stays in network byte order here, unlike upnp_recvfrom (platform.h says
  // so); a caller converting it would otherwise convert twice. Pinned by
  // SocketTest.TcpPeekConsumeRawPeerPortAndClose.
  if (port_out != nullptr) *port_out = peer.sin_port;
  return result;
}

TW_API int32_t setSockOptReuseAddr(int32_t socket) noexcept {
  const int on = 1;
  return setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
}

TW_API int32_t upnp_setSockOptReuseAddr(int32_t socket) noexcept {
  return setSockOptReuseAddr(socket);
}

TW_API int32_t setSockOptReceiveTimeout(int32_t socket, int32_t ms) noexcept {
  return SetTimeout(socket, SO_RCVTIMEO, ms);
}

TW_API int32_t setSockOptSendTimeout(int32_t socket, int32_t ms) noexcept {
  return SetTimeout(socket, SO_SNDTIMEO, ms);
}

TW_API int32_t setSockOptMulticast(int32_t socket, int32_t ttl,
                                   const char* interface_address) noexcept {
  in_addr outgoing{};
  if (!tw::platform::ParseIpv4(interface_address, &outgoing.s_addr) ||
      setsockopt(socket, IPPROTO_IP, IP_MULTICAST_IF, &outgoing, sizeof(outgoing)) != 0) {
    // Not fatal: user-mode emulators refuse this option, and with a route for the group the
    // kernel still picks a usable source address.
    tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SSDP,
                      "setSockOptMulticast cannot use interface %s: %s", OrNull(interface_address),
                      getLastSocketError());
  }
  const unsigned char ttl_byte = static_cast<unsigned char>(ttl);
  return setsockopt(socket, IPPROTO_IP, IP_MULTICAST_TTL, &ttl_byte, sizeof(ttl_byte));
}

TW_API int32_t upnp_socket_setSockOptAddMembership(int32_t socket, const char* group,
                                                   const char* interface_address) noexcept {
  tw::platform::Log(UPNP_LOG_LEVEL_INFO, UPNP_LOG_SSDP,
                    "### joining SSDP multicast group %s on if %s ", OrNull(group),
                    OrNull(interface_address));
  ip_mreq request{};
  if (!tw::platform::ParseIpv4(group, &request.imr_multiaddr.s_addr) ||
      !tw::platform::ParseIpv4(interface_address, &request.imr_interface.s_addr)) {
    errno = EINVAL;
    return kFail;
  }
  return setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request));
}

TW_API int32_t setSockOptTTL(int32_t socket, int32_t ttl) noexcept {
  const int value = ttl;
  setsockopt(socket, IPPROTO_IP, IP_TTL, &value, sizeof(value));
  int read_back = 0;
  socklen_t length = sizeof(read_back);
  return getsockopt(socket, IPPROTO_IP, IP_TTL, &read_back, &length);
}

TW_API int32_t setSockOptNoSignal(int32_t) noexcept { return 0; }
TW_API int32_t setSockOptAVPriority(int32_t) noexcept { return 0; }
TW_API int32_t setSockOptInteractivePriority(int32_t) noexcept { return 0; }
TW_API int32_t setSockOptBackgroundPriority(int32_t) noexcept { return 0; }

TW_API char* upnp_inet_ntoa(uint32_t address, char* out, int32_t size) noexcept {
  if (out == nullptr || size <= 0) return nullptr;
  in_addr value{};
  value.s_addr = address;
  if (inet_ntop(AF_INET, &value, out, static_cast<socklen_t>(size)) == nullptr) return nullptr;
  return out;
}

TW_API int32_t upnp_gethostname(char* out, int32_t size) noexcept {
  if (out == nullptr || size <= 0) return kFail;
  const int32_t result = gethostname(out, static_cast<size_t>(size));
  out[size - 1] = '\0';  // a cut name is not terminated by every libc
  return result;
}

TW_API int32_t upnp_gethostbyname(const char* name, char* out) noexcept {
  if (out == nullptr) return kFail;
  in_addr found{};
  bool resolved = tw::platform::ParseIpv4(name, &found.s_addr);
  if (!resolved && name != nullptr && name[0] != '\0') {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    // With no IPv4 network besides loopback there is nobody to ask, and the fallback below is
    // the loopback address anyway; this keeps an offline host from waiting on name servers.
    hints.ai_flags = AI_ADDRCONFIG;
    addrinfo* results = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &results) == 0 && results != nullptr &&
        results->ai_addr != nullptr && results->ai_family == AF_INET) {
      found = reinterpret_cast<const sockaddr_in*>(results->ai_addr)->sin_addr;
      resolved = true;
    }
    if (results != nullptr) freeaddrinfo(results);
  }
  if (!resolved) {
    tw::CopyCut(out, UPNP_ADDRESS_TEXT_SIZE, kLoopback);
    tw::platform::Log(UPNP_LOG_LEVEL_PROBLEM, UPNP_LOG_SYSTEM,
                      "upnp_gethostbyname cannot get IP of %s, return local IP ",
                      name != nullptr ? name : "");
    return kFail;
  }
  FormatAddress(found, out);
  return 0;
}

TW_API const char* getLastSocketError(void) noexcept {
  const int error = errno;
  thread_local char text[128];
  const char* result = ErrorText(strerror_r(error, text, sizeof(text)), text);
  errno = error;
  return result;
}

}  // extern "C"
