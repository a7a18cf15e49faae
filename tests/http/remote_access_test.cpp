// SPDX-License-Identifier: Apache-2.0
#include "http/remote_access.h"

#include "http/authorization.h"
#include "http/registry.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

RequestPtr RemoteRequest(const char* session) {
  auto request = GetRequest("/");
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

class HttpRemoteAccess : public LeakCheck {};

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

TEST_F(HttpRemoteAccess, RedirectsAreBare307sWithTheSessionAppended) {
  TW_REQUIRE_LOOPBACK_NAMESPACE();
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"RAMSessionID=T", "/web", "http://1.2.3.4:9000/web?RAMSessionID=T"},
      {"RAMSessionID=T", "http://h/x?y=1", "http://h/x?y=1?RAMSessionID=T"},
      {"", "//web", "http://1.2.3.4:9000//web"},
  };
  for (const auto& [session, location, target] : cases) {
    PeerPair pair;
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
  // An alias the table maps, no language and an alias in the wrong case.
  const auto header = [](const char* l) { return Str(upnp_http_build_language_header(l)); };
  EXPECT_EQ(Results(header, {"cht", "", "EN", nullptr}),
            "Accept-Language: zh\r\n,Accept-Language: *\r\n,Accept-Language: *\r\n,<null>,");
}

std::vector<std::string> g_tokens_seen;
int32_t AcceptGoodTokens(const char* token, void*) {
  g_tokens_seen.emplace_back(token);
  return std::string(token).rfind("good", 0) == 0 ? 1 : 0;
}

RequestPtr MakeRequest(const std::string& url, const std::string& head, bool remote) {
  auto request = GetRequest(url, head);
  snprintf(request->client_ip, sizeof(request->client_ip), "10.1.2.3");
  snprintf(request->base_url, sizeof(request->base_url), "http://192.168.1.5:9000/");
  request->remote_session_pending = remote ? 1 : 0;
  return request;
}

int32_t Check(const std::string& url, const std::string& head, bool remote) {
  return HTTP_has_authorization(MakeRequest(url, head, remote).get());
}

class HttpAuthorization : public LeakCheck {
 protected:
  void TearDown() override {  // the state every test starts from
    tw::http::ResetCredentials();
    g_tokens_seen.clear();
    upnp_http_register_cookie_handler(nullptr);
    tw::http::ForgetRemoteBaseUrl();
    LeakCheck::TearDown();
  }
};

TEST_F(HttpAuthorization, LocalRequestsNeedTheEncodedPairOnlyWhenBothCredentialsAreSet) {
  EXPECT_EQ(Check("/a", "", false), 1);
  EXPECT_EQ(HTTP_has_authorization(nullptr), 0);
  HTTP_set_username_and_pwd("admin", nullptr, nullptr);  // first call: null password is empty
  EXPECT_EQ(Check("/a", "", false), 1);
  HTTP_set_username_and_pwd(nullptr, "secret", nullptr);  // later: only the new password
  EXPECT_EQ(Check("/a", "", false), 0);
  EXPECT_EQ(Check("/a", "X-Anything: YWRtaW46c2VjcmV0\r\n", false), 1);  // any header
  EXPECT_EQ(Check("/a", "Authorization: Basic YWRtaW46c2VjcmV1\r\n", false), 0);
  // The alternate pair is kept apart and changes nothing.
  HTTP_set_username_and_pwd("other", "pw", "alternate");
  char user[64], password[64];
  tw::http::AlternateCredentials(user, password);
  EXPECT_EQ(std::string(user) + ":" + password, "other:pw");
  EXPECT_EQ(Check("/a", "X: YWRtaW46c2VjcmV0\r\n", false), 1);
  // A password handed over already scrambled is the same password.
  char scrambled[64];
  upnp_string_encrypt("pass2", scrambled, sizeof(scrambled));
  HTTP_set_username_and_pwd(std::string(80, 'u').c_str(), scrambled, nullptr);
  const std::string pair = Str(upnp_string_to_base64((std::string(63, 'u') + ":pass2").c_str()));
  EXPECT_EQ(Check("/a", "X: " + pair + "\r\n", false), 1);
}

TEST_F(HttpAuthorization, QueryTokenIsServedAsWebbrowseWithADayLongCookie) {
  EXPECT_EQ(Check("/ra?good1", "", true), 0);  // no cookie handler: refused
  upnp_http_register_cookie_handler(&AcceptGoodTokens);
  EXPECT_EQ(Check("/ra?", "", true), 0);
  EXPECT_EQ(Check("/x/ra?bad", "", true), 0);
  auto cookie_line = [](int64_t now) {
    char expiry[64];
    tw::http::FormatCookieExpiry(now + 86400, expiry, sizeof(expiry));
    return "Set-Cookie: RAMSessionID=good1; expires=" + std::string(expiry) + "\r\n";
  };
  auto request = MakeRequest("/x/ra?good1", "", true);
  const int64_t before = std::time(nullptr);
  ASSERT_EQ(HTTP_has_authorization(request.get()), 1);
  EXPECT_STREQ(request->url, "/webbrowse");
  const std::string extra = request->extra_headers;
  EXPECT_TRUE(extra == cookie_line(before) || extra == cookie_line(std::time(nullptr))) << extra;
  // Without a learnt remote base URL there is no session parameter to hand to the handlers.
  EXPECT_STREQ(request->session_parameter, "");
  snprintf(request->url, sizeof(request->url), "/ra?good2");
  ASSERT_EQ(HTTP_has_authorization(request.get()), 1);
  EXPECT_EQ(std::string(request->extra_headers), extra);  // one Set-Cookie only
  EXPECT_EQ(g_tokens_seen, (std::vector<std::string>{"bad", "good1", "good2"}));
}

TEST_F(HttpAuthorization, CookieOrUrlTokenAndTheLearntRemoteBase) {
  upnp_http_register_cookie_handler(&AcceptGoodTokens);
  EXPECT_EQ(Check("/a", "Host: x\r\n", true), 1);  // no session anywhere: nothing to check
  EXPECT_TRUE(g_tokens_seen.empty());
  EXPECT_EQ(Check("/a", "Cookie: RAMSessionID=badc; z=1\r\n", true), 0);
  EXPECT_EQ(Check("/a", "Cookie: RAMSessionID=goodc; z=1\r\n", true), 1);
  EXPECT_EQ(Check("/a?RAMSessionID", "Cookie: RAMSessionID=\r\n", true), 0);  // empty token
  EXPECT_EQ(Check("/a?RAMSessionID=goodu", "Cookie: RAMSessionID=\r\n", true), 1);
  EXPECT_EQ(g_tokens_seen, (std::vector<std::string>{"badc", "goodc", "goodu"}));

  ASSERT_TRUE(tw::http::LearnRemoteBaseUrl("ext.example:8080", 16));
  auto far = MakeRequest("/a", "Cookie: RAMSessionID=goodf\r\n", true);
  ASSERT_EQ(HTTP_has_authorization(far.get()), 1);
  // Cookie tokens set no cookie.
  EXPECT_EQ(far->base_url + std::string("|") + far->session_parameter + "|" + far->extra_headers,
            "http://ext.example:8080/|RAMSessionID=goodf|");
  auto near = MakeRequest("/a", "Cookie: RAMSessionID=goodn\r\n", true);
  snprintf(near->client_ip, sizeof(near->client_ip), "192.168.1.77");
  ASSERT_EQ(HTTP_has_authorization(near.get()), 1);
  EXPECT_EQ(near->base_url + std::string("|") + near->session_parameter,
            "http://192.168.1.5:9000/|RAMSessionID=goodn");
}

TEST_F(HttpAuthorization, CookieExpiryMatchesTheCalendar) {
  char out[64];
  tw::http::FormatCookieExpiry(4102444799, out, sizeof(out));  // beyond a 32-bit time_t
  EXPECT_STREQ(out, "Thu, 31-Dec-2099 23:59:59 GMT");
  // Agreement with the C library over every time is a property of fuzz/fuzz_time.cpp.
}

}  // namespace
