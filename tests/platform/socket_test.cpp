// SPDX-License-Identifier: Apache-2.0
#include "platform/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "support/test_support.h"

namespace {

using ::testing::HasSubstr;
using tw::platform::SocketLocalPort;

struct Sock {  // closes through the library on scope exit
  explicit Sock(int32_t f = -1) : fd(f) {}
  ~Sock() { upnp_close_socket(&fd); }
  int32_t fd;
};

void ConnectedPair(Sock* client, Sock* server) {
  Sock listener(upnp_socket_create_tcp());
  ASSERT_EQ(upnp_socket_bind(listener.fd, "127.0.0.1", 0), 0);
  ASSERT_EQ(upnp_socket_listen(listener.fd), 0);
  client->fd = upnp_socket_create_tcp();
  ASSERT_EQ(upnp_socket_connect(client->fd, "127.0.0.1", SocketLocalPort(listener.fd)), 0);
  server->fd = upnp_socket_accept(listener.fd);
  ASSERT_GE(server->fd, 0);
}

using SocketTest = tw::test::LeakCheck;

TEST_F(SocketTest, TcpPeekConsumeRawPeerPortAndClose) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  Sock client, server;
  ASSERT_NO_FATAL_FAILURE(ConnectedPair(&client, &server));
  const std::string sent = "GET / HTTP/1.1\r\n\r\nbody";
  ASSERT_EQ(upnp_send(client.fd, sent.data(), 22), 22);
  char buf[64];
  ASSERT_EQ(upnp_recv(server.fd, buf, 18, UPNP_MSG_WAITALL), 18);  // the head alone
  EXPECT_EQ(std::string(buf, 18), sent.substr(0, 18));
  for (int32_t flags : {UPNP_MSG_PEEK, 0}) {  // a peek leaves the bytes for the next read
    ASSERT_EQ(upnp_recv(server.fd, buf, sizeof(buf), flags), 4);
    EXPECT_EQ(std::string(buf, 4), "body");
  }
  char address[UPNP_ADDRESS_TEXT_SIZE] = "x";
  int32_t raw_port = 0;
  ASSERT_EQ(upnp_util_get_peername(server.fd, address, &raw_port), 0);
  EXPECT_STREQ(address, "127.0.0.1");
  EXPECT_EQ(raw_port, htons(static_cast<uint16_t>(SocketLocalPort(client.fd))));

  // Closing marks the slot first; writing to the closed peer then ends in -1, not SIGPIPE.
  const int32_t old = server.fd;
  upnp_close_socket(&server.fd);
  EXPECT_EQ(server.fd, -1);
  EXPECT_EQ(fcntl(old, F_GETFD), -1);
  int64_t result = 0;
  for (int i = 0; i < 50 && result >= 0; ++i) result = upnp_send(client.fd, sent.data(), 22);
  EXPECT_EQ(result, -1);
  int32_t none = -1, zero = 0;
  upnp_close_socket(&none);
  const int stdin_flags = fcntl(0, F_GETFD);
  upnp_close_socket(&zero);
  EXPECT_EQ(zero, -1);
  EXPECT_EQ(fcntl(0, F_GETFD), stdin_flags) << "descriptor 0 must stay open";
}

TEST_F(SocketTest, SendSitsOutWouldBlockAndReturnsLastCallCount) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  Sock client, server;
  ASSERT_NO_FATAL_FAILURE(ConnectedPair(&client, &server));
  // Non-blocking with a small buffer: the data goes piecewise, with EAGAIN in between.
  ASSERT_EQ(fcntl(client.fd, F_SETFL, fcntl(client.fd, F_GETFL) | O_NONBLOCK), 0);
  const int small = 16 * 1024;
  setsockopt(client.fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  std::vector<unsigned char> data(1024 * 1024), got(data.size());
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i % 251);
  std::thread reader([&] { upnp_recv(server.fd, got.data(), 1024 * 1024, UPNP_MSG_WAITALL); });
  const int64_t last = upnp_send(client.fd, data.data(), static_cast<int64_t>(data.size()));
  upnp_close_socket(&client.fd);  // ends the reader even after a failed send
  reader.join();
  EXPECT_GT(last, 0);
  EXPECT_LT(last, static_cast<int64_t>(data.size())) << "the total came back, not the last count";
  EXPECT_TRUE(got == data) << "bytes lost or repeated between partial sends";
}

TEST_F(SocketTest, OptionsAndDatagramsWithHostOrderSenderAndEmptyPayload) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  Sock a(upnp_socket_create_udp()), b(upnp_socket_create_udp());
  timeval tv{};
  unsigned char byte_ttl = 0;
  socklen_t tv_size = sizeof(tv), byte_size = 1;
  ASSERT_EQ(setSockOptReceiveTimeout(a.fd, 2500), 0);
  ASSERT_EQ(getsockopt(a.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &tv_size), 0);
  EXPECT_EQ(tv.tv_sec * 1000000 + tv.tv_usec, 2500000);
  // The multicast TTL is one byte (300 -> 44); a refused interface is not an error.
  EXPECT_EQ(setSockOptMulticast(a.fd, 300, "bad"), 0);
  ASSERT_EQ(getsockopt(a.fd, IPPROTO_IP, IP_MULTICAST_TTL, &byte_ttl, &byte_size), 0);
  EXPECT_EQ(byte_ttl, 44);

  ASSERT_EQ(upnp_socket_bind(a.fd, "127.0.0.1", 0) + upnp_socket_bind(b.fd, "127.0.0.1", 0), 0);
  ASSERT_EQ(setSockOptReceiveTimeout(b.fd, 2000), 0);
  char data[16], from[UPNP_ADDRESS_TEXT_SIZE];
  int32_t from_port = 0;
  ASSERT_EQ(upnp_sendto(a.fd, "ping", 4, "127.0.0.1", SocketLocalPort(b.fd)), 4);
  ASSERT_EQ(upnp_recvfrom(b.fd, data, sizeof(data), from, &from_port), 4);
  EXPECT_STREQ(from, "127.0.0.1");
  EXPECT_EQ(from_port, SocketLocalPort(a.fd));
  ASSERT_EQ(upnp_sendto(a.fd, "", 0, "127.0.0.1", SocketLocalPort(b.fd)), 0);
  std::strcpy(from, "stale");
  EXPECT_EQ(upnp_recvfrom(b.fd, data, sizeof(data), from, &from_port), 0);
  EXPECT_STREQ(from, "");
  EXPECT_EQ(from_port, 0);
  EXPECT_EQ(upnp_sendto(a.fd, "x", 1, "300.1.2.3", SocketLocalPort(b.fd)), -1);
  EXPECT_STREQ(getLastSocketError(), std::strerror(EINVAL));
}

// Receiving group datagrams through this socket is covered by the SSDP listener tests.
TEST_F(SocketTest, SsdpListenerNeedsAnAddress) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  Sock listener(upnp_create_listen_socket("127.0.0.1"));
  EXPECT_GE(listener.fd, 0);
  EXPECT_EQ(upnp_create_listen_socket(nullptr), -1);  // leaves its socket open by design
}

TEST_F(SocketTest, UnknownHostFallsBackToLoopbackQuickly) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  char out[UPNP_ADDRESS_TEXT_SIZE];
  EXPECT_EQ(upnp_gethostbyname("127.1.2.3", out), 0);
  EXPECT_STREQ(out, "127.1.2.3");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(upnp_gethostbyname("no-such-host.invalid", out), -1);
  EXPECT_STREQ(out, "127.0.0.1");
  EXPECT_EQ(upnp_gethostbyname(nullptr, out), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace
