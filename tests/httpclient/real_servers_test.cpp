// SPDX-License-Identifier: Apache-2.0
// The client against HTTP servers this project did not write, each run in the private namespace
// on a free loopback port: nginx (Content-Length), node's http module (chunked) and Python's
// http.server (HTTP/1.0, closing). A test skips itself when its program is not installed.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "support/test_support.h"

extern char** environ;

namespace {

using namespace tw::test;

// The first executable name on PATH (or name itself when it holds a '/'); "" when none.
std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return access(name.c_str(), X_OK) == 0 ? name : "";
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string candidate = dir + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

int FreePort() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = LoopbackAddress(0);
  socklen_t length = sizeof(address);
  const bool ok = bind(s, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                  getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  close(s);
  return ok ? ntohs(address.sin_port) : -1;
}

// A description document of about 20 KB, so every server sends it in several pieces.
std::string Description() {
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
      "<specVersion><major>1</major><minor>0</minor></specVersion><device>"
      "<deviceType>urn:schemas-upnp-org:device:MediaServer:1</deviceType>"
      "<friendlyName>Kitchen \xc3\xa9t\xc3\xa9</friendlyName><serviceList>";
  for (int i = 0; i < 120; ++i) {
    xml += "<service><serviceType>urn:schemas-upnp-org:service:S" + std::to_string(i) +
           ":1</serviceType><controlURL>/ctl/" + std::to_string(i) + "</controlURL></service>";
  }
  return xml + "</serviceList></device></root>\n";
}

class ServerProcess {
 public:
  ServerProcess() = default;
  ~ServerProcess() { Stop(); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  bool Start(std::vector<std::string> argv) {
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    return posix_spawn(&pid_, args[0], nullptr, nullptr, args.data(), environ) == 0;
  }
  // True once port accepts connections; false when the process ended or 15 s passed.
  bool WaitListening(int port) {
    return WaitFor(
               [&] {
                 int status;
                 if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) == pid_) {
                   pid_ = -1;
                   return true;  // gone: report through the probe below
                 }
                 HttpPeer probe;
                 return probe.Connect(port);
               },
               std::chrono::seconds(15)) &&
           pid_ > 0;
  }
  void Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status;
    if (!WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; },
                 std::chrono::seconds(5))) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
    }
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

class HttpClientRealServers : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    description_ = Description();
    std::filesystem::create_directory(dir_.File("www"));
    WriteFile(dir_.File("www/description.xml"), description_);
    port_ = FreePort();
    ASSERT_GT(port_, 0);
  }
  void TearDown() override {
    server_.Stop();
    LeakCheck::TearDown();
  }
  std::string Url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/description.xml";
  }
  // The response head the server gives a plain GET, and the body read after it.
  std::string HeadAndBody(std::string* body) {
    int32_t socket = HTTP_open(Url().c_str());
    if (socket < 0) return "<no connection>";
    char head[8192] = "";
    if (HTTP_get_request(socket, Url().c_str(), nullptr) == 0) {
      HTTP_get_header(socket, head, sizeof(head));
      *body = Take(HTTP_receive_body(socket, head));
    }
    upnp_close_socket(&socket);
    return head;
  }
  // Both reads give the document byte for byte; the head shows the framing (a substring).
  void ExpectDocument(const std::string& framing) {
    EXPECT_TRUE(Take(HTTP_get(Url().c_str())) == description_) << "HTTP_get";
    std::string body;
    EXPECT_THAT(HeadAndBody(&body), HasSubstr(framing));
    EXPECT_EQ(body.size(), description_.size());
    EXPECT_TRUE(body == description_);
    const std::string target = dir_.File("saved.xml");
    EXPECT_EQ(HTTP_download_file(Url().c_str(), nullptr, target.c_str(), nullptr), 0);
    EXPECT_TRUE(ReadFile(target) == description_) << "HTTP_download_file";
  }

  TempDir dir_;
  std::string description_;
  int port_ = -1;
  ServerProcess server_;
};

TEST_F(HttpClientRealServers, NginxContentLength) {
  const std::string nginx = FindProgram("/usr/sbin/nginx");
  if (nginx.empty()) GTEST_SKIP() << "nginx is not installed";
  const std::string d = dir_.path();
  // One process (no master, no user switch) with every file in the temporary directory.
  WriteFile(d + "/nginx.conf",
            "daemon off;\nmaster_process off;\nuser root root;\nworker_processes 1;\npid " + d +
                "/nginx.pid;\nerror_log " + d +
                "/error.log;\nevents { worker_connections 16; }\n"
                "http {\n access_log off;\n client_body_temp_path " +
                d + "/t1;\n proxy_temp_path " + d + "/t2;\n fastcgi_temp_path " + d +
                "/t3;\n uwsgi_temp_path " + d + "/t4;\n scgi_temp_path " + d +
                "/t5;\n server { listen 127.0.0.1:" + std::to_string(port_) + "; root " + d +
                "/www; }\n}\n");
  ASSERT_TRUE(server_.Start({nginx, "-p", d, "-c", d + "/nginx.conf", "-e", d + "/error.log"}));
  ASSERT_TRUE(server_.WaitListening(port_)) << ReadFile(d + "/error.log");
  ExpectDocument("\r\nContent-Length: " + std::to_string(description_.size()) + "\r\n");
}

TEST_F(HttpClientRealServers, NodeChunked) {
  const std::string node = FindProgram("node");
  if (node.empty()) GTEST_SKIP() << "node is not installed";
  ASSERT_TRUE(server_.Start({node, TW_HTTPCLIENT_TEST_DIR "/chunked_server.js",
                             std::to_string(port_), dir_.File("www/description.xml")}));
  ASSERT_TRUE(server_.WaitListening(port_));
  ExpectDocument("\r\nTransfer-Encoding: chunked\r\n");
}

TEST_F(HttpClientRealServers, PythonHttp10) {
  const std::string python = FindProgram("python3");
  if (python.empty()) GTEST_SKIP() << "python3 is not installed";
  ASSERT_TRUE(server_.Start({python, "-m", "http.server", std::to_string(port_), "--bind",
                             "127.0.0.1", "--directory", dir_.File("www")}));
  ASSERT_TRUE(server_.WaitListening(port_));
  ExpectDocument("HTTP/1.0 200 OK\r\n");
}

}  // namespace
