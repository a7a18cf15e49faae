// SPDX-License-Identifier: Apache-2.0
#include "core/socket_watchdog.h"

#include "core/core.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlackMs = 200;  // instrumented builds start threads more slowly
#else
constexpr int kSlackMs = 0;
#endif

std::vector<int32_t> Pending() {
  int32_t sockets[16];
  const int32_t n = tw::core::PendingSocketTimeouts(sockets, 16);
  return std::vector<int32_t>(sockets, sockets + std::clamp(n, 0, 16));
}

// The server runs unless a test stops it. fd_ is a local stream pair; end 0 is the armed one.
class SocketWatchdog : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd_), 0);
    tw::core::CreateGlobalLock();
    __atomic_store_n(&g_server_running, 1, __ATOMIC_RELEASE);
  }
  void TearDown() override {  // a thread stopped with a deadline pending lets the next one start

    tw::core::EnforceSocketTimeoutAt(UINT64_MAX, -1);
    __atomic_store_n(&g_server_running, 0, __ATOMIC_RELEASE);
    EXPECT_TRUE(WaitFor([] { return Pending().empty(); }));
    tw::core::DestroyGlobalLock();
    close(fd_[1]);
    if (fd_[0] >= 0) close(fd_[0]);
    LeakCheck::TearDown();
  }
  bool Passes() {  // whether a byte still goes from end 1 to end 0
    char byte;
    return send(fd_[1], "x", 1, MSG_NOSIGNAL) == 1 && recv(fd_[0], &byte, 1, 0) == 1;
  }
  int fd_[2] = {-1, -1};
};

// Deadlines an hour ahead never fire; the labels stand for sockets and are never closed. Equal to
// the head goes in front, further down behind its equals.
TEST_F(SocketWatchdog, OrderRefusalsAndReleases) {
  const uint64_t base = static_cast<uint64_t>(getSystemTime()) + 3600 * 1000;
  // {deadline offsets armed in turn for sockets 101, 102, ..., the sockets in list order}
  const std::pair<std::vector<uint64_t>, std::vector<int32_t>> cases[] = {
      {{5, 5, 5}, {103, 102, 101}},
      {{1, 5, 5, 5}, {101, 102, 103, 104}},
      {{10, 20, 15, 20, 5, 10}, {105, 101, 106, 103, 102, 104}},
  };
  for (const auto& [offsets, order] : cases) {
    std::vector<tw::core::SocketTimeout*> handles;
    for (const uint64_t at : offsets) {
      handles.push_back(tw::core::EnforceSocketTimeoutAt(base + at, 101 + int32_t(handles.size())));
    }
    EXPECT_EQ(Pending(), order);
    for (auto* handle : handles) EXPECT_EQ(upnp_release_socket_timeout(handle, 0), 0u);
  }
  const std::string log = Logged(UPNP_LOG_SYSTEM, [] {
    EXPECT_EQ(upnp_enforce_socket_timeout(0, 5), nullptr);
    EXPECT_EQ(upnp_enforce_socket_timeout(100, -1), nullptr);
  });
  const std::string line = "[Error] - LOG_SYSTEM: createSocketTimeout(): Invalid parameters";
  EXPECT_NE(log.find(line), log.rfind(line)) << "two lines expected:\n" << log;
  // 0: still open and the caller's; 1: closed now.
  EXPECT_EQ(upnp_release_socket_timeout(upnp_enforce_socket_timeout(5000, fd_[0]), 0), 0u);
  EXPECT_TRUE(Passes());
  // With the server stopped the thread forgets pending deadlines unfired: the socket stays open,
  // and the release, finding nothing, says 1 all the same.
  __atomic_store_n(&g_server_running, 0, __ATOMIC_RELEASE);
  void* handle = upnp_enforce_socket_timeout(50, fd_[0]);
  ASSERT_TRUE(handle != nullptr && WaitFor([] { return Pending().empty(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(upnp_release_socket_timeout(handle, 0), 1u);
  EXPECT_TRUE(Passes());
  __atomic_store_n(&g_server_running, 1, __ATOMIC_RELEASE);
  EXPECT_EQ(upnp_release_socket_timeout(upnp_enforce_socket_timeout(5000, fd_[0]), 1), 1u);
  EXPECT_FALSE(Passes());
  fd_[0] = -1;
}

// A connect the peer never answers (its accept queue is full, so the SYN is dropped) is cut off
// within the deadline and one poll; the send time-out only bounds the test should that fail.
TEST_F(SocketWatchdog, CutsOffAConnectThatIsNeverAnswered) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = LoopbackAddress(0);
  socklen_t length = sizeof(address);
  ASSERT_TRUE(bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
              listen(listener, 0) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0);
  HttpPeer queued;  // fills the queue
  ASSERT_TRUE(queued.Connect(ntohs(address.sin_port)));
  const int32_t s = upnp_socket_create_tcp();
  setSockOptSendTimeout(s, 3000);
  TempDir dir;
  ASSERT_EQ(upnp_log_init(dir.File("log").c_str()), 1);
  upnp_log_set_mode(UPNP_LOG_SYSTEM);
  const auto start = std::chrono::steady_clock::now();
  void* handle = upnp_enforce_socket_timeout(100, s);
  EXPECT_NE(upnp_socket_connect(s, "127.0.0.1", ntohs(address.sin_port)), 0);
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(upnp_release_socket_timeout(handle, 0), 1u) << "not closed by the watchdog";
  EXPECT_GE(took.count(), 95);
  EXPECT_LE(took.count(), 100 + 300 + kSlackMs);
  // The line follows the close without anything to wait on; the log file is written at once.
  EXPECT_TRUE(WaitFor([&] {
    return ReadFile(dir.File("log"))
               .find(
                   "[Problem] - LOG_SYSTEM: releaseSocketTimeout(): "
                   "Socket closed by thread") != std::string::npos;
  }));
  upnp_log_set_mode(0);
  upnp_log_exit();
  close(listener);
}

}  // namespace
