// SPDX-License-Identifier: Apache-2.0
// Eight threads fetch descriptions with the HTTP client and parse, query, write and release them
// at once, as identification does for a burst of announcements. Run under TSan by the CI.
#include "support/test_support.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/xml.h"

namespace {

using namespace tw::test;

constexpr int kThreads = 8;
constexpr int kRounds = 12;

std::string Description(int services) {
  std::string xml =
      "<?xml version=\"1.0\"?>\r\n<root xmlns=\"urn:schemas-upnp-org:device-1-0\"><device>"
      "<friendlyName>Den &amp; Hall</friendlyName><serviceList>";
  for (int i = 0; i < services; ++i) {
    xml += "<service><serviceType>urn:schemas-upnp-org:service:S" + std::to_string(i) +
           ":1</serviceType><controlURL>/ctl/" + std::to_string(i) + "</controlURL></service>";
  }
  return xml + "</serviceList></device></root>\r\n";
}

// Answers every connection with the same description, alternately by length and chunked, until
// `connections` were served or nothing arrives for ten seconds.
class DescriptionServer {
 public:
  DescriptionServer(std::string body, int connections) : body_(std::move(body)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof(address);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener_, 64) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "cannot listen on loopback";
      return;
    }
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/desc.xml";
    thread_ = std::thread([this, connections] {
      for (int n = 0; n < connections; ++n) {
        pollfd p{listener_, POLLIN, 0};
        if (poll(&p, 1, 10000) != 1) return;
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        Answer(fd, n % 2 == 0);
        close(fd);
      }
    });
  }
  ~DescriptionServer() {
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) close(listener_);
  }
  DescriptionServer(const DescriptionServer&) = delete;
  DescriptionServer& operator=(const DescriptionServer&) = delete;
  const std::string& url() const { return url_; }

 private:
  void Answer(int fd, bool by_length) {
    std::string head;
    char c = 0;
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 8192) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 10000) != 1 || recv(fd, &c, 1, 0) != 1) return;
      head += c;
    }
    std::string reply = "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n";
    if (by_length) {
      reply += "Content-Length: " + std::to_string(body_.size()) + "\r\n\r\n" + body_;
    } else {
      char size[32];
      std::snprintf(size, sizeof(size), "%zx\r\n", body_.size() / 2);
      reply += "Transfer-Encoding: chunked\r\n\r\n" + std::string(size) +
               body_.substr(0, body_.size() / 2) + "\r\n";
      std::snprintf(size, sizeof(size), "%zx\r\n", body_.size() - body_.size() / 2);
      reply += std::string(size) + body_.substr(body_.size() / 2) + "\r\n0\r\n\r\n";
    }
    for (size_t sent = 0; sent < reply.size();) {
      const ssize_t n = send(fd, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return;
      sent += static_cast<size_t>(n);
    }
  }

  std::string body_;
  std::string url_;
  int listener_ = -1;
  std::thread thread_;
};

class FetchAndParse : public LeakCheck {};

TEST_F(FetchAndParse, EightThreadsAtOnce) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  constexpr int kServices = 40;
  DescriptionServer server(Description(kServices), kThreads * kRounds);
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        upnp_string* body = HTTP_get(server.url().c_str());
        if (body == nullptr) continue;
        upnp_xml_node* root = upnp_xml_parse(upnp_string_get_cstring(body));
        upnp_string_free(body);
        uint32_t count = 0;
        upnp_xml_node** services = upnp_xml_find_all_nodes(root, "service", nullptr, &count);
        upnp_string* written = upnp_xml_tree_to_compliant_string(root, 1, 0);
        const char* name = upnp_xml_find_tag_value(root, "friendlyName");
        if (count == kServices && name != nullptr && std::strcmp(name, "Den & Hall") == 0 &&
            written != nullptr && std::strstr(written->buffer, "Den &amp; Hall") != nullptr) {
          ++good;
        }
        upnp_free_impl(services);
        upnp_string_free(written);
        upnp_xml_release(root);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(good.load(), kThreads * kRounds);
}

}  // namespace
