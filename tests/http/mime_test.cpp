// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tarnwick/http.h"
#include "tarnwick/platform.h"

namespace {

std::string Text(const char* text) { return text != nullptr ? text : "<null>"; }
std::string Type(const char* extension) { return Text(HTTP_get_mime_type(nullptr, extension)); }
std::string Extension(const char* mime) { return Text(HTTP_get_extension_by_mime_type(mime)); }

// Rows whose order or spelling matters: first match wins, whole extensions without case.
TEST(HttpMime, LookupsByExtension) {
  const std::pair<const char*, const char*> cases[] = {{"mod", "video/mpeg"},
                                                       {"tts", "video/mpeg2"},
                                                       {"3gp.a", "audio/mp4"},
                                                       {"Mp4.A", "audio/mp4"},
                                                       {"mpa", "audio/MPA"},
                                                       {"3gp", "video/3gpp"},
                                                       {"mpg-tts", "video/vnd.dlna.mpeg-tts"},
                                                       {"xml", " text/xml; charset=\"utf-8\""},
                                                       {"htm", "text/html; charset=utf-8"},
                                                       {"MP3", "audio/mpeg"},
                                                       {"mp33", "application/octet-stream"},
                                                       {"", "application/octet-stream"},
                                                       {nullptr, "<null>"}};
  for (const auto& [extension, type] : cases) EXPECT_EQ(Type(extension), type) << Text(extension);
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
  EXPECT_EQ(Extension("video/mpeg2"), "mpg");  // "video/mpeg" stands first and occurs in it
  EXPECT_EQ(Extension("Content-Type: image/png\r\n"), "png");
  // Case-sensitive, and the XML row needs its leading space.
  EXPECT_EQ(Extension("IMAGE/PNG"), "<null>");
  EXPECT_EQ(Extension("text/xml"), "<null>");
  EXPECT_EQ(Extension("Content-Type: text/xml; charset=\"utf-8\""), "xml");
  EXPECT_EQ(Extension("application/octet-stream"), "");  // the fallback row has none
  EXPECT_EQ(Extension(nullptr), "<null>");
  EXPECT_EQ(HTTP_is_known_mime_type("http-get:*:audio/mpeg:DLNA.ORG_PN=MP3") +
                HTTP_is_known_mime_type("application/octet-stream"),
            2);
  EXPECT_EQ(HTTP_is_known_mime_type("video/MP4") + HTTP_is_known_mime_type(nullptr), 0);
}

}  // namespace
