// SPDX-License-Identifier: Apache-2.0
// Client records, their edits and the clients.data file.
#include "clientdb/clientdb_fixture.h"

namespace {

using namespace tw::test;

constexpr char kTypes[] =
    ">>\nNA:zero\n>>\nNA:Unknown\n>>\nNA:TV\nHH:TVUA\nH2:tv2\nDV:kids\n>>\nNA:Box\n>>\n";
constexpr char kMacA[] = "00:11:22:33:44:55";
constexpr char kMacB[] = "AA:BB:CC:DD:EE:FF";

class ClientRecords : public ClientDbTest {
 protected:
  void SetUp() override {
    ClientDbTest::SetUp();
    Load(kTypes);
  }
};

TEST_F(ClientRecords, FileBytesAndOrderFlipOnEachRead) {
  upnp_client_db_set_defaultview("all");
  EXPECT_EQ(Take(upnp_client_add(kMacA, 2, 1, nullptr)),
            "2\n00:11:22:33:44:55\n\n\n1\nTV\n\n\nall\n1\n##########\n");
  const std::string record_a =
      "002TV\n01700:11:22:33:44:55\n000\n000\n004TVUA\n003tv2\n000\n000\n003002\n0011\n003001\n"
      "000\n0011\n";
  EXPECT_EQ(ReadFile(DataPath()), record_a);
  Take(upnp_client_add(kMacB, 3, 0, nullptr));
  const std::string record_b =
      "003Box\n017AA:BB:CC:DD:EE:FF\n000\n000\n000\n000\n000\n000\n003003\n0010\n003001\n000\n"
      "0010\n";
  EXPECT_EQ(ReadFile(DataPath()), record_b + record_a);  // newest first

  client_table_read();
  EXPECT_EQ(Macs(), std::string(kMacA) + "," + kMacB + ",");
  client_table_write();
  EXPECT_EQ(ReadFile(DataPath()), record_a + record_b);
  client_table_read();
  EXPECT_EQ(Macs(), std::string(kMacB) + "," + kMacA + ",");
  // What was read prints as it was written: empty fields stay null, the flag is recomputed.
  EXPECT_EQ(Take(upnp_get_connected_client_list()),
            "3\nAA:BB:CC:DD:EE:FF\n\n\n0\nBox\n\n\nall\n0\n##########\n"
            "2\n00:11:22:33:44:55\n\n\n1\nTV\n\n\nall\n1\n##########\n");
}

// A table that cannot be written whole leaves the one before it, never a cut one.
TEST_F(ClientRecords, AFailedWriteLeavesThePreviousTable) {
  Take(upnp_client_add(kMacA, 2, 1, nullptr));
  const std::string before = ReadFile(DataPath());
  ASSERT_FALSE(before.empty());
  const std::string next = DataPath() + ".new";
  ASSERT_EQ(upnp_file_mkdir(next.c_str()), 0);  // where the new table goes cannot be a file
  Take(upnp_client_add(kMacB, 3, 0, nullptr));
  EXPECT_EQ(ReadFile(DataPath()), before);
  EXPECT_EQ(Macs(), std::string(kMacB) + "," + kMacA + ",");  // the records themselves stay

  ASSERT_EQ(upnp_dir_unlink(next.c_str()), 0);
  client_table_write();
  client_table_read();  // reading flips the order
  EXPECT_EQ(Macs(), std::string(kMacA) + "," + kMacB + ",");
  upnp_stat info{};
  EXPECT_NE(upnp_file_stat(next.c_str(), &info), 0) << "the new table was renamed into place";
}

TEST_F(ClientRecords, HundredRecordsKeptMoreDiscardWithFile) {
  const struct {
    int records;
    std::string macs_head;  // the first record read is the last of the file
    bool file_kept;
  } cases[] = {{100, "m99,", true}, {101, "", false}, {0, "", false}};
  for (const auto& c : cases) {
    std::string bytes;
    for (int i = 0; i < c.records; ++i) bytes += NamedRecord("n", "m" + std::to_string(i));
    if (c.records > 0) WriteFile(DataPath(), bytes);
    client_table_read();
    const std::string macs = Macs();
    EXPECT_EQ(std::count(macs.begin(), macs.end(), ','), c.file_kept ? c.records : 0) << c.records;
    EXPECT_EQ(macs.substr(0, c.macs_head.size()), c.macs_head);
    EXPECT_EQ(FileExists(DataPath()), c.file_kept) << c.records;
  }
}

TEST_F(ClientRecords, CorruptFileKeepsTheRecordsBeforeTheBadField) {
  const std::string good = NamedRecord("a", "m1") + NamedRecord("b", "m2");
  std::string twelve = NamedRecord("c", "m3");
  twelve.resize(twelve.size() - 4);  // the last field is missing
  const struct {
    std::string tail;
    std::string macs;
  } cases[] = {
      {"", "m2,m1,"},
      {"00", "m2,m1,"},        // length cut short
      {"0x3abc\n", "m2,m1,"},  // not a length
      {"-01", "m2,m1,"},       // not a length either
      {"005ab", "m2,m1,"},     // text cut short
      {twelve, "m2,m1,"},      // record cut short
      {NamedRecord("c", "m3"), "m3,m2,m1,"},
      // The byte behind a text is replaced, whatever it is.
      {DataRecord({"c", "m3", "", "", "", "", "", "", "1", "1", "1", "", "0"}).replace(4, 1, "X"),
       "m3,m2,m1,"},
  };
  for (const auto& c : cases) {
    WriteFile(DataPath(), good + c.tail);
    client_table_read();
    EXPECT_EQ(Macs(), c.macs) << c.tail;
  }
  WriteFile(DataPath(), "017AA:BB");
  client_table_read();
  EXPECT_EQ(Macs(), "");
}

TEST_F(ClientRecords, ReadNumbersAndEmptyTexts) {
  WriteFile(DataPath(), DataRecord({"", "m", "1.2.3.4", "uuid:x", "p", "q", "u", "image/png", "017",
                                    "0", "002", "films", "1"}));
  client_table_read();
  tw::clientdb::Guard guard;
  const upnp_client* r = g_pClients;
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->friendly_name, nullptr);
  EXPECT_EQ(std::string(r->ip) + r->udn + r->header_pattern + r->second_header_pattern +
                r->icon_url + r->icon_mime_type + r->view,
            "1.2.3.4uuid:xpquimage/pngfilms");
  EXPECT_EQ(std::vector<int>({r->client_type, r->enabled, r->assignment, r->seen}),
            std::vector<int>({17, 0, 2, 0}));
}

TEST_F(ClientRecords, MacValidation) {
  const struct {
    const char* mac;
    bool valid;
  } cases[] = {
      {"00:11:22:33:44:55", true},   {"zz:zz:zz:zz:zz:zz", true},  // digits are not checked
      {"00-11-22-33-44-55", false},  {"00:11:22:33:44:5", false},
      {"00:11:22:33:44:555", false}, {"", false},
      {"0:011:22:33:44:55", false},  {"00:11:22:33:4455:", false},
  };
  for (const auto& c : cases) {
    const std::string printed = Take(upnp_client_add(c.mac, 3, 1, nullptr));
    EXPECT_EQ(printed == "invalid MAC address", !c.valid) << c.mac << " -> " << printed;
  }
  EXPECT_EQ(upnp_client_add(nullptr, 3, 1, nullptr), nullptr);
  EXPECT_EQ(Macs(), "zz:zz:zz:zz:zz:zz,00:11:22:33:44:55,");
}

TEST_F(ClientRecords, AddChangesOnlyWhatDiffersAndSavesOnlyThen) {
  upnp_client_db_add_view("kids");
  upnp_client_db_set_defaultview("all");
  Take(upnp_client_add(kMacA, 3, 1, nullptr));
  std::remove(DataPath().c_str());
  Take(upnp_client_add(kMacA, 3, 1, nullptr));  // nothing differs
  EXPECT_FALSE(FileExists(DataPath()));
  Take(upnp_client_add(kMacA, 3, 1, "all"));  // the default view is stored as none
  EXPECT_FALSE(FileExists(DataPath()));

  const struct {
    int32_t type;
    int32_t enabled;
    const char* view;
    std::string printout_head;  // type, MAC, IP, UDN, enabled, name, icon, mime, view
    bool saved;
  } steps[] = {
      {3, 0, nullptr, "3\n00:11:22:33:44:55\n\n\n0\nBox\n\n\nall\n", true},
      {3, 0, "movies", "3\n00:11:22:33:44:55\n\n\n0\nBox\n\n\nmovies\n", true},
      {3, 0, "movies", "3\n00:11:22:33:44:55\n\n\n0\nBox\n\n\nmovies\n", false},
      {3, 0, "all", "3\n00:11:22:33:44:55\n\n\n0\nBox\n\n\nall\n", true},
      // A new type brings its keywords and its default view (offered: "kids").
      {2, 0, "ignored", "2\n00:11:22:33:44:55\n\n\n0\nTV\n\n\nkids\n", true},
  };
  for (const auto& s : steps) {
    std::remove(DataPath().c_str());
    const std::string printed = Take(upnp_client_add(kMacA, s.type, s.enabled, s.view));
    EXPECT_EQ(printed.substr(0, s.printout_head.size()), s.printout_head) << s.view;
    EXPECT_EQ(FileExists(DataPath()), s.saved) << printed;
  }
  EXPECT_THAT(ReadFile(DataPath()), HasSubstr("004TVUA\n003tv2\n"));
  EXPECT_EQ(Str(upnp_client_db_get_updated_view(2)), "kids");
  EXPECT_EQ(Str(upnp_client_get_friendlyname(2)), "TV");
  EXPECT_EQ(Str(upnp_client_get_friendlyname(3)), "<null>");
}

TEST_F(ClientRecords, DeleteAndEnableResults) {
  Take(upnp_client_add(kMacA, 2, 1, nullptr));
  Take(upnp_client_add(kMacB, 2, 1, nullptr));
  AddDetected("11:11:11:11:11:11", 3, 1, nullptr, "10.0.0.7");
  const std::string b_disabled = "2\nAA:BB:CC:DD:EE:FF\n\n\n0\nTV\n\n\n\n1\n##########\n";
  const std::string a_disabled = "2\n00:11:22:33:44:55\n\n\n0\nTV\n\n\n\n1\n##########\n";
  EXPECT_EQ(Take(upnp_client_enable_by_friendlyname("TV", 0)), b_disabled + a_disabled);
  EXPECT_EQ(Take(upnp_client_enable_by_friendlyname("TV", 0)), "<null>");  // nothing changed
  EXPECT_EQ(Take(upnp_client_enable_by_friendlyname("tv", 1)), "<null>");  // exact match only
  EXPECT_EQ(Take(upnp_client_enable_by_mac(kMacB, 1)),
            "2\nAA:BB:CC:DD:EE:FF\n\n\n1\nTV\n\n\n\n1\n##########\n");
  EXPECT_EQ(Take(upnp_client_enable_by_ip("10.0.0.7", 0)).substr(0, 2), "3\n");
  EXPECT_EQ(Take(upnp_client_enable_by_udn("uuid:none", 0)), "<null>");
  EXPECT_EQ(upnp_client_enable_by_ip(nullptr, 0), nullptr);
  EXPECT_THAT(ReadFile(DataPath()), HasSubstr("01711:11:11:11:11:11\n"));

  EXPECT_EQ(Take(upnp_client_delete(kMacA)), "deleted!");
  EXPECT_EQ(Take(upnp_client_delete(kMacA)), "not found!");
  EXPECT_EQ(upnp_client_delete(nullptr), nullptr);
  EXPECT_EQ(Macs(), "11:11:11:11:11:11,AA:BB:CC:DD:EE:FF,");
  EXPECT_THAT(ReadFile(DataPath()), testing::Not(HasSubstr(kMacA)));
  EXPECT_EQ(upnp_client_db_have_netgear_rtp_client(), 0);
  AddDetected("19:19:19:19:19:19", UPNP_CLIENT_TYPE_RTP, 0, nullptr);
  EXPECT_EQ(upnp_client_db_have_netgear_rtp_client(), 1);
}

TEST_F(ClientRecords, DetectedClientsWithTheDefaultViewAreNotStored) {
  upnp_client_db_set_defaultview("all");
  const struct {
    const char* mac;
    int32_t assignment;
    const char* view;
    bool stored;
  } cases[] = {
      {"a0", 0, nullptr, false}, {"a1", 0, "all", false}, {"a2", 0, "kids", true},
      {"a3", 1, nullptr, true},  {"a4", 2, "all", true},  {"a5", -1, nullptr, false},
  };
  for (const auto& c : cases) AddDetected(c.mac, 3, c.assignment, c.view);
  client_table_write();
  const std::string file = ReadFile(DataPath());
  for (const auto& c : cases) {
    EXPECT_EQ(file.find(std::string("002") + c.mac + "\n") != std::string::npos, c.stored) << c.mac;
  }
}

TEST_F(ClientRecords, ClearOnRestartAndResetDeleteTheFile) {
  WriteFile(DataPath(), NamedRecord("a", "m1"));
  upnp_client_db_exit();
  upnp_client_db_init();
  EXPECT_EQ(Macs(), "m1,");
  upnp_client_db_exit();
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_CLEARCLIENTSONRESTART, "1");
  upnp_client_db_init();
  EXPECT_EQ(Macs(), "");
  EXPECT_FALSE(FileExists(DataPath()));
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_CLEARCLIENTSONRESTART, "0");
  Take(upnp_client_add(kMacA, 1, 1, nullptr));
  EXPECT_TRUE(FileExists(DataPath()));
  clear_clients();
  EXPECT_EQ(Macs(), "");
  EXPECT_FALSE(FileExists(DataPath()));
  EXPECT_EQ(upnp_get_connected_client_list(), nullptr);
}

TEST_F(ClientRecords, NothingHappensWithoutTheDatabase) {
  upnp_client_db_exit();
  EXPECT_EQ(upnp_client_add(kMacA, 1, 1, nullptr), nullptr);
  EXPECT_EQ(upnp_client_delete(kMacA), nullptr);
  client_table_write();
  EXPECT_FALSE(FileExists(DataPath()));
  upnp_client_db_init();
}

TEST_F(ClientRecords, ShortMemoryNeverLeaksOrCrashes) {
  Take(upnp_client_add(kMacB, 2, 1, nullptr));
  ForEachAllocFailure([] { return upnp_client_add(kMacA, 2, 1, "v"); },
                      [](upnp_string* s, bool failed) {
                        if (!failed)
                          EXPECT_THAT(Take(s), HasSubstr(kMacA));
                        else
                          upnp_string_free(s);
                      });
  ForEachAllocFailure([] { return upnp_get_connected_client_list(); },
                      [](upnp_string* s, bool) { upnp_string_free(s); });
  ForEachAllocFailure(
      [] {
        client_table_read();
        return 0;
      },
      [](int, bool) {});
}

}  // namespace
