// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "config/config_fixture.h"
#include "platform/test_hooks.h"
#include "tarnwick/util.h"

namespace {

using tw::test::Utf16le;

const std::string kBom("\xFF\xFE", 2);

class ConfigIniFile : public tw::test::ConfigTest {
 protected:
  void SetUp() override {
    ConfigTest::SetUp();
    PointAtTempDir();
  }
  void PointAtTempDir() {
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_INIPATH, dir_.path().c_str());
  }
  std::string IniPath() const { return dir_.File("tarnwick.ini"); }
  // A fresh table (defaults only, UTF-16 flag cleared) on the same directory.
  void Restart() {
    upnp_ini_file_release();
    upnp_ini_file_init();
    PointAtTempDir();
  }
  void ReadBytes(const std::string& bytes) {
    tw::test::WriteFile(IniPath(), bytes);
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
  const std::string ini = tw::test::ReadFile(IniPath());
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
  EXPECT_FALSE(tw::test::FileExists(IniPath()));
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
    const std::string written = tw::test::ReadFile(IniPath());
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
  EXPECT_EQ(Value(5), "9000");
  EXPECT_EQ(Value(9), "4");
  EXPECT_EQ(upnp_ini_file_getBoolean(8), 0);  // hidden: not from the file
  EXPECT_EQ(Value(1), "<null>");              // " ip " is another name
  EXPECT_EQ(Value(0), "Box=1");               // names ignore case, a second "=" is data
  EXPECT_EQ(Value(4), "UNIX");                // an empty value stays unset
  EXPECT_EQ(Value(12), "stdout");             // the last line had no line end
  EXPECT_EQ(upnp_ini_file_restartPending(), 1);
  ReadBytes("friendlyname=Other\n");  // values from a first read are not replaced
  EXPECT_EQ(Value(0), "Box=1");
}

TEST_F(ConfigIniFile, BadFilesNeverCrashAndKeepWhatTheyCan) {
  std::mt19937 random(12345);
  std::string binary(64 * 1024, '\0');
  for (char& c : binary) c = static_cast<char>(random());
  const std::string big(100 * 1024, 'x');
  const std::string port = "httpport=8000\n";
  const std::vector<std::pair<std::string, const char*>> cases = {
      {"", "<null>"},
      {"h", "<null>"},
      {binary, nullptr},
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
    if (c.second != nullptr) {
      EXPECT_EQ(Value(5), c.second);
    }
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

TEST_F(ConfigIniFile, ReadOutOfMemoryDropsTheReadWithoutLeaks) {
  for (const std::string& bytes :
       {std::string("httpport=8000\n"), kBom + Utf16le("httpport=8000\n")}) {
    tw::test::WriteFile(IniPath(), bytes);
    for (int n = 0;; ++n) {
      Restart();
      tw::platform::FailAllocAfter(n);
      upnp_ini_file_read_properties();
      const bool fired = tw::platform::AllocFailureFired();
      tw::platform::ClearAllocFailure();
      if (!fired) break;
    }
    EXPECT_EQ(Value(5), "8000");
  }
}

TEST_F(ConfigIniFile, UnwritablePathIsLoggedAndReadOnlyWritesNothing) {
  tw::test::WriteFile(dir_.File("plain"), "keep");
  const std::string bad_dir = dir_.File("plain/sub");
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_INIPATH, bad_dir.c_str());
  StartLog();
  upnp_ini_file_write_properties();
  EXPECT_NE(LogText().find("writeProperties \nini file \"" + bad_dir +
                           "/tarnwick.ini\" not writable! ***\n"),
            std::string::npos);
  EXPECT_EQ(tw::test::ReadFile(dir_.File("plain")), "keep");

  PointAtTempDir();
  tw::test::WriteFile(IniPath(), "friendlyname=Original\n");
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_READ_ONLY, "1");
  upnp_ini_file_write_properties();
  EXPECT_EQ(tw::test::ReadFile(IniPath()), "friendlyname=Original\n");
}

}  // namespace
