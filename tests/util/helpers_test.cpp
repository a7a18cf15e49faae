// SPDX-License-Identifier: Apache-2.0
// The parsing and formatting helpers.

#include "support/test_support.h"

namespace {

using namespace tw::test;

using Args = std::vector<std::string>;

class UtilHelpers : public LeakCheck {};

TEST_F(UtilHelpers, NumbersStopAtNonDigitsAndWrapInsteadOfOverflowing) {
  int32_t digits = -1;
  EXPECT_EQ(upnp_atoui2("123abc", &digits), 123u);
  EXPECT_EQ(digits, 3);
  EXPECT_EQ(upnp_atoui("4294967297"), 1u);  // 2^32 + 1 wraps
  EXPECT_EQ(upnp_string_to_longlong("18446744073709551615x", &digits), UINT64_MAX);
  EXPECT_EQ(digits, 20);
  EXPECT_EQ(upnp_ascii_to_long_long("+-5"), -5);
  EXPECT_EQ(upnp_ascii_to_long_long("-+5"), 0);
  EXPECT_EQ(upnp_ascii_to_long_long("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(upnp_ascii_to_long_long("99999999999999999999999"), 200376420520689663);

  char hex[9];
  upnp_longToHexString(0xABCu, hex);
  EXPECT_STREQ(hex, "00000abc");
  std::vector<char> small(8, 'x');
  EXPECT_EQ(upnp_longlong_to_string(-1234567890123, small.data(), small.size()), 14);
  EXPECT_STREQ(small.data(), "-123456");
  EXPECT_EQ(upnp_longlong_to_string(5, small.data(), 0), 0);

  EXPECT_FALSE(upnp_util_strings_equal("Abc", "abc", 1, 0));
  EXPECT_TRUE(upnp_util_strings_equal("Abc", "aBC", 0, 0));
  EXPECT_TRUE(upnp_util_strings_equal(nullptr, nullptr, 1, 1));
  EXPECT_FALSE(upnp_util_strings_equal("", nullptr, 1, 1));
}

TEST_F(UtilHelpers, DurationTextsConvertBothWays) {
  EXPECT_EQ(upnp_convert_time_to_long("1:02:03.5"), 3723005);
  EXPECT_EQ(upnp_convert_time_to_long("0:00:01.500"), 1500);
  EXPECT_EQ(upnp_convert_time_to_long("0:5"), 300000);
  EXPECT_EQ(upnp_convert_time_to_long(nullptr), 0);
  // Absurd hours saturate at the 32-bit range instead of overflowing.
  EXPECT_EQ(upnp_convert_time_to_long("99999999999999:00:00"), int64_t{INT32_MAX} * 3600000);

  char clock[UPNP_FORMAT_TIME_SIZE];
  for (const auto& [ms, text] : {std::pair<uint64_t, std::string>{3723999, "01:02:03"},
                                 {uint64_t{100000} * 3600000, "100000:00:00"}}) {
    upnp_format_time(ms, clock);
    EXPECT_EQ(clock, text);
  }
  upnp_format_time(UINT64_MAX, clock);
  EXPECT_LT(std::strlen(clock), sizeof(clock));

  EXPECT_EQ(Str(upnp_duration_to_string(3723000)), "1:02:03");
  EXPECT_EQ(Str(upnp_duration_to_string(3723005)), "1:02:03.005");
  EXPECT_EQ(Str(upnp_duration_to_string(UINT64_MAX)), "5124095576030:25:51.615");
}

TEST_F(UtilHelpers, ResDurationIsClampedIntoItsFixedForm) {
  const char* cases[][2] = {
      {"0:75:3", "00000:59:03.000"},       {"12", "00000:00:12.000"},
      {"1:2:3.4567", "00001:02:03.999"},   {"4:05", "00000:04:05.000"},
      {"123456:0:0.5", "99999:00:00.005"}, {"-5:-1:-2.-3", "00000:00:00.000"},
  };
  for (const auto& c : cases) {
    std::string text = c[0];
    std::vector<char> out(16, 'x');  // exactly the documented size, on the heap for ASan
    ASSERT_EQ(upnp_util_scrub_res_duration(text.data(), out.data()), 0);
    EXPECT_STREQ(out.data(), c[1]) << c[0];
  }
  std::string split = "1:2.3";
  char out[16];
  upnp_util_scrub_res_duration(split.data(), out);
  EXPECT_EQ(split, std::string("1\0002\0003", 5));  // separators overwritten in place
  EXPECT_EQ(upnp_util_scrub_res_duration(nullptr, out), -1);
}

TEST_F(UtilHelpers, DatesAreScreenedAndConverted) {
  for (const char* good : {"2012-02-31T00:00:00", "2012-12-01"}) {
    EXPECT_EQ(upnp_date_is_valid(good), 1) << good;
  }
  for (const char* bad :
       {"2012-13-01", "2012-00-10", "2012-2-01", "2012-02-32", "2012-02-1", "201"}) {
    EXPECT_EQ(upnp_date_is_valid(bad), 0) << bad;
  }
  EXPECT_EQ(upnp_date_is_valid(nullptr), 0);
  char date[64] = "2012-03-04T05:06:07";
  convert_time_iso8601_to_rfc822(date, sizeof(date));
  EXPECT_STREQ(date, "Sun, 04 Mar 2012 05:06:07 GMT");
  char cut[20] = "2012-03-04";
  convert_time_iso8601_to_rfc822(cut, 10);
  EXPECT_STREQ(cut, "Sun, 04 M");
}

TEST_F(UtilHelpers, DlnaFlagsAreReadAndSetInPlace) {
  const char* text = "DLNA.ORG_PN=MP3;DLNA.ORG_FLAGS=01700000000000000000000000000000";
  EXPECT_EQ(dlnaflagstring_flags_get_from_string(text), 0x01700000u);
  for (int bit : {20, 21, 22, 24}) EXPECT_EQ(dlnaflagstring_bit_get_from_string(text, bit), 1);
  for (int bit : {0, 23, 32, -1}) EXPECT_EQ(dlnaflagstring_bit_get_from_string(text, bit), 0);
  EXPECT_EQ(dlnaflagstring_flags_get_from_string("0a0b0c0d"), 0x0A0B0C0Du);
  EXPECT_EQ(dlnaflagstring_flags_get_from_string("F1700000"), 0u);  // letter first: refused
  EXPECT_EQ(dlnaflagstring_flags_get_from_string("0170000"), 0u);   // fewer than 8 bytes

  // {text, bit, text afterwards}: bit 32 sets nothing but rewrites; unreadable text stays.
  const std::tuple<std::string, int, std::string> sets[] = {
      {"DLNA.ORG_FLAGS=01700000000000000000000000000000;x", 31,
       "DLNA.ORG_FLAGS=81700000000000000000000000000000;x"},
      {"0a0b0c0d", 32, "0A0B0C0D"},
      {"0A0B0C0D", 1, "0A0B0C0F"},
      {"abc", 3, "abc"}};
  for (auto [flag_text, bit, after] : sets) {
    ASSERT_EQ(dlnaflagstring_bit_set_in_string(flag_text.data(), bit), 0);
    EXPECT_EQ(flag_text, after);
  }
  std::string flags = "0a0b0c0d";
  EXPECT_EQ(dlnaflagstring_bit_set_in_string(flags.data(), 33), -1);
  EXPECT_EQ(dlnaflagstring_bit_set_in_string(nullptr, 1), -1);
}

std::string Field(const char* info, int32_t n) {
  uint32_t length = 99;
  const char* field = upnp_get_protocolInfoField(info, n, &length);
  if (field == nullptr) return length == 0 ? "<null>" : "<bad length>";
  return std::string(field, length);
}

TEST_F(UtilHelpers, ProtocolInfoFieldsAndParameters) {
  const char* info = "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3";
  EXPECT_EQ(Field(info, 1), "http-get");
  EXPECT_EQ(Field(info, 4), "DLNA.ORG_PN=MP3");
  EXPECT_EQ(Field(info, 5), "<null>");
  EXPECT_EQ(Field(info, 0), "<null>");
  EXPECT_EQ(Field("a::b", 2), "");  // empty inside the string: a field of length 0
  EXPECT_EQ(Field("a:", 2), "<null>");

  uint32_t name = 0, value = 0, total = 0;
  EXPECT_EQ(
      upnp_get_otherParamLength("DLNA.ORG_PN=AVC_TS_HD;DLNA.ORG_OP=01", &name, &value, &total), 1);
  EXPECT_EQ(std::make_tuple(name, value, total), std::make_tuple(11u, 9u, 21u));
  EXPECT_EQ(upnp_get_otherParamLength("a=b c;d", &name, &value, &total), 0);
  EXPECT_EQ(total, 5u);
  EXPECT_EQ(upnp_get_otherParamLength("x=1/2,3+4", nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(upnp_get_otherParamLength("noequals", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(upnp_get_otherParamLength("=v", nullptr, nullptr, nullptr), 0);
}

TEST_F(UtilHelpers, JpegProfilesAndProportionalScaling) {
  // The profile edges: the largest small picture, one pixel more, and beyond every profile.
  EXPECT_EQ(Str(jpeg_map_dlna_profile(640, 480)) + Str(jpeg_map_dlna_profile(641, 480)) +
                Str(jpeg_map_dlna_profile(4097, 10)),
            "JPEG_SMJPEG_MED<null>");
  // A zero input leaves the box; no undefined behaviour at the limits.
  const uint32_t cases[][6] = {{1920, 1080, 160, 160, 160, 90},
                               {1080, 1920, 160, 160, 90, 160},
                               {0, 1080, 160, 120, 160, 120},
                               {1, UINT32_MAX, UINT32_MAX, UINT32_MAX, 1, UINT32_MAX}};
  for (const auto& c : cases) {
    uint32_t w = 0, h = 0;
    get_proportional_scale(c[0], c[1], c[2], c[3], &w, &h);
    EXPECT_EQ(std::make_pair(w, h), std::make_pair(c[4], c[5])) << c[0] << "x" << c[1];
  }
}

Args Split(const char* line) {
  int32_t argc = -1;
  char** argv = kt_util_create_argv_str(line, &argc);
  if (argv == nullptr) return {"<null>"};
  Args out(argv, argv + argc);
  EXPECT_EQ(argv[argc], nullptr);
  kt_util_release_argv_str(argv);
  return out;
}

std::string Join(std::vector<const char*> args, const char* start = nullptr) {
  upnp_string* s = start != nullptr ? upnp_string_concat(nullptr, start) : nullptr;
  EXPECT_EQ(kt_string_argv_to_string(const_cast<char* const*>(args.data()),
                                     static_cast<int32_t>(args.size()), 0, &s),
            0);
  std::string text = upnp_string_get_cstring(s);
  upnp_string_free(s);
  return text;
}

TEST_F(UtilHelpers, ExtensionsTitlesAndSafeNames) {
  const char* names[][3] = {{"C:\\music\\a.b.mp3", "a.b", "mp3"},
                            {"/x/.mp3", "No Title", "mp3"},
                            {"a\\b/c.d", "c", "d"},
                            {"x/y\\plain", "plain", "bin"}};
  for (const auto& n : names) {
    EXPECT_EQ(Str(upnp_build_title_from_filename(n[0])), n[1]) << n[0];
    EXPECT_EQ(Str(upnp_get_extension(n[0])), n[2]) << n[0];
  }
  EXPECT_EQ(Str(upnp_get_extension(nullptr)), "bin");

  EXPECT_EQ(Str(upnp_remove_bad_chars("a b/c\\d?e:f*g<h")), "a#b#c#d#e#f#g<h");
  std::string name = "a/b\\c*d?e<f>g:h|i\"j k";
  upnp_util_convert_string_to_filename(name.data(), 9);  // only the first 9 bytes
  EXPECT_EQ(name, "a#b#c#d#e<f>g:h|i\"j k");
  upnp_util_convert_string_to_filename(name.data(), name.size());
  EXPECT_EQ(name, "a#b#c#d#e#f#g#h#i#j k");
}

TEST_F(UtilHelpers, EmbeddedUrlsRoundTripThroughTheProxyPath) {
  const std::string url = Str(upnp_util_create_embedded_url("http://h:9000", "a b/c.mp3", "mp3"));
  EXPECT_EQ(url, "http://h:9000/httpproxy/embeddeda%20b%2Fc.mp3.mp3");
  char* target = upnp_util_get_embedded_url(url.c_str());
  EXPECT_EQ(Str(upnp_string_from_encoded_url(target)), "a b/c.mp3");
  upnp_free_impl(target);

  EXPECT_EQ(Str(upnp_util_create_embedded_url("http://h/", "x", "mpeg4")),
            "http://h/httpproxy/embeddedx");  // 5-byte extension: left out
  EXPECT_EQ(Str(upnp_util_create_embedded_url(nullptr, "x", "")), "httpproxy/embeddedx");
  EXPECT_EQ(upnp_util_create_embedded_url("b", nullptr, "x"), nullptr);
  EXPECT_EQ(Str(upnp_util_get_embedded_url("/httpproxy/embeddedname.jpeg")), "name.jpeg");
  EXPECT_EQ(upnp_util_get_embedded_url("/other/name.mp3"), nullptr);

  // Out of memory at any step: null, never a truncated URL.
  ForEachAllocFailure([] { return upnp_util_create_embedded_url("http://h:9000", "a b", "mp3"); },
                      [](char* r, bool fired) {
                        EXPECT_EQ(Str(r),
                                  fired ? "<null>" : "http://h:9000/httpproxy/embeddeda%20b.mp3");
                      });
}

TEST_F(UtilHelpers, IpAddressesAreFoundInsideText) {
  uint32_t offset = 99, length = 99;
  const char* text = "http://192.168.1.20:9000/x";
  EXPECT_EQ(upnp_extract_ipaddress(text, &offset, &length), text + 7);
  EXPECT_EQ(offset, 7u);
  EXPECT_EQ(length, 12u);
  EXPECT_EQ(Str(upnp_copy_ipaddress("ip=10.0.0.1..;")), "10.0.0.1");
  EXPECT_EQ(Str(upnp_copy_ipaddress("..7")), "7");
  EXPECT_EQ(upnp_extract_ipaddress("no digits.", &offset, &length), nullptr);
  EXPECT_EQ(offset + length, 0u);
}

TEST_F(UtilHelpers, CsvSplitKeepsEmptyFields) {
  const std::pair<const char*, Args> cases[] = {
      {"a,,b", {"a", "", "b"}}, {"", {""}}, {",", {"", ""}}, {" x , y", {" x ", " y"}}};
  for (const auto& [text, expected] : cases) {
    uint32_t count = 0;
    char** fields = util_split_csv_split(text, &count);
    ASSERT_NE(fields, nullptr);
    Args got(fields, fields + count);
    for (uint32_t i = 0; i < count; ++i) upnp_free_impl(fields[i]);
    upnp_free_impl(fields);
    EXPECT_EQ(got, expected) << text;
  }
}

TEST_F(UtilHelpers, GroupAllocationIsAllOrNothing) {
  int32_t* numbers = nullptr;
  char* text = nullptr;
  void* group = upnp_group_malloc(2, &numbers, static_cast<uint32_t>(4 * sizeof(int32_t)), &text,
                                  uint32_t{16});
  ASSERT_NE(group, nullptr);
  numbers[3] = 42;
  std::memset(text, 'x', 16);
  upnp_group_free(group);

  void* a = nullptr;
  void* b = nullptr;
  EXPECT_EQ(upnp_group_malloc(2, &a, uint32_t{8}, &b, uint32_t{0}), nullptr);
  EXPECT_EQ(a, nullptr);  // the first store was undone
  EXPECT_EQ(upnp_group_malloc(0), nullptr);

  EXPECT_EQ(
      upnp_group_malloc_get_num(0, &a, uint32_t{8}, &b, uint32_t{4}, static_cast<void**>(nullptr)),
      2);
  EXPECT_EQ(upnp_group_malloc_get_num(0, &a, uint32_t{8}, &b, uint32_t{0}), 1);
}

TEST_F(UtilHelpers, ArgvIsWrittenAndSplitBack) {
  EXPECT_EQ(Join({"-v", "", "a b", nullptr, "x"}), "-v \"\" \"a b\" \"\" x");
  EXPECT_EQ(Join({"b"}, "a"), "a b");  // a non-empty string gets a separating space first

  // Indexes wrap at 256: first 255 with two arguments reads argv[255] then argv[0].
  std::vector<const char*> many(256, "mid");
  many[0] = "zero";
  many[255] = "last";
  upnp_string* s = nullptr;
  ASSERT_EQ(kt_string_argv_to_string(const_cast<char* const*>(many.data()), 2, 255, &s), 0);
  EXPECT_STREQ(upnp_string_get_cstring(s), "last zero");
  upnp_string_free(s);

  EXPECT_EQ(Split("  prog\t-v  3\n"), (Args{"prog", "-v", "3"}));
  EXPECT_EQ(Split("x\"a b\"y \"open end"), (Args{"xa by", "open end"}));
  EXPECT_EQ(Split(""), Args{});
  // The splitter gives back whatever the writer wrote (arguments free of quotes, tabs, breaks).
  const std::vector<const char*> args = {"prog", "-name", "My Server", "", " lead", "a  b"};
  const Args back = Split(Join(args).c_str());
  EXPECT_EQ(back, Args(args.begin(), args.end()));
}

}  // namespace
