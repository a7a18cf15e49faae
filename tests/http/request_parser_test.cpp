// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "platform/test_hooks.h"
#include "support/test_support.h"
#include "tarnwick/http.h"

namespace {

class HttpHeadValues : public tw::test::LeakCheck {};

long Skipped(const char* text) {
  char* p = const_cast<char*>(text);
  http_skip_spaces(&p);
  return p - text;
}

std::string Mime(const char* head) {
  return tw::test::Owned(HTTP_parse_header_mime_type(head)).str();
}

std::string Unescaped(std::string text) {
  HTTP_unescape_url(text.data());
  return text;  // the whole buffer: bytes behind an early NUL show too
}

TEST_F(HttpHeadValues, SkipSpacesStopsShortOfAnEmptyValue) {
  EXPECT_EQ(Skipped(" \t x"), 3);
  EXPECT_EQ(Skipped(" \n x"), 1);  // a bare LF is not a line end here
  EXPECT_EQ(Skipped("   \r\nNext: 1"), 0);
  EXPECT_EQ(Skipped("  "), 0);
  http_skip_spaces(nullptr);
}

TEST_F(HttpHeadValues, ContentTypeRunsToTheLineEnd) {
  EXPECT_EQ(Mime("HTTP/1.1 200 OK\r\nContent-Type:   a/b; c=\"d\"\r\n"), "a/b; c=\"d\"");
  // Only spaces are skipped; a value without CR LF behind it is no value.
  EXPECT_EQ(Mime("CONTENT-TYPE:\ta/b\r\n"), "\ta/b");
  EXPECT_EQ(Mime("Content-Type: a/b"), "<null>");
  EXPECT_EQ(Mime("Accept: a/b\r\n"), "<null>");
  EXPECT_EQ(Mime(nullptr), "<null>");
  tw::platform::FailAllocAfter(0);
  EXPECT_EQ(HTTP_parse_header_mime_type("Content-Type: a/b\r\n"), nullptr);
  tw::platform::ClearAllocFailure();
}

TEST_F(HttpHeadValues, ChunkedAndConnectionClose) {
  EXPECT_EQ(HTTP_parse_header_chunked("TRANSFER-ENCODING: CHUNKED\r\n"), 1);
  EXPECT_EQ(HTTP_parse_header_chunked("X-A: chunked\r\nX-B: transfer-encoding\r\n"), 1);
  EXPECT_EQ(HTTP_parse_header_chunked("Transfer-Encoding: chunked"), 0);
  EXPECT_EQ(HTTP_parse_header_chunked("X-Mode: chunked\r\n"), 0);
  EXPECT_EQ(HTTP_parse_header_chunked(nullptr), 0);
  EXPECT_EQ(upnp_http_has_connection_close("connection:   CLOSE\r\n"), 1);
  EXPECT_EQ(upnp_http_has_connection_close("Connection: TE, close\r\n"), 1);
  // Past the value start only an exact "close" counts, but anywhere after the name.
  EXPECT_EQ(upnp_http_has_connection_close("Connection: TE, Close\r\n"), 0);
  EXPECT_EQ(upnp_http_has_connection_close("Connection: keep-alive\r\nX-Why: close\r\n"), 1);
  EXPECT_EQ(upnp_http_has_connection_close("X-Why: close\r\n"), 0);
  EXPECT_EQ(upnp_http_has_connection_close(nullptr), 0);
}

TEST_F(HttpHeadValues, StatusAndContentLengthNumbers) {
  EXPECT_EQ(HTTP_parse_header_response("HTTP/1.1  \t206 x"), 206);
  EXPECT_EQ(HTTP_parse_header_response("HTTP/1.1 OK"), 0);
  EXPECT_EQ(HTTP_parse_header_response("HTTP/1.1 99999999999"), INT_MAX);
  EXPECT_EQ(HTTP_parse_header_response("HTTP/1.1 -99999999999"), INT_MIN);
  EXPECT_EQ(HTTP_parse_header_response("HTTP/1.1"), 500);
  EXPECT_EQ(HTTP_parse_header_response(nullptr), 500);
  EXPECT_EQ(HTTP_parse_header_size("content-length:5000000000\r\n"), 5000000000LL);
  EXPECT_EQ(HTTP_parse_header_size("Content-Length: -5\r\n"), 0);
  EXPECT_EQ(HTTP_parse_header_size("Content-Length: \r\n"), 0);
  EXPECT_EQ(HTTP_parse_header_size("Content-Type: a/b\r\n"), 0);
  EXPECT_EQ(HTTP_parse_header_size(nullptr), 0);
}

TEST_F(HttpHeadValues, UnescapeInPlaceToleratesBrokenEscapes) {
  EXPECT_EQ(Unescaped("a%20b+c").c_str(), std::string("a b c"));
  EXPECT_EQ(Unescaped("/x%2Fy%3a%7E").c_str(), std::string("/x/y:~"));
  // Non-hex characters count as 0; a '%' needs two characters behind it and nothing past the
  // end is read; "%00" ends the text early.
  EXPECT_EQ(Unescaped("%g1z").c_str(), std::string("\x01z"));
  EXPECT_EQ(Unescaped("%%41").c_str(), std::string("\x04"
                                                   "1"));
  EXPECT_EQ(Unescaped("100%").c_str(), std::string("100%"));
  EXPECT_EQ(Unescaped("ab%4").c_str(), std::string("ab%4"));
  EXPECT_EQ(Unescaped("a%00bc").substr(0, 4), std::string("a\0bc", 4));
  HTTP_unescape_url(nullptr);
}

}  // namespace
