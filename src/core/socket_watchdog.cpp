// SPDX-License-Identifier: Apache-2.0
// The socket time-out watchdog. The pending list is read and changed only under the global lock;
// the thread holds that lock for one peek, one pop or its exit check, never while it closes a
// socket or sleeps. When the global lock has gone away (a stop), every list operation drops the
// whole list without closing any socket: the sockets are then their owners' again.
#include "core/socket_watchdog.h"

#include <atomic>

#include "core/core.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"

namespace tw::core {
namespace {

// The head of the pending list, earliest deadline first. Guarded by the global lock, except that
// a drop (lock gone) detaches the whole list with one exchange, so two droppers never share a
// record.
SocketTimeout* g_pending = nullptr;
// Set when the watchdog thread was started; see WatchdogMain for when it is cleared.
std::atomic<int32_t> g_watchdog_running{0};

SocketTimeout* Head() noexcept { return __atomic_load_n(&g_pending, __ATOMIC_ACQUIRE); }
void SetHead(SocketTimeout* head) noexcept { __atomic_store_n(&g_pending, head, __ATOMIC_RELEASE); }

bool ServerRunning() noexcept { return __atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE) == 1; }

// Frees every record without closing its socket.
void DropList() noexcept {
  SocketTimeout* record = __atomic_exchange_n(&g_pending, nullptr, __ATOMIC_ACQ_REL);
  while (record != nullptr) {
    SocketTimeout* next = record->next;
    upnp_free_impl(record);
    record = next;
  }
}

// Under the global lock. A record whose deadline equals the head's goes in front of the head, but
// further down it goes behind its equals: that asymmetry is intended and kept.
void Insert(SocketTimeout* record) noexcept {
  SocketTimeout* head = Head();
  if (head == nullptr || head->deadline >= record->deadline) {
    record->next = head;
    SetHead(record);
    return;
  }
  SocketTimeout* before = head;
  while (before->next != nullptr && before->next->deadline <= record->deadline) {
    before = before->next;
  }
  record->next = before->next;
  before->next = record;
}

// Under the global lock: unlinks record when it is pending; false when it is not.
bool Unlink(const SocketTimeout* record) noexcept {
  SocketTimeout* head = Head();
  if (head == record) {
    SetHead(head->next);
    return true;
  }
  for (SocketTimeout* before = head; before != nullptr; before = before->next) {
    if (before->next == record) {
      before->next = record->next;
      return true;
    }
  }
  return false;
}

// Shuts the socket down both ways and closes it; a connect or receive blocked on it returns.
void CloseSocket(int32_t socket) noexcept {
  int32_t slot = socket;
  upnp_close_socket(&slot);
}

// The head's deadline, or 0 for an empty list or a missing lock (the list is dropped then).
uint64_t PeekDeadline() noexcept {
  GlobalLockGuard lock;
  if (!lock.held()) {
    DropList();
    return 0;
  }
  const SocketTimeout* head = Head();
  return head != nullptr ? head->deadline : 0;
}

enum class Pop { kRecord, kNotDue, kEmpty };

// Takes the head off the list when its deadline has passed. Only a due record is taken: a head
// that changed since the peek (its record released, a later one behind it) waits its turn.
Pop PopDue(uint64_t now, SocketTimeout** out) noexcept {
  GlobalLockGuard lock;
  if (!lock.held()) {
    DropList();
    return Pop::kEmpty;
  }
  SocketTimeout* head = Head();
  if (head == nullptr) return Pop::kEmpty;
  if (head->deadline > now) return Pop::kNotDue;
  SetHead(head->next);
  *out = head;
  return Pop::kRecord;
}

// The thread ends when the server stops or the list empties between a peek and a pop. It
// deliberately leaves g_watchdog_running set when it ends on an empty list: later deadlines are
// then never enforced by a thread in this process (release still frees them).
void* WatchdogMain(void*) {
  upnp_init_thread("SocketRelease");
  for (;;) {
    while (ServerRunning()) {
      const uint64_t deadline = PeekDeadline();
      if (deadline == 0) {
        Sleep(static_cast<int32_t>(kWatchdogPollMs));
        continue;
      }
      const auto now = static_cast<uint64_t>(getSystemTime());
      if (deadline > now) {
        const uint64_t wait = deadline - now;
        Sleep(static_cast<int32_t>(wait < kWatchdogPollMs ? wait : kWatchdogPollMs));
        continue;
      }
      SocketTimeout* due = nullptr;
      const Pop popped = PopDue(now, &due);
      if (popped == Pop::kEmpty) break;
      if (popped == Pop::kNotDue) continue;
      CloseSocket(due->socket);
      upnp_free_impl(due);
      upnp_log_problem_impl(UPNP_LOG_SYSTEM, "releaseSocketTimeout(): Socket closed by thread");
    }
    GlobalLockGuard lock;
    if (!lock.held()) {
      g_watchdog_running.store(0);
      DropList();
      break;
    }
    if (Head() == nullptr) break;  // the flag stays set (see above)
    if (ServerRunning()) continue;
    g_watchdog_running.store(0);
    DropList();
    break;
  }
  return nullptr;
}

}  // namespace

SocketTimeout* EnforceSocketTimeoutAt(uint64_t deadline, int32_t socket) noexcept {
  auto* record = static_cast<SocketTimeout*>(upnp_calloc_impl(1, sizeof(SocketTimeout)));
  if (record == nullptr) {
    upnp_log_err_impl(UPNP_LOG_SYSTEM, "createSocketTimeout(): Failed to allocate %u bytes",
                      static_cast<unsigned>(sizeof(SocketTimeout)));
    return nullptr;
  }
  record->socket = socket;
  record->deadline = deadline;
  GlobalLockGuard lock;
  if (!lock.held()) {
    upnp_free_impl(record);
    return nullptr;
  }
  Insert(record);
  if (g_watchdog_running.load() == 0) {
    g_watchdog_running.store(1);
    upnp_start_thread(WatchdogMain, nullptr, kWatchdogThreadLevel);
  }
  return record;
}

SocketTimeout* EnforceSocketTimeout(uint32_t timeout_ms, int32_t socket) noexcept {
  if (timeout_ms == 0 || socket == -1) {
    upnp_log_err_impl(UPNP_LOG_SYSTEM, "createSocketTimeout(): Invalid parameters");
    return nullptr;
  }
  return EnforceSocketTimeoutAt(static_cast<uint64_t>(getSystemTime()) + timeout_ms, socket);
}

bool ReleaseSocketTimeout(SocketTimeout* handle, bool close_socket) noexcept {
  if (handle == nullptr) return false;
  {
    GlobalLockGuard lock;
    if (!lock.held()) {
      DropList();
      return true;
    }
    // A handle that is no longer pending was fired (its socket closed) or dropped; it is only
    // compared here, never read.
    if (!Unlink(handle)) return true;
  }
  // Unlinked, so the record is the caller's alone now.
  if (close_socket) CloseSocket(handle->socket);
  upnp_free_impl(handle);
  return close_socket;
}

int32_t PendingSocketTimeouts(int32_t* out, int32_t max) noexcept {
  GlobalLockGuard lock;
  if (!lock.held()) return -1;
  int32_t count = 0;
  for (const SocketTimeout* r = Head(); r != nullptr; r = r->next) {
    if (count < max) out[count] = r->socket;
    ++count;
  }
  return count;
}

}  // namespace tw::core
