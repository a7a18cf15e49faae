// SPDX-License-Identifier: Apache-2.0
// File names, embedded URLs, IP addresses, lists, grouped allocations, command lines, hex dumps.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tarnwick/util.h"
#include "util/util_fixture.h"

namespace {

using tw::test::Owned;
using Args = std::vector<std::string>;

using tw::test::ForEachAllocFailure;

class UtilHelpersFormat : public tw::test::UtilTest {};

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

TEST_F(UtilHelpersFormat, ExtensionsTitlesAndSafeNames) {
  const char* names[][3] = {{"C:\\music\\a.b.mp3", "a.b", "mp3"},
                            {"/x/.mp3", "No Title", "mp3"},
                            {"a\\b/c.d", "c", "d"},
                            {"x/y\\plain", "plain", "bin"}};
  for (const auto& n : names) {
    EXPECT_EQ(Owned(upnp_build_title_from_filename(n[0])).str(), n[1]) << n[0];
    EXPECT_EQ(Owned(upnp_get_extension(n[0])).str(), n[2]) << n[0];
  }
  EXPECT_EQ(Owned(upnp_get_extension(nullptr)).str(), "bin");

  EXPECT_EQ(Owned(upnp_remove_bad_chars("a b/c\\d?e:f*g<h")).str(), "a#b#c#d#e#f#g<h");
  std::string name = "a/b\\c*d?e<f>g:h|i\"j k";
  upnp_util_convert_string_to_filename(name.data(), 9);  // only the first 9 bytes
  EXPECT_EQ(name, "a#b#c#d#e<f>g:h|i\"j k");
  upnp_util_convert_string_to_filename(name.data(), name.size());
  EXPECT_EQ(name, "a#b#c#d#e#f#g#h#i#j k");
}

TEST_F(UtilHelpersFormat, EmbeddedUrlsRoundTripThroughTheProxyPath) {
  Owned url(upnp_util_create_embedded_url("http://h:9000", "a b/c.mp3", "mp3"));
  EXPECT_EQ(url.str(), "http://h:9000/httpproxy/embeddeda%20b%2Fc.mp3.mp3");
  Owned target(upnp_util_get_embedded_url(url.get()));
  EXPECT_EQ(Owned(upnp_string_from_encoded_url(target.get())).str(), "a b/c.mp3");

  EXPECT_EQ(Owned(upnp_util_create_embedded_url("http://h/", "x", "mpeg4")).str(),
            "http://h/httpproxy/embeddedx");  // 5-byte extension: left out
  EXPECT_EQ(Owned(upnp_util_create_embedded_url(nullptr, "x", "")).str(), "httpproxy/embeddedx");
  EXPECT_EQ(upnp_util_create_embedded_url("b", nullptr, "x"), nullptr);
  EXPECT_EQ(Owned(upnp_util_get_embedded_url("/httpproxy/embeddedname.jpeg")).str(), "name.jpeg");
  EXPECT_EQ(upnp_util_get_embedded_url("/other/name.mp3"), nullptr);

  // Out of memory at any step: null, never a truncated URL.
  ForEachAllocFailure([] { return upnp_util_create_embedded_url("http://h:9000", "a b", "mp3"); },
                      [](char* r, bool fired) {
                        EXPECT_EQ(Owned(r).str(),
                                  fired ? "<null>" : "http://h:9000/httpproxy/embeddeda%20b.mp3");
                      });
}

TEST_F(UtilHelpersFormat, IpAddressesAreFoundInsideText) {
  uint32_t offset = 99, length = 99;
  const char* text = "http://192.168.1.20:9000/x";
  EXPECT_EQ(upnp_extract_ipaddress(text, &offset, &length), text + 7);
  EXPECT_EQ(offset, 7u);
  EXPECT_EQ(length, 12u);
  EXPECT_EQ(Owned(upnp_copy_ipaddress("ip=10.0.0.1..;")).str(), "10.0.0.1");
  EXPECT_EQ(Owned(upnp_copy_ipaddress("..7")).str(), "7");
  EXPECT_EQ(upnp_extract_ipaddress("no digits.", &offset, &length), nullptr);
  EXPECT_EQ(offset + length, 0u);
}

TEST_F(UtilHelpersFormat, CsvSplitKeepsEmptyFields) {
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
  uint32_t count = 7;
  for (int n = 0; n < 4; ++n) {
    tw::platform::FailAllocAfter(n);
    EXPECT_EQ(util_split_csv_split("a,b,c", &count), nullptr);
    EXPECT_EQ(count, 0u);
  }
}

TEST_F(UtilHelpersFormat, GroupAllocationIsAllOrNothing) {
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
  for (int n = 0; n < 3; ++n) {
    tw::platform::FailAllocAfter(n);
    EXPECT_EQ(upnp_group_malloc(2, &a, uint32_t{8}, &b, uint32_t{8}), nullptr);
    EXPECT_EQ(a, nullptr);
  }
  EXPECT_EQ(
      upnp_group_malloc_get_num(0, &a, uint32_t{8}, &b, uint32_t{4}, static_cast<void**>(nullptr)),
      2);
  EXPECT_EQ(upnp_group_malloc_get_num(0, &a, uint32_t{8}, &b, uint32_t{0}), 1);
}

TEST_F(UtilHelpersFormat, ArgvIsWrittenAndSplitBack) {
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

  int32_t argc = -1;
  ForEachAllocFailure([&] { return kt_util_create_argv_str("a b c", &argc); },
                      [&](char** argv, bool fired) {
                        EXPECT_TRUE(!fired || (argv == nullptr && argc == 0));
                        kt_util_release_argv_str(argv);
                      });
}

TEST_F(UtilHelpersFormat, HexDumpBreaksLinesEverySixteenBytes) {
  std::FILE* out = std::tmpfile();
  ASSERT_NE(out, nullptr);
  std::vector<uint8_t> bytes(17);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 15);
  ASSERT_EQ(upnp_hexdump(bytes.data(), 17, out, 2), 0);
  ASSERT_EQ(upnp_hexdump(bytes.data(), 16, out, 0), 0);
  std::rewind(out);
  std::string dump(512, '\0');
  dump.resize(std::fread(dump.data(), 1, dump.size(), out));
  std::fclose(out);
  const std::string row = "00 0F 1E 2D 3C 4B 5A 69 78 87 96 A5 B4 C3 D2 E1 ";
  EXPECT_EQ(dump, "  " + row + "\n  F0 \n" + row + "\n");
  EXPECT_EQ(upnp_hexdump(bytes.data(), 0, stdout, 0), -1);
  EXPECT_EQ(upnp_hexdump(bytes.data(), 1, nullptr, 0), -1);
}

}  // namespace
