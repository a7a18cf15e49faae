// SPDX-License-Identifier: Apache-2.0
#include "httpclient/scripted_server.h"

namespace {

using namespace tw::test;

const std::string kOk = "HTTP/1.1 200 OK\r\n";

std::vector<std::string> Listing(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class HttpClientTransfer : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    HTTP_make_user_agent_settable();
  }
  TempDir dir_;
};

// A download lands under its name only when complete; a broken one leaves the directory as it
// was, an earlier file included.
TEST_F(HttpClientTransfer, DownloadIsAllOrNothing) {
  const std::string big(300000, 'b');
  std::string chunked_big;
  for (size_t at = 0; at < big.size(); at += 70000) {
    const std::string part = big.substr(at, 70000);
    char size[16];
    std::snprintf(size, sizeof(size), "%zx\r\n", part.size());
    chunked_big += size + part + "\r\n";
  }
  // {reply, result, file content afterwards ("<none>": no file), length}
  const std::tuple<std::string, int32_t, std::string, int64_t> cases[] = {
      {kOk + "Content-Length: 300000\r\n\r\n" + big, 0, big, 300000},
      {kOk + "Transfer-Encoding: chunked\r\n\r\n" + chunked_big + "0\r\n\r\n", 0, big, 300000},
      {"HTTP/1.0 200 OK\r\n\r\nto the end", 0, "to the end", 10},
      {kOk + "Content-Length: 0\r\nServer: x\r\n\r\n", 0, "", 0},
      // Broken off midway: announced 100000, sent 5000; chunked without its last chunk.
      {kOk + "Content-Length: 100000\r\n\r\n" + std::string(5000, 'p'), 1, "<none>", 0},
      {kOk + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n", 1, "<none>", 0},
      {"HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone", 1, "<none>", 0},
      {"", 1, "<none>", 0},
  };
  for (const bool earlier_file : {false, true}) {
    for (const auto& [reply, result, content, length] : cases) {
      const std::string target = dir_.File("desc.xml");
      std::filesystem::remove(target);
      if (earlier_file) WriteFile(target, "earlier");
      ScriptedServer server({reply});
      int64_t got_length = -1;
      EXPECT_EQ(HTTP_download_file(server.Url("/d").c_str(), nullptr, target.c_str(), &got_length),
                result)
          << reply.substr(0, 60);
      const std::string expected = result != 0 && earlier_file ? "earlier" : content;
      EXPECT_EQ(FileExists(target) ? ReadFile(target) : "<none>", expected) << reply.substr(0, 60);
      EXPECT_EQ(got_length, length);
      EXPECT_EQ(Listing(dir_.path()), expected == "<none>" ? std::vector<std::string>{}
                                                           : std::vector<std::string>{"desc.xml"});
    }
  }
}

TEST_F(HttpClientTransfer, ReceiveFileAfterAHeadAndRefusals) {
  PeerPair pair;
  ASSERT_TRUE(pair.Open());
  ASSERT_TRUE(pair.client().Send("hello, next"));
  int64_t length = -1;
  const std::string target = dir_.File("up.bin");
  EXPECT_EQ(HTTP_receive_file(pair.server_fd(), "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n",
                              target.c_str(), &length),
            0);
  EXPECT_EQ(ReadFile(target), "hello");
  EXPECT_EQ(length, 5);
  EXPECT_EQ(pair.QueuedAtServer(), ", next");
  const std::string head = kOk + "Content-Length: 1\r\n\r\n";
  EXPECT_EQ(
      HTTP_receive_file(pair.server_fd(), head.c_str(), dir_.File("no/such/dir").c_str(), &length),
      1);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(HTTP_receive_file(-1, head.c_str(), target.c_str(), nullptr), 1);
  EXPECT_EQ(HTTP_receive_file(pair.server_fd(), nullptr, target.c_str(), nullptr), 1);
  EXPECT_EQ(HTTP_download_file(nullptr, nullptr, target.c_str(), nullptr), 1);
  EXPECT_EQ(Listing(dir_.path()), std::vector<std::string>{"up.bin"});
}

TEST_F(HttpClientTransfer, PostFileSendsHeadAndBytes) {
  std::string content(100000, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
  const std::string source = dir_.File("photo.jpg");
  WriteFile(source, content);
  // {reply, result, status}
  const std::tuple<std::string, int32_t, int32_t> cases[] = {
      {"HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n", 0, 201},
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 204 No Content\r\n\r\n", 0, 204},
      {"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n", 1, 500},
      {"", 1, 0},
  };
  for (const auto& [reply, result, status] : cases) {
    ScriptedServer server({reply});
    int32_t got_status = -1;
    EXPECT_EQ(HTTP_post_file(server.Url("/upload/p.jpg").c_str(), "X-Name: p\r\n", source.c_str(),
                             "image/jpeg", &got_status),
              result);
    EXPECT_EQ(got_status, status);
    const std::string request = server.Requests().at(0);
    const size_t end = request.find("\r\n\r\n");
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(request.substr(0, end + 4),
              "POST /upload/p.jpg HTTP/1.1\r\nAccept: */*\r\nHost: 127.0.0.1:" +
                  std::to_string(server.port()) +
                  "\r\nConnection: Keep-Alive\r\nContent-Type: image/jpeg\r\nContent-Length: "
                  "100000\r\nUser-Agent: ktConnect DLNADOC/1.50\r\nX-Name: p\r\n\r\n");
    EXPECT_TRUE(request.substr(end + 4) == content) << "body of " << request.size() - end - 4;
  }
  int32_t status = -1;
  EXPECT_EQ(
      HTTP_post_file("http://127.0.0.1:1/", nullptr, dir_.File("missing").c_str(), "a/b", &status),
      1);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(HTTP_post_file("http://127.0.0.1:1/", nullptr, source.c_str(), nullptr, &status), 1);
}

}  // namespace
