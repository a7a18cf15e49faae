// SPDX-License-Identifier: Apache-2.0
// GENA for the two services: a bounded subscription table, and one sender thread that delivers
// the queued events one connection each, so that a subscriber that does not answer delays only
// other events, never a request handler or the host's shutdown.
//
// Ordering: a new subscription enters the table, with its initial event queued in the same step,
// only after its SUBSCRIBE answer went out; a content change can therefore never be queued
// ahead of SEQ 0, and a control point always knows the SID before an event names it.
#include "eventing.h"

#include <poll.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "host.h"
#include "library.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"

namespace mediaserver {
namespace {

constexpr char kContentDirectoryEventUrl[] = "/ContentDirectory/Event";
constexpr char kConnectionManagerEventUrl[] = "/ConnectionManager/Event";

constexpr size_t kMaxSubscriptions = 64;  // both services together
constexpr size_t kMaxQueuedEvents = 256;  // events waiting for the sender
constexpr int64_t kMinTimeoutSeconds = 60;
constexpr int64_t kMaxTimeoutSeconds = 1800;  // also "infinite" and the default
constexpr int32_t kConnectTimeoutMs = 1000;
constexpr int32_t kAnswerTimeoutMs = 2000;  // for the subscriber's answer to a NOTIFY
constexpr size_t kMaxAnswerBytes = 4096;    // of that answer, read only to see it arrive
constexpr int32_t kStopWaitMs = 500;        // StopEventing's wait for the sender
constexpr int32_t kSenderPriority = 5;
constexpr int32_t kStatusOk = 200;
constexpr int32_t kStatusBadRequest = 400;
constexpr int32_t kStatusPreconditionFailed = 412;
constexpr int32_t kStatusUnavailable = 503;

enum class Service { kContentDirectory, kConnectionManager };

struct Subscription {
  std::string sid;  // "uuid:..."
  Service service;
  std::string host;  // dotted IPv4 of the callback
  int32_t port;
  std::string path;  // the callback's path, "/" when it names none
  uint32_t next_seq;
  int64_t expires_ms;  // getSystemTime() clock
  bool delivery_failed;
};

struct Event {
  std::string sid;
  std::string host;
  int32_t port;
  std::string path;
  uint32_t seq;
  std::string body;
};

struct State {
  std::mutex mutex;
  std::condition_variable wake;      // the sender waits here for events or the stop
  std::condition_variable finished;  // StopEventing waits here for the sender
  std::vector<Subscription> subscriptions;
  std::deque<Event> queue;
  size_t reserved = 0;      // new subscriptions answered but not yet in the table
  bool accepting = false;   // between RegisterEventHandlers and StopEventing
  uint64_t generation = 0;  // moves on at every stop; a sender of an older one ends
  bool sender_running = false;
  uint64_t sender_generation = 0;  // the generation the running sender serves
  std::mt19937_64 random{std::random_device{}()};
};

State& Shared() {
  // Lives as long as the process: a handler or a sender still busy at shutdown may touch it.
  static State* state = new State();
  return *state;
}

// ---- Request heads ---------------------------------------------------------------------------

bool SameNoCase(const std::string& a, const char* b) {
  const size_t length = std::strlen(b);
  if (a.size() != length) return false;
  for (size_t i = 0; i < length; ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

std::string Trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The value of header `name` (matched as a whole name at a line start, any case); false when
// the head has no such line. The request line is skipped.
bool HeaderValue(const char* head, const char* name, std::string* value) {
  const std::string text = head;
  size_t line = text.find("\r\n");
  while (line != std::string::npos) {
    line += 2;
    const size_t end = text.find("\r\n", line);
    const std::string current = text.substr(line, end == std::string::npos ? end : end - line);
    const size_t colon = current.find(':');
    if (colon != std::string::npos && SameNoCase(Trimmed(current.substr(0, colon)), name)) {
      *value = Trimmed(current.substr(colon + 1));
      return true;
    }
    line = end;
  }
  return false;
}

struct Callback {
  std::string host;
  int32_t port = 80;
  std::string path = "/";
};

bool IsDottedIpv4(const std::string& host) {
  int parts = 0;
  size_t at = 0;
  while (at <= host.size()) {
    const size_t dot = std::min(host.find('.', at), host.size());
    const std::string part = host.substr(at, dot - at);
    if (part.empty() || part.size() > 3 ||
        part.find_first_not_of("0123456789") != std::string::npos ||
        std::atoi(part.c_str()) > 255) {
      return false;
    }
    ++parts;
    at = dot + 1;
  }
  return parts == 4;
}

// "http://A.B.C.D[:port][/path]"; host names are not resolved, so they do not qualify.
bool ParseCallbackUrl(const std::string& url, Callback* out) {
  constexpr char kScheme[] = "http://";
  constexpr size_t kSchemeLength = sizeof(kScheme) - 1;
  if (url.size() <= kSchemeLength || !SameNoCase(url.substr(0, kSchemeLength), kScheme)) {
    return false;
  }
  const size_t slash = url.find('/', kSchemeLength);
  const std::string authority = url.substr(kSchemeLength, slash - kSchemeLength);
  Callback callback;
  const size_t colon = authority.find(':');
  callback.host = authority.substr(0, colon);
  if (colon != std::string::npos) {
    const std::string port = authority.substr(colon + 1);
    if (port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos)
      return false;
    callback.port = std::atoi(port.c_str());
    if (callback.port < 1 || callback.port > 65535) return false;
  }
  if (!IsDottedIpv4(callback.host)) return false;
  if (slash != std::string::npos) callback.path = url.substr(slash);
  *out = callback;
  return true;
}

// The first usable URL of a CALLBACK value "<url1><url2>...".
bool FirstCallback(const std::string& value, Callback* out) {
  size_t at = value.find('<');
  while (at != std::string::npos) {
    const size_t end = value.find('>', at);
    if (end == std::string::npos) return false;
    if (ParseCallbackUrl(Trimmed(value.substr(at + 1, end - at - 1)), out)) return true;
    at = value.find('<', end);
  }
  return false;
}

// "Second-N" within the bounds; "infinite", a missing or a malformed value take the maximum.
int64_t TimeoutSeconds(const char* head) {
  std::string value;
  constexpr char kPrefix[] = "Second-";
  constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;
  if (!HeaderValue(head, "TIMEOUT", &value) || value.size() <= kPrefixLength ||
      !SameNoCase(value.substr(0, kPrefixLength), kPrefix)) {
    return kMaxTimeoutSeconds;
  }
  const std::string number = value.substr(kPrefixLength);
  if (number.size() > 9 || number.find_first_not_of("0123456789") != std::string::npos) {
    return kMaxTimeoutSeconds;  // "infinite" among them
  }
  return std::clamp<int64_t>(std::atoll(number.c_str()), kMinTimeoutSeconds, kMaxTimeoutSeconds);
}

// ---- Subscriptions (callers hold the state's mutex) -------------------------------------------

std::string NewSidLocked(State& state) {
  uint64_t high = state.random();
  uint64_t low = state.random();
  high = (high & ~0xF000ULL) | 0x4000ULL;                       // version 4
  low = (low & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;  // RFC 4122 variant
  char text[48];
  std::snprintf(text, sizeof(text), "uuid:%08x-%04x-%04x-%04x-%012llx",
                static_cast<unsigned>(high >> 32), static_cast<unsigned>((high >> 16) & 0xFFFF),
                static_cast<unsigned>(high & 0xFFFF), static_cast<unsigned>(low >> 48),
                static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
  return text;
}

void DropExpiredLocked(State& state, int64_t now_ms) {
  auto& list = state.subscriptions;
  list.erase(std::remove_if(list.begin(), list.end(),
                            [now_ms](const Subscription& s) { return s.expires_ms <= now_ms; }),
             list.end());
}

Subscription* FindLocked(State& state, const std::string& sid, Service service) {
  for (Subscription& s : state.subscriptions) {
    if (s.sid == sid && s.service == service) return &s;
  }
  return nullptr;
}

void* SenderMain(void* argument);

// Queues the next event of a subscription (its SEQ taken now, so the sender keeps the order).
void QueueLocked(State& state, Subscription& subscription, const std::string& body) {
  const uint32_t seq = subscription.next_seq;
  // SEQ 0 belongs to the initial event alone: after 4294967295 the count goes on at 1.
  subscription.next_seq = seq == UINT32_MAX ? 1 : seq + 1;
  if (state.queue.size() >= kMaxQueuedEvents) {
    Say("event %u for %s dropped: %zu events wait already", seq, subscription.sid.c_str(),
        state.queue.size());
    return;
  }
  state.queue.push_back(
      Event{subscription.sid, subscription.host, subscription.port, subscription.path, seq, body});
  if (!state.sender_running) {
    // The generation travels in the argument itself: nothing to free when the start fails.
    void* argument = reinterpret_cast<void*>(static_cast<uintptr_t>(state.generation));
    const pthread_t thread = upnp_start_joinable_thread(&SenderMain, argument, kSenderPriority);
    if (thread == 0) {
      Say("no event sender thread: %zu events wait", state.queue.size());
      return;
    }
    pthread_detach(thread);
    state.sender_running = true;
    state.sender_generation = state.generation;
  }
  state.wake.notify_one();
}

// ---- Event bodies -----------------------------------------------------------------------------

std::string PropertySet(const std::vector<std::pair<const char*, std::string>>& variables) {
  std::string body =
      "<?xml version=\"1.0\"?>"
      "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">";
  for (const auto& [name, value] : variables) {
    body += std::string("<e:property><") + name + ">" + XmlEscape(value) + "</" + name +
            "></e:property>";
  }
  return body + "</e:propertyset>";
}

std::string ContentDirectoryBody(bool initial) {
  std::vector<std::pair<const char*, std::string>> variables = {
      {"SystemUpdateID", std::to_string(SystemUpdateId())}, {"ContainerUpdateIDs", ""}};
  if (initial) variables.emplace_back("TransferIDs", "");
  return PropertySet(variables);
}

std::string InitialBody(Service service) {
  if (service == Service::kContentDirectory) return ContentDirectoryBody(true);
  return PropertySet({{"SourceProtocolInfo", SourceProtocolInfo()},
                      {"SinkProtocolInfo", ""},
                      {"CurrentConnectionIDs", "0"}});
}

// ---- Delivery ---------------------------------------------------------------------------------

// Waits until the socket is readable or the time runs out; the library's receive sits receive
// time-outs out, so the bound is kept here.
bool Readable(int32_t socket, int64_t deadline_ms) {
  const int64_t left = deadline_ms - getSystemTime();
  if (left <= 0) return false;
  pollfd waiting{socket, POLLIN, 0};
  return poll(&waiting, 1, static_cast<int>(left)) > 0;
}

// One NOTIFY on a connection of its own; true when an answer head came back in time.
bool Deliver(const Event& event) {
  int32_t socket = upnp_socket_create_tcp();
  if (socket < 0) return false;
  setSockOptNoSignal(socket);
  // The send time-out also bounds the connect. An event fits in a fresh connection's send
  // buffer, so the send itself does not wait on a subscriber that does not read.
  setSockOptSendTimeout(socket, kConnectTimeoutMs);
  bool answered = false;
  if (upnp_socket_connect(socket, event.host.c_str(), event.port) == 0) {
    const std::string message =
        "NOTIFY " + event.path + " HTTP/1.1\r\nHOST: " + event.host + ":" +
        std::to_string(event.port) +
        "\r\nCONTENT-TYPE: text/xml; charset=\"utf-8\"\r\nNT: upnp:event\r\n"
        "NTS: upnp:propchange\r\nSID: " +
        event.sid + "\r\nSEQ: " + std::to_string(event.seq) +
        "\r\nCONTENT-LENGTH: " + std::to_string(event.body.size()) +
        "\r\nConnection: close\r\n\r\n" + event.body;
    if (upnp_send(socket, message.data(), static_cast<int64_t>(message.size())) > 0) {
      const int64_t deadline = getSystemTime() + kAnswerTimeoutMs;
      std::string answer;
      char buffer[512];
      while (answer.find("\r\n\r\n") == std::string::npos && answer.size() < kMaxAnswerBytes &&
             Readable(socket, deadline)) {
        const int32_t got = upnp_recv(socket, buffer, sizeof(buffer), 0);
        if (got <= 0) break;
        answer.append(buffer, static_cast<size_t>(got));
      }
      answered = answer.compare(0, 5, "HTTP/") == 0;
    }
  }
  upnp_close_socket(&socket);
  return answered;
}

void NoteDelivery(const Event& event, bool answered) {
  State& state = Shared();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (Subscription& s : state.subscriptions) {
    if (s.sid != event.sid) continue;
    // Said once per subscription, not for every event a gone control point misses.
    if (!answered && !s.delivery_failed) {
      Say("event %u to http://%s:%d%s got no answer", event.seq, event.host.c_str(), event.port,
          event.path.c_str());
    }
    s.delivery_failed = !answered;
  }
}

void* SenderMain(void* argument) {
  const uint64_t generation = reinterpret_cast<uintptr_t>(argument);
  State& state = Shared();
  std::unique_lock<std::mutex> lock(state.mutex);
  for (;;) {
    state.wake.wait(lock, [&] { return !state.queue.empty() || state.generation != generation; });
    if (state.generation != generation) break;
    const Event event = state.queue.front();
    state.queue.pop_front();
    lock.unlock();
    const bool answered = Deliver(event);
    NoteDelivery(event, answered);
    lock.lock();
  }
  // A stop that gave up waiting may have let a sender of a later generation start meanwhile.
  if (state.sender_generation == generation) state.sender_running = false;
  state.finished.notify_all();
  return nullptr;
}

// ---- Handlers ---------------------------------------------------------------------------------

int32_t Answer(HttpRequest* request, int32_t status) {
  request->mime_type = "text/plain";
  return HTTP_send_error_code(request, status);
}

int32_t Subscribe(HttpRequest* request, Service service) {
  State& state = Shared();
  std::string sid, callback_value, nt;
  const bool has_sid = HeaderValue(request->header, "SID", &sid);
  const bool has_callback = HeaderValue(request->header, "CALLBACK", &callback_value);
  const bool has_nt = HeaderValue(request->header, "NT", &nt);
  const int64_t timeout = TimeoutSeconds(request->header);
  const std::string timeout_line = "TIMEOUT: Second-" + std::to_string(timeout) + "\r\n";

  if (has_sid) {  // renewal
    if (has_callback || has_nt) return Answer(request, kStatusBadRequest);
    {
      std::lock_guard<std::mutex> lock(state.mutex);
      const int64_t now = getSystemTime();
      DropExpiredLocked(state, now);
      Subscription* found = state.accepting ? FindLocked(state, sid, service) : nullptr;
      if (found == nullptr) return Answer(request, kStatusPreconditionFailed);
      found->expires_ms = now + timeout * 1000;
    }
    HTTP_add_header(request, ("SID: " + sid + "\r\n" + timeout_line).c_str());
    request->mime_type = "text/plain";
    request->content_length = 0;
    return HTTP_send_header(request, kStatusOk);
  }

  Callback callback;
  if (!has_callback || !has_nt || nt != "upnp:event" || !FirstCallback(callback_value, &callback)) {
    return Answer(request, kStatusPreconditionFailed);
  }
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    DropExpiredLocked(state, getSystemTime());
    if (!state.accepting || state.subscriptions.size() + state.reserved >= kMaxSubscriptions) {
      return Answer(request, kStatusUnavailable);
    }
    ++state.reserved;
    sid = NewSidLocked(state);
  }
  HTTP_add_header(request, ("SID: " + sid + "\r\n" + timeout_line).c_str());
  request->mime_type = "text/plain";
  request->content_length = 0;
  const int32_t result = HTTP_send_header(request, kStatusOk);
  // Built outside the lock: the ContentDirectory's value reads the shared folder's state.
  const std::string body = InitialBody(service);
  std::lock_guard<std::mutex> lock(state.mutex);
  --state.reserved;
  if (result != 0 || !state.accepting) return result;  // the subscriber never saw its SID
  state.subscriptions.push_back(Subscription{sid, service, callback.host, callback.port,
                                             callback.path, 0, getSystemTime() + timeout * 1000,
                                             false});
  QueueLocked(state, state.subscriptions.back(), body);
  return result;
}

int32_t Unsubscribe(HttpRequest* request, Service service) {
  State& state = Shared();
  std::string sid, ignored;
  if (!HeaderValue(request->header, "SID", &sid)) return Answer(request, kStatusPreconditionFailed);
  if (HeaderValue(request->header, "CALLBACK", &ignored) ||
      HeaderValue(request->header, "NT", &ignored)) {
    return Answer(request, kStatusBadRequest);
  }
  bool found = false;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    DropExpiredLocked(state, getSystemTime());
    auto& list = state.subscriptions;
    const auto at = std::find_if(list.begin(), list.end(), [&](const Subscription& s) {
      return s.sid == sid && s.service == service;
    });
    if (at != list.end()) {
      list.erase(at);
      found = true;
    }
    // Events already queued for it are not sent any more.
    state.queue.erase(std::remove_if(state.queue.begin(), state.queue.end(),
                                     [&](const Event& e) { return e.sid == sid; }),
                      state.queue.end());
  }
  if (!found) return Answer(request, kStatusPreconditionFailed);
  request->mime_type = "text/plain";
  request->content_length = 0;
  return HTTP_send_header(request, kStatusOk);
}

int32_t OnEvent(HttpRequest* request, Service service) {
  if (request->method == HTTP_METHOD_UNSUBSCRIBE) return Unsubscribe(request, service);
  return Subscribe(request, service);
}

int32_t OnContentDirectoryEvent(HttpRequest* request) {
  return OnEvent(request, Service::kContentDirectory);
}

int32_t OnConnectionManagerEvent(HttpRequest* request) {
  return OnEvent(request, Service::kConnectionManager);
}

}  // namespace

void RegisterEventHandlers() {
  const uint32_t methods = HTTP_METHOD_SUBSCRIBE | HTTP_METHOD_UNSUBSCRIBE;
  upnp_http_register_handler(&OnContentDirectoryEvent, methods, kContentDirectoryEventUrl, 0, 0);
  upnp_http_register_handler(&OnConnectionManagerEvent, methods, kConnectionManagerEventUrl, 0, 0);
  State& state = Shared();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.accepting = true;
}

void NotifyContentChanged() {
  const std::string body = ContentDirectoryBody(false);
  State& state = Shared();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (!state.accepting) return;
  DropExpiredLocked(state, getSystemTime());
  for (Subscription& s : state.subscriptions) {
    if (s.service == Service::kContentDirectory) QueueLocked(state, s, body);
  }
}

void ExpireSubscriptions() {
  State& state = Shared();
  std::lock_guard<std::mutex> lock(state.mutex);
  DropExpiredLocked(state, getSystemTime());
}

void StopEventing() {
  State& state = Shared();
  std::unique_lock<std::mutex> lock(state.mutex);
  state.accepting = false;
  state.subscriptions.clear();
  state.queue.clear();
  ++state.generation;
  state.wake.notify_all();
  // A sender waiting on a subscriber that does not answer is not waited for past a moment: it
  // is detached, touches only the state (which stays), and ends after that delivery.
  state.finished.wait_for(lock, std::chrono::milliseconds(kStopWaitMs),
                          [&] { return !state.sender_running; });
  state.sender_running = false;
}

}  // namespace mediaserver
