// SPDX-License-Identifier: Apache-2.0
// The example server's ContentDirectory, ConnectionManager and streaming as a control point
// meets them on the wire: DIDL-Lite read back through two rounds of unescaping, paging, sorting,
// search criteria, every refusal with its UPnP error, ranges and DLNA headers, client quirks.
#include <string>
#include <vector>

#include "didl.h"
#include "tarnwick/clientdb.h"
#include "wire_fixture.h"

namespace mediaserver::test {
namespace {

using ::testing::HasSubstr;
using tw::test::HttpResponse;
using tw::test::ReadFile;
using tw::test::WriteFile;

// The text of an element of a SOAP answer, entities resolved once, or "<none>".
std::string SoapValue(const std::string& body, const char* name) {
  upnp_xml_node* root = upnp_xml_parse(body.c_str());
  const upnp_xml_node* node = upnp_xml_find_tag(root, name);
  std::string value = node == nullptr ? "<none>" : node->value != nullptr ? node->value : "";
  upnp_xml_release(root);
  return value;
}

struct DidlObject {
  std::string id, parent, title, upnp_class, res, protocol_info, duration, child_count, ref;
};

// The objects of a Browse or Search answer: Result unescaped by the SOAP parse, then parsed.
std::vector<DidlObject> Objects(const std::string& body) {
  std::vector<DidlObject> objects;
  const std::string didl = SoapValue(body, "Result");
  upnp_xml_node* root = upnp_xml_parse(didl.c_str());
  for (const upnp_xml_node* n = root != nullptr ? root->children : nullptr; n != nullptr;
       n = n->next) {
    auto attribute = [](const upnp_xml_node* node, const char* name) {
      const char* value = node != nullptr ? upnp_xml_find_attribute_value(node, name) : nullptr;
      return std::string(value != nullptr ? value : "");
    };
    auto child = [&](const char* name) {
      const upnp_xml_node* c = upnp_xml_find_tag(n->children, name);
      return std::string(c != nullptr && c->value != nullptr ? c->value : "");
    };
    const upnp_xml_node* res = upnp_xml_find_tag(n->children, "res");
    objects.push_back({attribute(n, "id"), attribute(n, "parentID"), child("dc:title"),
                       child("upnp:class"), child("res"), attribute(res, "protocolInfo"),
                       attribute(res, "duration"), attribute(n, "childCount"),
                       attribute(n, "refID")});
  }
  upnp_xml_release(root);
  return objects;
}

std::string Titles(const std::vector<DidlObject>& objects) {
  std::string titles;
  for (const DidlObject& o : objects) titles += o.title + "|";
  return titles;
}

std::vector<std::pair<std::string, std::string>> BrowseArgs(
    const std::string& id, const std::string& flag, const std::string& start = "0",
    const std::string& count = "0", const std::string& sort = "", const std::string& filter = "*") {
  return {{"ObjectID", id},         {"BrowseFlag", flag},      {"Filter", filter},
          {"StartingIndex", start}, {"RequestedCount", count}, {"SortCriteria", sort}};
}

const std::string kMusic = IdOfRelativePath("Music");

// The services and the streaming on the wire, sharing a folder of media names and a few files
// that are not shown.
class MediaServerTest : public MediaServerWire {
 protected:
  void Prepare() override {
    for (const auto& [name, bytes] : Files()) {
      std::filesystem::create_directories(std::filesystem::path(File(name)).parent_path());
      WriteFile(File(name), bytes);
    }
  }
  virtual std::vector<std::pair<std::string, std::string>> Files() const {
    return {{"Music/Tone & <one>.mp3", std::string(3000, 'a')},
            {"Music/b.mp3", std::string(1000, 'b')},
            {"Music/notes.txt", "not media"},
            {"Music/.hidden.mp3", "hidden"},
            {"Pictures/p.jpg", std::string(500, 'p')},
            {"Video/c.mp4", std::string(700, 'c')},
            {"z.wav", std::string(200, 'z')}};
  }
  std::string File(const std::string& name) const { return share_ + "/" + name; }
  HttpResponse Send(const std::string& request, int timeout_ms = kReadTimeoutMs) {
    return Exchange(port_, request, timeout_ms);
  }
  HttpResponse Get(const std::string& path, const std::string& lines = "") {
    return Send(Request("GET", path, lines));
  }
  // A SOAP action of a service ("ContentDirectory", "ConnectionManager").
  HttpResponse Soap(const std::string& service, const std::string& action,
                    const std::vector<std::pair<std::string, std::string>>& arguments,
                    const std::string& lines = "") {
    const std::string type = "urn:schemas-upnp-org:service:" + service + ":1";
    std::string body =
        "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/"
        "soap/envelope/\"><s:Body><u:" +
        action + " xmlns:u=\"" + type + "\">";
    for (const auto& [name, value] : arguments)
      body += "<" + name + ">" + value + "</" + name + ">";
    body += "</u:" + action + "></s:Body></s:Envelope>";
    return Send(Request("POST", "/" + service + "/Control",
                        lines + "SOAPACTION: \"" + type + "#" + action +
                            "\"\r\nCONTENT-LENGTH: " + std::to_string(body.size()) + "\r\n") +
                body);
  }
};

TEST_F(MediaServerTest, BrowseShowsFoldersAndMediaEscapedTwice) {
  const HttpResponse root =
      Soap("ContentDirectory", "Browse", BrowseArgs("0", "BrowseDirectChildren"));
  ASSERT_EQ(root.status, 200) << root.head;
  const auto top = Objects(root.body);
  EXPECT_EQ(Titles(top), "Music|Pictures|Video|z|");  // folders first; .txt and hidden left out
  ASSERT_EQ(top.size(), 4u);
  EXPECT_EQ(top[0].upnp_class, "object.container.storageFolder");
  EXPECT_EQ(top[0].child_count, "2");
  EXPECT_EQ(top[0].id, kMusic);
  EXPECT_EQ(top[3].protocol_info, "http-get:*:audio/x-wav:*");  // no DLNA profile for WAV
  EXPECT_EQ(SoapValue(root.body, "TotalMatches"), "4");
  EXPECT_EQ(SoapValue(root.body, "UpdateID"), std::to_string(SystemUpdateId()));

  const HttpResponse music =
      Soap("ContentDirectory", "Browse", BrowseArgs(kMusic, "BrowseDirectChildren"));
  // The title's own '&' and '<' arrive escaped twice inside the escaped DIDL-Lite.
  EXPECT_THAT(music.body, HasSubstr("Tone &amp;amp; &amp;lt;one&amp;gt;"));
  const auto tracks = Objects(music.body);
  ASSERT_EQ(Titles(tracks), "b|Tone & <one>|");
  EXPECT_EQ(tracks[1].parent, kMusic);
  EXPECT_EQ(tracks[1].upnp_class, "object.item.audioItem.musicTrack");
  EXPECT_EQ(tracks[1].protocol_info,
            "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
            "DLNA.ORG_FLAGS=01700000000000000000000000000000");
  EXPECT_EQ(tracks[1].res.rfind("http://127.0.0.1:" + std::to_string(port_) + "/media/", 0), 0u)
      << tracks[1].res;

  const HttpResponse meta = Soap("ContentDirectory", "Browse", BrowseArgs("0", "BrowseMetadata"));
  const auto self = Objects(meta.body);
  ASSERT_EQ(self.size(), 1u);
  EXPECT_EQ(self[0].parent, "-1");
  EXPECT_EQ(self[0].title, kName);
  EXPECT_EQ(self[0].child_count, "4");
  // A filter without res leaves resources out; the required properties stay.
  const auto bare =
      Objects(Soap("ContentDirectory", "Browse",
                   BrowseArgs(kMusic, "BrowseDirectChildren", "0", "0", "", "dc:title"))
                  .body);
  ASSERT_EQ(bare.size(), 2u);
  EXPECT_EQ(bare[0].res, "");
  EXPECT_EQ(bare[0].upnp_class, "object.item.audioItem.musicTrack");
}

TEST_F(MediaServerTest, PagingAndSorting) {
  struct Case {
    const char* start;
    const char* count;
    const char* sort;
    const char* titles;
    const char* returned;
  } cases[] = {
      {"0", "0", "", "Music|Pictures|Video|z|", "4"},
      {"1", "2", "", "Pictures|Video|", "2"},
      {"3", "10", "", "z|", "1"},
      {"4", "0", "", "", "0"},
      {"4294967295", "4294967295", "", "", "0"},
      {"0", "0", "-dc:title", "z|Video|Pictures|Music|", "4"},
      {"0", "2", "+dc:title", "Music|Pictures|", "2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.start) + "/" + c.count + "/" + c.sort);
    const HttpResponse r = Soap("ContentDirectory", "Browse",
                                BrowseArgs("0", "BrowseDirectChildren", c.start, c.count, c.sort));
    ASSERT_EQ(r.status, 200);
    EXPECT_EQ(Titles(Objects(r.body)), c.titles);
    EXPECT_EQ(SoapValue(r.body, "NumberReturned"), c.returned);
    EXPECT_EQ(SoapValue(r.body, "TotalMatches"), "4");
  }
}

TEST_F(MediaServerTest, BadRequestsGetTheirUpnpErrors) {
  std::filesystem::create_symlink("/etc", File("etc"));
  std::filesystem::create_symlink("/etc/passwd", File("Music/passwd.mp3"));
  const std::string huge_filter(200000, 'x');
  struct Case {
    const char* what;
    std::string action;
    std::vector<std::pair<std::string, std::string>> args;
    int status;
    const char* code;
  } cases[] = {
      {"unknown object", "Browse", BrowseArgs("abcd", "BrowseMetadata"), 500, "701"},
      {"parent folder", "Browse", BrowseArgs(IdOfRelativePath(".."), "BrowseMetadata"), 500, "701"},
      {"dot segments", "Browse", BrowseArgs(IdOfRelativePath("Music/../.."), "BrowseMetadata"), 500,
       "701"},
      {"absolute path", "Browse", BrowseArgs(IdOfRelativePath("/etc"), "BrowseMetadata"), 500,
       "701"},
      {"link out of the folder", "Browse",
       BrowseArgs(IdOfRelativePath("etc"), "BrowseDirectChildren"), 500, "701"},
      {"link to a file", "Browse",
       BrowseArgs(IdOfRelativePath("Music/passwd.mp3"), "BrowseMetadata"), 500, "701"},
      {"hidden file", "Browse", BrowseArgs(IdOfRelativePath("Music/.hidden.mp3"), "BrowseMetadata"),
       500, "701"},
      {"upper-case hex", "Browse", BrowseArgs("4D75736963", "BrowseMetadata"), 500, "701"},
      {"bad flag", "Browse", BrowseArgs("0", "BrowseEverything"), 500, "402"},
      {"index not a number", "Browse", BrowseArgs("0", "BrowseDirectChildren", "-1"), 500, "402"},
      {"count beyond 32 bits", "Browse", BrowseArgs("0", "BrowseDirectChildren", "0", "4294967296"),
       500, "402"},
      {"metadata from index 1", "Browse", BrowseArgs("0", "BrowseMetadata", "1"), 500, "402"},
      {"argument missing",
       "Browse",
       {{"ObjectID", "0"}, {"BrowseFlag", "BrowseMetadata"}},
       500,
       "402"},
      {"unknown sort key", "Browse",
       BrowseArgs("0", "BrowseDirectChildren", "0", "0", "+upnp:artist"), 500, "709"},
      {"unknown action", "Destroy", {}, 500, "401"},
      {"search in an item",
       "Search",
       {{"ContainerID", IdOfRelativePath("z.wav")},
        {"SearchCriteria", "*"},
        {"Filter", "*"},
        {"StartingIndex", "0"},
        {"RequestedCount", "0"},
        {"SortCriteria", ""}},
       500,
       "710"},
      {"huge filter", "Browse", BrowseArgs("0", "BrowseMetadata", "0", "0", "", huge_filter), 200,
       "<none>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const HttpResponse r = Soap("ContentDirectory", c.action, c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(SoapValue(r.body, "errorCode"), c.code);
  }
  // Requests that are no SOAP action at all.
  for (const std::string& body :
       {std::string("<s:Envelope><s:Body>"), std::string("not xml"), std::string("<a><b/></a>")}) {
    const HttpResponse r = Send(Request("POST", "/ContentDirectory/Control",
                                        "SOAPACTION: \"urn:schemas-upnp-org:service:"
                                        "ContentDirectory:1#Browse\"\r\nCONTENT-LENGTH: " +
                                            std::to_string(body.size()) + "\r\n") +
                                body);
    EXPECT_EQ(r.status, 400) << body;
    EXPECT_EQ(SoapValue(r.body, "errorCode"), "400") << body;
  }
}

TEST_F(MediaServerTest, SearchCriteria) {
  struct Case {
    const char* criteria;
    const char* titles;  // nullptr: error 708
  } cases[] = {
      {"*", "z|b|Tone & <one>|p|c|"},
      {"upnp:class derivedfrom \"object.item.audioItem\"", "z|b|Tone & <one>|"},
      {"upnp:class = \"object.item.imageItem.photo\" or upnp:class = \"object.item.videoItem\"",
       "p|c|"},
      {"(upnp:class derivedfrom \"object.item.audioItem\" and dc:title contains \"ONE\") and "
       "@refID exists false",
       "Tone & <one>|"},
      {"dc:title doesNotContain \"o\" and upnp:class != \"object.item.videoItem\"", "z|b|p|"},
      {"dc:title = \"b\"", "b|"},
      {"upnp:artist = \"x\"", nullptr},
      {"dc:title contains", nullptr},
      {"(dc:title = \"b\"", nullptr},
      {"((((((((((((((((((dc:title = \"b\"))))))))))))))))))", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.criteria);
    std::string escaped = c.criteria;
    for (size_t at = escaped.find('"'); at != std::string::npos; at = escaped.find('"', at + 6)) {
      escaped.replace(at, 1, "&quot;");
    }
    const HttpResponse r = Soap("ContentDirectory", "Search",
                                {{"ContainerID", "0"},
                                 {"SearchCriteria", escaped},
                                 {"Filter", "*"},
                                 {"StartingIndex", "0"},
                                 {"RequestedCount", "0"},
                                 {"SortCriteria", ""}});
    if (c.titles == nullptr) {
      EXPECT_EQ(SoapValue(r.body, "errorCode"), "708");
    } else {
      EXPECT_EQ(Titles(Objects(r.body)), c.titles);
    }
  }
  for (const auto& [action, element, value] :
       {std::tuple{"GetSearchCapabilities", "SearchCaps", "dc:title,upnp:class"},
        std::tuple{"GetSortCapabilities", "SortCaps", "dc:title,dc:date"},
        std::tuple{"GetSystemUpdateID", "Id", "<update id>"}}) {
    EXPECT_EQ(SoapValue(Soap("ContentDirectory", action, {}).body, element),
              std::string(value) == "<update id>" ? std::to_string(SystemUpdateId()) : value)
        << action;
  }
}

TEST_F(MediaServerTest, ResourcesStreamWithRangesAndDlnaHeaders) {
  const auto tracks =
      Objects(Soap("ContentDirectory", "Browse", BrowseArgs(kMusic, "BrowseDirectChildren")).body);
  ASSERT_EQ(tracks.size(), 2u);
  const std::string path = tracks[1].res.substr(tracks[1].res.find("/media/"));
  const std::string bytes = ReadFile(File("Music/Tone & <one>.mp3"));

  const HttpResponse whole = Get(path, "getContentFeatures.dlna.org: 1\r\n");
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body, bytes);
  EXPECT_EQ(HeaderValue(whole.head, "Content-Type"), "audio/mpeg");
  EXPECT_EQ(HeaderValue(whole.head, "contentFeatures.dlna.org"),
            "DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
            "DLNA.ORG_FLAGS=01700000000000000000000000000000");
  const HttpResponse part =
      Get(path, "Range: bytes=100-199\r\ntransferMode.dlna.org: Streaming\r\n");
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, bytes.substr(100, 100));
  EXPECT_EQ(HeaderValue(part.head, "Content-Range"), "bytes 100-199/3000");
  EXPECT_EQ(HeaderValue(part.head, "transferMode.dlna.org"), "Streaming");
  EXPECT_EQ(Get(path, "Range: bytes=2990-\r\n").body, bytes.substr(2990));
  EXPECT_EQ(Get(path, "Range: bytes=3000-\r\n").status, 416);
  const HttpResponse head = Send(Request("HEAD", path, ""), 300);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(HeaderValue(head.head, "Content-Length"), "3000");
  EXPECT_EQ(head.body, "");
  // Pictures cannot be streamed: the server refuses the streaming mode for their flags.
  const auto pictures =
      Objects(Soap("ContentDirectory", "Browse",
                   BrowseArgs(IdOfRelativePath("Pictures"), "BrowseDirectChildren"))
                  .body);
  ASSERT_EQ(pictures.size(), 1u);
  EXPECT_EQ(Get(pictures[0].res.substr(pictures[0].res.find("/media/")),
                "transferMode.dlna.org: Streaming\r\n")
                .status,
            406);
  for (const std::string& bad :
       {"/media/" + IdOfRelativePath("Music") + "-OP01/item",
        "/media/" + IdOfRelativePath("../etc/passwd") + "/item", std::string("/media/"),
        "/media/" + IdOfRelativePath("Music/notes.txt") + "/item.txt"}) {
    EXPECT_EQ(Get(bad).status, 404) << bad;
  }
}

// Playlist files are playlist containers of their entries that are items of the folder, in
// the playlist's order; whatever else an entry names (a file outside, through a link, hidden,
// not media, missing, a URL) is left out.
class PlaylistTest : public MediaServerTest {
 protected:
  std::vector<std::pair<std::string, std::string>> Files() const override {
    auto files = MediaServerTest::Files();
    files.emplace_back("Lists/Mix.m3u8",
                       "#EXTM3U\n#EXTINF:3,B first\n../Music/b.mp3\n../Music/Tone & <one>.mp3\n"
                       "../Music/notes.txt\n../Music/.hidden.mp3\n../../outside.mp3\n" +
                           data_.path() +
                           "/outside.mp3\nhttp://radio.example/x\nmissing.mp3\n"
                           "../Music/link.mp3\n..\\Video\\c.mp4\nC:\\Users\\x\\Music\\b.mp3\n");
    files.emplace_back("Lists/Party.wpl",
                       "<?wpl version=\"1.0\"?><smil><head><title>Party</title></head><body><seq>"
                       "<media src=\"..\\Pictures\\p.jpg\"/></seq></body></smil>");
    return files;
  }
  void Prepare() override {
    MediaServerTest::Prepare();
    WriteFile(data_.path() + "/outside.mp3", "outside");
    std::filesystem::create_symlink(data_.path() + "/outside.mp3", File("Music/link.mp3"));
  }
  std::vector<DidlObject> Browse(const std::string& id, const std::string& flag) {
    return Objects(Soap("ContentDirectory", "Browse", BrowseArgs(id, flag)).body);
  }
};

TEST_F(PlaylistTest, PlaylistsAreContainersOfTheirEntriesInsideTheFolder) {
  const std::string lists = IdOfRelativePath("Lists");
  const auto playlists = Browse(lists, "BrowseDirectChildren");
  ASSERT_EQ(Titles(playlists), "Mix|Party|");
  const std::string mix = IdOfRelativePath("Lists/Mix.m3u8");
  EXPECT_EQ(playlists[0].id, mix);
  EXPECT_EQ(playlists[0].upnp_class, "object.container.playlistContainer");
  EXPECT_EQ(playlists[0].child_count, "4");
  EXPECT_EQ(playlists[1].child_count, "1");

  const auto entries = Browse(mix, "BrowseDirectChildren");
  ASSERT_EQ(Titles(entries), "b|Tone & <one>|c|b|");
  const auto tracks = Browse(kMusic, "BrowseDirectChildren");
  ASSERT_EQ(tracks.size(), 2u);
  const std::vector<std::string> positions = {"0", "1", "9", "10"};
  for (size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].id, mix + "." + positions[i]);
    EXPECT_EQ(entries[i].parent, mix);
  }
  // An entry refers to the item and streams as the item does.
  EXPECT_EQ(entries[0].ref, tracks[0].id);
  EXPECT_EQ(entries[0].res, tracks[0].res);
  EXPECT_EQ(entries[0].upnp_class, "object.item.audioItem.musicTrack");
  EXPECT_EQ(Get(entries[1].res.substr(entries[1].res.find("/media/"))).body,
            ReadFile(File("Music/Tone & <one>.mp3")));

  const auto one = Browse(mix + ".9", "BrowseMetadata");
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0].title + one[0].parent + one[0].ref, "c" + mix + IdOfRelativePath("Video/c.mp4"));
  for (const std::string& bad : {mix + ".2", mix + ".4", mix + ".8", mix + ".09", mix + ".",
                                 kMusic + ".0", mix + ".99999999999"}) {
    EXPECT_EQ(SoapValue(Soap("ContentDirectory", "Browse", BrowseArgs(bad, "BrowseMetadata")).body,
                        "errorCode"),
              "701")
        << bad;
  }
  // Searches find each item once: playlists only refer to items of the folders.
  const HttpResponse found = Soap("ContentDirectory", "Search",
                                  {{"ContainerID", "0"},
                                   {"SearchCriteria", "*"},
                                   {"Filter", "*"},
                                   {"StartingIndex", "0"},
                                   {"RequestedCount", "0"},
                                   {"SortCriteria", ""}});
  EXPECT_EQ(Titles(Objects(found.body)), "z|b|Tone & <one>|p|c|");
}

// A connection keeps its last item open between fetches; a file rewritten or removed meanwhile
// is noticed by the next fetch after a second at the latest, never served past its new end.
TEST_F(MediaServerTest, AKeptAliveConnectionSeesTheFileChange) {
  const auto tracks =
      Objects(Soap("ContentDirectory", "Browse", BrowseArgs(kMusic, "BrowseDirectChildren")).body);
  ASSERT_EQ(tracks.size(), 2u);
  const std::string path = tracks[0].res.substr(tracks[0].res.find("/media/"));
  RawClient client;
  ASSERT_TRUE(client.Connect(port_));
  const auto fetch = [&](const std::string& lines = "") {
    EXPECT_TRUE(client.Send(Request("GET", path, lines)));
    return client.Read();
  };
  EXPECT_EQ(fetch().body, std::string(1000, 'b'));
  EXPECT_EQ(fetch("Range: bytes=10-19\r\n").body, std::string(10, 'b'));
  WriteFile(File("Music/b.mp3"), std::string(1500, 'B'));
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  const HttpResponse changed = fetch();
  EXPECT_EQ(std::make_pair(changed.status, changed.body),
            std::make_pair(200, std::string(1500, 'B')));
  std::filesystem::remove(File("Music/b.mp3"));
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(fetch().status, 404);
}

TEST_F(MediaServerTest, ConnectionManagerAndServiceDocuments) {
  const std::string source =
      SoapValue(Soap("ConnectionManager", "GetProtocolInfo", {}).body, "Source");
  EXPECT_THAT(source, HasSubstr("http-get:*:audio/mpeg:DLNA.ORG_PN=MP3,"));
  EXPECT_THAT(source, HasSubstr(",http-get:*:image/png:*"));
  EXPECT_EQ(source.find("http-get:*:audio/x-wav:*"), source.rfind("http-get:*:audio/x-wav:*"));
  EXPECT_EQ(
      SoapValue(Soap("ConnectionManager", "GetCurrentConnectionIDs", {}).body, "ConnectionIDs"),
      "0");
  EXPECT_EQ(
      SoapValue(Soap("ConnectionManager", "GetCurrentConnectionInfo", {{"ConnectionID", "0"}}).body,
                "Direction"),
      "Output");
  EXPECT_EQ(
      SoapValue(Soap("ConnectionManager", "GetCurrentConnectionInfo", {{"ConnectionID", "7"}}).body,
                "errorCode"),
      "706");
  EXPECT_EQ(SoapValue(Soap("ConnectionManager", "Browse", BrowseArgs("0", "BrowseMetadata")).body,
                      "errorCode"),
            "401");
  // Every action a control URL answers is in its service document, and the description links
  // both documents.
  const std::string description = Get("/TMSDeviceDescription.xml").body;
  for (const auto& [service, actions] :
       {std::pair{"ContentDirectory",
                  std::vector<std::string>{"Browse", "Search", "GetSearchCapabilities",
                                           "GetSortCapabilities", "GetSystemUpdateID"}},
        std::pair{"ConnectionManager",
                  std::vector<std::string>{"GetProtocolInfo", "GetCurrentConnectionIDs",
                                           "GetCurrentConnectionInfo"}}}) {
    const std::string scpd_url = std::string("/") + service + "/scpd.xml";
    EXPECT_THAT(description, HasSubstr("<SCPDURL>" + scpd_url + "</SCPDURL>"));
    upnp_xml_node* scpd = upnp_xml_parse(Get(scpd_url).body.c_str());
    std::vector<std::string> names;
    for (const upnp_xml_node* a = upnp_xml_find_tag(scpd, "action"); a != nullptr;
         a = upnp_xml_find_next_tag(a, "action")) {
      names.push_back(upnp_xml_find_tag_value(a->children, "name"));
    }
    upnp_xml_release(scpd);
    EXPECT_EQ(names, actions) << service;
  }
}

// A client type that asks for every answer-changing quirk, identified by its User-Agent.
class QuirkyClientTest : public MediaServerTest {
 protected:
  void Prepare() override {
    MediaServerTest::Prepare();
    WriteFile(data_.path() + "/clients.db",
              "test types\n>>NA:zero\n>>NA:Unknown\n>>NA:Quirky\nHH:QuirkyTV\nXM:IGNORESORT\n"
              "XM:FORCE_4TH_FIELD\nXM:FORCE_DURATION\nXM:noutf8\nMT:wav audio/wav\n>>\n");
    g_types = data_.path() + "/clients.db";
  }
  std::vector<std::pair<std::string, std::string>> Files() const override {
    return {{"Caf\xc3\xa9.wav", "w"}, {"b.wav", "b"}};
  }
  upnp_resource_get_function Resources() const override { return &TypesOfTheTest; }
  static int TypesOfTheTest(const char* name, uint32_t* size, void** data) {
    const std::string bytes = std::string(name) == "clients.db" ? ReadFile(g_types) : "";
    if (bytes.empty()) return 0;
    auto* block = static_cast<char*>(upnp_malloc_impl(bytes.size() + 2));
    std::memcpy(block, bytes.data(), bytes.size());
    block[bytes.size()] = block[bytes.size() + 1] = '\0';
    *size = static_cast<uint32_t>(bytes.size());
    *data = block;
    return 1;
  }
  HttpResponse BrowseAs(const std::string& agent) {
    return Soap("ContentDirectory", "Browse",
                BrowseArgs("0", "BrowseDirectChildren", "0", "0", "-dc:title"),
                "User-Agent: " + agent + "\r\n");
  }
  static std::string g_types;
};
std::string QuirkyClientTest::g_types;

TEST_F(QuirkyClientTest, QuirksChangeTheAnswer) {
  const auto plain = Objects(BrowseAs("SomePlayer").body);
  ASSERT_EQ(plain.size(), 2u);
  EXPECT_EQ(Titles(plain), "Caf\xc3\xa9|b|");  // sorted as asked (descending)
  EXPECT_EQ(plain[0].protocol_info, "http-get:*:audio/x-wav:*");
  EXPECT_EQ(plain[0].duration, "");  // the header gives none
  const auto quirky = Objects(BrowseAs("QuirkyTV/1.0").body);
  ASSERT_EQ(quirky.size(), 2u);
  EXPECT_EQ(Titles(quirky), "b|Caf\xe9|");  // listing order kept, Latin-1 instead of UTF-8
  EXPECT_EQ(quirky[1].protocol_info,
            "http-get:*:audio/wav:DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
            "DLNA.ORG_FLAGS=01700000000000000000000000000000");
  EXPECT_EQ(quirky[1].duration, "00:00:00");
  // The client's own MIME type holds for the stream too.
  const std::string path = quirky[1].res.substr(quirky[1].res.find("/media/"));
  EXPECT_EQ(HeaderValue(Get(path, "User-Agent: QuirkyTV\r\n").head, "Content-Type"), "audio/wav");
  EXPECT_EQ(HeaderValue(Get(path, "User-Agent: other\r\n").head, "Content-Type"), "audio/x-wav");
}

}  // namespace
}  // namespace mediaserver::test
