// SPDX-License-Identifier: Apache-2.0
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "httpclient/scripted_server.h"

extern char** environ;

namespace {

using namespace tw::test;
using Call = std::function<std::string(const std::string& base)>;

// "<result>|<bytes sent>" for a request written to one end of a loopback pair.
std::string Sent(const std::function<int32_t(int32_t)>& send) {
  PeerPair pair;
  EXPECT_TRUE(pair.Open());
  const int32_t result = send(pair.server_fd());
  pair.CloseServer();
  return std::to_string(result) + "|" + pair.client().ReadAll();
}

TEST_F(ClientTest, RequestHeadsByteForByte) {
  const std::string post = "0|POST /up/load HTTP/1.1\r\nAccept: */*\r\nHost: h:9\r\nConnection: ";
  const std::pair<std::function<int32_t(int32_t)>, std::string> cases[] = {
      {[](int32_t s) { return HTTP_head_request(s, "http://h/x", "Range: bytes=0-\r\n"); },
       "0|HEAD /x HTTP/1.1\r\nAccept: */*\r\nHost: h\r\n" + kAgent + "Range: bytes=0-\r\n\r\n"},
      {[](int32_t s) { return HTTP_get_request_1_0(s, "http://h:1/a/b?c=d", ""); },
       "0|GET /a/b?c=d HTTP/1.0\r\nAccept: */*\r\nHost: h:1\r\n" + kAgent + "\r\n"},
      // A User-Agent among the extra lines, in any case, replaces the default one.
      {[](int32_t s) { return HTTP_get_request(s, "http://hh", "user-agent: Mine/2\r\n"); },
       "0|GET / HTTP/1.1\r\nAccept: */*\r\nHost: hh\r\nuser-agent: Mine/2\r\n\r\n"},
      {[](int32_t s) { return HTTP_post_header(s, "http://h:9/up/load", "a/b", 0, 0, nullptr); },
       post + "Close\r\nContent-Type: a/b\r\n" + kAgent + "\r\n"},
      {[](int32_t s) {
         return HTTP_post_header(s, "http://h:9/up/load", "a/b", 12345678901LL, 1,
                                 "User-Agent: U\r\nX-A: 1\r\n");
       },
       post + "Keep-Alive\r\nContent-Type: a/b\r\nContent-Length: 12345678901\r\nExpect: "
              "100-continue\r\nUser-Agent: U\r\nX-A: 1\r\n\r\n"},
  };
  for (const auto& [send, expected] : cases) EXPECT_EQ(Sent(send), expected);
  const std::string log =
      Logged(UPNP_LOG_HTTP, [] { EXPECT_EQ(HTTP_open("https://127.0.0.1/"), -1); });
  EXPECT_THAT(log, HasSubstr("[Error] - LOG_HTTP: HTTP_open: Malformed url: https://127.0.0.1/"));
}

// Whole exchanges with a scripted server: what the client sent and what it made of the answer.
TEST_F(ClientTest, Exchanges) {
  const std::string soap = "<s:Envelope>play</s:Envelope>", xml = "<a>1</a>";
  const auto soap_to = [&](const char* control) -> Call {
    return [&, control](const std::string& base) {
      return Take(HTTP_soap_action((base + "/d/desc.xml").c_str(), control, "a", soap.c_str()));
    };
  };
  const Call post = [&](const std::string& base) {
    char* answer = reinterpret_cast<char*>(1);
    int32_t length = -1;
    const int32_t result =
        HTTP_post((base + "/p").c_str(), "X-E: 1\r\n", xml.c_str(), 8, &answer, &length);
    return std::to_string(result) + " " + Str(answer) + " " + std::to_string(length);
  };
  TempDir dir;
  std::string big(300000, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
  const std::string content = big.substr(0, 20000);
  WriteFile(dir.File("p.jpg"), content);
  const Call post_file = [&](const std::string& base) {
    int32_t status = -1;
    const int32_t result = HTTP_post_file((base + "/up/p.jpg").c_str(), "X-N: p\r\n",
                                          dir.File("p.jpg").c_str(), "image/jpeg", &status);
    return std::to_string(result) + " " + std::to_string(status);
  };
  const std::string upload =
      "POST /up/p.jpg HTTP/1.1\r\nAccept: */*\r\nHost: HOST\r\nConnection: Keep-Alive\r\nContent-"
      "Type: image/jpeg\r\nContent-Length: 20000\r\n" +
      kAgent + "X-N: p\r\n\r\n" + content;
  const std::string soap_head = " HTTP/1.1\r\nAccept: */*\r\n" + kAgent +
                                "Host: HOST\r\nSOAPACTION: a\r\nCONTENT-TYPE:  text/xml; "
                                "charset=\"utf-8\"\r\nContent-Length: 29\r\n\r\n" +
                                soap;
  const std::string post_request = "POST /p HTTP/1.1\r\nAccept: */*\r\n" + kAgent +
                                   "Host: HOST\r\nCONTENT-TYPE: text/xml ; charset=\"utf-8\"\r\n"
                                   "X-E: 1\r\nContent-Length: 8\r\nConnection: close\r\n\r\n" +
                                   xml;
  const Call get = [](std::string b) {
    return Take(HTTP_get((b.insert(7, "u:p@") + "/d").c_str()));
  };
  const std::string size_line(100000, '1');  // 19 bytes of it are the size, the rest data
  const std::string chunked = kOk + "Transfer-Encoding: chunked\r\n\r\n";
  // A download lands under its name only when complete; a broken one leaves an earlier file.
  const auto download = [&](bool earlier) -> Call {
    return [&, earlier](const std::string& base) {
      TempDir d;
      if (earlier) WriteFile(d.File("x.xml"), "earlier");
      int64_t length = -1;
      const int32_t result =
          HTTP_download_file((base + "/x").c_str(), nullptr, d.File("x.xml").c_str(), &length);
      std::string out = std::to_string(result) + " " + std::to_string(length);
      for (const auto& file : std::filesystem::directory_iterator(d.path())) {
        out += " " + file.path().filename().string() + "=" + ReadFile(file.path());
      }
      return out;
    };
  };
  // {reply, call on the server's base URL, answer, request ("": not compared)}
  const std::tuple<std::string, Call, std::string, std::string> cases[] = {
      // User information is no part of where the client connects, only of the Host line.
      {kOk + "Content-Length: 5\r\n\r\nhello", get, "hello",
       "GET /d HTTP/1.1\r\nAccept: */*\r\nHost: u:p@HOST\r\n" + kAgent + "\r\n"},
      {kOk + "Content-Length: 4\r\n\r\ndone", soap_to("/ctl"), "done", "POST /ctl" + soap_head},
      {kOk + "Content-Length: 4\r\n\r\ndone", soap_to("ctl"), "done",
       "POST /d/desc.xml/ctl" + soap_head},
      {"HTTP/1.1 100 Continue\r\n\r\n" + kOk + "Content-Length: 6\r\n\r\n<ok/>\n", post,
       "1 <ok/>\n 6", post_request},
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 204 No Content\r\n\r\n", post_file, "0 204", upload},
      // Interim answers are skipped, the status is not examined; hostile peers get no more
      // memory than their bytes and the client returns once they close.
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n" + kOk +
           "Content-Length: 2\r\n\r\nok",
       get, "ok", ""},
      {"HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found", get, "not found", ""},
      {kOk + std::string(1 << 20, 'X'), get, "<null>", ""},
      {chunked + size_line, get, size_line.substr(19), ""},
      {chunked + "10000000\r\n" + std::string(70000, 'm'), get, std::string(70000, 'm'), ""},
      {kOk + "Content-Length: 2000000000\r\n\r\n0123456789", get, "0123456789", ""},
      {kOk + "Content-Length: 99999999999\r\n\r\ntoo big", get, "<null>", ""},
      {kOk + "Content-Length: 300000\r\n\r\n" + big, download(true), "0 300000 x.xml=" + big, ""},
      {kOk + "Content-Length: 9000\r\n\r\n" + big.substr(0, 5000), download(false), "1 0", ""},
      {kOk + "Content-Length: 9000\r\n\r\n" + big.substr(0, 5000), download(true),
       "1 0 x.xml=earlier", ""},
  };
  for (const auto& [reply, call, answer, request] : cases) {
    ScriptedServer server(reply);
    EXPECT_TRUE(call(server.Url("")) == answer) << reply.substr(0, 80);
    EXPECT_EQ(request.empty() ? request : server.Request(), request);
  }
  // A 256 MiB announcement chunk by chunk, its data past the first block of 64 KiB.
  PeerPair pair;
  ASSERT_TRUE(pair.Open() && pair.client().Send("10000000\r\n" + std::string(70000, 'q')));
  pair.client().ShutdownWrite();
  char* data = nullptr;
  EXPECT_EQ(HTTP_receive_chunk(pair.server_fd(), &data), 70000);
  EXPECT_TRUE(data != nullptr && std::string(data, 70000) == std::string(70000, 'q'));
  if (data != nullptr) upnp_free_impl(data);
  EXPECT_LT(upnp_max_mem_used(), 64u << 20) << "an announced size reserved memory";
}

// The client against HTTP servers this project did not write, in the private namespace: nginx
// answers with a Content-Length, node in chunks, python with HTTP/1.0. Skipped where not installed.
// A port of its own below the ephemeral range, so parallel runs never meet, and a command line in
// which a leading '@' stands for a fresh directory holding www/.
struct Server {
  int port;
  std::vector<std::string> argv;
};
std::string Name(const Server& server) {
  return server.argv[0].substr(server.argv[0].rfind('/') + 1);
}
void PrintTo(const Server& server, std::ostream* out) { *out << Name(server); }

const Server kServers[] = {
    // One process (no master, no user switch), every file under the prefix.
    {18081, {"/usr/sbin/nginx", "-p", "@/", "-c", "nginx.conf", "-e", "log"}},
    {18082,
     {"node", "-e",
      "const b=require('fs').readFileSync(process.argv[1]);require('http').createServer((q,r)=>{"
      "for(let i=0;i<b.length;i+=4000)r.write(b.subarray(i,i+4000));r.end()})"
      ".listen(18082,'127.0.0.1')",
      "@/www/description.xml"}},
    {18083,
     {"python3", "-m", "http.server", "18083", "--bind", "127.0.0.1", "--directory", "@/www"}},
};

class RealServer : public ClientTest, public ::testing::WithParamInterface<Server> {};

TEST_P(RealServer, ServesADocumentByteForByte) {
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
  std::vector<char*> args;
  std::vector<std::string> argv = GetParam().argv;
  for (std::string& arg : argv)
    args.push_back((arg = arg[0] == '@' ? dir.path() + &arg[1] : arg).data());
  args.push_back(nullptr);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ);
  const std::shared_ptr<void> stop(nullptr, [&pid](void*) {  // ends the server with the test
    if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
  });
  if (error == ENOENT) GTEST_SKIP() << Name(GetParam()) << " is not installed";
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
                         [](const auto& test) { return Name(test.param); });

}  // namespace
