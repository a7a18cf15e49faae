// SPDX-License-Identifier: Apache-2.0
// The example server's parts on a running library server over loopback (public API only: the
// parts link the shared library), a raw client and a listener for event callbacks.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../shared/installed_resources.h"
#include "eventing.h"
#include "host.h"
#include "library.h"
#include "support/test_support.h"
#include "tarnwick/upnp.h"

namespace mediaserver::test {

using tw::test::HeaderValue;
using tw::test::TempDir;
using tw::test::WaitFor;
using Clock = std::chrono::steady_clock;

constexpr int kReadTimeoutMs = 5000;

// A plain TCP client whose descriptor the test can look at (what has arrived, unread).
class RawClient {
 public:
  ~RawClient() { Close(); }
  bool Connect(int port) {
    Close();
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = tw::test::LoopbackAddress(port);
    if (fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
      Close();
    return fd_ >= 0;
  }
  bool Send(const std::string& bytes) {
    return fd_ >= 0 && send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
                           static_cast<ssize_t>(bytes.size());
  }
  // The bytes that arrived and were not read yet (without waiting).
  size_t Waiting() const {
    char buffer[16384];
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), MSG_PEEK | MSG_DONTWAIT);
    return n > 0 ? static_cast<size_t>(n) : 0;
  }
  // One response: head and Content-Length bytes of body (what arrived by the deadline).
  // A HEAD answer announces a body that never comes: pass a short wait for it.
  tw::test::HttpResponse Read(int timeout_ms = kReadTimeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    tw::test::HttpResponse response;
    size_t end;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos && Fill(deadline)) {
    }
    if (end == std::string::npos) return response;
    response.head = pending_.substr(0, end + 4);
    pending_.erase(0, end + 4);
    response.status = std::atoi(response.head.c_str() + response.head.find(' ') + 1);
    const std::string length = HeaderValue(response.head, "Content-Length");
    const size_t want = length == "<none>" ? 0 : std::stoul(length);
    while (pending_.size() < want && Fill(deadline)) {
    }
    response.body = pending_.substr(0, want);
    pending_.erase(0, response.body.size());
    response.complete = response.body.size() == want;
    return response;
  }
  // Everything up to the peer's end of the connection (or the deadline).
  std::string ReadToEnd() {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kReadTimeoutMs);
    while (Fill(deadline)) {
    }
    std::string all;
    all.swap(pending_);
    return all;
  }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    pending_.clear();
  }

 private:
  bool Fill(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd waiting{fd_, POLLIN, 0};
    if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) <= 0) return false;
    char buffer[16384];
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
    if (n > 0) pending_.append(buffer, static_cast<size_t>(n));
    return n > 0;
  }
  int fd_ = -1;
  std::string pending_;
};

// One request on a connection of its own.
inline tw::test::HttpResponse Exchange(int port, const std::string& request,
                                       int timeout_ms = kReadTimeoutMs) {
  RawClient client;
  if (!client.Connect(port) || !client.Send(request)) return {};
  return client.Read(timeout_ms);
}

struct Notification {
  std::string head;
  std::string body;
  std::string Header(const std::string& name) const { return HeaderValue(head, name); }
  std::string RequestLine() const { return head.substr(0, head.find("\r\n")); }
};

// An event subscriber's HTTP server on 127.0.0.1: records every request and answers 200.
// on_arrival runs on the listener's thread as a request is accepted, before it is read.
class CallbackListener {
 public:
  CallbackListener() {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = tw::test::LoopbackAddress(0);
    socklen_t length = sizeof(address);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd_, 16) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "callback listener";
      return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
  }
  ~CallbackListener() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
  }
  CallbackListener(const CallbackListener&) = delete;
  CallbackListener& operator=(const CallbackListener&) = delete;

  int port() const { return port_; }
  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  void OnArrival(std::function<void()> hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    on_arrival_ = std::move(hook);
  }
  std::vector<Notification> Received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }
  bool WaitFor(size_t count, int limit_ms = kReadTimeoutMs) {
    return tw::test::WaitFor([&] { return Received().size() >= count; },
                             std::chrono::milliseconds(limit_ms));
  }

 private:
  void Run() {
    while (!stop_) {
      pollfd waiting{fd_, POLLIN, 0};
      if (poll(&waiting, 1, 20) <= 0) continue;
      const int connection = accept(fd_, nullptr, nullptr);
      if (connection < 0) continue;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (on_arrival_) on_arrival_();
      }
      Serve(connection);
      close(connection);
    }
  }
  void Serve(int connection) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kReadTimeoutMs);
    std::string data;
    size_t end = std::string::npos;
    size_t want = 0;
    for (;;) {
      if (end == std::string::npos && (end = data.find("\r\n\r\n")) != std::string::npos) {
        const std::string length = HeaderValue(data.substr(0, end + 4), "CONTENT-LENGTH");
        want = end + 4 + (length == "<none>" ? 0 : std::stoul(length));
      }
      if (end != std::string::npos && data.size() >= want) break;
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd waiting{connection, POLLIN, 0};
      if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) <= 0) break;
      char buffer[4096];
      const ssize_t n = recv(connection, buffer, sizeof(buffer), 0);
      if (n <= 0) break;
      data.append(buffer, static_cast<size_t>(n));
    }
    if (end == std::string::npos) return;
    constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    send(connection, kOk, sizeof(kOk) - 1, MSG_NOSIGNAL);
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back({data.substr(0, end + 4), data.substr(end + 4)});
  }

  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::function<void()> on_arrival_;
  std::vector<Notification> received_;
  std::thread thread_;
};

// The example's parts that answer on the wire, on a library server at 127.0.0.1, sharing a
// temporary folder under settings of the test's own (names that need escaping).
class MediaServerWire : public ::testing::Test {
 protected:
  static constexpr char kName[] = "Tom's <Media> & \"More\"";
  static constexpr char kUdn[] = "uuid:5501726e-7769-636b-5369-424242424242";

  void SetUp() override {
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    share_ = data_.path() + "/share";
    std::filesystem::create_directories(share_);
    Prepare();
    upnp_ini_file_init();
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NMCMODE, "0");
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "127.0.0.1");
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_APPDATA, data_.path().c_str());
    SetSettings(Settings{share_, kName, kUdn});
    SetSharedFolder(share_, kName);
    RegisterDescriptionHandlers();
    RegisterContentDirectory();
    RegisterConnectionManager();
    RegisterEventHandlers();
    RegisterStreamingHandlers();
    RegisterStatusPage();
    register_upnp_resource_get_function(Resources());
    upnp_client_db_init();
    upnp_server_start(&g_server_running);
    started_ = true;
    const upnp_server_data* record = getHTTPServerData(0);
    ASSERT_TRUE(record != nullptr && record->http_socket != -1);
    port_ = record->http_port;
  }
  void TearDown() override {
    if (!started_) return;
    StopEventing();
    upnp_server_stop(&g_server_running);
    http_unregister_all_handlers();
    upnp_http_set_default_url(nullptr);
    upnp_client_db_exit();
    register_upnp_resource_get_function(nullptr);
    while (upnp_ini_file_is_initialized() != 0) upnp_ini_file_release();
  }
  // Files and the client table before the server starts.
  virtual void Prepare() {}
  // Where the client types come from: by default the copy beside the test program (as the
  // program finds its own).
  virtual upnp_resource_get_function Resources() const { return &examples::GetInstalledResource; }

  std::string Request(const std::string& method, const std::string& url,
                      const std::string& lines) const {
    return method + " " + url + " HTTP/1.1\r\nHOST: 127.0.0.1:" + std::to_string(port_) + "\r\n" +
           lines + "\r\n";
  }

  TempDir data_;
  std::string share_;
  int port_ = 0;
  bool started_ = false;
};

}  // namespace mediaserver::test
