// SPDX-License-Identifier: Apache-2.0
#include "support/test_support.h"
#include "util/scramble.h"

namespace {

using namespace tw::test;

using Cases = std::vector<std::pair<std::string, std::string>>;

class UtilEncoding : public LeakCheck {};

std::string Conv(char* (*fn)(const char*), const std::string& in) { return Str(fn(in.c_str())); }

void ExpectConv(char* (*fn)(const char*), const Cases& cases) {
  for (const auto& [in, out] : cases) EXPECT_EQ(Conv(fn, in), out) << in;
}

std::vector<uint8_t> Utf16Bytes(const uint8_t* p) {
  std::vector<uint8_t> out;
  for (size_t i = 0; out.size() < 2 || out[i - 2] != 0 || out[i - 1] != 0; i += 2) {
    out.insert(out.end(), {p[i], p[i + 1]});
  }
  return out;
}

std::string FromUtf16(std::vector<uint8_t> bytes) {
  return Str(upnp_string_utf16_to_utf8(bytes.data()));
}

TEST_F(UtilEncoding, FromUtf8KeepsLatin1AndDropsTheRest) {
  // Beyond Latin-1 is lost; the second byte is taken as it is, continuation or not; a sequence
  // cut short by the end stops there.
  ExpectConv(upnp_strdup_from_utf8, {{"caf\xC3\xA9", "caf\xE9"},
                                     {"a\xE2\x82\xACz", "a?z"},
                                     {"\xF0\x9F\x98\x80!", "?!"},
                                     {"\xFC\x80\x80\x80\x80\x80z", "?z"},
                                     {"a\x80\xC0\xC1\xFE\xFFz", "az"},
                                     {"\xC5\x93", ""},
                                     {"\xC3Q", "\x91"},
                                     {"ab\xE2\x82", "ab?"},
                                     {"ab\xC3", "ab"}});
  EXPECT_EQ(upnp_strdup_from_utf8(nullptr), nullptr);
}

TEST_F(UtilEncoding, ToUtf8PassesValidSequencesAndRepairsTheRest) {
  ExpectConv(upnp_strdup_to_utf8, {{"\xE9", "\xC3\xA9"},
                                   {"\xE9z", "\xC3\xA9z"},
                                   {"x\xF0", "x\xC3\xB0"},
                                   {"\xA0\xBF\xC0\xFF", "\xC2\xA0\xC2\xBF\xC3\x80\xC3\xBF"},
                                   {"\xE2\x82\xAC\xE2\x82", "\xE2\x82\xAC\xC3\xA2\xC2\x82"},
                                   {"\xFC\x80\x80\x80\x80\x80", "\xFC\x80\x80\x80\x80\x80"}});
  EXPECT_EQ(upnp_strdup_to_utf8(nullptr), nullptr);
}

TEST_F(UtilEncoding, EnhancedAsciiEncodesEveryHighByte) {
  EXPECT_EQ(Conv(upnp_util_convert_enhanced_ascii_to_utf8, "a\xC3\xA9"),
            "a\xC3\x83\xC2\xA9");  // existing UTF-8 is not recognised
  EXPECT_EQ(upnp_util_convert_enhanced_ascii_to_utf8(""), nullptr);
  EXPECT_EQ(upnp_util_convert_enhanced_ascii_to_utf8(nullptr), nullptr);
}

TEST_F(UtilEncoding, ShiftJisGuessAndNextChar) {
  EXPECT_TRUE(upnp_util_is_shift_jis("abc\x82xyz"));
  EXPECT_FALSE(upnp_util_is_shift_jis("abc\xE9"));
  EXPECT_FALSE(upnp_util_is_shift_jis("ab\xE9\xE9"));  // 2 of 4 is not more than half
  EXPECT_FALSE(upnp_util_is_shift_jis("\x80"));        // 0x80 counts for neither rule
  EXPECT_FALSE(upnp_util_is_shift_jis(nullptr));
  EXPECT_EQ(upnp_util_convert_shift_jis_to_utf8("\x82\xA0"), nullptr);

  const char* p = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  for (int step : {1, 2, 3, 4}) {
    EXPECT_EQ(upnp_utf8_next_char(p) - p, step);
    p += step;
  }
  const char* cut = "\xF0\x9F";  // stops at the terminator
  EXPECT_EQ(upnp_utf8_next_char(cut), cut + 2);
  EXPECT_EQ(upnp_utf8_next_char(cut + 2), cut + 2);
  EXPECT_EQ(upnp_utf8_next_char(nullptr), nullptr);
}

TEST_F(UtilEncoding, SortKeysAndAccentInsensitiveOrder) {
  // U+00C5 sorts after Z, U+00D7 and U+00D8 as O; U+00D0 and U+00DF keep their lead byte.
  const int keys[][2] = {{0x80, 'A'},  {0x85, 'Z'}, {0x87, 'C'}, {0x90, 0xC3},
                         {0x91, 'N'},  {0x97, 'O'}, {0x98, 'O'}, {0x9C, 'U'},
                         {0x9F, 0xC3}, {0xA5, 'Z'}, {0xBF, 0xC3}};
  for (const auto& k : keys) EXPECT_EQ(upnp_get_urf8_sortchar(0xC3, k[0]), k[1]) << k[0];
  EXPECT_EQ(upnp_get_urf8_sortchar(0xC2, 0xA9), 0xC2);

  // The euro and trade marks share a lead and are unmapped; a lead may be cut short by the end.
  const std::tuple<const char*, const char*, int> order[] = {{"Dog", "\xC3\x89lan", -1},
                                                             {"\xC3\x89lan", "Fig", -1},
                                                             {"\xC3\x85re", "Zoo", 1},
                                                             {"\xC3\xA9t\xC3\xA9", "ETE", 0},
                                                             {"abc", "ABCD", -1},
                                                             {"abcd", "ABC", 1},
                                                             {"\xE2\x82\xAC", "\xE2\x84\xA2", 0},
                                                             {nullptr, "a", -1},
                                                             {nullptr, nullptr, 0},
                                                             {"x\xC3", "X\xC3", 0}};
  for (const auto& [a, b, r] : order) EXPECT_EQ(upnp_utf8_stricmp(a, b), r) << a << " " << b;
}

TEST_F(UtilEncoding, Utf8ToUtf16WritesLittleEndianUnits) {
  // Four-byte forms: three bytes make one unit, the fourth byte starts a character of its own
  // (a two-byte one, like every lead below 0xE0). A sequence cut short by the end ends the text.
  const std::pair<const char*, std::vector<uint8_t>> cases[] = {
      {"A\xC3\xA9\xE2\x82\xAC", {0x41, 0, 0xE9, 0, 0xAC, 0x20, 0, 0}},
      {"\xF0\x9F\x98\x80z", {0xD8, 0x07, 0x3A, 0x00, 0, 0}},
      {"\xF0\x9F\x98\x80", {0xD8, 0x07, 0, 0}},
      {"x\xE2\x82", {'x', 0, 0, 0}}};
  for (const auto& [in, out] : cases) {
    uint8_t* u = upnp_string_utf8_to_utf16(in);
    EXPECT_EQ(Utf16Bytes(u), out);
    upnp_free_impl(u);
  }
  EXPECT_EQ(upnp_string_utf8_to_utf16(nullptr), nullptr);
}

TEST_F(UtilEncoding, Utf16ToUtf8FollowsTheByteOrderMarkToggle) {
  EXPECT_EQ(FromUtf16({0x41, 0, 0, 0}), "A");
  EXPECT_EQ(FromUtf16({0xFF, 0xFE, 0, 0x41, 0, 0}), "A");  // FF FE: swapped from here on
  EXPECT_EQ(FromUtf16({0xFE, 0xFF, 0x41, 0, 0, 0}), "A");  // reads as U+FFFE: mode kept
  EXPECT_EQ(FromUtf16({0xFF, 0xFE, 0xFE, 0xFF, 0x41, 0, 0, 0}), "A");  // toggled back
  EXPECT_EQ(FromUtf16({0xE9, 0, 0xAC, 0x20, 0x3D, 0xD8, 0, 0}),
            "\xC3\xA9\xE2\x82\xAC\xED\xA0\xBD");  // a lone surrogate as three bytes
  EXPECT_EQ(FromUtf16({0xFF, 0x07, 0x00, 0x08, 0x7F, 0, 0x80, 0, 0, 0}),
            "\xDF\xBF\xE0\xA0\x80\x7F\xC2\x80");
  EXPECT_EQ(upnp_string_utf16_to_utf8(nullptr), nullptr);
  // The round trip of every other text is a property of fuzz/fuzz_encodings.cpp.
}

TEST_F(UtilEncoding, HexadecimalNumbers) {
  std::string digits;
  for (char c : std::string("/09:@AFGafg")) digits += std::to_string(hexchar_to_i(c)) + ",";
  EXPECT_EQ(digits, "0,0,9,0,0,10,15,0,10,15,0,");
  EXPECT_EQ(upnp_hexStringToNumber("1fF", 16), 0x1FFu);
  EXPECT_EQ(upnp_hexStringToNumber("123456789abcdef0", 16), 0x123456789ABCDEF0u);
  EXPECT_EQ(upnp_hexStringToNumber("123456789", 4), 0x1234u);
  EXPECT_EQ(upnp_hexStringToNumber("12g4", 16), 0x12u);
  EXPECT_EQ(upnp_hexStringToNumber(nullptr, 8), 0u);
  EXPECT_EQ(upnp_hexToi("FFFFFFFFF"), 0xFFFFFFFFu);
  EXPECT_EQ(upnp_hexStringToLong("123456789"), 0x12345678u);
}

TEST_F(UtilEncoding, Base64PaddingRulesAndTolerantDecoding) {
  ExpectConv(upnp_string_to_base64, {{"ab", "YWI"}, {"a", "YQ=="}, {"abc", "YWJj"}});  // no "YWI="
  EXPECT_EQ(Str(upnp_bin_to_base64("ab", 2)), "YWI=");
  EXPECT_EQ(Str(upnp_bin_to_base64("a\0\xFF\xFE", 4)), "YQD//g==");
  EXPECT_EQ(upnp_bin_to_base64(nullptr, 3), nullptr);
  ExpectConv(upnp_string_from_base64, {{"YW\r\nI=", "ab"},
                                       {"Y W J j", "abc"},
                                       {"YQ==YWJj", "a"},  // '=' ends the data
                                       {"Y", ""},
                                       {"!!!", ""}});
}

TEST_F(UtilEncoding, UrlEncodingUsesItsOwnSafeSet) {
  // {text, convert from UTF-8, encoded}: other leads fold the same way as C3 and are escaped as
  // they come; lone bytes stay themselves. 700 escapes outgrow the initial 1024 bytes.
  std::string escaped;
  for (int i = 0; i < 700; ++i) escaped += "%20";
  const std::tuple<std::string, int, std::string> cases[] = {{"a b/c", 0, "a%20b%2Fc"},
                                                             {"$.:?@_AZaz09", 1, "$.:?@_AZaz09"},
                                                             {"-~&=+%", 1, "%2D%7E%26%3D%2B%25"},
                                                             {"caf\xE9", 0, "caf%E9"},
                                                             {"caf\xC3\xA9", 1, "caf%E9"},
                                                             {"\xE2\x82\xAC", 1, "%E2%AC"},
                                                             {"\xC3", 1, "%C3"},
                                                             {std::string(700, ' '), 1, escaped}};
  for (const auto& [in, utf8, out] : cases) {
    EXPECT_EQ(Str(upnp_string_to_encoded_url(in.c_str(), utf8)), out) << in;
  }
  EXPECT_EQ(upnp_string_to_encoded_url(nullptr, 1), nullptr);
  ExpectConv(upnp_string_from_encoded_url, {{"a+b%41%", "a bA"},
                                            {"%4", "4"},
                                            {"%zz%e9", ""},  // "%zz" decodes to a NUL
                                            {"x%G1y", "x\x01y"}});
  EXPECT_EQ(upnp_string_from_encoded_url(nullptr), nullptr);
  // ASCII round trips are a property of fuzz/fuzz_encodings.cpp.
}

TEST_F(UtilEncoding, RemoveIllegalChars) {
  EXPECT_EQ(Str(upnp_remove_illegal_chars("a<b>c\"d", "<>\"")), "abcd");
  EXPECT_EQ(Str(upnp_remove_illegal_chars("abc", nullptr)), "abc");
  EXPECT_EQ(Str(upnp_remove_illegal_chars("abc", "")), "abc");
  EXPECT_EQ(upnp_remove_illegal_chars(nullptr, "a"), nullptr);
}

TEST_F(UtilEncoding, FailedAllocationsGiveNull) {
  const char* in = "x\xC3\xA9 y%41+";
  const std::function<void*()> conversions[] = {
      [&] { return upnp_strdup_from_utf8(in); },
      [&] { return upnp_strdup_to_utf8(in); },
      [&] { return upnp_util_convert_enhanced_ascii_to_utf8(in); },
      [&] { return upnp_string_utf8_to_utf16(in); },
      [&] { return upnp_string_utf16_to_utf8(reinterpret_cast<const uint8_t*>("A\0\0")); },
      [&] { return upnp_string_from_base64(in); },
      [&] { return upnp_string_to_base64(in); },
      [&] { return upnp_bin_to_base64(in, 3); },
      [&] { return upnp_string_from_encoded_url(in); },
      [&] { return upnp_string_to_encoded_url(in, 0); },
      [&] { return upnp_remove_illegal_chars(in, "y"); },
  };
  for (const auto& op : conversions) {
    ForEachAllocFailure(op, [](void* r, bool failed) {
      EXPECT_EQ(r == nullptr, failed);
      if (r != nullptr) upnp_free_impl(r);
    });
  }
}

std::string Decrypt(const std::string& scrambled, size_t out_size = 300) {
  std::vector<char> out(out_size, 'x');
  upnp_string_decrypt(scrambled.c_str(), out.data(), out.size());
  return std::string(out.data(), strnlen(out.data(), out.size()));
}

std::string Scramble(const std::string& plain, uint32_t key) {
  std::vector<char> out(300, '\0');
  tw::util::ScrambleWithKey(plain.c_str(), key, out.data(), out.size());
  return out.data();
}

class UtilScramble : public LeakCheck {};

// The round trip under every key and length is a property of fuzz/fuzz_encodings.cpp.
TEST_F(UtilScramble, KnownFormsAndEveryKeyAndLengthRoundTrips) {
  // 'A' + 1 = 0x42, written "42", rotated left by 1 mod 2; bytes wrap modulo 256 both ways.
  EXPECT_EQ(Scramble("A", 1), "::124");
  EXPECT_EQ(Scramble("A", 0), "::041");
  EXPECT_EQ(Scramble("\xff", 2), "::201");
  EXPECT_EQ(Decrypt("::201"), "\xff");
}

TEST_F(UtilScramble, PublicEntriesRoundTripAreIdempotentAndCarry128Bytes) {
  char scrambled[300], again[300];
  upnp_string_encrypt("secret password", scrambled, sizeof(scrambled));
  EXPECT_EQ(std::strlen(scrambled), 3u + 30u);
  EXPECT_EQ(Decrypt(scrambled), "secret password");
  upnp_string_encrypt(scrambled, again, sizeof(again));
  EXPECT_STREQ(again, scrambled);
  const std::string long_text(200, 'q');
  upnp_string_encrypt(long_text.c_str(), scrambled, sizeof(scrambled));
  EXPECT_EQ(Decrypt(scrambled), long_text.substr(0, 128));
}

TEST_F(UtilScramble, SmallBuffersAndBadInputStayInBounds) {
  std::vector<char> tiny(6, 'x');  // heap, exact size: ASan sees any overrun
  upnp_string_encrypt("abcdef", tiny.data(), tiny.size());
  EXPECT_EQ(std::string(tiny.data()), std::string("::") + std::string(tiny.data() + 2, 3));
  EXPECT_EQ(Decrypt("plain text"), "");      // no "::": stays cleared
  EXPECT_EQ(Decrypt("::5A"), "");            // a single digit makes no byte
  EXPECT_EQ(Decrypt("::Z1234").size(), 2u);  // a bad key digit reads as -1, still in bounds
  EXPECT_EQ(Decrypt("::124", 1), "");        // cut to the buffer: garbage, but terminated
  std::vector<char> untouched(4, 'x');
  upnp_string_decrypt("::", untouched.data(), untouched.size());  // two bytes: nothing happens
  upnp_string_encrypt(nullptr, untouched.data(), untouched.size());
  upnp_string_decrypt("::041", untouched.data(), 0);
  EXPECT_EQ(std::string(untouched.data(), 4), "xxxx");
}

}  // namespace
