// SPDX-License-Identifier: Apache-2.0
// The client against HTTP servers this project did not write, each run in the private namespace:
// nginx answers with a Content-Length, node's http module in chunks, python's http.server with
// HTTP/1.0. A server whose program is not installed is skipped.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "support/test_support.h"

extern char** environ;

namespace {

using namespace tw::test;

struct Server {
  const char* name;
  int port;                       // its own, below the ephemeral range, so parallel runs never meet
  std::vector<std::string> argv;  // a leading '@' stands for a fresh directory holding www/
};
void PrintTo(const Server& server, std::ostream* out) { *out << server.name; }

const Server kServers[] = {
    // One process (no master, no user switch), every file under the prefix.
    {"nginx", 18081, {"/usr/sbin/nginx", "-p", "@/", "-c", "nginx.conf", "-e", "log"}},
    {"node",
     18082,
     {"node", "-e",
      "const b=require('fs').readFileSync(process.argv[1]);require('http').createServer((q,r)=>{"
      "for(let i=0;i<b.length;i+=4000)r.write(b.subarray(i,i+4000));r.end()})"
      ".listen(18082,'127.0.0.1')",
      "@/www/description.xml"}},
    {"python",
     18083,
     {"python3", "-m", "http.server", "18083", "--bind", "127.0.0.1", "--directory", "@/www"}},
};

class RealServer : public LeakCheck, public ::testing::WithParamInterface<Server> {};

TEST_P(RealServer, ServesADocumentByteForByte) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  TempDir dir;
  std::string doc;  // about 30 KB: several pieces on the wire
  for (int i = 0; i < 1000; ++i) doc += "<s n=\"" + std::to_string(i) + "\">K\xc3\xa9</s>\n";
  std::filesystem::create_directory(dir.File("www"));
  WriteFile(dir.File("www/description.xml"), doc);
  WriteFile(dir.File("nginx.conf"),
            "daemon off; master_process off; user root root; pid pid; error_log log; events {}\n"
            "http { access_log off; client_body_temp_path t; proxy_temp_path t; fastcgi_temp_path "
            "t;\nuwsgi_temp_path t; scgi_temp_path t;\nserver { listen 127.0.0.1:18081; root www; "
            "} }\n");
  std::vector<std::string> argv = GetParam().argv;
  std::vector<char*> args;
  for (std::string& arg : argv) {
    if (arg[0] == '@') arg = dir.path() + arg.substr(1);
    args.push_back(arg.data());
  }
  args.push_back(nullptr);
  pid_t pid = -1;
  const std::shared_ptr<void> stop(nullptr, [&pid](void*) {  // ends the server with the test
    if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
  });
  const int error = posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ);
  if (error == ENOENT) GTEST_SKIP() << GetParam().name << " is not installed";
  ASSERT_EQ(error, 0);
  const int port = GetParam().port;
  ASSERT_TRUE(WaitFor([&] { return HttpPeer().Connect(port); }, std::chrono::seconds(15)))
      << ReadFile(dir.File("log"));
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/description.xml";
  EXPECT_TRUE(Take(HTTP_get(url.c_str())) == doc) << "HTTP_get";
  EXPECT_EQ(HTTP_download_file(url.c_str(), nullptr, dir.File("saved.xml").c_str(), nullptr), 0);
  EXPECT_TRUE(ReadFile(dir.File("saved.xml")) == doc) << "HTTP_download_file";
}

INSTANTIATE_TEST_SUITE_P(Servers, RealServer, ::testing::ValuesIn(kServers),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
