// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tarnwick/http.h"
#include "tarnwick/platform.h"

namespace {

std::string Type(const char* extension) {
  const char* type = HTTP_get_mime_type(nullptr, extension);
  return type != nullptr ? type : "<null>";
}

std::string Extension(const char* mime) {
  const char* extension = HTTP_get_extension_by_mime_type(mime);
  return extension != nullptr ? extension : "<null>";
}

// Rows whose order or spelling matters: first match wins, exact whole extensions.
TEST(HttpMime, TableRowsWhereOrderAndSpellingMatter) {
  const std::pair<const char*, const char*> cases[] = {
      {"wav", "audio/x-wav"}, {"mpg", "video/mpeg"}, {"mod", "video/mpeg"},
      {"mpeg", "video/mpeg2"}, {"tts", "video/mpeg2"}, {"3gp", "video/3gpp"},
      {"3gp.a", "audio/mp4"}, {"mpg-tts", "video/vnd.dlna.mpeg-tts"}, {"dvr-ms", "video/x-ms-dvr"},
      {"xml", " text/xml; charset=\"utf-8\""}, {"pcm", "audio/L16"}, {"mpa", "audio/MPA"},
      {"htm", "text/html; charset=utf-8"}, {"txt", "text/plain; charset=utf-8"},
      {"apl", "audio/x-aac"}, {"yuv", "image/x-ycbcr-yuv420"}, {"smi", "application/smil"}};
  for (const auto& [extension, type] : cases) EXPECT_EQ(Type(extension), type) << extension;
}

TEST(HttpMime, LookupsByExtension) {
  EXPECT_EQ(Type("MP3"), "audio/mpeg");
  EXPECT_EQ(Type("Mp4.A"), "audio/mp4");
  EXPECT_EQ(Type("mp33"), "application/octet-stream");
  EXPECT_EQ(Type(""), "application/octet-stream");
  EXPECT_EQ(Type(nullptr), "<null>");
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
  EXPECT_EQ(Extension("audio/x-wav"), "wav");
  EXPECT_EQ(Extension("Content-Type: image/png\r\n"), "png");
  // Case-sensitive, and the XML row needs its leading space.
  EXPECT_EQ(Extension("IMAGE/PNG"), "<null>");
  EXPECT_EQ(Extension("text/xml"), "<null>");
  EXPECT_EQ(Extension("Content-Type: text/xml; charset=\"utf-8\""), "xml");
  EXPECT_EQ(Extension("application/octet-stream"), "");  // the fallback row has none
  EXPECT_EQ(Extension(nullptr), "<null>");
  EXPECT_EQ(HTTP_is_known_mime_type("http-get:*:audio/mpeg:DLNA.ORG_PN=MP3"), 1);
  EXPECT_EQ(HTTP_is_known_mime_type("application/octet-stream"), 1);
  EXPECT_EQ(HTTP_is_known_mime_type("video/MP4"), 0);
  EXPECT_EQ(HTTP_is_known_mime_type(nullptr), 0);
}

}  // namespace
