// SPDX-License-Identifier: Apache-2.0
// The example server's status page on the wire: the server, a folder of the shared tree with
// links, the client devices, and what is refused.
#include <regex>

#include "library.h"
#include "wire_fixture.h"

namespace mediaserver::test {
namespace {

constexpr char kFolder[] = "Music & Talk";
constexpr char kInner[] = "inner <1>.mp3";
constexpr char kTop[] = "a<b>.mp3";
constexpr char kStoredMac[] = "02:00:00:00:00:09";
constexpr char kAddedMac[] = "AA:BB:CC:DD:EE:02";

// One record of the client table file: 13 fields, each a three-digit length, text, line feed.
std::string StoredClient(const std::vector<std::string>& fields) {
  std::string bytes;
  char length[8];
  for (const std::string& field : fields) {
    std::snprintf(length, sizeof(length), "%03zu", field.size());
    bytes += length + field + "\n";
  }
  return bytes;
}

std::string FolderHref(const std::string& relative) {
  return "/status.html?folder=" + IdOfRelativePath(relative);
}

class StatusPage : public MediaServerWire {
 protected:
  void Prepare() override {
    std::filesystem::create_directories(share_ + "/" + kFolder);
    tw::test::WriteFile(share_ + "/" + kFolder + "/" + kInner, std::string(2000, 'x'));
    tw::test::WriteFile(share_ + "/" + kTop, "0123456789");
    // A device met in an earlier run, with a name that needs escaping: friendly name, MAC, IP,
    // UDN, two header patterns, icon URL and type, client type 3, enabled, fixed, view, flag.
    tw::test::WriteFile(data_.File("clients.data"),
                        StoredClient({"<Kitchen & \"TV\">", kStoredMac, "127.0.0.9", "", "", "", "",
                                      "", "003", "1", "001", "", "0"}));
  }
  tw::test::HttpResponse Get(const std::string& url) {
    return Exchange(port_, Request("GET", url, ""));
  }
};

TEST_F(StatusPage, RootShowsServerFolderAndClientsEscaped) {
  tw::test::Take(upnp_client_add(kAddedMac, 4, 0, nullptr));
  const tw::test::HttpResponse page = Get("/");
  ASSERT_EQ(page.status, 200);
  EXPECT_EQ(HeaderValue(page.head, "Content-Type"), "text/html; charset=utf-8");
  const std::string& html = page.body;
  EXPECT_EQ(html.compare(0, 15, "<!DOCTYPE html>"), 0);
  const std::string name = "Tom&apos;s &lt;Media&gt; &amp; &quot;More&quot;";
  EXPECT_THAT(html, testing::HasSubstr("<title>" + name + "</title>"));
  EXPECT_THAT(html, testing::HasSubstr("<h1>" + name + "</h1>"));
  EXPECT_THAT(html, testing::HasSubstr(kUdn));
  EXPECT_THAT(html, testing::HasSubstr("<a href=\"" + FolderHref(kFolder) +
                                       "\">Music &amp; Talk/</a></td><td>folder</td>"
                                       "<td class=\"num\">1 entry</td>"));
  std::smatch item;
  EXPECT_TRUE(std::regex_search(
      html, item,
      std::regex("<a href=\"(/media/[^\"]*)\">a&lt;b&gt;</a></td><td>audio/mpeg</td>"
                 "<td class=\"num\" title=\"10 bytes\">10 bytes</td>")))
      << html;
  // The stored device and the one added now, each with its type's name and its access.
  EXPECT_THAT(html, testing::HasSubstr("<tr><td>&lt;Kitchen &amp; &quot;TV&quot;&gt;</td>"
                                       "<td>127.0.0.9</td><td>02:00:00:00:00:09</td>"
                                       "<td>Samsung TV</td><td class=\"on\">enabled</td></tr>"));
  EXPECT_THAT(html, testing::HasSubstr("<tr><td>LG TV</td><td></td><td>AA:BB:CC:DD:EE:02</td>"
                                       "<td>LG TV</td><td class=\"off\">blocked</td></tr>"));
  // Nothing of the names reaches the page unescaped.
  for (const char* raw : {"<Media>", "<Kitchen", "a<b>", "Music & Talk"}) {
    EXPECT_EQ(html.find(raw), std::string::npos) << raw;
  }
  // "/" is the page's own URL served as the default.
  EXPECT_EQ(Get("/status.html").body, html);
}

TEST_F(StatusPage, FolderLinkListsThatFolderUnderItsPath) {
  const tw::test::HttpResponse page = Get(FolderHref(kFolder));
  ASSERT_EQ(page.status, 200);
  EXPECT_THAT(page.body,
              testing::HasSubstr("<nav><a href=\"/status.html?folder=0\">Tom&apos;s &lt;Media&gt; "
                                 "&amp; &quot;More&quot;</a> / <strong>Music &amp; Talk</strong>"
                                 "</nav>"));
  EXPECT_TRUE(std::regex_search(
      page.body, std::regex("<a href=\"/media/[^\"]*\">inner &lt;1&gt;</a></td><td>audio/mpeg</td>"
                            "<td class=\"num\" title=\"2000 bytes\">2\\.0 KiB</td>")))
      << page.body;
  EXPECT_EQ(page.body.find(">a&lt;b&gt;</a>"), std::string::npos) << "the root's item";
}

TEST_F(StatusPage, WhatNamesNoFolderIsNotFound) {
  const std::vector<std::pair<std::string, int>> rows = {
      {"/status.html?folder=0", 200},
      {"/status.html?other=1&folder=" + IdOfRelativePath(kFolder), 200},
      {"/status.html?folder=zz", 404},
      {"/status.html?folder=2e2e", 404},  // ".."
      {"/status.html?folder=" + IdOfRelativePath("missing"), 404},
      {"/status.html?folder=" + IdOfRelativePath(kTop), 404},  // an item
      {"/status.html?folder=", 404},
      {"/status.htmlx", 404},
  };
  std::string got, want;
  for (const auto& [url, status] : rows) {
    got += url + " " + std::to_string(Get(url).status) + "\n";
    want += url + " " + std::to_string(status) + "\n";
  }
  EXPECT_EQ(got, want);
}

TEST_F(StatusPage, HeadAnnouncesThePageWithoutSendingIt) {
  const size_t length = Get("/").body.size();
  RawClient client;
  ASSERT_TRUE(client.Connect(port_));
  ASSERT_TRUE(client.Send(Request("HEAD", "/", "Connection: close\r\n")));
  const std::string wire = client.ReadToEnd();
  EXPECT_EQ(wire.compare(0, 15, "HTTP/1.1 200 OK"), 0) << wire;
  EXPECT_EQ(HeaderValue(wire, "Content-Length"), std::to_string(length));
  EXPECT_EQ(wire.find("\r\n\r\n") + 4, wire.size()) << "a body followed the head";
}

}  // namespace
}  // namespace mediaserver::test
