// SPDX-License-Identifier: Apache-2.0
#include "http/http_test_util.h"

namespace {

using tw::test::Take;
constexpr char kChunked[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

class HttpBody : public tw::test::LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    ASSERT_TRUE(pair_.Open());
  }
  void TearDown() override {
    pair_.CloseServer();
    LeakCheck::TearDown();
  }
  void Fresh() {
    pair_.CloseServer();
    ASSERT_TRUE(pair_.Open());
  }
  // Sends wire (then ends the stream when asked) and reads the body on a fresh connection; the
  // bytes the reader left in the socket are kept in left_.
  std::string Body(const std::string& head, const std::string& wire, bool then_close = false) {
    Fresh();
    EXPECT_TRUE(pair_.client().Send(wire));
    if (then_close) pair_.client().ShutdownWrite();
    std::string body = Take(HTTP_receive_body(pair_.server_fd(), head.c_str()));
    left_ = pair_.QueuedAtServer(50);
    return body;
  }
  tw::test::PeerPair pair_;
  std::string left_;
};

TEST_F(HttpBody, ChunkedBodies) {
  EXPECT_EQ(Body(kChunked, "5\r\nhello\r\n0\r\n\r\nNEXT"), "hello");
  EXPECT_EQ(left_, "NEXT");  // nothing behind the final CR LF is taken
  EXPECT_EQ(Body(kChunked, "3;ext=v\r\nabc\r\nA\r\n0123456789\r\n0\r\n\r\n"), "abc0123456789");
  // FFFFFFFF reads as -1, which is not an end: its CR LF is read and the next chunk follows.
  EXPECT_EQ(Body(kChunked, "FFFFFFFF\r\n\r\n2\r\nok\r\n0\r\n\r\n"), "ok");
  // Only 19 bytes of a size line are read; what follows them is chunk data.
  EXPECT_EQ(Body(kChunked, "3" + std::string(18, ' ') + "abc\r\n0\r\n\r\n"), "abc");
  EXPECT_EQ(Body(kChunked, "a\r\n12345", true), "12345");  // the peer stopped inside a chunk
}

TEST_F(HttpBody, ContentLengthBodies) {
  EXPECT_EQ(Body("POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n", "12345GET /"), "12345");
  EXPECT_EQ(left_, "GET /");
  EXPECT_EQ(Body("POST / HTTP/1.1\r\ncontent-length:   10\r\n\r\n", "abcd", true), "abcd");
  EXPECT_EQ(Body("POST / HTTP/1.1\r\nContent-Length: 7\r\n\r\n", "", true), "<null>");
  // Beyond 64 KiB the string grows as bytes arrive instead of being reserved up front.
  std::string big(200000, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
  Fresh();
  std::thread sender([&] { pair_.client().Send(big + "TAIL"); });
  const std::string got = Take(
      HTTP_receive_body(pair_.server_fd(), "POST / HTTP/1.1\r\nContent-Length: 200000\r\n\r\n"));
  sender.join();
  EXPECT_TRUE(got == big) << got.size();
  EXPECT_EQ(pair_.QueuedAtServer(), "TAIL");
}

TEST_F(HttpBody, UnframedBodiesAreReadUntilCloseOnlyForHttp10OrConnectionClose) {
  EXPECT_EQ(Body("HTTP/1.1 200 OK\r\nServer: x\r\n\r\n", "stays"), "<null>");
  EXPECT_EQ(left_, "stays");
  EXPECT_EQ(Body("HTTP/1.0 200 OK\r\n\r\n", std::string(20000, 'q'), true),
            std::string(20000, 'q'));
  EXPECT_EQ(Body("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n", "tail", true), "tail");
  // A Content-Length of 0 counts as missing.
  EXPECT_EQ(Body("HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n", "more", true), "more");
  EXPECT_EQ(HTTP_receive_body(pair_.server_fd(), nullptr), nullptr);
}

TEST_F(HttpBody, OutOfMemoryGivesNullWithoutLeaks) {
  const char* heads[] = {"POST / HTTP/1.1\r\nContent-Length: 4\r\n\r\n", kChunked,
                         "HTTP/1.0 200 OK\r\n\r\n"};
  for (const char* head : heads) {
    tw::test::ForEachAllocFailure([&] { return Body(head, "4\r\nabcd\r\n0\r\n\r\n", true); },
                                  [&](const std::string& body, bool failed) {
                                    EXPECT_TRUE(!failed || body == "<null>") << head << body;
                                  });
  }
}

TEST_F(HttpBody, ChunkByChunk) {
  ASSERT_TRUE(pair_.client().Send("5\r\nhello\r\n2\r\n!!\r\n0\r\n\r\nrest"));
  char* data = nullptr;
  ASSERT_EQ(HTTP_receive_chunk(pair_.server_fd(), &data), 5);
  EXPECT_EQ(std::string(data, 5), "hello");
  upnp_free_impl(data);
  ASSERT_EQ(HTTP_receive_chunk(pair_.server_fd(), &data), 2);
  upnp_free_impl(data);
  EXPECT_EQ(HTTP_receive_chunk(pair_.server_fd(), &data), 0);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(pair_.QueuedAtServer(), "rest");
  EXPECT_EQ(HTTP_receive_chunk(-1, &data), -1);
  EXPECT_EQ(HTTP_receive_chunk(pair_.server_fd(), nullptr), -1);
  // A short chunk gives what arrived, then the ended stream gives -1.
  Fresh();
  ASSERT_TRUE(pair_.client().Send("8\r\nabc"));
  pair_.client().ShutdownWrite();
  ASSERT_EQ(HTTP_receive_chunk(pair_.server_fd(), &data), 3);
  upnp_free_impl(data);
  EXPECT_EQ(HTTP_receive_chunk(pair_.server_fd(), &data), -1);
  // Nothing of the chunk arrived; memory runs out.
  Fresh();
  ASSERT_TRUE(pair_.client().Send("4\r\n"));
  pair_.client().ShutdownWrite();
  EXPECT_EQ(HTTP_receive_chunk(pair_.server_fd(), &data), -1);
  EXPECT_EQ(data, nullptr);
  Fresh();
  ASSERT_TRUE(pair_.client().Send("4\r\nabcd\r\n"));
  tw::platform::FailAllocAfter(0);
  EXPECT_EQ(HTTP_receive_chunk(pair_.server_fd(), &data), -1);
}

}  // namespace
