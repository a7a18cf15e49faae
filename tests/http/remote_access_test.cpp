// SPDX-License-Identifier: Apache-2.0
#include "http/remote_access.h"

#include "http/http_test_util.h"

namespace {

using tw::test::Take;

tw::test::RequestPtr RemoteRequest(const char* session) {
  auto request = tw::test::GetRequest("/");
  snprintf(request->session_parameter, sizeof(request->session_parameter), "%s", session);
  snprintf(request->base_url, sizeof(request->base_url), "http://1.2.3.4:9000/");
  return request;
}

// Runs the body rewrite on text; "<null>" when it gave no string.
std::string Rewrite(const HttpRequest& request, const std::string& text) {
  return Take(http_post_process_for_remote_access(const_cast<HttpRequest*>(&request),
                                                  upnp_string_create(text.c_str(), 0)));
}

std::string SetParameter(const char* url, const char* name, const char* value) {
  return Take(HTTP_set_url_parameter(upnp_string_create(url, 0), name, value));
}

class HttpRemoteAccess : public tw::test::LeakCheck {};

TEST_F(HttpRemoteAccess, EveryLinkPatternCarriesTheSessionWithItsSeparator) {
  const auto request = RemoteRequest("RAMSessionID=T");
  EXPECT_EQ(Rewrite(*request, "<a href=\"/a?b=1\">x</a><a href=\"/a\">y</a>"),
            "<a href=\"/a?b=1&RAMSessionID=T\">x</a><a href=\"/a?RAMSessionID=T\">y</a>");
  EXPECT_EQ(Rewrite(*request, "<img src=\"/i\">"), "<img src=\"/i?RAMSessionID=T\">");
  EXPECT_EQ(Rewrite(*request, "<res url=\"/r?q\"/>"), "<res url=\"/r?q&amp;RAMSessionID=T\"/>");
  EXPECT_EQ(Rewrite(*request, "<guid>/g?1</guid><guid>/h</guid>"),
            "<guid>/g?1&amp;RAMSessionID=T</guid><guid>/h?RAMSessionID=T</guid>");
  EXPECT_EQ(Rewrite(*request, "<url>/u</url>"), "<url>/u?RAMSessionID=T</url>");
  EXPECT_EQ(Rewrite(*request, "<link>/l?z=2</link>"), "<link>/l?z=2&amp;RAMSessionID=T</link>");
  // Each row starts its pass at the top, so the first link of a later row sees the parameter
  // that an earlier row added in front of it and is left as it is.
  EXPECT_EQ(Rewrite(*request, "<a href=\"/a\">x</a><img src=\"/i\">"),
            "<a href=\"/a?RAMSessionID=T\">x</a><img src=\"/i\">");
  // Already carrying the parameter, an unclosed link, the token marker.
  EXPECT_EQ(Rewrite(*request, "<a href=\"/a?RAMSessionID=T\">x</a><a href=\"/b"),
            "<a href=\"/a?RAMSessionID=T\">x</a><a href=\"/b");
  EXPECT_EQ(Rewrite(*request, "var s='<!-- TOKEN -->';<!-- TOKEN -->"),
            "var s='RAMSessionID=T';RAMSessionID=T");
  const auto local = RemoteRequest("");
  EXPECT_EQ(Rewrite(*local, "<!-- TOKEN --><a href=\"/a\">"), "<a href=\"/a\">");
  upnp_string* empty = upnp_string_create(nullptr, 8);
  EXPECT_EQ(http_post_process_for_remote_access(nullptr, empty), empty);
  EXPECT_EQ(http_post_process_for_remote_access(local.get(), nullptr), nullptr);
  upnp_string_free(empty);
}

TEST_F(HttpRemoteAccess, RewriteUnderMemoryShortageNeverLeaks) {
  const auto request = RemoteRequest("RAMSessionID=T");
  const std::string full = "<a href=\"/a?RAMSessionID=T\">RAMSessionID=T";
  tw::test::ForEachAllocFailure(
      [&] { return Rewrite(*request, "<a href=\"/a\"><!-- TOKEN -->"); },
      [&](const std::string& out, bool failed) {
        // The whole rewrite, the token step alone, or nothing when even that failed.
        EXPECT_TRUE(out == full ||
                    (failed && (out == "<a href=\"/a\">RAMSessionID=T" || out == "<null>")))
            << out;
      });
}

TEST_F(HttpRemoteAccess, RedirectsAreBare307sWithTheSessionAppended) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"RAMSessionID=T", "/web", "http://1.2.3.4:9000/web?RAMSessionID=T"},
      {"RAMSessionID=T", "http://h/x?y=1", "http://h/x?y=1?RAMSessionID=T"},
      {"", "//web", "http://1.2.3.4:9000//web"},
  };
  for (const auto& [session, location, target] : cases) {
    tw::test::PeerPair pair;
    ASSERT_TRUE(pair.Open());
    auto request = RemoteRequest(session);
    request->socket = pair.server_fd();
    EXPECT_EQ(upnp_http_redirect(request.get(), location), 1);
    EXPECT_EQ(upnp_http_redirect(request.get(), nullptr), 1);
    pair.CloseServer();
    EXPECT_EQ(pair.client().ReadAll(),
              std::string("HTTP/1.1 307 Moved Temporarily\r\nLocation: ") + target + "\r\n\r\n");
  }
  EXPECT_EQ(upnp_http_redirect(nullptr, "/x"), 1);
}

TEST_F(HttpRemoteAccess, UrlParameterIsReplacedAndAppendedEncoded) {
  EXPECT_EQ(SetParameter("http://h/p?x=1&y=2", "x", "new"), "http://h/p?y=2&x=new");
  EXPECT_EQ(SetParameter("http://h/p?y=2&x=1&z=3", "x", "9"), "http://h/p?y=2&z=3&x=9");
  EXPECT_EQ(SetParameter("http://h/p?x=1", "x", "2"), "http://h/p?x=2");
  EXPECT_EQ(SetParameter("http://h/p?xx=1", "x", "2"), "http://h/p?xx=1&x=2");
  EXPECT_EQ(SetParameter("/p", "a b", "c&d/e"), "/p?a%20b=c%26d%2Fe");
  EXPECT_EQ(SetParameter("/p", nullptr, "v"), "<null>");
  EXPECT_EQ(SetParameter("/p", "n", nullptr), "<null>");
  EXPECT_EQ(HTTP_set_url_parameter(nullptr, "n", "v"), nullptr);
}

TEST_F(HttpRemoteAccess, LanguageHeaderUsesTheTableCode) {
  for (const auto& [language, code] :
       {std::pair{"cht", "zh"}, std::pair{"jp", "ja"}, std::pair{"nl", "nl"}, std::pair{"", "*"},
        std::pair{"EN", "*"}}) {
    tw::test::Owned header(upnp_http_build_language_header(language));
    EXPECT_EQ(header.str(), std::string("Accept-Language: ") + code + "\r\n") << language;
  }
  EXPECT_EQ(upnp_http_build_language_header(nullptr), nullptr);
}

}  // namespace
