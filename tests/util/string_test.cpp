// SPDX-License-Identifier: Apache-2.0
#include <cstdarg>

#include "support/test_support.h"

namespace {

using namespace tw::test;

class UtilString : public LeakCheck {};

std::string Text(const upnp_string* s) {
  return s != nullptr && s->buffer != nullptr ? std::string(s->buffer, s->length) : "<null>";
}

// "capacity:text" of s (only the text when with_capacity is false); s is freed.
std::string Take(upnp_string* s, bool with_capacity = true) {
  std::string r = Text(s);
  if (s != nullptr && with_capacity) r = std::to_string(s->capacity) + ":" + r;
  upnp_string_free(s);
  return r;
}

upnp_string* Format(const char* format, ...) TW_PRINTF(1, 2);
upnp_string* Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  upnp_string* s = upnp_string_vsprintf(format, args);
  va_end(args);
  return s;
}

TEST_F(UtilString, GrowthRules) {
  const std::string x300(300, 'x'), y1000(1000, 'y');
  // 3 + 256 first; then doubling beats 3 + 300 + 1, and one large append gets exactly its size.
  EXPECT_EQ(Take(upnp_string_concat(upnp_string_concat(nullptr, "abc"), x300.c_str())),
            "518:abc" + x300);
  EXPECT_EQ(Take(upnp_string_concat(upnp_string_concat(nullptr, "abc"), y1000.c_str())),
            "1004:abc" + y1000);
  EXPECT_EQ(Take(upnp_string_add(upnp_string_create("123456789", 10), "0", 1)), "20:1234567890");
  upnp_string* s = upnp_string_concat(nullptr, nullptr);
  EXPECT_EQ(upnp_string_concat(s, ""), s);
  EXPECT_TRUE(upnp_string_is_empty(s));
  EXPECT_EQ(s->capacity, 256u);
  upnp_string_safe_free(&s);
  EXPECT_EQ(s, nullptr);
  upnp_string_safe_free(&s);
  // Converting appends reserve twice the converted length. {capacity, n, result}: 2n below
  // capacity - 1 stays in place; else doubling when twice the capacity holds length + n + 1
  // (even if 2n does not fit), else length + 2n + 1.
  s = upnp_string_concat_and_convert(nullptr, "caf\xC3\xA9", 0);
  EXPECT_EQ(Take(upnp_string_concat_and_convert(s, "\xE9", 1)), "256:caf\xE9\xC3\xA9");
  const uint32_t cases[][3] = {{20, 9, 20}, {20, 10, 40}, {10, 15, 20}, {10, 25, 51}};
  for (const auto& c : cases) {
    const std::string add(c[1], 'q');
    EXPECT_EQ(Take(upnp_string_concat_and_convert(upnp_string_create("", c[0]), add.c_str(), 1)),
              std::to_string(c[2]) + ":" + add);
  }
}

TEST_F(UtilString, AddKeepsEmbeddedZerosAndConcatStringCopiesThem) {
  upnp_string* s = upnp_string_add(nullptr, "a\0b", 3);
  EXPECT_EQ(std::memcmp(s->buffer, "a\0b\0", 4), 0);
  EXPECT_EQ(upnp_string_add(s, nullptr, 5), s);
  EXPECT_EQ(Take(upnp_string_concat_string(nullptr, s), false), std::string("a\0b", 3));
  upnp_string* empty = upnp_string_concat(nullptr, "");
  EXPECT_EQ(upnp_string_concat_string(s, empty), s);
  EXPECT_EQ(Str(upnp_string_copy_cstring(s)), "a");  // a C copy ends at the zero
  upnp_string_free(empty);
  EXPECT_EQ(Take(s, false), std::string("a\0b", 3));
}

TEST_F(UtilString, VsprintfRetriesWithALargerScratchAndCopiedArguments) {
  const std::string long_arg(5000, 'z');
  EXPECT_EQ(Take(Format("%d-%s-%d", 7, long_arg.c_str(), 9)), "5260:7-" + long_arg + "-9");
  // 4095 bytes fit the first scratch of 4096, 4096 bytes need the next; memory may run out at
  // any step.
  for (const std::string& arg : {std::string(4095, 'a'), std::string(4096, 'b')}) {
    ForEachAllocFailure(
        [&] { return Format("%s", arg.c_str()); },
        [&](upnp_string* r, bool failed) { EXPECT_EQ(Take(r, false), failed ? "<null>" : arg); });
  }
  // Called through plain pointers to get past format checking: a null format formats nothing.
  upnp_string* (*unchecked_sprintf)(upnp_string*, const char*, ...) = upnp_string_sprintf;
  upnp_string* kept = upnp_string_sprintf(nullptr, "%s=%u", "port", 9000u);
  EXPECT_EQ(unchecked_sprintf(kept, nullptr), kept);
  kept = upnp_string_sprintf(kept, ";%x", 255);
  const std::string log = Logged(UPNP_LOG_SYSTEM, [&] {
    tw::platform::FailAllocAfter(0);
    EXPECT_EQ(upnp_string_sprintf(kept, "value %s", "lost"), kept);
  });
  EXPECT_EQ(Take(kept, false), "port=9000;ff");
  EXPECT_THAT(log, testing::HasSubstr("upnp_string_vsprintf - out of memory value %s"));
}

TEST_F(UtilString, CutAndShiftLeftTrimTheEnds) {
  upnp_string* s = upnp_string_concat(nullptr, "abcdef");
  EXPECT_EQ(Text(upnp_string_cut(s, 2)), "abcd");
  EXPECT_EQ(Text(upnp_string_shift_left(s, 1)), "bcd");
  EXPECT_EQ(s->buffer[3], '\0');
  EXPECT_EQ(Text(upnp_string_shift_left(s, 0)), "bcd");
  EXPECT_EQ(Text(upnp_string_shift_left(s, 3)), "");
  s = upnp_string_concat(s, "xyz");
  EXPECT_EQ(Text(upnp_string_cut(s, 3)), "");
  EXPECT_EQ(s->buffer[0], '\0');
  EXPECT_EQ(upnp_string_cut(nullptr, 1), nullptr);
  EXPECT_EQ(upnp_string_shift_left(nullptr, 1), nullptr);
  EXPECT_EQ(Take(s), "262:");  // shrinking never gives memory back
}

TEST_F(UtilString, ReplaceWorksLeftToRightWithoutOverlap) {
  const std::string many(40, '&');  // more growth than the work string is sized for
  std::string expect;
  for (int i = 0; i < 40; ++i) expect += "&amp;";
  const char* text = "abc";
  const std::pair<char*, std::string> cases[] = {
      {upnp_string_replace("aaa", "aa", "b"), "ba"},
      {upnp_string_replace("xx", "x", "xx"), "xxxx"},  // no re-scan
      {upnp_string_replace(many.c_str(), "&", "&amp;"), expect},
      {upnp_string_replace_or_copy(text, "", "y", 1), "abc"},
      {upnp_string_delete("x-y-z", "-"), "xyz"},
      {upnp_string_append("ab", "cd"), "abcd"},
      {upnp_string_append("", "cd"), "cd"},
      {upnp_string_append("ab", nullptr), "ab"},
      {upnp_string_append(nullptr, nullptr), "<null>"},
  };
  for (const auto& [got, want] : cases) EXPECT_EQ(Str(got), want);

  char* copy = upnp_string_replace(text, "x", "y");
  EXPECT_NE(copy, text);
  EXPECT_EQ(Str(copy), "abc");
  EXPECT_EQ(upnp_string_replace_or_copy(text, "x", "y", 0), text);
  EXPECT_EQ(upnp_string_replace_or_copy(nullptr, "x", "y", 1), nullptr);
  EXPECT_EQ(Take(upnp_string_replace2(upnp_string_concat(nullptr, "one two two"), "two", "2")),
            "263:one 2 2");
  // Deliberate: a null replacement or needle frees the record (the leak check proves it).
  EXPECT_EQ(upnp_string_replace2(upnp_string_concat(nullptr, "a"), "x", nullptr), nullptr);
  EXPECT_EQ(upnp_string_replace2(upnp_string_concat(nullptr, "a"), nullptr, "y"), nullptr);
}

TEST_F(UtilString, CaseInsensitiveSearchesIgnoreAsciiCaseOnly) {
  EXPECT_TRUE(upnp_starts_with("Content-Type: x", "content-type"));
  EXPECT_TRUE(upnp_starts_with("abc", ""));
  EXPECT_FALSE(upnp_starts_with("ab", "abc"));
  EXPECT_FALSE(upnp_starts_with("\xC4x", "\xE4"));  // no case mapping beyond ASCII
  EXPECT_FALSE(upnp_starts_with(nullptr, "a"));
  EXPECT_TRUE(upnp_ends_with("movie.MP4", ".mp4"));
  EXPECT_FALSE(upnp_ends_with("abc", ""));
  EXPECT_FALSE(upnp_ends_with("bc", "abc"));
  EXPECT_EQ(upnp_istrstr("Hello", ""), nullptr);
  EXPECT_EQ(upnp_istrstr(nullptr, "a"), nullptr);
  const std::string big(1030, 'n');
  EXPECT_EQ(upnp_istrstr(big.c_str(), std::string(1024, 'N').c_str()), big.c_str());
  EXPECT_EQ(upnp_istrstr(big.c_str(), std::string(1025, 'n').c_str()), nullptr);
  // Agreement with the C library's search on every text is a property of fuzz_encodings.
}

TEST_F(UtilString, SeparatorsWhiteSpaceAndCharacterTables) {
  EXPECT_EQ(upnp_string_find_separator("key=value;x", ";="), 3);
  EXPECT_EQ(upnp_string_find_separator("plain", ";="), 5);
  EXPECT_EQ(upnp_string_find_separator(nullptr, ";"), -1);
  char text[] = "value \t\r\n";
  EXPECT_STREQ(upnp_string_strip_trailing_whitespaces(text), "value");
  char vt[] = "v\v";
  EXPECT_STREQ(upnp_string_strip_trailing_whitespaces(vt), "v\v");  // VT is not white space
  const char* p = " \t\r\nx y";
  EXPECT_EQ(upnp_skip_white_space(p), p + 4);
  EXPECT_EQ(upnp_find_name_end("dlna.org_pn-1+x"), 13u);
  EXPECT_EQ(upnp_find_value_end("a+b,c/d e"), 7u);
  EXPECT_EQ(upnp_find_value_end(nullptr), 0u);
  const std::string classes = Results(
      [](const char* c) {
        const int b = static_cast<unsigned char>(*c);
        return std::to_string(upnp_tolower(b)) + "/" + std::to_string(upnp_toupper(b)) +
               std::to_string(upnp_is_white_space(b)) + std::to_string(upnp_is_valid_name_char(b)) +
               std::to_string(upnp_is_valid_value_char(b));
      },
      {"A", "z", "\xC4", "\v", "\t", "-", "+", "/", "@"});
  EXPECT_EQ(classes,
            "97/65011,122/90011,196/196000,11/11000,9/9100,45/45011,43/43001,47/47001,64/64000,");
  EXPECT_EQ(upnp_toupper(-1), 0);
  EXPECT_EQ(upnp_tolower(-61), -61);  // outside the table: returned, never read out of bounds
}

TEST_F(UtilString, FailedAllocationsGiveNullAndLeakNothing) {
  // A failed growth loses the text but leaves a record that can still be freed.
  upnp_string* s = upnp_string_create("abc", 4);
  tw::platform::FailAllocAfter(0);
  s = upnp_string_concat(s, "defgh");
  EXPECT_EQ(upnp_string_get_cstring(s), nullptr);
  EXPECT_EQ(s->length, 8u);
  EXPECT_EQ(s->capacity, 9u);
  EXPECT_EQ(upnp_string_add(s, "x", 1), s);  // outside the contract, but harmless
  upnp_string_free(s);
}

}  // namespace
