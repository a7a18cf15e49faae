// SPDX-License-Identifier: Apache-2.0
#include "core/socket_watchdog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/un.h>

#include "core/core.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlackMs = 200;  // instrumented builds start threads and log more slowly
#else
constexpr int kSlackMs = 0;
#endif

void SetServerState(int32_t state) { __atomic_store_n(&g_server_running, state, __ATOMIC_RELEASE); }

int64_t MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A connected local stream pair; ends still open are closed on destruction.
struct Pair {
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
  ~Pair() {
    for (int f : fd) {
      if (f >= 0) close(f);
    }
  }
  // The watchdog (or a release) closed end 0: the other end sees the end of the stream.
  bool FirstEndClosed(int wait_ms = 50) {
    pollfd p{fd[1], POLLIN, 0};
    char byte;
    return poll(&p, 1, wait_ms) == 1 && recv(fd[1], &byte, 1, MSG_DONTWAIT) == 0;
  }
  bool FirstEndWorks() {
    return send(fd[1], "x", 1, MSG_NOSIGNAL) == 1 && recv(fd[0], buffer, 1, 0) == 1;
  }
  int fd[2] = {-1, -1};
  char buffer[1];
};

class SocketWatchdog : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    // An earlier test in this process may have ended its watchdog on an empty list.
    ASSERT_TRUE(tw::core::ForgetEndedWatchdogForTesting());
    tw::core::CreateGlobalLock();
    SetServerState(1);
  }
  void TearDown() override {
    SetServerState(0);
    EXPECT_TRUE(
        WaitFor([] { return tw::core::LiveWatchdogThreads() == 0; }, std::chrono::seconds(5)));
    tw::core::ForgetEndedWatchdogForTesting();
    tw::core::DestroyGlobalLock();
    LeakCheck::TearDown();
  }
  std::vector<int32_t> Pending() {
    int32_t sockets[16];
    const int32_t n = tw::core::PendingSocketTimeouts(sockets, 16);
    return std::vector<int32_t>(sockets, sockets + std::max(0, std::min(n, 16)));
  }
};

// Deadlines an hour ahead never fire; the labels stand for sockets and are never closed.
TEST_F(SocketWatchdog, ListOrderPutsEqualHeadsInFrontAndLaterEqualsBehind) {
  const uint64_t base = static_cast<uint64_t>(getSystemTime()) + 3600 * 1000;
  // {offsets armed in turn (socket i + 1 for offset i), sockets in list order}
  const std::pair<std::vector<uint64_t>, std::vector<int32_t>> cases[] = {
      {{5, 5, 5}, {3, 2, 1}},
      {{1, 5, 5, 5}, {1, 2, 3, 4}},
      {{30, 10, 20}, {2, 3, 1}},
      {{10, 20, 15, 20, 5, 10}, {5, 1, 6, 3, 2, 4}},
      {{7}, {1}},
  };
  for (const auto& [offsets, order] : cases) {
    std::vector<tw::core::SocketTimeout*> handles;
    for (size_t i = 0; i < offsets.size(); ++i) {
      handles.push_back(
          tw::core::EnforceSocketTimeoutAt(base + offsets[i], static_cast<int32_t>(i + 1)));
      ASSERT_NE(handles.back(), nullptr);
    }
    EXPECT_EQ(Pending(), order) << "offsets[0]=" << offsets[0];
    for (auto* h : handles) EXPECT_EQ(upnp_release_socket_timeout(h, 0), 0u);
    EXPECT_TRUE(Pending().empty());
  }
}

TEST_F(SocketWatchdog, RefusalsAndReleasesBeforeTheDeadline) {
  const std::string log = Logged(UPNP_LOG_SYSTEM, [] {
    EXPECT_EQ(upnp_enforce_socket_timeout(0, 5), nullptr);
    EXPECT_EQ(upnp_enforce_socket_timeout(100, -1), nullptr);
  });
  const std::string line = "[Error] - LOG_SYSTEM: createSocketTimeout(): Invalid parameters";
  EXPECT_NE(log.find(line), log.rfind(line)) << "two lines expected:\n" << log;
  EXPECT_EQ(upnp_release_socket_timeout(nullptr, 1), 0u);
  // {close_socket, result}: the socket is closed exactly when the result is 1.
  for (const auto& [close_socket, result] : {std::pair{0, 0u}, std::pair{1, 1u}}) {
    Pair pair;
    void* handle = upnp_enforce_socket_timeout(5000, pair.fd[0]);
    ASSERT_NE(handle, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(upnp_release_socket_timeout(handle, close_socket), result);
    if (result == 1) {
      EXPECT_TRUE(pair.FirstEndClosed());
      pair.fd[0] = -1;
    } else {
      EXPECT_TRUE(pair.FirstEndWorks());
    }
  }
}

// A receive blocked on an armed socket returns once the watchdog closes it; the release then
// reports the socket gone without touching it.
TEST_F(SocketWatchdog, ClosesABlockedSocketWhenItsDeadlinePasses) {
  Pair pair;
  void* handle = nullptr;
  int64_t blocked_ms = -1;
  const std::string log = Logged(UPNP_LOG_SYSTEM, [&] {
    const auto start = Clock::now();
    handle = upnp_enforce_socket_timeout(100, pair.fd[0]);
    ASSERT_NE(handle, nullptr);
    char byte;
    EXPECT_LE(recv(pair.fd[0], &byte, 1, 0), 0);
    blocked_ms = MsSince(start);
    // The line is written just after the close, with nothing to wait on: give it a moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  });
  pair.fd[0] = -1;
  EXPECT_GE(blocked_ms, 95);
  EXPECT_LE(blocked_ms, 100 + 300 + kSlackMs);
  EXPECT_THAT(log, HasSubstr("[Problem] - LOG_SYSTEM: releaseSocketTimeout(): Socket closed by "
                             "thread"));
  EXPECT_EQ(upnp_release_socket_timeout(handle, 0), 1u);
  EXPECT_EQ(tw::core::LiveWatchdogThreads(), 1) << "the thread polls on while the server runs";
}

// A connect that the peer never answers (its accept queue is full, so the SYN is dropped) is
// cut off by the watchdog within the deadline and one poll.
TEST_F(SocketWatchdog, CutsOffAConnectThatIsNeverAnswered) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = LoopbackAddress(0);
  socklen_t length = sizeof(address);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const int port = ntohs(address.sin_port);
  HttpPeer queued;  // fills the accept queue of one
  ASSERT_TRUE(queued.Connect(port));

  const int32_t s = upnp_socket_create_tcp();
  const auto start = Clock::now();
  void* handle = upnp_enforce_socket_timeout(100, s);
  ASSERT_NE(handle, nullptr);
  const int32_t connected = upnp_socket_connect(s, "127.0.0.1", port);
  const int64_t took = MsSince(start);
  EXPECT_EQ(upnp_release_socket_timeout(handle, connected != 0), 1u);
  EXPECT_NE(connected, 0);
  EXPECT_GE(took, 95);
  EXPECT_LE(took, 100 + 300 + kSlackMs) << "cut-off after " << took << " ms";
  close(listener);
}

// With the server stopped the thread forgets pending deadlines unfired: the socket stays open,
// and the release (which finds nothing) says 1 all the same.
TEST_F(SocketWatchdog, StoppedServerNeverClosesArmedSockets) {
  SetServerState(0);
  Pair pair;
  void* handle = upnp_enforce_socket_timeout(50, pair.fd[0]);
  ASSERT_NE(handle, nullptr);
  ASSERT_TRUE(WaitFor([] { return tw::core::LiveWatchdogThreads() == 0; }));
  EXPECT_FALSE(tw::core::WatchdogFlagSet()) << "a stop with deadlines pending clears the flag";
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(pair.FirstEndWorks());
  EXPECT_TRUE(Pending().empty());
  EXPECT_EQ(upnp_release_socket_timeout(handle, 0), 1u);
  EXPECT_TRUE(pair.FirstEndWorks());
}

// A thread that ended on an empty list leaves the flag set: no thread is started again in this
// process, so later deadlines never fire, yet a release still finds and frees them.
TEST_F(SocketWatchdog, NoNewThreadAfterOneEndedOnAnEmptyList) {
  Pair pair;
  ASSERT_EQ(upnp_release_socket_timeout(upnp_enforce_socket_timeout(5000, pair.fd[0]), 0), 0u);
  ASSERT_EQ(tw::core::LiveWatchdogThreads(), 1);
  SetServerState(0);
  ASSERT_TRUE(WaitFor([] { return tw::core::LiveWatchdogThreads() == 0; }));
  EXPECT_TRUE(tw::core::WatchdogFlagSet());
  SetServerState(1);
  void* handle = upnp_enforce_socket_timeout(50, pair.fd[0]);
  ASSERT_NE(handle, nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_EQ(tw::core::LiveWatchdogThreads(), 0);
  EXPECT_TRUE(pair.FirstEndWorks());
  EXPECT_EQ(upnp_release_socket_timeout(handle, 0), 0u);
}

// Without the global lock nothing is armed; a lock that went away meanwhile drops the list and
// the release reports 1, leaving the socket open.
TEST_F(SocketWatchdog, MissingGlobalLock) {
  Pair pair;
  const uint64_t later = static_cast<uint64_t>(getSystemTime()) + 3600 * 1000;
  void* first = tw::core::EnforceSocketTimeoutAt(later, pair.fd[0]);
  void* second = tw::core::EnforceSocketTimeoutAt(later, pair.fd[0]);
  ASSERT_TRUE(first != nullptr && second != nullptr);
  tw::core::DestroyGlobalLock();
  EXPECT_EQ(upnp_enforce_socket_timeout(100, pair.fd[0]), nullptr);
  EXPECT_EQ(upnp_release_socket_timeout(first, 1), 1u);  // both records dropped, none closed
  EXPECT_EQ(upnp_release_socket_timeout(second, 1), 1u);
  EXPECT_TRUE(pair.FirstEndWorks());
}

}  // namespace
