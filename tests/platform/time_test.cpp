// SPDX-License-Identifier: Apache-2.0
#include <optional>

#include "platform/time_internal.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

constexpr int64_t kRfcExample = 784111777;  // 1994-11-06 08:49:37 UTC, a Sunday
constexpr int64_t kYear2100 = 4102444800;
constexpr bool kWideTime = sizeof(time_t) == 8;

std::string HttpDate(int64_t t) {
  char buf[64];
  return upnp_date_formatGMT(t, buf, sizeof buf);
}

TEST(PlatformTime, DurationsInMilliseconds) {
  // The fraction is added as written (".5" is 5 ms); parsing stops at the first bad field.
  const std::pair<const char*, int64_t> cases[] = {{"1:02:03.5", 3723005},   {"0:00:01.250", 1250},
                                                   {"1:30", 5400000},        {"12:xx", 43200000},
                                                   {"100:00:00", 360000000}, {"abc", 0}};
  for (const auto& [text, ms] : cases) {
    EXPECT_EQ(upnp_convert_duration_string_to_numeric(text), ms) << text;
  }
  EXPECT_EQ(upnp_convert_duration_string_to_numeric(nullptr), 0);
  const int64_t start = getSystemTime();  // the interval clock, in milliseconds
  Sleep(30);
  EXPECT_GE(getSystemTime() - start, 30);
}

// The once-a-day cache against a full conversion at any time: a property of fuzz/fuzz_time.cpp.
TEST(PlatformTime, HttpDatesWithAndWithoutTheDailyCache) {
  EXPECT_EQ(HttpDate(kRfcExample), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(HttpDate(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
  char cached[64];
  ASSERT_EQ(tw::platform::FormatHttpDateCached(kRfcExample, cached, sizeof cached), cached);
  EXPECT_EQ(cached, HttpDate(kRfcExample));
  char buf[40];
  const int64_t before = static_cast<int64_t>(std::time(nullptr));
  ASSERT_EQ(upnp_date_getGMT(buf, sizeof buf), buf);
  EXPECT_TRUE(buf == HttpDate(before) || buf == HttpDate(before + 1)) << buf;
  EXPECT_STREQ(upnp_date_formatGMT(kRfcExample, buf, 8), "Sun, 06") << "cut at the size";
  EXPECT_EQ(upnp_date_formatGMT(kRfcExample, buf, 0), nullptr);
  EXPECT_STREQ(upnp_time_convertToGMT(kRfcExample, buf, sizeof buf), "1994-11-06T08:49:37");
  EXPECT_STREQ(upnp_date_convertToGMT(kRfcExample, buf, sizeof buf), "1994-11-06");
  // After 2038, or the documented empty text where time_t has 32 bits.
  EXPECT_EQ(HttpDate(kYear2100), kWideTime ? "Fri, 01 Jan 2100 00:00:00 GMT" : "");
  upnp_time_convertToGMT(int64_t{1} << 31, buf, sizeof buf);
  EXPECT_STREQ(buf, kWideTime ? "2038-01-19T03:14:08" : "");
}

// Runs with TZ set to chosen zones; restores the old zone and forgets the learned offset.
class PlatformTimeZone : public LeakCheck {
 protected:
  void TearDown() override {
    UseZone(old_tz_ ? old_tz_->c_str() : nullptr);
    LeakCheck::TearDown();
  }
  static void UseZone(const char* tz) {
    tz != nullptr ? setenv("TZ", tz, 1) : unsetenv("TZ");
    tzset();
    tw::platform::ResetTimeZoneOffsetForTesting();
  }
  const std::optional<std::string> old_tz_ =
      std::getenv("TZ") ? std::optional<std::string>(std::getenv("TZ")) : std::nullopt;
};

TEST_F(PlatformTimeZone, LocalTextsFollowTheZone) {
  char buf[40];
  const char* const zones[][2] = {{"UTC0", "08:49"}, {"EST5", "03:49"}, {"<+0530>-5:30", "14:19"}};
  for (const auto& [tz, hour_minute] : zones) {
    UseZone(tz);
    const std::string clock = std::string(hour_minute) + ":37";
    EXPECT_EQ(upnp_format_time_to_localdate(kRfcExample, buf, sizeof buf), "1994-11-06T" + clock);
    EXPECT_EQ(upnp_format_time_to_localtime(kRfcExample, buf, sizeof buf), clock);
    EXPECT_EQ(tw::platform::FormatLogTimestamp(kRfcExample, 7, buf, sizeof buf), clock + ":007 ");
  }
  const std::string now = upnp_get_logging_timestamp(buf, sizeof buf);
  EXPECT_TRUE(now.size() == 13 && now[8] == ':' && now[12] == ' ') << now;
}

TEST_F(PlatformTimeZone, ParsedDatesReadAsGmtInAnyZoneAndTheOffsetIsLoggedOnce) {
  const auto parse = upnp_convert_date_time_string_to_numeric;
  const std::string text = "upnp_convert_date_time_string_to_numeric: Timezone offset is ";
  const std::tuple<const char*, int32_t, const char*> zones[] = {
      {"UTC0", 0, "0:00"},
      {"EST5EDT,M3.2.0,M11.1.0", 18000, "5:00"},
      {"<+0530>-5:30", -19800, "-5:30"},
      {"<-10>10", 36000, "10:00"}};
  for (const auto& [tz, offset, shown] : zones) {
    UseZone(tz);
    EXPECT_EQ(g_timeZoneOffsetInSeconds, 1) << "1 means not yet known";
    // A fraction is ignored, summer time must not shift, a missing day counts 0 (31 October).
    std::vector<int64_t> got;
    const std::string log = Logged(UPNP_LOG_SYSTEM, [&] {
      got = {parse("1994-11-06T08:49:37"), parse("1994-11-06 08:49:37.987"),
             parse("2024-07-01T12:00:00"), parse("1994-11"),
             kWideTime ? parse("2100-01-01T00:00:00") : kYear2100};
    });
    EXPECT_THAT(got, ElementsAre(kRfcExample, kRfcExample, 1719835200, 783561600, kYear2100)) << tz;
    EXPECT_EQ(g_timeZoneOffsetInSeconds, offset);
    const size_t at = log.find(text + shown);
    EXPECT_NE(at, std::string::npos) << log;
    EXPECT_EQ(log.find(text, at + 1), std::string::npos) << "logged once";
  }
  EXPECT_EQ(parse(nullptr), 0);
}

}  // namespace
