// SPDX-License-Identifier: Apache-2.0
// Playlists through the C interface: the forms found next to real music collections, the WPL
// and M3U the library writes, and the neutral results for bad input.
#include "platform/test_hooks.h"
#include "support/test_support.h"
#include "tarnwick/media.h"
#include "tarnwick/util.h"

namespace {

using namespace tw::test;

struct PlaylistFree {
  void operator()(upnp_playlist* list) const { upnp_playlist_free(list); }
};
using Playlist = std::unique_ptr<upnp_playlist, PlaylistFree>;

std::string Text(upnp_string* s) {
  std::string text = s != nullptr ? std::string(s->buffer, s->length) : "<null>";
  upnp_string_free(s);
  return text;
}

const char* Kind(int32_t kind) {
  return kind == UPNP_PLAYLIST_ENTRY_FILE  ? "file"
         : kind == UPNP_PLAYLIST_ENTRY_URL ? "url"
                                           : "missing";
}

// One line per entry: "kind location|title|duration".
std::string Entries(const upnp_playlist* list, const std::string& root = "") {
  std::string out;
  for (uint32_t i = 0; list != nullptr && i < list->count; ++i) {
    const upnp_playlist_entry& e = list->entries[i];
    std::string location = e.location;
    if (!root.empty() && location.compare(0, root.size(), root) == 0) {
      location = "<root>" + location.substr(root.size());
    }
    out += std::string(Kind(e.kind)) + " " + location + "|" + (e.title != nullptr ? e.title : "") +
           "|" + std::to_string(e.duration) + "\n";
  }
  return out;
}

class Playlists : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    // A collection: the playlists sit in lists/, the music in Music/.
    for (const char* file : {"Music/Artist/Album/01 One.mp3", "Music/Artist/Album/02 Two & Co.flac",
                             "Music/Café/ü.mp3", "lists/near.mp3", "Music/a+b 50%.mp3"}) {
      const std::string path = dir_.File(file);
      std::filesystem::create_directories(std::filesystem::path(path).parent_path());
      WriteFile(path, "x");
    }
    std::filesystem::create_directories(dir_.File("Music/Folder.mp3"));  // a directory
    root_ = dir_.path();
  }
  Playlist Read(const std::string& name, const std::string& bytes) {
    WriteFile(dir_.File("lists/" + name), bytes);
    return Playlist(upnp_playlist_read(dir_.File("lists/" + name).c_str()));
  }
  TempDir dir_;
  std::string root_;
};

// Two WPL files in the forms desktop players write: a byte order mark, CR LF, a wpl instruction,
// meta elements, entities, relative paths with backslashes, and media elements with extra
// attributes; the second with absolute paths of another machine (drive letter, UNC share).
TEST_F(Playlists, WplFromOtherProgramsReadsWithItsPathsResolved) {
  const Playlist first =
      Read("Favourites.wpl",
           "\xEF\xBB\xBF<?wpl version=\"1.0\"?>\r\n<smil>\r\n    <head>\r\n"
           "        <meta name=\"Generator\" content=\"A Desktop Player -- 12.0.19041.1\"/>\r\n"
           "        <meta name=\"ItemCount\" content=\"[#ItemCount]\"/>\r\n        <author/>\r\n"
           "        <title>Rock &amp; Roll &apos;74</title>\r\n    </head>\r\n    <body>\r\n"
           "        <seq>\r\n"
           "            <media src=\"..\\Music\\Artist\\Album\\01 One.mp3\" "
           "tid=\"{2A4F7C1E-0000-4B7E-9D43-0A1B2C3D4E5F}\"/>\r\n"
           "            <media src=\"..\\Music\\Artist\\Album\\02 Two &amp; Co.flac\"/>\r\n"
           "            <media src=\"..\\Music\\Caf&#233;\\\xC3\xBC.mp3\"/>\r\n"
           "            <media src=\"near.mp3\"/>\r\n"
           "            <media src=\"..\\Music\\Gone.mp3\"/>\r\n"
           "            <media src=\"http://radio.example/stream?a=1&amp;b=2\"/>\r\n"
           "        </seq>\r\n    </body>\r\n</smil>\r\n");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->format, UPNP_PLAYLIST_WPL);
  EXPECT_STREQ(first->title, "Rock & Roll '74");
  EXPECT_EQ(Entries(first.get(), root_),
            "file <root>/Music/Artist/Album/01 One.mp3||-1\n"
            "file <root>/Music/Artist/Album/02 Two & Co.flac||-1\n"
            "file <root>/Music/Café/ü.mp3||-1\n"
            "file <root>/lists/near.mp3||-1\n"
            "missing <root>/Music/Gone.mp3||-1\n"
            "url http://radio.example/stream?a=1&b=2||-1\n");
  EXPECT_STREQ(first->entries[0].src, "..\\Music\\Artist\\Album\\01 One.mp3");  // as written

  const Playlist second =
      Read("Other machine.zpl",
           "<?zpl version=\"2.0\"?>\n<smil>\n<head><title>Party</title></head>\n<body><seq>\n"
           "<media src=\"C:\\Users\\someone\\Music\\Artist\\Album\\01 One.mp3\"/>\n"
           "<media src=\"\\\\nas\\share\\Music\\Café\\ü.mp3\"/>\n"
           "<media src=\"D:\\Elsewhere\\nothing.mp3\"/>\n"
           "<media/><media src=\"  \"/>\n"
           "</seq></body></smil>");
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(Entries(second.get(), root_),
            "file <root>/Music/Artist/Album/01 One.mp3||-1\n"
            "file <root>/Music/Café/ü.mp3||-1\n"
            "missing D:/Elsewhere/nothing.mp3||-1\n");
}

TEST_F(Playlists, M3uAndPlsFormsUsersHave) {
  const struct {
    const char* name;
    std::string bytes;
    const char* title;
    std::string entries;
  } cases[] = {
      {"extended.m3u8",
       "#EXTM3U\r\n#PLAYLIST:Road trip\r\n#EXTINF:245,Artist - One\r\n"
       "../Music/Artist/Album/01 One.mp3\r\n"
       "#EXTINF:-1 tvg-name=\"a,b\" group=\"x\",Radio, live\r\nhttp://radio.example/live\r\n"
       "#EXTINF:183.6,\r\n# a comment\r\n\r\n  ../Music/Café/ü.mp3  \r\n"
       "../Music/Folder.mp3\r\n",
       "Road trip",
       "file <root>/Music/Artist/Album/01 One.mp3|Artist - One|245\n"
       "url http://radio.example/live|Radio, live|-1\n"
       "file <root>/Music/Café/ü.mp3||183\n"
       "missing <root>/Music/Folder.mp3||-1\n"},
      {"latin1.m3u", "..\\Music\\Caf\xE9\\\xFC.mp3\r../Music/Gone.mp3\rnear.mp3", nullptr,
       "file <root>/Music/Café/ü.mp3||-1\nmissing <root>/Music/Gone.mp3||-1\n"
       "file <root>/lists/near.mp3||-1\n"},
      {"urls.m3u",
       "file:///nowhere/x.mp3\nfile://localhost" + std::string() +
           "/nowhere/y.mp3\n"
           "file:///C:/Users/x/Music/a+b%2050%25.mp3\nFILE:near.mp3\nrtsp://cam.example/s\n",
       nullptr,
       "missing /nowhere/x.mp3||-1\nmissing /nowhere/y.mp3||-1\n"
       "file <root>/Music/a+b 50%.mp3||-1\nfile <root>/lists/near.mp3||-1\n"
       "url rtsp://cam.example/s||-1\n"},
      {"utf16.m3u",
       std::string("\xFF\xFE", 2) + std::string("n\0e\0a\0r\0.\0m\0p\0"
                                                "3\0\r\0\n\0",
                                                20),
       nullptr, "file <root>/lists/near.mp3||-1\n"},
      {"radio.pls",
       "[playlist]\nNumberOfEntries=3\nTitle2=Second\nFile2=../Music/Café/ü.mp3\n"
       "File1=http://radio.example/a\nLength1=-1\nLength2=201\nFile10=near.mp3\nFileX=no\n"
       "Title3=no file\nVersion=2\n",
       nullptr,
       "url http://radio.example/a||-1\nfile <root>/Music/Café/ü.mp3|Second|201\n"
       "file <root>/lists/near.mp3||-1\n"},
      {"unknown.txt", "[playlist]\nFile1=near.mp3\n", nullptr, "file <root>/lists/near.mp3||-1\n"},
      {"empty.m3u", "#EXTM3U\n\n", nullptr, ""},
  };
  for (const auto& c : cases) {
    const Playlist list = Read(c.name, c.bytes);
    ASSERT_NE(list, nullptr) << c.name;
    EXPECT_EQ(list->format, std::string(c.name).find(".pls") != std::string::npos ||
                                    std::string(c.name) == "unknown.txt"
                                ? UPNP_PLAYLIST_PLS
                                : UPNP_PLAYLIST_M3U)
        << c.name;
    EXPECT_STREQ(list->title, c.title) << c.name;
    EXPECT_EQ(Entries(list.get(), root_), c.entries) << c.name;
  }
}

TEST_F(Playlists, LongLinesAreCutAndBadInputGetsNeutralResults) {
  // A line is cut at 4096 bytes, never inside a UTF-8 character.
  const std::string long_line = std::string(4095, 'a') + "\xC3\xBC" + std::string(100, 'b');
  const Playlist list = Read("long.m3u", long_line + "\nnear.mp3\n");
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->count, 2u);
  EXPECT_EQ(std::string(list->entries[0].src), std::string(4095, 'a'));
  EXPECT_EQ(list->entries[0].kind, UPNP_PLAYLIST_ENTRY_MISSING);

  EXPECT_EQ(upnp_playlist_read(nullptr), nullptr);
  EXPECT_EQ(upnp_playlist_read(dir_.File("lists/none.m3u").c_str()), nullptr);
  EXPECT_EQ(upnp_playlist_read(dir_.File("Music").c_str()), nullptr);  // a folder
  std::filesystem::resize_file(dir_.File("lists/near.mp3"), UPNP_PLAYLIST_MAX_FILE + 1);
  std::filesystem::copy_file(dir_.File("lists/near.mp3"), dir_.File("lists/huge.m3u"));
  EXPECT_EQ(upnp_playlist_read(dir_.File("lists/huge.m3u").c_str()), nullptr);
  EXPECT_EQ(upnp_playlist_parse(nullptr, 0, UPNP_PLAYLIST_M3U, nullptr), nullptr);
  // Binary junk and a WPL that never closes: whatever could be read, no failure.
  const std::string junk("\x00\x01<smil><body><seq><media src=\"a\xFF.mp3\"/><media src=", 52);
  const Playlist partial(upnp_playlist_parse(junk.data(), static_cast<uint32_t>(junk.size()),
                                             UPNP_PLAYLIST_WPL, "/nowhere"));
  ASSERT_NE(partial, nullptr);
  EXPECT_EQ(Entries(partial.get()), "missing /nowhere/aÿ.mp3||-1\n");
  EXPECT_EQ(upnp_playlist_add_entry(nullptr, "a", nullptr, 0), -1);
  EXPECT_EQ(upnp_playlist_to_wpl(nullptr), nullptr);
  upnp_playlist_free(nullptr);
}

// What the library writes: the WPL layout pinned byte for byte, then read back with the same
// title and entries; M3U the same way; a write that cannot happen leaves the old file.
TEST_F(Playlists, WrittenPlaylistsReadBackTheSame) {
  const Playlist made(upnp_playlist_new("Mix \"A\" & <B>"));
  ASSERT_NE(made, nullptr);
  for (const auto& [src, title, duration] :
       {std::tuple("../Music/Artist/Album/01 One.mp3", "One, live", 245),
        std::tuple("../Music/Café/ü.mp3", static_cast<const char*>(nullptr), -1),
        std::tuple("http://radio.example/s?a=1&b='2'", "Radio\r\nNight", -7)}) {
    ASSERT_EQ(upnp_playlist_add_entry(made.get(), src, title, duration), 0);
  }
  EXPECT_EQ(made->entries[2].kind, UPNP_PLAYLIST_ENTRY_URL);
  const std::string wpl = Text(upnp_playlist_to_wpl(made.get()));
  EXPECT_EQ(wpl,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<?wpl version=\"1.0\"?>\r\n"
            "<smil>\n    <head>\n"
            "        <meta name=\"Generator\" content=\"Tarnwick UPnP SDK\"></meta>\n"
            "        <title>Mix &quot;A&quot; &amp; &lt;B&gt;</title>\n    </head>\n"
            "    <body>\n        <seq>\n"
            "            <media src=\"../Music/Artist/Album/01 One.mp3\"></media>\n"
            "            <media src=\"../Music/Café/ü.mp3\"></media>\n"
            "            <media src=\"http://radio.example/s?a=1&amp;b=&#39;2&#39;\"></media>\n"
            "        </seq>\n    </body>\n</smil>\r\n");
  const std::string m3u = Text(upnp_playlist_to_m3u(made.get()));
  EXPECT_EQ(m3u,
            "#EXTM3U\n#PLAYLIST:Mix \"A\" & <B>\n#EXTINF:245,One, live\n"
            "../Music/Artist/Album/01 One.mp3\n../Music/Café/ü.mp3\n"
            "#EXTINF:-1,Radio  Night\nhttp://radio.example/s?a=1&b='2'\n");

  for (const int32_t format : {UPNP_PLAYLIST_WPL, UPNP_PLAYLIST_M3U}) {
    const std::string path =
        dir_.File(format == UPNP_PLAYLIST_WPL ? "lists/w.wpl" : "lists/m.m3u8");
    ASSERT_EQ(upnp_playlist_write(made.get(), path.c_str(), format), 0);
    const Playlist back(upnp_playlist_read(path.c_str()));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->format, format);
    EXPECT_STREQ(back->title, made->title);
    ASSERT_EQ(back->count, made->count);
    for (uint32_t i = 0; i < back->count; ++i) {
      EXPECT_STREQ(back->entries[i].src, made->entries[i].src) << i;
      EXPECT_EQ(back->entries[i].kind, i < 2 ? UPNP_PLAYLIST_ENTRY_FILE : UPNP_PLAYLIST_ENTRY_URL);
    }
    EXPECT_FALSE(FileExists(path + ".new"));
  }
  std::filesystem::create_directories(dir_.File("lists/w.wpl.new"));  // the write cannot happen
  const std::string before = ReadFile(dir_.File("lists/w.wpl"));
  const Playlist other(upnp_playlist_new("Other"));
  EXPECT_EQ(upnp_playlist_write(other.get(), dir_.File("lists/w.wpl").c_str(), UPNP_PLAYLIST_WPL),
            -1);
  EXPECT_EQ(ReadFile(dir_.File("lists/w.wpl")), before);
  EXPECT_EQ(upnp_playlist_write(other.get(), dir_.File("lists/x.pls").c_str(), UPNP_PLAYLIST_PLS),
            -1);
}

// A failed allocation anywhere gives null, never a playlist with entries left out, and nothing
// leaks (the fixture); the writers give null or the whole text.
TEST_F(Playlists, ShortMemoryGivesNullOrTheWholePlaylist) {
  const std::string base = dir_.File("lists");
  const std::string m3u =
      "#EXTM3U\n#PLAYLIST:T\n#EXTINF:1,a\nnear.mp3\nC:\\x\\Music\\Caf\xE9\\\xFC.mp3\n"
      "file:///C:/y/Gone%20Away.mp3\nhttp://h/x\n";
  const std::string pls = "[playlist]\nFile2=near.mp3\nTitle2=b\nFile1=http://h/y\n";
  for (const std::string& text : {m3u, pls}) {
    const Playlist whole(upnp_playlist_parse(text.data(), static_cast<uint32_t>(text.size()),
                                             UPNP_PLAYLIST_UNKNOWN, base.c_str()));
    ASSERT_NE(whole, nullptr);
    const std::string expected = Entries(whole.get());
    const std::string wpl = Text(upnp_playlist_to_wpl(whole.get()));
    bool finished = false;
    for (int n = 0; n < 1000 && !finished; ++n) {
      tw::platform::FailAllocAfter(n);
      const Playlist list(upnp_playlist_parse(text.data(), static_cast<uint32_t>(text.size()),
                                              UPNP_PLAYLIST_UNKNOWN, base.c_str()));
      upnp_string* written = upnp_playlist_to_wpl(whole.get());
      finished = !tw::platform::AllocFailureFired();
      tw::platform::ClearAllocFailure();
      if (list != nullptr) {
        EXPECT_EQ(Entries(list.get()), expected) << n;
      }
      if (written != nullptr) {
        EXPECT_EQ(Text(written), wpl) << n;
      }
      EXPECT_EQ(finished, list != nullptr && written != nullptr) << n;
    }
    EXPECT_TRUE(finished);
  }
}

}  // namespace
