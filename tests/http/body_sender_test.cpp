// SPDX-License-Identifier: Apache-2.0
#include "http/body_sender.h"

#include <fstream>

#include "http/hooks.h"
#include "http/registry.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

const std::string kAbc = "ABCDEFGHIJKLMNOPQRSTUVWXYZ",
                  kBody = (kAbc + kAbc + kAbc + kAbc).substr(0, 100);

// The 100-byte body sent for a request with `extra` in its head, as it arrived.
struct Sent {
  int32_t result;
  HttpResponse response;
  std::string rest;
};
Sent SendWith(const std::string& extra, uint32_t method = HTTP_METHOD_GET) {
  PeerPair pair;
  if (!pair.Open()) return {-1, {}, "<no socket pair>"};
  auto request = GetRequest("/b", "HOST: x\r\n" + extra);
  request->socket = pair.server_fd();
  request->method = method;
  request->mime_type = "text/plain";
  request->content_length = static_cast<int64_t>(kBody.size());
  Sent sent = {HTTP_send(request.get(), kBody.c_str()), {}, ""};
  pair.CloseServer();
  sent.response = pair.client().ReadResponse();
  sent.rest = pair.client().ReadAll();
  return sent;
}

std::string g_tls_sent;
int64_t g_tls_result = 0;
int32_t g_tls_session = 0;
int64_t FakeTlsSend(int32_t session, const void* data, int64_t length) {
  g_tls_session = session;
  g_tls_sent.append(static_cast<const char*>(data), static_cast<size_t>(length));
  return g_tls_result != 0 ? g_tls_result : length;
}

class HttpBodySender : public LeakCheck {
 protected:
  void TearDown() override {
    http_server_set_tls_callbacks(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                  nullptr);
    http_set_cb_file_completed(nullptr);
    LeakCheck::TearDown();
  }
};

TEST_F(HttpBodySender, RangesSelectTheBytesAndBadOnesGetTheirStatus) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const std::tuple<const char*, int, const char*, std::string> cases[] = {
      {"Range: bytes=10-19\r\n", 206, "bytes 10-19/100", kBody.substr(10, 10)},
      {"Range: bytes=10-\r\n", 206, "bytes 10-99/100", kBody.substr(10)},
      // An end equal to the size is kept: one byte more is announced and a NUL fills it.
      {"Range: bytes=90-100\r\n", 206, "bytes 90-100/100", kBody.substr(90) + '\0'},
      {"", 200, "<none>", kBody},
      {"Range: bytes=101-\r\n", 416, "<none>", ""},
  };
  for (const auto& [extra, status, content_range, body] : cases) {
    const Sent sent = SendWith(extra);
    EXPECT_EQ(std::make_tuple(sent.result, sent.response.status,
                              HeaderValue(sent.response.head, "Content-Range"), sent.response.body,
                              sent.rest),
              std::make_tuple(0, status, std::string(content_range), body, std::string()))
        << extra;
  }
  const Sent head = SendWith("Range: bytes=10-19\r\n", HTTP_METHOD_HEAD);
  EXPECT_EQ(HeaderValue(head.response.head, "Content-Length") + head.rest, "10");
  // Numbers that wrap past 64 bits or run past the body still give one well-framed answer.
  for (const char* absurd : {"bytes=99999999999999999999999999-", "bytes=18446744073709551615-",
                             "bytes=9223372036854775808-9223372036854775807",
                             "bytes=5-99999999999999999999", "bytes=100-"}) {
    const Sent sent = SendWith(std::string("Range: ") + absurd + "\r\n");
    EXPECT_TRUE(sent.response.complete && sent.rest.empty()) << absurd;
  }
  HttpRequest request = {};
  request.content_length = 5;
  EXPECT_EQ(HTTP_send(nullptr, "x") + HTTP_send(&request, nullptr), 2);
}

TEST_F(HttpBodySender, UnsetRangesAreCheckedBeforeRefusedOnesAndBothBeforeBounds) {
  HttpRequest request = {};
  request.content_length = 100;
  const std::tuple<int64_t, int64_t, int32_t> cases[] = {
      {-3, -2, 400},  {-2, -3, 400}, {-3, 5, 406},
      {500, -3, 406}, {-1, -1, 0},   {0, 100, 0},
      {5, 4, 416},    {-1, 50, 0},   {INT64_MIN, INT64_MAX, 416}};
  for (const auto& [start, end, status] : cases) {
    request.range_start = start;
    request.range_end = end;
    EXPECT_EQ(tw::http::RangeErrorStatus(request), status) << start << " " << end;
  }
  std::tie(request.is_timeseek, request.range_start, request.range_end) = std::tuple(1, 0, -1);
  EXPECT_EQ(tw::http::RangeErrorStatus(request), 400);
}

TEST_F(HttpBodySender, TlsRequestsSendThroughTheHookAndMinusTwoMarksClose) {
  HttpRequest request = {};
  request.tls = 1;
  request.tls_session = 42;
  EXPECT_EQ(upnp_send_ssl(&request, "abc", 3) + upnp_send_ssl(nullptr, "abc", 3), -2);  // no hook
  http_server_set_tls_callbacks(nullptr, nullptr, nullptr, nullptr, &FakeTlsSend, nullptr, nullptr,
                                nullptr);
  g_tls_sent.clear();
  g_tls_result = 0;
  EXPECT_EQ(upnp_send_ssl(&request, "abc", 3), 3);
  EXPECT_EQ(std::make_pair(g_tls_session, request.close_connection), std::make_pair(42, 0));
  g_tls_result = -2;
  EXPECT_EQ(upnp_send_ssl(&request, "de", 2), -2);
  EXPECT_EQ(g_tls_sent + std::to_string(request.close_connection), "abcde1");
  request.tls = 0;
  request.socket = -1;
  EXPECT_EQ(upnp_send_ssl(&request, "abc", 3), -1);
}

// The file sender's other roads: through the TLS hook, and through the handle for a media file
// stored in parts (no single descriptor holds it); both read in blocks, so the body is larger
// than one block.
TEST_F(HttpBodySender, FileBodiesPassTheTlsHookAndSpanTheParts) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  TempDir dir;
  std::string whole(150000, '\0');
  for (size_t i = 0; i < whole.size(); ++i) whole[i] = static_cast<char>('A' + i % 23);
  const std::string first = dir.path() + "/part1", second = dir.path() + "/part2";
  std::ofstream(first, std::ios::binary) << whole.substr(0, 70000);
  std::ofstream(second, std::ios::binary) << whole.substr(70000);

  auto request = GetRequest("/f", "HOST: x\r\n");
  request->tls = 1;
  request->mime_type = "application/octet-stream";
  request->content_length = 69000;
  http_server_set_tls_callbacks(nullptr, nullptr, nullptr, nullptr, &FakeTlsSend, nullptr, nullptr,
                                nullptr);
  g_tls_sent.clear();
  g_tls_result = 0;
  upnp_file* file = upnp_file_open_read(first.c_str());
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(HTTP_send_file(request.get(), 200, file, 1000), 0);
  upnp_file_close(file);
  const size_t end = g_tls_sent.find("\r\n\r\n");
  ASSERT_NE(end, std::string::npos);
  EXPECT_TRUE(g_tls_sent.substr(end + 4) == whole.substr(1000, 69000));

  PeerPair pair;
  ASSERT_TRUE(pair.Open());
  request = GetRequest("/f", "HOST: x\r\n");
  request->socket = pair.server_fd();
  request->mime_type = "application/octet-stream";
  request->content_length = 100000;
  upnp_file* parts = upnp_mediafile_open_read(first.c_str());
  ASSERT_NE(parts, nullptr);
  ASSERT_EQ(upnp_mediafile_add_part(parts, first.c_str(), 70000), 0);
  ASSERT_EQ(upnp_mediafile_add_part(parts, second.c_str(), 80000), 0);
  EXPECT_EQ(HTTP_send_file(request.get(), 200, parts, 20000), 0);
  upnp_file_close(parts);
  pair.CloseServer();
  const HttpResponse response = pair.client().ReadResponse();
  EXPECT_TRUE(response.complete && response.body == whole.substr(20000, 100000));
  // Arguments it cannot use.
  EXPECT_EQ(HTTP_send_file(nullptr, 200, parts, 0) + HTTP_send_file(request.get(), 200, nullptr, 0),
            2);
}

TEST_F(HttpBodySender, ChunkedHeaderPartsAndEndAreExact) {
  char header[tw::http::kChunkedHeaderSize];
  tw::http::FormatChunkedHeader(header, sizeof(header), nullptr, "D");
  EXPECT_STREQ(header,
               "HTTP/1.1 200 OK\r\nCONTENT-TYPE:  text/xml; charset=\"utf-8\"\r\nDATE: D\r\n"
               "Connection: close\r\nEXT:\r\nSERVER: " UPNP_SERVER_BANNER
               "\r\nTransfer-Encoding: chunked\r\n\r\n");
  upnp_string* text = upnp_string_create("0123456789abcdefghijklmnop", 0);
  EXPECT_EQ(HTTP_send_chunked_part(-1, text), 1);
  EXPECT_EQ(text->length, 26u);  // a chunk that failed is kept
  EXPECT_EQ(HTTP_send_chunked_end(-1) + HTTP_send_chunked_header(-1, "a/b"), 2);
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  PeerPair pair;
  ASSERT_TRUE(pair.Open());
  tw::platform::FailAllocAfter(0);  // no buffer: nothing goes out, yet the result is success
  EXPECT_EQ(HTTP_send_chunked_header(pair.server_fd(), "x/y"), 0);
  tw::platform::ClearAllocFailure();
  EXPECT_EQ(HTTP_send_chunked_header(pair.server_fd(), "text/plain"), 0);
  EXPECT_EQ(HTTP_send_chunked_part(pair.server_fd(), text), 0);
  EXPECT_EQ(text->length, 0u);
  EXPECT_EQ(HTTP_send_chunked_part(pair.server_fd(), text), 0);  // empty: nothing sent
  EXPECT_EQ(HTTP_send_chunked_part(pair.server_fd(), nullptr), 0);
  EXPECT_EQ(HTTP_send_chunked_end(pair.server_fd()), 0);
  upnp_string_free(text);
  pair.CloseServer();
  const std::string raw = pair.client().ReadAll();
  const size_t date = raw.find("DATE: ") + 6;
  tw::http::FormatChunkedHeader(header, sizeof(header), "text/plain",
                                raw.substr(date, raw.find("\r\n", date) - date).c_str());
  EXPECT_EQ(raw, std::string(header) + "1a\r\n0123456789abcdefghijklmnop\r\n0\r\n\r\n");
}

constexpr char kChunked[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

class HttpBody : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    ASSERT_TRUE(pair_.Open());
  }
  void Fresh() {
    pair_.CloseServer();
    ASSERT_TRUE(pair_.Open());
  }
  // The body read from wire on a fresh connection; left_ keeps what the reader left queued.
  std::string Body(const std::string& head, const std::string& wire, bool then_close = false) {
    Fresh();
    EXPECT_TRUE(pair_.client().Send(wire));
    if (then_close) pair_.client().ShutdownWrite();
    std::string body = Take(HTTP_receive_body(pair_.server_fd(), head.c_str()));
    left_ = pair_.QueuedAtServer(50);
    return body;
  }
  // Sends wire, ends the stream and makes n chunk reads, each as "size:data,".
  std::string Chunks(const std::string& wire, int n) {
    Fresh();
    EXPECT_TRUE(pair_.client().Send(wire));
    pair_.client().ShutdownWrite();
    std::string got;
    for (int i = 0; i < n; ++i) {
      char* data = nullptr;
      const int32_t size = HTTP_receive_chunk(pair_.server_fd(), &data);
      got += std::to_string(size) + ":" +
             (data != nullptr ? std::string(data, std::max(size, 0)) : "<null>") + ",";
      if (data != nullptr) upnp_free_impl(data);
    }
    return got;
  }
  PeerPair pair_;
  std::string left_;
};

TEST_F(HttpBody, ChunkedContentLengthAndUnframedBodies) {
  const std::string post = "POST / HTTP/1.1\r\n", ok10 = "HTTP/1.0 200 OK\r\n";
  // {head, wire, end the stream after it, body, bytes left in the socket}
  const std::tuple<std::string, std::string, bool, std::string, std::string> cases[] = {
      {kChunked, "5\r\nhello\r\n0\r\n\r\nNEXT", false, "hello", "NEXT"},
      {kChunked, "3;ext=v\r\nabc\r\nA\r\n0123456789\r\n0\r\n\r\n", false, "abc0123456789", ""},
      // FFFFFFFF reads as -1, which is not an end: its CR LF is read and the next chunk follows.
      {kChunked, "FFFFFFFF\r\n\r\n2\r\nok\r\n0\r\n\r\n", false, "ok", ""},
      // Only 19 bytes of a size line are read; what follows them is chunk data.
      {kChunked, "3" + std::string(18, ' ') + "abc\r\n0\r\n\r\n", false, "abc", ""},
      {kChunked, "a\r\n12345", true, "12345", ""},  // the peer stopped inside a chunk
      {post + "Content-Length: 5\r\n\r\n", "12345GET /", false, "12345", "GET /"},
      {post + "content-length:   10\r\n\r\n", "abcd", true, "abcd", ""},
      {post + "Content-Length: 7\r\n\r\n", "", true, "<null>", ""},
      // Without framing only HTTP/1.0 or Connection: close read until the end of the stream; a
      // Content-Length of 0 counts as missing.
      {"HTTP/1.1 200 OK\r\nServer: x\r\n\r\n", "stays", false, "<null>", "stays"},
      {ok10 + "\r\n", std::string(20000, 'q'), true, std::string(20000, 'q'), ""},
      {"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n", "tail", true, "tail", ""},
      {ok10 + "Content-Length: 0\r\n\r\n", "more", true, "more", ""},
  };
  for (const auto& [head, wire, close, body, left] : cases) {
    EXPECT_EQ(Body(head, wire, close) + "|" + left_, body + "|" + left) << head << wire;
  }
  EXPECT_EQ(HTTP_receive_body(pair_.server_fd(), nullptr), nullptr);
}

TEST_F(HttpBody, OutOfMemoryGivesNullWithoutLeaks) {
  ForEachAllocFailure([&] { return Body(kChunked, "4\r\nabcd\r\n0\r\n\r\n", true); },
                      [](const std::string& body, bool failed) {
                        EXPECT_TRUE(!failed || body == "<null>") << body;
                      });
}

TEST_F(HttpBody, ChunkByChunk) {
  EXPECT_EQ(Chunks("5\r\nhello\r\n2\r\n!!\r\n0\r\n\r\nrest", 3), "5:hello,2:!!,0:<null>,");
  EXPECT_EQ(pair_.QueuedAtServer(), "rest");
  char* data = nullptr;
  EXPECT_EQ(HTTP_receive_chunk(-1, &data) + HTTP_receive_chunk(pair_.server_fd(), nullptr), -2);
  // A short chunk gives what arrived, then the ended stream -1, as does an absent chunk.
  EXPECT_EQ(Chunks("8\r\nabc", 2), "3:abc,-1:<null>,");
  EXPECT_EQ(Chunks("4\r\n", 1), "-1:<null>,");
}

}  // namespace
