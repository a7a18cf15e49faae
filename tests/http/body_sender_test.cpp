// SPDX-License-Identifier: Apache-2.0
#include "http/body_sender.h"

#include "http/hooks.h"
#include "http/http_test_util.h"
#include "http/registry.h"

namespace {

using tw::test::HeaderValue;
const std::string kBody = [] {
  std::string body;
  for (int i = 0; i < 100; ++i) body += static_cast<char>('A' + i % 26);
  return body;
}();

// Sends the 100-byte body for a request with `extra` in its head; returns what arrived, the
// response as framed by its Content-Length and anything left over.
struct Sent {
  int32_t result;
  tw::test::HttpResponse response;
  std::string rest;
};
Sent SendWith(const std::string& extra, uint32_t method = HTTP_METHOD_GET) {
  tw::test::PeerPair pair;
  if (!pair.Open()) return {-1, {}, "<no socket pair>"};
  auto request = tw::test::GetRequest("/b", "HOST: x\r\n" + extra);
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

HttpFileCache* g_completed = nullptr;
bool g_completed_saw_contents = false;
void RecordCompleted(HttpFileCache* cache) {
  g_completed = cache;
  g_completed_saw_contents = cache->file != nullptr && cache->blocks[3] != nullptr;
}

class HttpBodySender : public tw::test::LeakCheck {
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
      {"Range: bytes=0-101\r\n", 416, "<none>", ""},
      {"TimeSeekRange.dlna.org: npt=0-\r\n", 400, "<none>", ""},
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
  EXPECT_EQ(HTTP_send(nullptr, "x"), 1);
  HttpRequest request = {};
  request.content_length = 5;
  EXPECT_EQ(HTTP_send(&request, nullptr), 1);
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
  request.is_timeseek = 1;
  request.range_start = 0;
  request.range_end = -1;
  EXPECT_EQ(tw::http::RangeErrorStatus(request), 400);
}

TEST_F(HttpBodySender, TlsRequestsSendThroughTheHookAndMinusTwoMarksClose) {
  HttpRequest request = {};
  request.tls = 1;
  request.tls_session = 42;
  EXPECT_EQ(upnp_send_ssl(&request, "abc", 3), -1);  // no hook
  EXPECT_EQ(upnp_send_ssl(nullptr, "abc", 3), -1);
  http_server_set_tls_callbacks(nullptr, nullptr, nullptr, nullptr, &FakeTlsSend, nullptr, nullptr,
                                nullptr);
  g_tls_sent.clear();
  g_tls_result = 0;
  EXPECT_EQ(upnp_send_ssl(&request, "abc", 3), 3);
  EXPECT_EQ(g_tls_session, 42);
  EXPECT_EQ(request.close_connection, 0);
  g_tls_result = -2;
  EXPECT_EQ(upnp_send_ssl(&request, "de", 2), -2);
  EXPECT_EQ(request.close_connection, 1);
  EXPECT_EQ(g_tls_sent, "abcde");
  request.tls = 0;
  request.socket = -1;
  EXPECT_EQ(upnp_send_ssl(&request, "abc", 3), -1);
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
  tw::test::PeerPair pair;
  ASSERT_TRUE(pair.Open());
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

TEST_F(HttpBodySender, FileCacheReleaseRunsTheHookFirstAndFreesEverything) {
  http_file_filecache_free(nullptr);
  upnp_timeseek_free(nullptr);
  tw::test::TempDir dir;
  tw::test::WriteFile(dir.File("f"), "data");
  for (bool with_hook : {true, false}) {
    http_set_cb_file_completed(with_hook ? &RecordCompleted : nullptr);
    g_completed = nullptr;
    g_completed_saw_contents = false;
    auto* cache = static_cast<HttpFileCache*>(upnp_calloc_impl(1, sizeof(HttpFileCache)));
    for (void*& block : cache->blocks) block = upnp_malloc_impl(16);
    cache->file = upnp_file_open_read(dir.File("f").c_str());
    ASSERT_NE(cache->file, nullptr);
    cache->timeseek = static_cast<upnp_timeseek*>(upnp_calloc_impl(1, sizeof(upnp_timeseek)));
    cache->timeseek->text = upnp_strdup_impl("npt=1-");
    http_file_filecache_free(cache);  // LeakCheck proves every block went
    EXPECT_EQ(g_completed, with_hook ? cache : nullptr);
    EXPECT_EQ(g_completed_saw_contents, with_hook);
  }
}

}  // namespace
