// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include "platform/file_handle.h"
#include "support/test_support.h"

namespace {

class MediaFile : public tw::test::LeakCheck {
 protected:
  std::string Path(const std::string& name) const { return tmp_.File(name); }
  tw::test::TempDir tmp_;
};

std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 131 + i / 251);
  return s;
}

TEST_F(MediaFile, OpenWriteAppendReadAndEof) {
  upnp_file* w = upnp_file_open_write(Path("f").c_str());
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(upnp_file_write(w, "abc", 3), 3);
  upnp_file_close(w);
  upnp_file* a = upnp_file_open_append(Path("f").c_str());
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(upnp_file_write(a, "de", 2), 2);
  upnp_file_close(a);
  upnp_file* r = upnp_file_open_read(Path("f").c_str());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->size, 5u);
  char buf[8];
  EXPECT_EQ(upnp_file_eof(r), 0);
  EXPECT_EQ(upnp_file_read(r, buf, 8), 5);
  EXPECT_EQ(upnp_file_eof(r), 1);
  // keep_open frees the handle but the descriptor stays usable.
  const int fd = r->descriptor;
  upnp_file_keep_open(r);
  EXPECT_EQ(pread(fd, buf, 2, 3), 2);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(upnp_file_open_read(Path("missing").c_str()), nullptr);
  EXPECT_EQ(upnp_file_open_write(Path("no/dir").c_str()), nullptr);
  EXPECT_EQ(upnp_file_open_write(nullptr), nullptr);
}

TEST_F(MediaFile, GetsKeepsTheLineFeedAndStandsBehindIt) {
  tw::test::WriteFile(Path("g"), "one\n\ntwo and more\nlast");
  upnp_file* f = upnp_file_open_read(Path("g").c_str());
  ASSERT_NE(f, nullptr);
  char buf[8];
  std::string lines;
  for (int i = 0; i < 20 && upnp_file_gets(buf, sizeof buf, f) != nullptr; ++i) {
    lines += std::string(buf) + "|";
  }
  // A line longer than the buffer comes in pieces of size - 1 bytes.
  EXPECT_EQ(lines, "one\n|\n|two and| more\n|last|");
  ASSERT_EQ(upnp_file_seek(f, 0, UPNP_FILE_SEEK_SET), 0);
  ASSERT_NE(upnp_file_gets(buf, sizeof buf, f), nullptr);
  EXPECT_EQ(upnp_file_seek(f, 0, UPNP_FILE_SEEK_CUR), 4);
  EXPECT_EQ(upnp_file_gets(buf, 1, f), nullptr);
  upnp_file_close(f);
}

TEST_F(MediaFile, CopyAroundTheBlockSize) {
  for (size_t n : {0u, 8191u, 8192u, 8193u, 3u * 8192u + 5u}) {
    const std::string data = Pattern(n);
    tw::test::WriteFile(Path("src"), data);
    tw::test::WriteFile(Path("dst"), std::string(n + 100, 'z'));  // longer old destination
    EXPECT_EQ(upnp_file_copy(Path("src").c_str(), Path("dst").c_str()), 0) << n;
    EXPECT_EQ(tw::test::ReadFile(Path("dst")), data) << n;
    EXPECT_EQ(upnp_file_copy(Path("src").c_str(), Path("src").c_str()), 0) << n;
    EXPECT_EQ(tw::test::ReadFile(Path("src")), data) << "copied onto itself, " << n;
  }
  EXPECT_EQ(upnp_file_copy(Path("missing").c_str(), Path("d2").c_str()), -1);
  EXPECT_FALSE(tw::test::FileExists(Path("d2")));
  EXPECT_EQ(upnp_file_copy(Path("src").c_str(), Path("no/dir").c_str()), -1);
}

// Parts of 10, 0, 25 and 7 bytes: one logical file of 42.
TEST_F(MediaFile, MultiPartReadsAndSeeksAcrossParts) {
  const std::string whole = Pattern(42);
  const size_t lengths[] = {10, 0, 25, 7};
  upnp_file* f = nullptr;
  for (size_t i = 0, at = 0; i < 4; at += lengths[i++]) {
    const std::string path = Path("part" + std::to_string(i));
    tw::test::WriteFile(path, whole.substr(at, lengths[i]));
    if (f == nullptr) f = upnp_mediafile_open_read(path.c_str());
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(upnp_mediafile_add_part(f, path.c_str(), lengths[i]), 0);
  }
  EXPECT_EQ(f->complete, 1);
  EXPECT_EQ(f->size, 42u);
  std::string got(64, '\0');
  EXPECT_EQ(upnp_mediafile_read(f, got.data(), 64), 42);
  EXPECT_EQ(got.substr(0, 42), whole);
  EXPECT_EQ(upnp_mediafile_read(f, got.data(), 8), 0);
  // Each row starts where the previous one left off (after reading 2 bytes at its target).
  const struct {
    int64_t offset;
    int32_t whence;
    int64_t target;
  } seeks[] = {{5, UPNP_FILE_SEEK_SET, 5},   {10, UPNP_FILE_SEEK_SET, 10},
               {-1, UPNP_FILE_SEEK_END, 41}, {-32, UPNP_FILE_SEEK_CUR, 10},
               {25, UPNP_FILE_SEEK_CUR, 37}, {0, UPNP_FILE_SEEK_SET, 0}};
  for (const auto& s : seeks) {
    ASSERT_EQ(upnp_mediafile_seek(f, s.offset, s.whence), s.target);
    const size_t expect = std::min<size_t>(2, 42 - s.target);
    ASSERT_EQ(upnp_mediafile_read(f, got.data(), 2), static_cast<int32_t>(expect));
    EXPECT_EQ(got.substr(0, expect), whole.substr(s.target, expect)) << s.target;
  }
  EXPECT_EQ(upnp_mediafile_seek(f, -50, UPNP_FILE_SEEK_END), -1);
  EXPECT_EQ(upnp_mediafile_seek(f, INT64_MAX, UPNP_FILE_SEEK_END), -1);
  // A part that has gone missing ends reads and seeks into it, nothing else.
  ASSERT_EQ(unlink(Path("part2").c_str()), 0);
  ASSERT_EQ(upnp_mediafile_seek(f, 0, UPNP_FILE_SEEK_SET), 0);
  EXPECT_EQ(upnp_mediafile_read(f, got.data(), 64), 10);
  EXPECT_EQ(upnp_mediafile_seek(f, 15, UPNP_FILE_SEEK_SET), -1);
  EXPECT_EQ(upnp_mediafile_seek(f, 40, UPNP_FILE_SEEK_SET), 40);
  EXPECT_EQ(upnp_mediafile_read(f, got.data(), 64), 2);
  tw::platform::FailAllocAfter(1);  // the path copy of the part: nothing half-added leaks
  EXPECT_EQ(upnp_mediafile_add_part(f, "x", 1), 8);
  tw::platform::ClearAllocFailure();
  upnp_file_close(f);
}

TEST_F(MediaFile, IncompleteFileRetriesOnceAndStat) {
  tw::test::WriteFile(Path("grow"), "");
  char buf[4];
  upnp_file* plain = upnp_file_open_read(Path("grow").c_str());
  ASSERT_NE(plain, nullptr);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(upnp_mediafile_read(plain, buf, sizeof buf), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(45))
      << "an incomplete file retries an empty read after 50 ms";
  tw::test::WriteFile(Path("grow"), "abcdef");
  EXPECT_EQ(upnp_mediafile_seek(plain, -2, UPNP_FILE_SEEK_END), 4);
  EXPECT_EQ(upnp_mediafile_read(plain, buf, sizeof buf), 2);
  upnp_file_close(plain);
  upnp_stat st{};
  EXPECT_EQ(upnp_mediafile_stat(Path("grow").c_str(), &st), 0);
  EXPECT_EQ(st.size, 6u);
  EXPECT_NE(upnp_mediafile_stat(Path("missing").c_str(), &st), 0);
}

}  // namespace
