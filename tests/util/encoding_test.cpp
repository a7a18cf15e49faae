// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/test_hooks.h"
#include "support/test_support.h"
#include "tarnwick/util.h"

namespace {

using tw::test::Owned;

class UtilEncoding : public tw::test::LeakCheck {
 protected:
  void TearDown() override {
    tw::platform::ClearAllocFailure();
    LeakCheck::TearDown();
  }
};

std::string Conv(char* (*fn)(const char*), const std::string& in) {
  return Owned(fn(in.c_str())).str();
}

std::string RandomBytes(std::mt19937& rng, size_t max_len, bool allow_high = true) {
  std::string s(rng() % (max_len + 1), ' ');
  for (char& c : s) {
    unsigned v = 1 + rng() % (allow_high ? 255 : 127);
    c = static_cast<char>(v);
  }
  return s;
}

std::vector<uint8_t> Utf16Bytes(const uint8_t* p) {
  std::vector<uint8_t> out;
  for (size_t i = 0;; i += 2) {
    out.push_back(p[i]);
    out.push_back(p[i + 1]);
    if (p[i] == 0 && p[i + 1] == 0) break;
  }
  return out;
}

std::string FromUtf16(std::vector<uint8_t> bytes) {
  return Owned(upnp_string_utf16_to_utf8(bytes.data())).str();
}

TEST_F(UtilEncoding, FromUtf8KeepsLatin1AndDropsTheRest) {
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "caf\xC3\xA9"), "caf\xE9");
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "a\xE2\x82\xAC" "b"), "a?b");
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "\xF0\x9F\x98\x80!"), "?!");
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "\xFC\x80\x80\x80\x80\x80z"), "?z");
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "\xC5\x93"), "");  // beyond Latin-1: lost
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "a\x80\xC0\xC1\xFE\xFF" "b"), "ab");
  // The second byte is taken as it is, continuation or not.
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "\xC3" "A"), "\x81");
  // Sequences cut short by the end stop there.
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "ab\xE2\x82"), "ab?");
  EXPECT_EQ(Conv(upnp_strdup_from_utf8, "ab\xC3"), "ab");
  EXPECT_EQ(upnp_strdup_from_utf8(nullptr), nullptr);
}

TEST_F(UtilEncoding, ToUtf8PassesValidSequencesAndRepairsTheRest) {
  EXPECT_EQ(Conv(upnp_strdup_to_utf8, "\xE9"), "\xC3\xA9");
  EXPECT_EQ(Conv(upnp_strdup_to_utf8, "\xE9" "a"), "\xC3\xA9" "a");
  EXPECT_EQ(Conv(upnp_strdup_to_utf8, "\xA0\xBF\xC0\xFF"), "\xC2\xA0\xC2\xBF\xC3\x80\xC3\xBF");
  EXPECT_EQ(Conv(upnp_strdup_to_utf8, "\xE2\x82\xAC\xE2\x82"), "\xE2\x82\xAC\xC3\xA2\xC2\x82");
  EXPECT_EQ(Conv(upnp_strdup_to_utf8, "\xFC\x80\x80\x80\x80\x80"), "\xFC\x80\x80\x80\x80\x80");
  EXPECT_EQ(Conv(upnp_strdup_to_utf8, "x\xF0"), "x\xC3\xB0");
  EXPECT_EQ(upnp_strdup_to_utf8(nullptr), nullptr);

  // Whatever comes in, what comes out is valid by the same rule, so a second pass keeps it.
  std::mt19937 rng(7);
  for (int i = 0; i < 2000; ++i) {
    const std::string once = Conv(upnp_strdup_to_utf8, RandomBytes(rng, 12));
    ASSERT_EQ(Conv(upnp_strdup_to_utf8, once), once);
  }
}

TEST_F(UtilEncoding, EnhancedAsciiEncodesEveryHighByte) {
  EXPECT_EQ(Conv(upnp_util_convert_enhanced_ascii_to_utf8, "a\xC3\xA9"),
            "a\xC3\x83\xC2\xA9");  // existing UTF-8 is not recognised
  EXPECT_EQ(upnp_util_convert_enhanced_ascii_to_utf8(""), nullptr);
  EXPECT_EQ(upnp_util_convert_enhanced_ascii_to_utf8(nullptr), nullptr);
  // Decoding back to Latin-1 restores any text.
  std::mt19937 rng(11);
  for (int i = 0; i < 2000; ++i) {
    std::string in = RandomBytes(rng, 12);
    if (in.empty()) in = "x";
    const std::string utf8 = Conv(upnp_util_convert_enhanced_ascii_to_utf8, in);
    ASSERT_EQ(Conv(upnp_strdup_from_utf8, utf8), in);
  }
}

TEST_F(UtilEncoding, ShiftJisGuessAndMissingConversion) {
  EXPECT_TRUE(upnp_util_is_shift_jis("abc\x82xyz"));
  EXPECT_FALSE(upnp_util_is_shift_jis("abc\xE9"));
  EXPECT_FALSE(upnp_util_is_shift_jis("ab\xE9\xE9"));  // 2 of 4 is not more than half
  EXPECT_FALSE(upnp_util_is_shift_jis("\x80"));  // 0x80 counts for neither rule
  EXPECT_FALSE(upnp_util_is_shift_jis(nullptr));
  EXPECT_EQ(upnp_util_convert_shift_jis_to_utf8("\x82\xA0"), nullptr);
}

TEST_F(UtilEncoding, NextCharStopsAtTheTerminator) {
  const char* s = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  const char* p = s;
  for (int step : {1, 2, 3, 4}) {
    const char* next = upnp_utf8_next_char(p);
    EXPECT_EQ(next - p, step);
    p = next;
  }
  const char* cut = "\xF0\x9F";
  EXPECT_EQ(upnp_utf8_next_char(cut), cut + 2);
  EXPECT_EQ(upnp_utf8_next_char(cut + 2), cut + 2);
  EXPECT_EQ(upnp_utf8_next_char(nullptr), nullptr);
}

TEST_F(UtilEncoding, SortKeysAndAccentInsensitiveOrder) {
  const std::string keys =
      "AAAAAZACEEEEIIII-NOOOOOOOUUUU---"
      "AAAAAZACEEEEIIII-NOOOOOOOUUUU---";
  for (int i = 0; i < 64; ++i) {
    const int expected = keys[i] == '-' ? 0xC3 : keys[i];
    EXPECT_EQ(upnp_get_urf8_sortchar(0xC3, 0x80 + i), expected) << std::hex << 0xC0 + i;
  }
  EXPECT_EQ(upnp_get_urf8_sortchar(0xC2, 0xA9), 0xC2);

  EXPECT_EQ(upnp_utf8_stricmp("Dog", "\xC3\x89" "clair"), -1);
  EXPECT_EQ(upnp_utf8_stricmp("\xC3\x89" "clair", "Fig"), -1);
  EXPECT_EQ(upnp_utf8_stricmp("\xC3\x85re", "Zoo"), 1);
  EXPECT_EQ(upnp_utf8_stricmp("\xC3\xA9t\xC3\xA9", "ETE"), 0);
  EXPECT_EQ(upnp_utf8_stricmp("abc", "ABCD"), -1);
  EXPECT_EQ(upnp_utf8_stricmp("abcd", "ABC"), 1);
  EXPECT_EQ(upnp_utf8_stricmp("\xE2\x82\xAC", "\xE2\x84\xA2"), 0);  // same lead, unmapped
  EXPECT_EQ(upnp_utf8_stricmp(nullptr, "a"), -1);
  EXPECT_EQ(upnp_utf8_stricmp(nullptr, nullptr), 0);
  EXPECT_EQ(upnp_utf8_stricmp("x\xC3", "X\xC3"), 0);  // a lead cut short by the end
}

TEST_F(UtilEncoding, Utf8ToUtf16WritesLittleEndianUnits) {
  uint8_t* u = upnp_string_utf8_to_utf16("A\xC3\xA9\xE2\x82\xAC");
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(Utf16Bytes(u), (std::vector<uint8_t>{0x41, 0, 0xE9, 0, 0xAC, 0x20, 0, 0}));
  upnp_free_impl(u);
  // Four-byte forms: three bytes make one unit, the fourth byte starts a character of its own
  // (a two-byte one, like every lead below 0xE0).
  u = upnp_string_utf8_to_utf16("\xF0\x9F\x98\x80" "b");
  EXPECT_EQ(Utf16Bytes(u), (std::vector<uint8_t>{0xD8, 0x07, 0x22, 0x00, 0, 0}));
  upnp_free_impl(u);
  u = upnp_string_utf8_to_utf16("\xF0\x9F\x98\x80");
  EXPECT_EQ(Utf16Bytes(u), (std::vector<uint8_t>{0xD8, 0x07, 0, 0}));
  upnp_free_impl(u);
  // A sequence cut short by the end ends the text.
  u = upnp_string_utf8_to_utf16("x\xE2\x82");
  EXPECT_EQ(Utf16Bytes(u), (std::vector<uint8_t>{'x', 0, 0, 0}));
  upnp_free_impl(u);
  EXPECT_EQ(upnp_string_utf8_to_utf16(nullptr), nullptr);
}

TEST_F(UtilEncoding, Utf16ToUtf8FollowsTheByteOrderMarkToggle) {
  EXPECT_EQ(FromUtf16({0x41, 0, 0, 0}), "A");
  EXPECT_EQ(FromUtf16({0xFF, 0xFE, 0, 0x41, 0, 0}), "A");    // FF FE: swapped from here on
  EXPECT_EQ(FromUtf16({0xFE, 0xFF, 0x41, 0, 0, 0}), "A");    // reads as U+FFFE: mode kept
  EXPECT_EQ(FromUtf16({0xFF, 0xFE, 0xFE, 0xFF, 0x41, 0, 0, 0}), "A");  // toggled back
  EXPECT_EQ(FromUtf16({0xE9, 0, 0xAC, 0x20, 0x3D, 0xD8, 0, 0}),
            "\xC3\xA9\xE2\x82\xAC\xED\xA0\xBD");  // a lone surrogate as three bytes
  EXPECT_EQ(FromUtf16({0xFF, 0x07, 0x00, 0x08, 0x7F, 0, 0x80, 0, 0, 0}),
            "\xDF\xBF\xE0\xA0\x80\x7F\xC2\x80");
  EXPECT_EQ(upnp_string_utf16_to_utf8(nullptr), nullptr);

  // Every BMP character that is not a mark survives the trip out and back.
  std::mt19937 rng(3);
  for (int i = 0; i < 500; ++i) {
    std::vector<uint8_t> in;
    for (int k = 0; k < 8; ++k) {
      uint16_t unit = static_cast<uint16_t>(1 + rng() % 0xFFFE);
      if (unit == 0xFEFF || unit == 0xFFFE) unit = 'x';
      in.push_back(static_cast<uint8_t>(unit));
      in.push_back(static_cast<uint8_t>(unit >> 8));
    }
    in.push_back(0);
    in.push_back(0);
    const std::string utf8 = FromUtf16(in);
    uint8_t* back = upnp_string_utf8_to_utf16(utf8.c_str());
    ASSERT_EQ(Utf16Bytes(back), in);
    upnp_free_impl(back);
  }
}

TEST_F(UtilEncoding, HexadecimalNumbers) {
  for (int c = 0; c < 256; ++c) {
    int expected = 0;
    if (c >= '0' && c <= '9') expected = c - '0';
    if (c >= 'a' && c <= 'f') expected = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') expected = c - 'A' + 10;
    EXPECT_EQ(hexchar_to_i(c), expected) << c;
  }
  EXPECT_EQ(upnp_hexStringToNumber("1fF", 16), 0x1FFu);
  EXPECT_EQ(upnp_hexStringToNumber("123456789abcdef0", 16), 0x123456789ABCDEF0u);
  EXPECT_EQ(upnp_hexStringToNumber("123456789", 4), 0x1234u);
  EXPECT_EQ(upnp_hexStringToNumber("12g4", 16), 0x12u);
  EXPECT_EQ(upnp_hexStringToNumber(nullptr, 8), 0u);
  EXPECT_EQ(upnp_hexToi("FFFFFFFFF"), 0xFFFFFFFFu);
  EXPECT_EQ(upnp_hexStringToLong("123456789"), 0x12345678u);
}

TEST_F(UtilEncoding, Base64PaddingRulesAndTolerantDecoding) {
  EXPECT_EQ(Conv(upnp_string_to_base64, "ab"), "YWI");  // deliberately unpadded
  EXPECT_EQ(Conv(upnp_string_to_base64, "a"), "YQ==");
  EXPECT_EQ(Conv(upnp_string_to_base64, "abc"), "YWJj");
  EXPECT_EQ(Owned(upnp_bin_to_base64("ab", 2)).str(), "YWI=");
  EXPECT_EQ(Owned(upnp_bin_to_base64("a\0\xFF\xFE", 4)).str(), "YQD//g==");
  EXPECT_EQ(upnp_bin_to_base64(nullptr, 3), nullptr);

  EXPECT_EQ(Conv(upnp_string_from_base64, "YW\r\nI="), "ab");
  EXPECT_EQ(Conv(upnp_string_from_base64, "Y W J j"), "abc");
  EXPECT_EQ(Conv(upnp_string_from_base64, "YQ==YWJj"), "a");  // '=' ends the data
  EXPECT_EQ(Conv(upnp_string_from_base64, "Y"), "");
  EXPECT_EQ(Conv(upnp_string_from_base64, "!!!"), "");

  // Both encoders' forms decode back; random junk never writes past the buffer.
  std::mt19937 rng(5);
  for (int i = 0; i < 2000; ++i) {
    const std::string in = RandomBytes(rng, 20);
    ASSERT_EQ(Conv(upnp_string_from_base64, Conv(upnp_string_to_base64, in)), in);
    Owned bin(upnp_bin_to_base64(in.data(), static_cast<uint32_t>(in.size())));
    ASSERT_EQ(bin.str().size() % 4, 0u);
    ASSERT_EQ(Conv(upnp_string_from_base64, bin.str()), in);
    Conv(upnp_string_from_base64, RandomBytes(rng, 20));
  }
}

TEST_F(UtilEncoding, UrlEncodingUsesItsOwnSafeSet) {
  EXPECT_EQ(Owned(upnp_string_to_encoded_url("a b/c", 0)).str(), "a%20b%2Fc");
  EXPECT_EQ(Owned(upnp_string_to_encoded_url("$.:?@_AZaz09", 1)).str(), "$.:?@_AZaz09");
  EXPECT_EQ(Owned(upnp_string_to_encoded_url("-~&=+%", 1)).str(), "%2D%7E%26%3D%2B%25");
  EXPECT_EQ(Owned(upnp_string_to_encoded_url("caf\xE9", 0)).str(), "caf%E9");
  EXPECT_EQ(Owned(upnp_string_to_encoded_url("caf\xC3\xA9", 1)).str(), "caf%E9");
  // Other leads fold the same way and are escaped as they come; lone bytes stay themselves.
  EXPECT_EQ(Owned(upnp_string_to_encoded_url("\xE2\x82\xAC", 1)).str(), "%E2%AC");
  EXPECT_EQ(Owned(upnp_string_to_encoded_url("\xC3", 1)).str(), "%C3");
  EXPECT_EQ(upnp_string_to_encoded_url(nullptr, 1), nullptr);
  // Long texts outgrow the initial 1024 bytes.
  const std::string spaces(700, ' ');
  std::string escaped;
  for (int i = 0; i < 700; ++i) escaped += "%20";
  EXPECT_EQ(Owned(upnp_string_to_encoded_url(spaces.c_str(), 1)).str(), escaped);

  EXPECT_EQ(Conv(upnp_string_from_encoded_url, "a+b%41%"), "a bA");
  EXPECT_EQ(Conv(upnp_string_from_encoded_url, "%4"), "4");
  EXPECT_EQ(Conv(upnp_string_from_encoded_url, "%zz%e9"), "");  // "%zz" decodes to a NUL
  EXPECT_EQ(Conv(upnp_string_from_encoded_url, "x%G1y"), "x\x01y");
  EXPECT_EQ(upnp_string_from_encoded_url(nullptr), nullptr);

  std::mt19937 rng(9);
  for (int i = 0; i < 2000; ++i) {
    const std::string in = RandomBytes(rng, 16, false);
    const std::string enc = Owned(upnp_string_to_encoded_url(in.c_str(), 1)).str();
    ASSERT_EQ(Conv(upnp_string_from_encoded_url, enc), in);
  }
}

TEST_F(UtilEncoding, RemoveIllegalChars) {
  EXPECT_EQ(Owned(upnp_remove_illegal_chars("a<b>c\"d", "<>\"")).str(), "abcd");
  EXPECT_EQ(Owned(upnp_remove_illegal_chars("abc", nullptr)).str(), "abc");
  EXPECT_EQ(Owned(upnp_remove_illegal_chars("abc", "")).str(), "abc");
  EXPECT_EQ(upnp_remove_illegal_chars(nullptr, "a"), nullptr);
}

TEST_F(UtilEncoding, FailedAllocationsGiveNull) {
  const char* in = "x\xC3\xA9 y%41+";
  const std::function<void*()> single_allocation[] = {
      [&] { return upnp_strdup_from_utf8(in); },
      [&] { return upnp_strdup_to_utf8(in); },
      [&] { return upnp_util_convert_enhanced_ascii_to_utf8(in); },
      [&] { return upnp_string_utf8_to_utf16(in); },
      [&] { return upnp_string_utf16_to_utf8(reinterpret_cast<const uint8_t*>("A\0\0")); },
      [&] { return upnp_string_from_base64(in); },
      [&] { return upnp_string_to_base64(in); },
      [&] { return upnp_bin_to_base64(in, 3); },
      [&] { return upnp_string_from_encoded_url(in); },
      [&] { return upnp_remove_illegal_chars(in, "y"); },
  };
  for (const auto& op : single_allocation) {
    tw::platform::FailAllocAfter(0);
    EXPECT_EQ(op(), nullptr);
    EXPECT_TRUE(tw::platform::AllocFailureFired());
  }
  // URL encoding allocates in several steps: each failing one gives null and leaks nothing.
  for (int n = 0; n < 16; ++n) {
    tw::platform::FailAllocAfter(n);
    char* url = upnp_string_to_encoded_url(in, 0);
    const bool fired = tw::platform::AllocFailureFired();
    tw::platform::ClearAllocFailure();
    EXPECT_EQ(url == nullptr, fired) << n;
    if (url != nullptr) upnp_free_impl(url);
    if (!fired) break;
  }
}

}  // namespace
