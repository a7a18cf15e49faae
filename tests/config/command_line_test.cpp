// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "config/config_fixture.h"
#include "tarnwick/platform.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

class ConfigCommandLine : public tw::test::ConfigTest {
 protected:
  // Keeps the data directory, and with it the INI file, inside the test's directory.
  std::vector<std::string> Local(std::vector<std::string> options) const {
    options.insert(options.begin(), {"-appdata", dir_.path()});
    return options;
  }
  std::string IniPath() const { return dir_.File("tarnwick.ini"); }
  void Restart() {
    ConfigTest::TearDown();
    ConfigTest::SetUp();
  }
};

TEST_F(ConfigCommandLine, OptionsSetPropertiesFromTheInterface) {
  EXPECT_EQ(Parse(Local({"-httpport", "9000", "--ip", "10.0.0.2", "-friendlyname", "-nmcmode", "2",
                         "-NMCmode", "3", "stray", "-nosuch", "x", "-", "--", "-ssdpttl"})),
            0);
  EXPECT_EQ(Value(5), "9000");
  EXPECT_EQ(upnp_ini_file_get_property_origin(5), UPNP_INI_ORIGIN_COMMAND_LINE);
  EXPECT_EQ(Value(1), "10.0.0.2");   // "--" works as "-"
  EXPECT_EQ(Value(0), "");           // no value: the empty string
  EXPECT_EQ(Value(17), "3");         // the last repetition wins
  EXPECT_EQ(Value(9), "");           // dangling at the end
  EXPECT_EQ(Value(7), dir_.path());  // inipath follows appdata
  EXPECT_EQ(upnp_ini_file_restartPending(), 0);
  EXPECT_STREQ(upnp_ini_file_get_EXE_Name(), "prog");
  EXPECT_STREQ(upnp_ini_file_get_EXE_Dir(), "");
}

TEST_F(ConfigCommandLine, CommandLineBeatsTheIniFileWhichBeatsTheDefault) {
  tw::test::WriteFile(IniPath(), "httpport=8000\nfriendlyname=Box\nssdpttl=6\n");
  EXPECT_EQ(Parse(Local({"-httpport", "9000", "-ssdpttl", "4"})), 0);
  EXPECT_EQ(Value(5), "9000");
  EXPECT_EQ(Value(9), "4");  // the command line repeated the default: still the winner
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
    CaptureStdout();
    EXPECT_EQ(Parse(Local({"-httpport", "1", help, "-ip", "10.1.1.1"})), 1);
    EXPECT_EQ(GetCapturedStdout(), text);
    EXPECT_EQ(Value(5), "1");       // applied before the help
    EXPECT_EQ(Value(1), "<null>");  // not after it
    EXPECT_EQ(Value(7), "<null>");  // the data directory was not settled
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
  EXPECT_EQ(Value(7), dir_.File("etc/x"));
  EXPECT_EQ(Value(6), "my.ini");
  EXPECT_EQ(std::string(upnp_ini_file_get_ini_path()), target);
  EXPECT_TRUE(tw::test::FileExists(dir_.File("etc/x")));          // made for the INI file
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_ININAME, "b.ini");  // drops the cached path
  EXPECT_EQ(std::string(upnp_ini_file_get_ini_path()), dir_.File("etc/x/b.ini"));
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_INIPATH, nullptr);
  EXPECT_EQ(upnp_ini_file_get_ini_path(), nullptr);
  EXPECT_EQ(Value(5), "7000");  // the whole argument is compared, dashes included
  EXPECT_EQ(Value(3), "3");
  EXPECT_STREQ(upnp_ini_file_get_EXE_Dir(), "/opt/app/bin");
  EXPECT_EQ(Parse(Local({}), "/other"), 0);  // the first name stays
  EXPECT_STREQ(upnp_ini_file_get_EXE_Name(), "/opt/app/bin/server");
}

TEST_F(ConfigCommandLine, DataDirectoryFollowsTheAppDataBase) {
  const std::string long_name(1500, 'n');
  upnp_ini_file_set_default_appname(long_name.c_str());
  std::string base;
  {
    tw::test::Owned made(getAppDataDir());
    if (made.get() != nullptr) base = made.str() + "/" + long_name.substr(0, 1022);
  }
  upnp_ini_file_init_DATA_Dir();  // the name is too long for mkdir: nothing is created
  EXPECT_EQ(Value(13), base);
  EXPECT_EQ(Value(7), base);
  EXPECT_EQ(upnp_ini_file_get_property_origin(13), UPNP_INI_ORIGIN_PROGRAM);
}

TEST_F(ConfigCommandLine, DefaultIniFilesSeedAFirstRun) {
  const std::string bin = dir_.File("bin");
  const std::string conf = dir_.File("conf");
  ASSERT_EQ(mkdir(bin.c_str(), 0700), 0);
  ASSERT_EQ(mkdir(conf.c_str(), 0700), 0);
  tw::test::WriteFile(bin + "/old.ini", "friendlyname=FromExeDir\n");
  tw::test::WriteFile(conf + "/new.ini", "friendlyname=BesideIni\n");
  upnp_ini_file_add_default_file("old.ini");  // added first, tried last: its copy stays
  upnp_ini_file_add_default_file("new.ini");
  upnp_ini_file_add_default_file("missing.ini");
  StartLog();
  EXPECT_EQ(Parse(Local({"-inipath", conf}), bin + "/prog"), 0);
  const std::string log = LogText();
  const std::string ini = conf + "/tarnwick.ini";
  EXPECT_EQ(Value(0), "FromExeDir");
  EXPECT_NE(log.find("existing ini file " + conf + "/new.ini copied to " + ini), std::string::npos);
  EXPECT_NE(log.find("exisiting ini file " + bin + "/old.ini copied to " + ini), std::string::npos);

  Restart();  // with an INI file in place nothing is copied
  tw::test::WriteFile(ini, "friendlyname=Mine\n");
  upnp_ini_file_add_default_file("new.ini");
  EXPECT_EQ(Parse(Local({"-inipath", conf}), bin + "/prog"), 0);
  EXPECT_EQ(Value(0), "Mine");
}

}  // namespace
