// SPDX-License-Identifier: Apache-2.0
// The property table, the INI file and the command line.

#include "support/test_support.h"

namespace {

using namespace tw::test;

class ConfigTest : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    upnp_ini_file_init();
  }
  void TearDown() override {
    while (upnp_ini_file_is_initialized() != 0) upnp_ini_file_release();
    upnp_log_set_mode(0);
    LeakCheck::TearDown();
  }
  static std::string Value(uint32_t key) {
    const char* v = upnp_ini_file_getString(key);
    return v != nullptr ? std::string(v) : std::string("<null>");
  }
  // The values of keys, each followed by '|'.
  static std::string Values(std::initializer_list<uint32_t> keys) {
    std::string all;
    for (uint32_t key : keys) all += Value(key) + "|";
    return all;
  }
  static int32_t Parse(std::vector<std::string> args, const std::string& program = "prog") {
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (auto& s : args) argv.push_back(s.data());
    return upnp_ini_file_parse_cmdline(static_cast<int32_t>(args.size()), argv.data());
  }
  std::string IniPath() const { return dir_.File("tarnwick.ini"); }
  TempDir dir_;
};

// UTF-16LE bytes of a Latin-1 text.
std::string Utf16le(const std::string& latin1) {
  std::string out;
  for (char c : latin1) out += std::string{c, '\0'};
  return out;
}

class ConfigProperties : public ConfigTest {};

// Names, defaults and order of every built-in (descriptions are checked through the INI writer).
TEST_F(ConfigProperties, BuiltinTableAndMissingKeys) {
  upnp_string* all = upnp_ini_file_get_all_properties();
  ASSERT_NE(all, nullptr);
  EXPECT_STREQ(upnp_string_get_cstring(all),
               "friendlyname=\r\nip=\r\nnicrestart=1\r\nv=0\r\nplatform=UNIX\r\nhttpport=\r\n"
               "ininame=tarnwick.ini\r\ninipath=\r\nread_only=0\r\nssdpttl=4\r\n"
               "logfile=stdout\r\nappdata=\r\nclearclientsonrestart=0\r\ndisablelocalssdp=0\r\n"
               "enabletls=1\r\nnmcmode=1\r\n");
  upnp_string_free(all);
  for (uint32_t key : {6u, 7u, 8u, 13u}) EXPECT_EQ(upnp_ini_file_propertyIsHidden(key), 1);
  EXPECT_EQ(upnp_ini_file_propertyIsHidden(0), 0);
  EXPECT_EQ(upnp_ini_file_propertyIsDisabled(0), 0);
  EXPECT_EQ(upnp_ini_file_get_property_origin(0), UPNP_INI_ORIGIN_DEFAULT);
  EXPECT_EQ(upnp_ini_file_getPropertyKey("SSDPttl"), 9);
  EXPECT_STREQ(upnp_ini_file_getPropParamName(13), "appdata");
  for (uint32_t key : {10u, 11u, 288u, 0xFFFFFFFFu}) {
    EXPECT_EQ(upnp_ini_file_isValidKey(key), 0);
    EXPECT_EQ(upnp_ini_file_getString(key), nullptr);
    EXPECT_EQ(upnp_ini_file_propertyIsHidden(key) + upnp_ini_file_propertyIsDisabled(key), 2);
    EXPECT_EQ(upnp_ini_file_get_property_origin(key), UPNP_INI_ORIGIN_MISSING);
  }
  EXPECT_EQ(upnp_ini_file_getPropertyKey("nosuch"), -1);
  EXPECT_EQ(upnp_ini_file_getPropertyKey(nullptr), -1);
}

TEST_F(ConfigProperties, CreatePropertyResultCodesAndLimits) {
  auto create = [](uint32_t key, const char* name) {
    return upnp_ini_file_create_property(key, name, "d", nullptr, 0, 0, 0, 0);
  };
  EXPECT_EQ(create(20, "Custom"), UPNP_INI_OK);
  EXPECT_EQ(create(20, "other"), UPNP_INI_KEY_IN_USE);
  EXPECT_EQ(create(21, "FriendlyName"), UPNP_INI_NAME_IN_USE);
  EXPECT_EQ(create(21, ""), UPNP_INI_NAME_EMPTY);
  EXPECT_EQ(create(21, nullptr), UPNP_INI_NAME_EMPTY);
  EXPECT_EQ(create(288, "far"), UPNP_INI_KEY_INVALID);
  EXPECT_EQ(upnp_ini_file_getPropertyKey("CUSTOM"), 20);
  // Fill every free key but one: the 287th record is the last one accepted.
  int32_t count = 17;
  for (uint32_t key = 0; key < 287; ++key) {
    if (upnp_ini_file_isValidKey(key) == 0) {
      ASSERT_EQ(create(key, ("p" + std::to_string(key)).c_str()), UPNP_INI_OK);
      ++count;
    }
  }
  EXPECT_EQ(count, UPNP_INI_MAX_PROPERTIES);
  EXPECT_EQ(create(287, "onemore"), UPNP_INI_TABLE_FULL);
  EXPECT_STREQ(upnp_ini_file_getString(20), "d");  // old records survived every growth

  upnp_ini_file_release();
  EXPECT_EQ(create(25, "late"), UPNP_INI_NO_LOCK);
}

TEST_F(ConfigProperties, CreatePropertyOutOfMemoryLeavesTableUnchanged) {
  ForEachAllocFailure(
      [] { return upnp_ini_file_create_property(40, "memtest", "dflt", "desc", 1, 0, 0, 0); },
      [](int32_t result, bool failed) {
        EXPECT_EQ(result, failed ? UPNP_INI_OUT_OF_MEMORY : UPNP_INI_OK);
        EXPECT_EQ(upnp_ini_file_getPropertyKey("memtest"), failed ? -1 : 40);
        EXPECT_STREQ(upnp_ini_file_getString(4), "UNIX");
      });
  EXPECT_STREQ(upnp_ini_file_getString(40), "dflt");
}

TEST_F(ConfigProperties, SetterRulesSideEffectsAndOrigin) {
  upnp_ini_file_setPropertyByKey(5, "9000");
  EXPECT_EQ(upnp_ini_file_getInt(5), 9000);
  EXPECT_EQ(upnp_ini_file_isModified(5), 1);
  EXPECT_EQ(upnp_ini_file_get_property_origin(5), UPNP_INI_ORIGIN_PROGRAM);
  EXPECT_EQ(upnp_ini_file_restartPending(), 1);  // httpport needs a restart, nicrestart does not
  upnp_ini_file_reset_restartPending();
  upnp_ini_file_setPropertyByKey(2, "0");
  EXPECT_EQ(upnp_ini_file_getBoolean(2), 0);
  EXPECT_EQ(upnp_ini_file_restartPending(), 0);

  upnp_ini_file_setPropertyByKey(0, "");  // the interface may store an empty string
  EXPECT_EQ(Value(0), "");
  EXPECT_EQ(upnp_ini_file_isModified(0), 1);
  upnp_ini_file_setPropertyByKey(9, "4");  // the default: nothing stored, the origin recorded
  EXPECT_EQ(upnp_ini_file_isModified(9), 0);
  EXPECT_EQ(upnp_ini_file_get_property_origin(9), UPNP_INI_ORIGIN_PROGRAM);
  upnp_ini_file_setPropertyByKey(5, nullptr);  // back to the default
  EXPECT_EQ(upnp_ini_file_getString(5), nullptr);
  EXPECT_EQ(upnp_ini_file_get_property_origin(5), UPNP_INI_ORIGIN_DEFAULT);

  upnp_ini_file_setPropertyByKey(8, "1");  // hidden, but settable from the interface
  EXPECT_EQ(upnp_ini_file_getBoolean(8), 1);
  upnp_ini_file_disableProperty(1, 1);  // disabled: ignored by every setter
  upnp_ini_file_setPropertyByKey(1, "10.0.0.1");
  EXPECT_EQ(upnp_ini_file_getString(1), nullptr);

  upnp_ini_file_setPropertyByKey(3, "255");  // v drives the log mode
  EXPECT_EQ(upnp_log_enabled(128), 1);
  EXPECT_EQ(upnp_log_enabled(256), 0);
  upnp_ini_file_setPropertyByKey(3, nullptr);
  EXPECT_EQ(upnp_log_enabled(1), 0);
  upnp_log_set_mode(7);
  upnp_ini_file_setPropertyByKey(3, "0");  // unchanged value: the log is not touched
  EXPECT_EQ(upnp_log_enabled(7), 1);
}

TEST_F(ConfigProperties, ListValuesAreCutAtCommasAndCached) {
  ASSERT_EQ(upnp_ini_file_create_property(20, "servers", "a,b", nullptr, 1, 0, 0, 0), UPNP_INI_OK);
  EXPECT_EQ(upnp_ini_file_get_next_CSV(20, 0), nullptr);  // never from the default
  upnp_ini_file_setPropertyByKey(20, "x, y,,z , ");
  const char* item1 = upnp_ini_file_get_next_CSV(20, 1);
  std::string items;
  for (int i = -1; i < 6; ++i) {
    const char* item = upnp_ini_file_get_next_CSV(20, i);
    items += (item != nullptr ? "[" + std::string(item) + "]" : std::string("-"));
  }
  EXPECT_EQ(items, "-[x][y][][z ]--");
  EXPECT_EQ(upnp_ini_file_get_next_CSV(20, 1), item1);  // cached
  EXPECT_EQ(Value(20), "x, y,,z , ");

  upnp_ini_file_setPropertyByKey(20, "solo");  // a new value rebuilds the cache
  EXPECT_EQ(upnp_ini_file_get_next_CSV(20, 0), upnp_ini_file_getString(20));
  EXPECT_EQ(upnp_ini_file_get_next_CSV(20, 1), nullptr);
  upnp_ini_file_setPropertyByKey(1, "1.2.3.4,5.6.7.8");  // not a list: index 0 is the value
  EXPECT_STREQ(upnp_ini_file_get_next_CSV(1, 0), "1.2.3.4,5.6.7.8");
  EXPECT_EQ(upnp_ini_file_get_next_CSV(1, 1), nullptr);
}

TEST_F(ConfigProperties, InitAndReleaseAreReferenceCounted) {
  upnp_ini_file_init();
  upnp_ini_file_setPropertyByKey(5, "1234");
  upnp_ini_file_release();
  EXPECT_EQ(upnp_ini_file_getInt(5), 1234);  // the nested pair changed nothing
  upnp_ini_file_release();
  EXPECT_EQ(upnp_ini_file_is_initialized(), 0);
  EXPECT_EQ(upnp_ini_file_getString(4), nullptr);
  EXPECT_EQ(upnp_ini_file_isValidKey(4), 0);
  EXPECT_EQ(upnp_ini_file_get_all_properties(), nullptr);
  upnp_ini_file_release();  // unbalanced: ignored
  upnp_ini_file_init();
  EXPECT_EQ(upnp_ini_file_getString(5), nullptr);  // a fresh start has only defaults
}

// Readers on several threads while one thread changes values and lists and another writes and
// reads the INI file: every answer is one of the values written, and under TSan every table
// access must be under the lock.
TEST_F(ConfigProperties, ConcurrentReadersAndWriters) {
  ASSERT_EQ(upnp_ini_file_create_property(20, "peers", nullptr, nullptr, 1, 0, 0, 1), UPNP_INI_OK);
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_INIPATH, dir_.path().c_str());
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000 && !stop.load(); ++i) {
        const int32_t port = upnp_ini_file_getInt(5);
        if (port != 0 && port != 8000 && port != 9000) bad.fetch_add(1);
        if (upnp_ini_file_get_property_origin(5) == UPNP_INI_ORIGIN_MISSING) bad.fetch_add(1);
        (void)upnp_ini_file_restartPending();
        (void)upnp_ini_file_get_next_CSV(20, 1);  // the pointer is not kept across changes
        if ((i % 256) == 0) {
          upnp_string* all = upnp_ini_file_get_all_properties();
          if (all == nullptr || std::strstr(all->buffer, "platform=UNIX") == nullptr) bad++;
          upnp_string_free(all);
        }
      }
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 200 && !stop.load(); ++i) {
      upnp_ini_file_write_properties();
      upnp_ini_file_read_properties();
    }
  });
  for (int i = 0; i < 5000; ++i) {
    upnp_ini_file_setPropertyByKey(5, (i % 2) != 0 ? "8000" : "9000");
    upnp_ini_file_setPropertyByKey(20, (i % 3) != 0 ? "a, b, c" : "x,y");
    if ((i % 7) == 0) upnp_ini_file_setPropertyByKey(5, nullptr);
    upnp_ini_file_reset_restartPending();
  }
  stop.store(true);
  for (auto& t : threads) t.join();
  EXPECT_EQ(bad.load(), 0);
}

const std::string kBom("\xFF\xFE", 2);

class ConfigIniFile : public ConfigTest {
 protected:
  void SetUp() override {
    ConfigTest::SetUp();
    PointAtTempDir();
  }
  void PointAtTempDir() {
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_INIPATH, dir_.path().c_str());
  }
  // A fresh table (defaults only, UTF-16 flag cleared) on the same directory.
  void Restart() {
    upnp_ini_file_release();
    upnp_ini_file_init();
    PointAtTempDir();
  }
  void ReadBytes(const std::string& bytes) {
    WriteFile(IniPath(), bytes);
    upnp_ini_file_read_properties();
  }
};

// The layout is checked at its edges; the hidden properties and a disabled one are left out, a
// property without description gets no comment line.
TEST_F(ConfigIniFile, WriterLaysOutHeaderDescriptionsAndVisibleProperties) {
  upnp_ini_file_setPropertyByKey(0, "Living Room");
  ASSERT_EQ(upnp_ini_file_create_property(20, "extra", nullptr, nullptr, 0, 0, 0, 0), UPNP_INI_OK);
  ASSERT_EQ(upnp_ini_file_create_property(21, "gone", "1", "off", 0, 0, 1, 0), UPNP_INI_OK);
  upnp_ini_file_write_properties();
  const std::string ini = ReadFile(IniPath());
  const std::string head =
      "#! Tarnwick ini file / charset UTF-8\n"
      "#! Change settings by commandline or by editing this file\n"
      "#! Do not add space characters before or after equal sign!\n\n[main]\n"
      "# Visible name in the network\nfriendlyname=Living Room\n\n"
      "# IP address to listen to (default: all networks)\nip=\n\n";
  EXPECT_EQ(ini.substr(0, head.size()), head);
  for (const char* part : {"\nhttpport=\n\n# TTL for SSDP packets. Default: 4\nssdpttl=4\n\n",
                           "\nlogfile=stdout\n\n# clear detected clients table on each"}) {
    EXPECT_NE(ini.find(part), std::string::npos) << part;
  }
  const std::string tail = ":standalone)\nnmcmode=1\n\nextra=\n\n";
  EXPECT_EQ(ini.rfind(tail), ini.size() - tail.size());
  upnp_ini_file_reset();
  EXPECT_FALSE(FileExists(IniPath()));
}

TEST_F(ConfigIniFile, WrittenFileReadsBackToTheSameTable) {
  const std::pair<uint32_t, std::string> values[] = {
      {0, "Gr\xC3\xBCn = Bad"}, {1, "10.0.0.2"}, {2, "0"},       {5, "8080"},
      {12, "/tmp/x.log"},       {17, "3"},       {20, "a, b,,c"}};
  for (const std::string& mark : {std::string(), kBom}) {
    SCOPED_TRACE(mark.empty() ? "UTF-8" : "UTF-16");
    Restart();
    if (!mark.empty()) ReadBytes(kBom + Utf16le("[main]\n"));  // switches the writer to UTF-16
    ASSERT_EQ(upnp_ini_file_create_property(20, "servers", nullptr, "list", 1, 0, 0, 0), 0);
    for (const auto& [key, value] : values) upnp_ini_file_setPropertyByKey(key, value.c_str());
    upnp_ini_file_write_properties();
    Restart();
    ASSERT_EQ(upnp_ini_file_create_property(20, "servers", nullptr, "list", 1, 0, 0, 0), 0);
    upnp_ini_file_read_properties();
    for (const auto& [key, value] : values) {
      EXPECT_EQ(Value(key), value);
      EXPECT_EQ(upnp_ini_file_get_property_origin(key), UPNP_INI_ORIGIN_INI_FILE);
    }
    EXPECT_STREQ(upnp_ini_file_get_next_CSV(20, 3), "c");
    const std::string written = ReadFile(IniPath());
    EXPECT_EQ(written.compare(0, mark.size(), mark), 0);  // a UTF-16 file stays UTF-16
    EXPECT_NE(
        written.find(mark.empty() ? std::string("charset UTF-8\n") : Utf16le("charset UTF-16\n")),
        std::string::npos);
  }
}

TEST_F(ConfigIniFile, ReaderRulesAndPrecedenceOfTheInterface) {
  upnp_ini_file_setPropertyByKey(5, "9000");  // the program or command line spoke first,
  upnp_ini_file_setPropertyByKey(9, "4");     // even when it repeated the default
  upnp_ini_file_reset_restartPending();
  ReadBytes(
      "[main]\n# friendlyname=Commented\nhttpport=8000\nssdpttl=6\nnicrestart=1\nread_only=1\n"
      " ip = 1.1.1.1\nFriendlyName=Box=1\r\nplatform=\nnosuch=1\n=orphan\n"
      "logfile=/last/line/without/line/feed");
  // The interface's values stay; a hidden one is not read; " ip " is another name; names ignore
  // case and a second "=" is data; an empty value stays unset; the last line had no line end.
  EXPECT_EQ(Values({5, 9, 8, 1, 0, 4, 12}), "9000|4|0|<null>|Box=1|UNIX|stdout|");
  EXPECT_EQ(upnp_ini_file_restartPending(), 1);
  ReadBytes("friendlyname=Other\n");  // values from a first read are not replaced
  EXPECT_EQ(Value(0), "Box=1");
}

// Arbitrary contents are the fuzz target's business; these are the rules for the odd ones.
TEST_F(ConfigIniFile, BadFilesKeepWhatTheyCan) {
  const std::string big(100 * 1024, 'x');
  const std::string port = "httpport=8000\n";
  const std::pair<std::string, const char*> cases[] = {
      {"", "<null>"},
      {"h", "<null>"},
      {std::string("ip=1\0", 5) + port, "8000"},  // a NUL ends a line like any control byte
      {"ip=1\rhttpport=8000\r", "8000"},
      {big, "<null>"},  // no line end at all
      {"friendlyname=" + big + "\n" + port, "8000"},
      {big + "=1\n" + port, "8000"},
      {kBom, "<null>"},
      {kBom + Utf16le(port) + "Z", "8000"},  // odd number of bytes after the mark
      {kBom + Utf16le("httpport=80"), "<null>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first.substr(0, 20));
    Restart();
    ReadBytes(c.first);
    EXPECT_EQ(Value(5), c.second);
    EXPECT_STREQ(upnp_ini_file_getString(6), "tarnwick.ini");
  }
  Restart();
  ReadBytes("friendlyname=" + big + "\n");
  EXPECT_EQ(Value(0), big);
  Restart();  // a directory where the file should be
  ASSERT_EQ(unlink(IniPath().c_str()), 0);
  ASSERT_EQ(mkdir(IniPath().c_str(), 0700), 0);
  upnp_ini_file_read_properties();
  EXPECT_EQ(Value(0), "<null>");
}

TEST_F(ConfigIniFile, UnwritablePathIsLoggedAndReadOnlyWritesNothing) {
  WriteFile(dir_.File("plain"), "keep");
  const std::string bad_dir = dir_.File("plain/sub");
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_INIPATH, bad_dir.c_str());
  EXPECT_THAT(Logged(UPNP_LOG_SYSTEM, [] { upnp_ini_file_write_properties(); }),
              testing::HasSubstr("writeProperties \nini file \"" + bad_dir +
                                 "/tarnwick.ini\" not writable! ***\n"));
  EXPECT_EQ(ReadFile(dir_.File("plain")), "keep");

  PointAtTempDir();
  WriteFile(IniPath(), "friendlyname=Original\n");
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_READ_ONLY, "1");
  upnp_ini_file_write_properties();
  EXPECT_EQ(ReadFile(IniPath()), "friendlyname=Original\n");
}

class ConfigCommandLine : public ConfigTest {
 protected:
  // Keeps the data directory, and with it the INI file, inside the test's directory.
  std::vector<std::string> Local(std::vector<std::string> options) const {
    options.insert(options.begin(), {"-appdata", dir_.path()});
    return options;
  }
  void Restart() {
    ConfigTest::TearDown();
    ConfigTest::SetUp();
  }
};

TEST_F(ConfigCommandLine, OptionsSetPropertiesFromTheInterface) {
  EXPECT_EQ(Parse(Local({"-httpport", "9000", "--ip", "10.0.0.2", "-friendlyname", "-nmcmode", "2",
                         "-NMCmode", "3", "stray", "-nosuch", "x", "-", "--", "-ssdpttl"})),
            0);
  // "--" works as "-"; no value is the empty string; the last repetition wins; a name dangling
  // at the end gets the empty string too; inipath follows appdata.
  EXPECT_EQ(Values({5, 1, 0, 17, 9, 7}), "9000|10.0.0.2||3||" + dir_.path() + "|");
  EXPECT_EQ(upnp_ini_file_get_property_origin(5), UPNP_INI_ORIGIN_COMMAND_LINE);
  EXPECT_EQ(upnp_ini_file_restartPending(), 0);
  EXPECT_STREQ(upnp_ini_file_get_EXE_Name(), "prog");
  EXPECT_STREQ(upnp_ini_file_get_EXE_Dir(), "");
}

TEST_F(ConfigCommandLine, CommandLineBeatsTheIniFileWhichBeatsTheDefault) {
  WriteFile(IniPath(), "httpport=8000\nfriendlyname=Box\nssdpttl=6\n");
  EXPECT_EQ(Parse(Local({"-httpport", "9000", "-ssdpttl", "4"})), 0);
  // The command line repeated the default of ssdpttl: still the winner.
  EXPECT_EQ(Values({5, 9}), "9000|4|");
  EXPECT_EQ(upnp_ini_file_get_property_origin(9), UPNP_INI_ORIGIN_COMMAND_LINE);
  EXPECT_EQ(Value(0), "Box");
  EXPECT_EQ(upnp_ini_file_get_property_origin(0), UPNP_INI_ORIGIN_INI_FILE);
  EXPECT_EQ(upnp_ini_file_get_property_origin(12), UPNP_INI_ORIGIN_DEFAULT);
  EXPECT_EQ(upnp_ini_file_restartPending(), 0);  // the file set restart-flagged values
}

TEST_F(ConfigCommandLine, HelpPrintsUsageAndStopsTheWalk) {
  const std::string text =
      "\nusage: prog\n\n"
      "       all params from the .ini file can be used as an option, preceded by a -\n"
      "       e.g. prog -v 255\n"
      "       -inifile path and filename of ini file\n"
      "       -inipath path to ini file\n"
      "       -ininame filename of ini file\n";
  for (const char* help : {"-/?", "--help", "nohelpwanted"}) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(Parse(Local({"-httpport", "1", help, "-ip", "10.1.1.1"})), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), text);
    // Applied before the help, not after it; the data directory was not settled.
    EXPECT_EQ(Values({5, 1, 7}), "1|<null>|<null>|");
  }
}

TEST_F(ConfigCommandLine, IniFileIgnoredParametersAndExecutable) {
  const std::string target = dir_.File("etc/x/my.ini");
  EXPECT_EQ(upnp_ini_file_add_ignored_cmdline_param("-httpport"), 1);
  for (int i = 1; i < 20; ++i) upnp_ini_file_add_ignored_cmdline_param("-x");
  EXPECT_EQ(upnp_ini_file_add_ignored_cmdline_param("-v"), 0);  // 20 are stored
  EXPECT_EQ(Parse(Local({"-inifile", target, "-httpport", "9000", "--httpport", "7000", "-v", "3"}),
                  "/opt/app/bin/server"),
            0);
  EXPECT_EQ(Values({7, 6}), dir_.File("etc/x") + "|my.ini|");
  EXPECT_EQ(std::string(upnp_ini_file_get_ini_path()), target);
  EXPECT_TRUE(FileExists(dir_.File("etc/x")));                    // made for the INI file
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_ININAME, "b.ini");  // drops the cached path
  EXPECT_EQ(std::string(upnp_ini_file_get_ini_path()), dir_.File("etc/x/b.ini"));
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_INIPATH, nullptr);
  EXPECT_EQ(upnp_ini_file_get_ini_path(), nullptr);
  EXPECT_EQ(Values({5, 3}), "7000|3|");  // the whole argument is compared, dashes included
  EXPECT_STREQ(upnp_ini_file_get_EXE_Dir(), "/opt/app/bin");
  EXPECT_EQ(Parse(Local({}), "/other"), 0);  // the first name stays
  EXPECT_STREQ(upnp_ini_file_get_EXE_Name(), "/opt/app/bin/server");
}

TEST_F(ConfigCommandLine, DataDirectoryFollowsTheAppDataBase) {
  const std::string long_name(1500, 'n');
  upnp_ini_file_set_default_appname(long_name.c_str());
  const std::string base = Str(getAppDataDir()) + "/" + long_name.substr(0, 1022);
  upnp_ini_file_init_DATA_Dir();  // the name is too long for mkdir: nothing is created
  EXPECT_EQ(Values({13, 7}), base + "|" + base + "|");
  EXPECT_EQ(upnp_ini_file_get_property_origin(13), UPNP_INI_ORIGIN_PROGRAM);
}

TEST_F(ConfigCommandLine, DefaultIniFilesSeedAFirstRun) {
  const std::string bin = dir_.File("bin");
  const std::string conf = dir_.File("conf");
  ASSERT_EQ(mkdir(bin.c_str(), 0700), 0);
  ASSERT_EQ(mkdir(conf.c_str(), 0700), 0);
  WriteFile(bin + "/old.ini", "friendlyname=FromExeDir\n");
  WriteFile(conf + "/new.ini", "friendlyname=BesideIni\n");
  upnp_ini_file_add_default_file("old.ini");  // added first, tried last: its copy stays
  upnp_ini_file_add_default_file("new.ini");
  upnp_ini_file_add_default_file("missing.ini");
  const std::string log = Logged(UPNP_LOG_SYSTEM, [&] {
    EXPECT_EQ(Parse(Local({"-inipath", conf}), bin + "/prog"), 0);
  });
  const std::string ini = conf + "/tarnwick.ini";
  EXPECT_EQ(Value(0), "FromExeDir");
  EXPECT_THAT(log, testing::HasSubstr("existing ini file " + conf + "/new.ini copied to " + ini));
  EXPECT_THAT(log, testing::HasSubstr("exisiting ini file " + bin + "/old.ini copied to " + ini));

  Restart();  // with an INI file in place nothing is copied
  WriteFile(ini, "friendlyname=Mine\n");
  upnp_ini_file_add_default_file("new.ini");
  EXPECT_EQ(Parse(Local({"-inipath", conf}), bin + "/prog"), 0);
  EXPECT_EQ(Value(0), "Mine");
}

}  // namespace
