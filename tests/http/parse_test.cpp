// SPDX-License-Identifier: Apache-2.0

#include "support/test_support.h"

namespace {

using namespace tw::test;

class HttpHeadValues : public LeakCheck {};

long Skipped(const char* text) {
  char* p = const_cast<char*>(text);
  http_skip_spaces(&p);
  return p - text;
}

std::string Mime(const char* head) { return Str(HTTP_parse_header_mime_type(head)); }

std::string Unescaped(std::string text) {
  HTTP_unescape_url(text.data());
  return text;  // the whole buffer: bytes behind an early NUL show too
}

TEST_F(HttpHeadValues, SkipSpacesStopsShortOfAnEmptyValue) {
  // A bare LF is not a line end here.
  EXPECT_EQ(Results(Skipped, {" \t x", " \n x", "   \r\nNext: 1", "  "}), "3,1,0,0,");
  http_skip_spaces(nullptr);
}

TEST_F(HttpHeadValues, ContentTypeRunsToTheLineEnd) {
  EXPECT_EQ(Mime("HTTP/1.1 200 OK\r\nContent-Type:   a/b; c=\"d\"\r\n"), "a/b; c=\"d\"");
  // Only spaces are skipped; a value without CR LF behind it is no value.
  EXPECT_EQ(Mime("CONTENT-TYPE:\ta/b\r\n"), "\ta/b");
  EXPECT_EQ(Mime("Content-Type: a/b"), "<null>");
  EXPECT_EQ(Mime("Accept: a/b\r\n"), "<null>");
  EXPECT_EQ(Mime(nullptr), "<null>");
}

TEST_F(HttpHeadValues, ChunkedAndConnectionClose) {
  EXPECT_EQ(Results(HTTP_parse_header_chunked,
                    {"TRANSFER-ENCODING: CHUNKED\r\n", "X-A: chunked\r\nX-B: transfer-encoding\r\n",
                     "Transfer-Encoding: chunked", "X-Mode: chunked\r\n", nullptr}),
            "1,1,0,0,0,");
  // Past the value start only an exact "close" counts, but anywhere after the name.
  EXPECT_EQ(
      Results(upnp_http_has_connection_close,
              {"connection:   CLOSE\r\n", "Connection: TE, close\r\n", "Connection: TE, Close\r\n",
               "Connection: keep-alive\r\nX-Why: close\r\n", "X-Why: close\r\n", nullptr}),
      "1,1,0,1,0,0,");
}

TEST_F(HttpHeadValues, StatusAndContentLengthNumbers) {
  EXPECT_EQ(Results(HTTP_parse_header_response,
                    {"HTTP/1.1  \t206 x", "HTTP/1.1 OK", "HTTP/1.1 99999999999",
                     "HTTP/1.1 -99999999999", "HTTP/1.1", nullptr}),
            "206,0," + std::to_string(INT_MAX) + "," + std::to_string(INT_MIN) + ",500,500,");
  EXPECT_EQ(
      Results(HTTP_parse_header_size, {"content-length:5000000000\r\n", "Content-Length: -5\r\n",
                                       "Content-Length: \r\n", "Content-Type: a/b\r\n", nullptr}),
      "5000000000,0,0,0,0,");
}

TEST_F(HttpHeadValues, UnescapeInPlaceToleratesBrokenEscapes) {
  // Non-hex characters count as 0; a '%' needs two characters behind it and nothing past the
  // end is read; "%00" ends the text early.
  EXPECT_EQ(Results([](const char* in) { return std::string(Unescaped(in).c_str()); },
                    {"a%20b+c", "/x%2Fy%3a%7E", "%g1z", "%%41", "100%", "ab%4"}),
            "a b c,/x/y:~,\x01z,\x04"
            "1,100%,ab%4,");
  EXPECT_EQ(Unescaped("a%00bc").substr(0, 4), std::string("a\0bc", 4));
  HTTP_unescape_url(nullptr);
}

std::string Text(const char* text) { return text != nullptr ? text : "<null>"; }
std::string Type(const char* extension) { return Text(HTTP_get_mime_type(nullptr, extension)); }
std::string Extension(const char* mime) { return Text(HTTP_get_extension_by_mime_type(mime)); }

// Rows whose order or spelling matters: first match wins, whole extensions without case.
TEST(HttpMime, LookupsByExtension) {
  EXPECT_EQ(
      Results(Type, {"mod", "3gp.a", "mpa", "3gp", "mpg-tts", "xml", "MP3", "mp33", "", nullptr}),
      "video/mpeg,audio/mp4,audio/MPA,video/3gpp,video/vnd.dlna.mpeg-tts, text/xml; "
      "charset=\"utf-8\",audio/mpeg,application/octet-stream,application/octet-stream,<null>,");
  // With a request the client database is asked first; the stand-in knows no special types.
  auto* request = static_cast<HttpRequest*>(upnp_calloc_impl(1, sizeof(HttpRequest)));
  request->client_id = 1;
  EXPECT_STREQ(HTTP_get_mime_type(request, "JPG"), "image/jpeg");
  upnp_free_impl(request);
  const char name[] = "/music/a.b.MP3";
  EXPECT_EQ(HTTP_get_extension(name), name + 11);
  EXPECT_STREQ(HTTP_get_extension("dir.d/file"), "d/file");
  EXPECT_EQ(HTTP_get_extension("noext"), nullptr);
  EXPECT_EQ(HTTP_get_extension(nullptr), nullptr);
}

TEST(HttpMime, LookupsByTypeText) {
  // "video/mpeg" stands first and occurs in "video/mpeg2"; case-sensitive; the XML row needs
  // its leading space; the fallback row has no extension.
  EXPECT_EQ(Results(Extension, {"video/mpeg2", "Content-Type: image/png\r\n", "IMAGE/PNG",
                                "text/xml", "Content-Type: text/xml; charset=\"utf-8\"",
                                "application/octet-stream", nullptr}),
            "mpg,png,<null>,<null>,xml,,<null>,");
  EXPECT_EQ(HTTP_is_known_mime_type("http-get:*:audio/mpeg:DLNA.ORG_PN=MP3") +
                HTTP_is_known_mime_type("application/octet-stream"),
            2);
  EXPECT_EQ(HTTP_is_known_mime_type("video/MP4") + HTTP_is_known_mime_type(nullptr), 0);
}

struct Case {
  std::string url, lines;
  int64_t start, end, requested_start, requested_end;
};

class HttpRange : public LeakCheck {
 protected:
  void TearDown() override {
    request_.reset();
    LeakCheck::TearDown();
  }
  HttpRequest* Read(const std::string& url, const std::string& lines) {
    request_ = GetRequest(url, "Host: h\r\n" + lines);
    HTTP_get_range_header(request_.get());
    return request_.get();
  }
  void Expect(const Case& c) {
    HttpRequest* r = Read(c.url, c.lines);
    EXPECT_EQ(std::make_tuple(r->range_start, r->range_end, r->requested_range_start,
                              r->requested_range_end),
              std::make_tuple(c.start, c.end, c.requested_start, c.requested_end))
        << c.url << " " << c.lines;
  }
  RequestPtr request_;
};

TEST_F(HttpRange, ByteRanges) {
  const Case cases[] = {
      {"/a", "Accept: */*\r\n", -1, -1, -1, -1},
      {"/a", "range: bytes= 7 - 9\r\n", 7, 9, 7, 9},
      {"/a", "Range: bytes=0-1,5-6\r\n", 0, 1, 0, 1},     // only the first range
      {"/a", "Range: bytes=-500\r\n", -2, 500, -2, 500},  // a suffix has no start
      {"/a", "Range: bytes=\r\n", -2, -2, -2, -2},
      // Another unit leaves both unset, copies untouched, unless "bytes" occurs later on.
      {"/a", "Range: items=1-2\r\n", -2, -2, -1, -1},
      {"/a", "Range: items=1-2\r\nX-Unit: bytes\r\n", 1, 2, 1, 2},
      // The second digit of -OP permits byte ranges; a profile without -OP forbids them.
      {"/m/1-OP10/a.mpg", "Range: bytes=5-\r\n", -3, -3, -1, -1},
      {"/m/1-OP01/a.mpg", "Range: bytes=5-\r\n", 5, -1, 5, -1},
      {"/m/1-DLNA-PNMP3/a.mp3", "Range: bytes=5-\r\n", -3, -3, -1, -1},
      // Absurd numbers are read as the number reader does; the sender judges them.
      {"/a", "Range: bytes=9223372036854775807-\r\n", INT64_MAX, -1, INT64_MAX, -1},
      {"/a", "Range: bytes=500-100\r\n", 500, 100, 500, 100},
  };
  for (const Case& c : cases) Expect(c);
  EXPECT_EQ(Read("/a", "Range: bytes=1-2\r\nRange.dtcp.com: bytes=10-20\r\n")->range_is_dtcp, 0);
  HttpRequest* r = Read("/a", "Range.dtcp.com: bytes=10-20\r\n");
  EXPECT_EQ(std::make_pair(r->range_is_dtcp, r->range_end), std::make_pair(1, int64_t{20}));
  // No digits behind a final -OP: nothing past the head is read.
  std::snprintf(r->header, sizeof(r->header), "GET /a HTTP/1.1\r\nRange: bytes=1-2\r\n-OP");
  HTTP_get_range_header(r);
  EXPECT_EQ(std::make_pair(r->range_start, r->range_end), std::make_pair(int64_t{1}, int64_t{2}));
  HTTP_get_range_header(nullptr);
}

TEST_F(HttpRange, TimeSeekRanges) {
  const std::string seek = "TimeSeekRange.dlna.org: npt=1.000-\r\n";
  const Case cases[] = {
      {"/v", "TimeSeekRange.dlna.org: npt=10.5-20\r\n", 10005, 20000, 10005, 20000},
      {"/v", "X-Seek-Range: npt=5.000-6.000\r\n", 5000, 6000, 5000, 6000},
      {"/v", "TimeSeekRange.dlna.org: npt=10.000\r\n", 10000, -2, 10000, -2},
      // The scan is not bounded by the line: a later '-' counts as the separator.
      {"/v", "TimeSeekRange.dlna.org: npt=10.000\r\nUser-Agent: x\r\n", 10000, -1, 10000, -1},
      {"/v", "TimeSeekRange.dlna.org: npt=-5\r\n", -2, 5000, -2, 5000},
      // A profile without -OP refuses (copies untouched); FLAGS00d/f make it unset instead.
      {"/m/DLNA-PNAVC/v.mp4", seek, -3, -3, -1, -1},
      {"/m/DLNA-PNAVC-FLAGS00d/v.mp4", seek, -2, -2, -1, -1},
      {"/m/1-OP10/v.mp4", seek, 1000, -1, 1000, -1},
      // First -OP digit 0, a play speed or a background transfer: refused, copies updated.
      {"/m/1-OP01/v.mp4", seek, -3, -3, -3, -3},
      {"/m/1-OP10/v.mp4", "PlaySpeed.dlna.org: speed=2\r\n" + seek, -3, -3, -3, -3},
      {"/m/1-OP10/v.mp4", "transferMode.dlna.org: Background\r\n" + seek, -2, -2, -2, -2},
      {"/m/1-OP01-FLAGS00f/v.mp4", seek, -2, -2, -2, -2},
  };
  for (const Case& c : cases) Expect(c);
  HttpRequest* r = Read("/v", "TimeSeekRange.dlna.org: npt=0:01:00.000-\r\n");
  EXPECT_EQ(std::make_tuple(r->is_timeseek, r->range_start, r->range_is_clock_time),
            std::make_tuple(1, int64_t{60000}, 1));
  // A head filling the whole buffer without terminator is cut at its last byte.
  std::memset(r->header, 'x', sizeof(r->header));
  std::memcpy(r->header + sizeof(r->header) - 20, "\nRange: bytes=123456", 20);
  HTTP_get_range_header(r);
  EXPECT_EQ(r->range_start, 12345);
}

TEST(HttpTimeRange, ParsesAsWrittenWithItsOverflowRule) {
  // "c" marks the clock form. The fraction counts as written; without one the clock form is 1000
  // times too large: ten minutes still fits, one hour overflows and is capped.
  const auto parse = [](const char* text) {
    int32_t clock = 0;
    const auto ms = static_cast<int32_t>(HTTP_parse_time_range(text, &clock));
    return std::to_string(ms) + (clock != 0 ? "c" : "");
  };
  EXPECT_EQ(Results(parse, {"10.5", "1:00:00.000", " 1 2.3", "5x7", "0:10:00", "1:00:00", "", ":.",
                            nullptr}),
            "10005,3600000c,12003,5000,600000000c,2147483647c,-2,-2c,0,");
  EXPECT_EQ(HTTP_parse_time_range("0:10:00", nullptr), 600000000u);
}

TEST(HttpTimeRange, FormatsClockTimes) {
  char buffer[32], small[4];
  EXPECT_EQ(upnp_range_to_string(3723004, buffer, sizeof(buffer)), 9);
  EXPECT_EQ(upnp_range_to_string(3723004, small, sizeof(small)), 9);
  EXPECT_EQ(std::string(buffer) + "|" + small, "1:2:3.004|1:2");
  upnp_range_to_string(int64_t{61} * 3600000 + 1000, buffer, sizeof(buffer));
  EXPECT_STREQ(buffer, "1:0:1.000");  // hours wrap at 60
  EXPECT_EQ(upnp_range_to_string(5, nullptr, 10), 0);
}

}  // namespace
