// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "config/config_fixture.h"
#include "platform/test_hooks.h"
#include "tarnwick/util.h"

namespace {

class ConfigProperties : public tw::test::ConfigTest {};

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
  for (int n = 0;; ++n) {
    tw::platform::FailAllocAfter(n);
    const int32_t result = upnp_ini_file_create_property(40, "memtest", "dflt", "desc", 1, 0, 0, 0);
    const bool fired = tw::platform::AllocFailureFired();
    tw::platform::ClearAllocFailure();
    if (!fired) break;
    EXPECT_EQ(result, UPNP_INI_OUT_OF_MEMORY) << n;
    EXPECT_EQ(upnp_ini_file_getPropertyKey("memtest"), -1);
    EXPECT_STREQ(upnp_ini_file_getString(4), "UNIX");
  }
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
  for (int n = 0; n < 2; ++n) {  // out of memory while building: null, the cache stays empty
    tw::platform::FailAllocAfter(n);
    EXPECT_EQ(upnp_ini_file_get_next_CSV(20, 0), nullptr);
    tw::platform::ClearAllocFailure();
  }
  const char* item1 = upnp_ini_file_get_next_CSV(20, 1);
  EXPECT_STREQ(upnp_ini_file_get_next_CSV(20, 0), "x");
  EXPECT_STREQ(item1, "y");
  EXPECT_STREQ(upnp_ini_file_get_next_CSV(20, 2), "");
  EXPECT_STREQ(upnp_ini_file_get_next_CSV(20, 3), "z ");
  EXPECT_EQ(upnp_ini_file_get_next_CSV(20, 4), nullptr);
  EXPECT_EQ(upnp_ini_file_get_next_CSV(20, 5), nullptr);
  EXPECT_EQ(upnp_ini_file_get_next_CSV(20, -1), nullptr);
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

}  // namespace
