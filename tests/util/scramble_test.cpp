// SPDX-License-Identifier: Apache-2.0
#include "util/scramble.h"

#include <cctype>

#include "support/test_support.h"

namespace {

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

class UtilScramble : public tw::test::LeakCheck {};

TEST_F(UtilScramble, KnownFormsAndEveryKeyAndLengthRoundTrips) {
  // 'A' + 1 = 0x42, written "42", rotated left by 1 mod 2; bytes wrap modulo 256 both ways.
  EXPECT_EQ(Scramble("A", 1), "::124");
  EXPECT_EQ(Scramble("A", 0), "::041");
  EXPECT_EQ(Scramble("\xff", 2), "::201");
  EXPECT_EQ(Decrypt("::201"), "\xff");
  std::string plain;
  for (int i = 0; i < 128; ++i) plain.push_back(static_cast<char>(1 + (i * 37) % 255));
  for (uint32_t key = 0; key < 16; ++key) {
    for (size_t length : {1, 2, 7, 128}) {
      const std::string text = plain.substr(0, length);
      const std::string scrambled = Scramble(text, key);
      ASSERT_EQ(scrambled.size(), 3 + 2 * length);
      EXPECT_EQ(scrambled.substr(0, 2), "::");
      for (char c : scrambled.substr(2)) EXPECT_TRUE(std::isxdigit(c) && !std::islower(c)) << c;
      EXPECT_EQ(Decrypt(scrambled), text) << "key " << key << " length " << length;
    }
  }
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
