// SPDX-License-Identifier: Apache-2.0
// The client-type table: splitting the resource, options, keyword values and special MIME types.
#include <unistd.h>

#include "clientdb/clientdb_fixture.h"

namespace {

using namespace tw::test;

using ClientTypes = ClientDbTest;

std::string Entries() {
  std::string all;
  for (int32_t t = 0; t < UPNP_CLIENT_TYPE_SLOTS; ++t) {
    const char* e = tw::clientdb::TypeEntry(t);
    if (e != nullptr) all += std::to_string(t) + "[" + e + "]";
  }
  return all;
}

TEST_F(ClientTypes, EntriesNeedAMarkBehindThem) {
  const struct {
    std::string text;
    std::string entries;
  } cases[] = {
      {">>\nNA:a\n>>\nNA:b\n>>\n", "0[>>\nNA:a]1[>>\nNA:b]"},
      {"comment\n>>\nNA:a\n>>\nNA:b\n", "0[>>\nNA:a]"},  // the last entry is lost
      {"no entries at all", ""},
      {">>>>\n", "0[>]"},
      {">>\r\nNA:a\r\n>>", "0[>>\r\nNA:a\r]"},  // only one character is cut
  };
  for (const auto& c : cases) {
    Load(c.text);
    EXPECT_EQ(Entries(), c.entries) << c.text;
  }
}

std::string g_resource;
int ResourceGetter(const char* name, uint32_t* size, void** data) {
  if (std::string(name) != "clients.db") return 0;
  *data = upnp_malloc_impl(g_resource.size());  // no terminator, as a cached copy
  std::memcpy(*data, g_resource.data(), g_resource.size());
  *size = static_cast<uint32_t>(g_resource.size());
  return 1;
}

TEST_F(ClientTypes, InitDropsTheResourcesLastByte) {
  register_upnp_resource_get_function(ResourceGetter);
  const struct {
    std::string resource;
    std::string entries;
  } cases[] = {
      {">>\nNA:a\n>>\nNA:b\n>>\n", "0[>>\nNA:a]1[>>\nNA:b]"},
      {">>\nNA:a\n>>\nNA:b\n>>", "0[>>\nNA:a]"},
      {"", ""},
  };
  for (const auto& c : cases) {
    g_resource = c.resource;
    upnp_client_db_exit();
    upnp_client_db_init();
    EXPECT_EQ(Entries(), c.entries) << c.resource;
  }
}

// Every quirk getter with its option word.
const struct {
  int32_t (*fn)(int32_t);
  const char* word;
} kGetters[] = {
    {upnp_client_db_needs_4th_field, "XM:FORCE_4TH_FIELD"},
    {upnp_client_db_needs_duration, "XM:FORCE_DURATION"},
    {upnp_client_db_supports_icy_data, "OS:supports_icy"},
    {upnp_client_db_is_psp, "NA:PSP"},
    {upnp_client_db_exact_protocolinfo, "XM:EXACTPROTOCOLINFO"},
    {upnp_client_db_allow_unlimited_xml, "XM:UNLIMITED"},
    {upnp_client_db_give_no_transcoded_pictures, "XM:NOTRPICS"},
    {upnp_client_db_is_sonybravia, "XM:BRAVIA_ROOT_DETECTION"},
    {upnp_client_db_viera_divxprofile, "XM:VIERA_DIVXPROFILE"},
    {upnp_client_db_add_time_to_date, "XM:DATETIME"},
    {upnp_client_db_force_mp4_profile, "DL:MP4DLNA"},
    {upnp_client_db_philips_search, "XM:PHILIPSSEARCH"},
    {upnp_client_db_force_res, "XM:FORCERES"},
    {upnp_client_db_no_utf, "XM:noutf8"},
    {upnp_client_db_give_roku_search, "SC:roku"},
    {upnp_client_db_needs_1_0_proxyresponse, "HP:1.0PROXYRESPONSE"},
    {upnp_client_db_needs_1_0_response, "HP:1.0RESPONSE"},
    {upnp_client_db_needs_psp_style_content_length, "HP:LIVEPSPLENGTH"},
    {upnp_client_db_needs_content_length_for_live, "HP:LIVEWITHLENGTH"},
    {upnp_client_db_needs_absolute_uris, "DX:ABSOLUTEURI"},
    {upnp_client_db_ignore_sort, "XM:IGNORESORT"},
    {upnp_client_db_redsonic_compliant, "DX:REDSONIC"},
    {upnp_client_db_no_utf8_sort, "XM:NOUTF8SORT"},
    {upnp_client_db_suppress_events, "ET:NO"},
    {upnp_client_can_not_register_device, "XM:CANNOTREGISTERDEVICE"},
    {upnp_client_db_can_not_work_with_embedded_albumart, "XM:NOEMBEDDEDALBUMART"},
    {upnp_client_db_needs_philips_srt_style, "XM:PHILIPSSRT"},
    {upnp_client_db_wmc_compliant, "DX:WMC"},
    {upnp_client_db_allways_close_connection, "HP:close"},
    {upnp_client_db_supports_chunked, "HP:chunked"},
    {upnp_client_db_is_musicclient, "AV:M"},
};

TEST_F(ClientTypes, EachGetterAsksForItsOwnWord) {
  std::string text;
  for (const auto& g : kGetters) text += std::string(">>\n") + g.word + "\n";
  Load(text + ">>\n");
  for (size_t i = 0; i < std::size(kGetters); ++i) {
    std::string answers;
    for (size_t t = 0; t < std::size(kGetters); ++t) {
      answers += std::to_string(kGetters[i].fn(static_cast<int32_t>(t)));
    }
    std::string expected(std::size(kGetters), '0');
    expected[i] = '1';
    EXPECT_EQ(answers, expected) << kGetters[i].word;
  }
}

TEST_F(ClientTypes, OptionsAreSubstrings) {
  Load(">>\nDB:FIXPC\nXM:DLNA15x\n>>\n>>\nNA:x\n>>\n");
  const struct {
    int32_t type;
    const char* option;
    int32_t found;
  } cases[] =
      {
          {0, "DB:FIX", 1}, {0, "DB:FIXPC", 1}, {0, "FIXP", 1},   {0, "DB:FIXPCX", 0},
          {0, "db:fix", 0}, {0, nullptr, 0},    {1, "DB:FIX", 0}, {5, "DB:FIX", 0},
          {5, "", 1},  // an empty slot is searched as empty text
          {150, "", 0},     {-1, "", 0},
      };
  for (const auto& c : cases) {
    EXPECT_EQ(upnp_client_db_supports_option(c.type, c.option), c.found)
        << c.type << " " << (c.option != nullptr ? c.option : "null");
  }
}

TEST_F(ClientTypes, DlnaVersion) {
  const struct {
    const char* entry;
    uint32_t version;
  } cases[] = {
      {"XM:DLNA15\nXM:DLNA10", 15},
      {"XM:DLNA10", 10},
      {"XM:DLNANO", 0xFFFFFFFFu},
      {"XM:DLNA20\nXM:DLNA15", 0},
      {"XM:DLNA1", 0},
      {"", 0},
      {"xm:dlna15", 0},
  };
  std::string text;
  for (const auto& c : cases) text += std::string(">>\n") + c.entry + "\n";
  Load(text + ">>\n");
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(upnp_client_db_DLNA_version(static_cast<int32_t>(i)), cases[i].version)
        << cases[i].entry;
  }
}

TEST_F(ClientTypes, GetKeywordIsCutBeforeTheServerRuns) {
  const struct {
    int32_t running;
    const char* entry;
    size_t size;
    const char* tag;
    int32_t result;
    std::string value;
  } cases[] = {
      {0, "NA:Living room\nHH:x", 64, "NA:", 1, "L"},
      {-1, "NA:Living room\nHH:x", 64, "NA:", 1, "L"},
      {1, "NA:Living room\nHH:x", 64, "NA:", 1, "Living room"},
      {1, "NA:Living room\nHH:x", 5, "NA:", 1, "Livi"},
      {1, "NA:Living\troom", 64, "NA:", 1, "Living"},
      {1, "NA:\nHH:x", 64, "NA:", 0, ""},
      {1, "HH:x", 64, "NA:", 0, ""},
      {1, nullptr, 64, "NA:", 0, ""},
      {1, "NA:x", 1, "NA:", 0, ""},
  };
  for (const auto& c : cases) {
    __atomic_store_n(&g_server_running, c.running, __ATOMIC_RELEASE);
    char buffer[64];
    std::memset(buffer, 'z', sizeof(buffer));
    EXPECT_EQ(upnp_client_db_getKeyword(c.entry, buffer, c.size, c.tag), c.result) << c.size;
    EXPECT_EQ(std::string(buffer), c.value);
  }
  char untouched = 'z';
  EXPECT_EQ(upnp_client_db_getKeyword("NA:x", &untouched, 0, "NA:"), 0);
  EXPECT_EQ(untouched, 'z');
}

TEST_F(ClientTypes, KeywordValues) {
  upnp_client_db_add_view("music#kids");
  Load(
      ">>\nDV:kids \r\nWB:http://x/ \nDF:desc.xml\r\nTR:MP3,LPCM \t \nXM:AASCALE=160x160#x\n"
      "XM:MAX=250\n>>\nDV:films\nXM:AASCALE\n>>\n");
  const struct {
    char* (*fn)(int32_t);
    int32_t type;
    std::string value;
  } cases[] = {
      {upnp_client_db_get_default_view, 0, "kids \r"},
      {upnp_client_db_get_webbrowse, 0, "http://x/ "},
      {upnp_client_db_get_description_file, 0, "desc.xml"},
      {upnp_client_db_get_supported_transcoding_profiles, 0, "MP3,LPCM"},
      {upnp_client_db_albumart_scaling, 0, "160x160"},
      {upnp_client_db_albumart_scaling, 1, ""},
      {upnp_client_db_get_default_view, 1, "films"},
      {upnp_client_db_get_webbrowse, 1, "<null>"},
      {upnp_client_db_get_description_file, 1, "<null>"},
      {upnp_client_db_get_supported_transcoding_profiles, 1, "<null>"},
      {upnp_client_db_get_default_view, 2, "<null>"},
  };
  for (const auto& c : cases) EXPECT_EQ(Str(c.fn(c.type)), c.value) << c.type;
  EXPECT_EQ(upnp_client_db_get_value(0, "XM:MAX="), 250);
  EXPECT_EQ(upnp_client_db_get_value(0, "XM:MIN="), 0);
  EXPECT_EQ(upnp_client_db_get_value(0, nullptr), 0);
  // A default view counts only when the host offers it (a substring of the view list).
  EXPECT_EQ(Str(tw::clientdb::KnownDefaultView(0)), "<null>");  // "kids \r" is not offered
  EXPECT_EQ(Str(tw::clientdb::KnownDefaultView(1)), "<null>");
  upnp_client_db_add_view("films");
  EXPECT_EQ(Str(tw::clientdb::KnownDefaultView(1)), "films");
}

TEST_F(ClientTypes, TypesFromTheLastSlotOnAnswerNothing) {
  std::string text;
  std::string all_words;
  for (const auto& g : kGetters) all_words += std::string(g.word) + "\n";
  for (int i = 0; i < 160; ++i) {
    text += ">>\nNA:t" + std::to_string(i) +
            "\nXM:DLNA15\nDV:v\nWB:w\nDF:d\nTR:t\nXM:AASCALE x\nMT:ogg a/ogg\nXM:N=5\n" + all_words;
  }
  Load(text + ">>\n");
  EXPECT_NE(tw::clientdb::TypeEntry(148), nullptr);
  EXPECT_EQ(tw::clientdb::TypeEntry(149), nullptr);
  AddDetected("m", 200, 1, "v");
  for (int32_t type : {148, 149, 150, 200, 1000, -1}) {
    const bool answers = type == 148;
    std::string got;
    for (const auto& g : kGetters) got += std::to_string(g.fn(type));
    EXPECT_EQ(got, std::string(std::size(kGetters), answers ? '1' : '0')) << type;
    EXPECT_EQ(upnp_client_db_supports_option(type, "NA:"), answers ? 1 : 0);
    EXPECT_EQ(upnp_client_db_get_value(type, "XM:N="), answers ? 5 : 0);
    EXPECT_EQ(upnp_client_db_DLNA_version(type), answers ? 15u : 0u);
    for (auto fn :
         {upnp_client_db_get_default_view, upnp_client_db_get_webbrowse,
          upnp_client_db_get_description_file, upnp_client_db_get_supported_transcoding_profiles,
          upnp_client_db_albumart_scaling}) {
      EXPECT_EQ(Str(fn(type)) != "<null>", answers) << type;
    }
    EXPECT_EQ(upnp_client_db_needs_special_mime_type(type, "ogg") != nullptr, answers) << type;
  }
  const std::string table = Str(upnp_client_db_get_table());
  EXPECT_EQ(table.substr(0, 12), "000,t0,001,t");
  EXPECT_EQ(table.substr(table.size() - 9), ",148,t148");
}

TEST_F(ClientTypes, SpecialMimeTypes) {
  Load(">>\nNA:a\nMT:mkv,avi video/x-msvideo\n>>\nNA:b\nMT:mkv,mk2 video/x-mkv\n>>\n");
  const struct {
    int32_t type;
    const char* extension;
    const char* mime;
  } cases[] = {
      {0, "avi", "video/x-msvideo"},
      {0, "AVI", "video/x-msvideo"},
      {0, "mkv", "video/x-msvideo"},
      {0, "vi", nullptr},  // stands behind a letter
      {0, "mk", nullptr},  // followed by a letter
      {0, "mp4", nullptr},
      {1, "mkv", "video/x-mkv"},
      {1, "avi", nullptr},
      {2, "mkv", nullptr},
  };
  for (const auto& c : cases) {
    const char* got = upnp_client_db_needs_special_mime_type(c.type, c.extension);
    EXPECT_EQ(std::string(got != nullptr ? got : "<null>"),
              std::string(c.mime != nullptr ? c.mime : "<null>"))
        << c.type << " " << c.extension;
  }
  EXPECT_STREQ(upnp_client_db_special_mime_type_get_extension("video/x-msvideo"), "mkv");
  EXPECT_STREQ(upnp_client_db_special_mime_type_get_extension("video/x-mkv"), "mkv");
  EXPECT_EQ(upnp_client_db_special_mime_type_get_extension("video/x-msvide"), nullptr);
  EXPECT_STREQ(upnp_client_db_get_from_mime_type_table("video/x-mkv;x"), "video/x-mkv");
  EXPECT_EQ(upnp_client_db_get_from_mime_type_table("video/x-mk"), nullptr);
}

TEST_F(ClientTypes, MimeKeywordScanStopsWithoutAFurtherComma) {
  const struct {
    std::string text;
    std::string found;  // extensions of x/1, x/2, x/3
  } cases[] = {
      {"MT:aa x/1\nMT:bb x/2\n", "aa,-,-"},  // no comma behind aa: the scan ends there
      {"MT:aa x/1\nMT:bb,cc x/2\nMT:dd x/3\n", "aa,bb,-"},
      {"MT:aa,b2 x/1\nMT:bb,cc x/2\nMT:dd x/3,\n", "aa,bb,dd"},
      {"MT:aa\n", "-,-,-"},  // no blank behind the list
  };
  for (const auto& c : cases) {
    Load(c.text);
    std::string found;
    for (const char* mime : {"x/1", "x/2", "x/3"}) {
      const char* e = upnp_client_db_special_mime_type_get_extension(mime);
      found += std::string(found.empty() ? "" : ",") + (e != nullptr ? e : "-");
    }
    EXPECT_EQ(found, c.found) << c.text;
  }
}

TEST_F(ClientTypes, MimeColumnsHoldFiftyPairs) {
  const std::string log = Logged(UPNP_LOG_CLIENT_DB, [] {
    upnp_client_db_add_mime_table("e0", "m/0");
    upnp_client_db_add_mime_table("e0,x", "m/0 y");  // the same pair once cut
    for (int i = 1; i < 50; ++i) {
      upnp_client_db_add_mime_table(("e" + std::to_string(i)).c_str(),
                                    ("m/" + std::to_string(i)).c_str());
    }
  });
  EXPECT_EQ(log, "");
  EXPECT_STREQ(upnp_client_db_special_mime_type_get_extension("m/49"), "e49");
  const std::string full = Logged(UPNP_LOG_CLIENT_DB, [] {
    upnp_client_db_add_mime_table("e0", "m/0");  // present: no complaint
    upnp_client_db_add_mime_table("e50", "m/50");
  });
  EXPECT_THAT(full, HasSubstr("upnp_client_db_add_mime_table MIME TYPE TABLE FULL!"));
  EXPECT_EQ(std::count(full.begin(), full.end(), '\n'), 1);
  EXPECT_EQ(upnp_client_db_special_mime_type_get_extension("m/50"), nullptr);
  // Copies are cut: 9 bytes of extension, 63 of MIME type.
  Load("");
  upnp_client_db_add_mime_table("abcdefghijkl", (std::string("t/") + std::string(70, 'x')).c_str());
  EXPECT_STREQ(upnp_client_db_get_from_mime_type_table(("t/" + std::string(70, 'x')).c_str()),
               ("t/" + std::string(61, 'x')).c_str());
  EXPECT_STREQ(
      upnp_client_db_special_mime_type_get_extension(("t/" + std::string(61, 'x')).c_str()),
      "abcdefghi");
}

// The shipped resource, through the registry's file beside the executable.
TEST_F(ClientTypes, ShippedResource) {
  const std::string exe = std::filesystem::read_symlink("/proc/self/exe").string();
  ASSERT_TRUE(FileExists(exe.substr(0, exe.rfind('/')) + "/resources/clients.db"));
  std::vector<std::string> args = {exe};
  std::vector<char*> argv = {args[0].data()};
  upnp_ini_file_parse_cmdline(1, argv.data());
  upnp_client_db_exit();
  upnp_client_db_init();
  const std::string table = Str(upnp_client_db_get_table());
  EXPECT_EQ(table.substr(0, 50), "000,Reserved,001,Unknown device,002,DLNA device,00");
  EXPECT_THAT(table, HasSubstr(",019,RTP client,"));
  EXPECT_GE(std::count(table.begin(), table.end(), ','), 2 * 25);  // 20+ real families
  EXPECT_EQ(tw::clientdb::TypeEntry(1), std::string(">>\nNA:Unknown device"));
  EXPECT_EQ(Str(tw::clientdb::KeywordCopy(tw::clientdb::TypeEntry(2), "HH:", false)),
            "DLNADOC/1.50");
  // Every type has a name, and names and patterns are whole lines.
  for (int32_t t = 0; tw::clientdb::TypeEntry(t) != nullptr; ++t) {
    EXPECT_NE(Str(tw::clientdb::KeywordCopy(tw::clientdb::TypeEntry(t), "NA:", false)), "<null>");
    EXPECT_EQ(std::string(tw::clientdb::TypeEntry(t)).find('\r'), std::string::npos);
  }
  // No registered MIME type is a prefix of another, or prefix lookups would pick the wrong one.
  std::vector<std::string> mimes;
  for (int32_t t = 0; tw::clientdb::TypeEntry(t) != nullptr; ++t) {
    for (const char* ext : {"avi", "divx", "mkv", "m4a", "mka"}) {
      const char* m = upnp_client_db_needs_special_mime_type(t, ext);
      if (m != nullptr) mimes.push_back(m);
    }
  }
  EXPECT_GE(mimes.size(), 8u);
  for (const auto& a : mimes) {
    for (const auto& b : mimes) {
      if (a != b) {
        EXPECT_NE(b.rfind(a, 0), 0u) << a << " is a prefix of " << b;
      }
    }
  }
}

}  // namespace
