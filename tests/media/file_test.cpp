// SPDX-License-Identifier: Apache-2.0

#include "platform/file_handle.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

class MediaFile : public LeakCheck {
 protected:
  std::string Path(const std::string& name) const { return tmp_.File(name); }
  TempDir tmp_;
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
  WriteFile(Path("g"), "one\n\ntwo and more\nlast");
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
    WriteFile(Path("src"), data);
    WriteFile(Path("dst"), std::string(n + 100, 'z'));  // longer old destination
    EXPECT_EQ(upnp_file_copy(Path("src").c_str(), Path("dst").c_str()), 0) << n;
    EXPECT_EQ(ReadFile(Path("dst")), data) << n;
    EXPECT_EQ(upnp_file_copy(Path("src").c_str(), Path("src").c_str()), 0) << n;
    EXPECT_EQ(ReadFile(Path("src")), data) << "copied onto itself, " << n;
  }
  EXPECT_EQ(upnp_file_copy(Path("missing").c_str(), Path("d2").c_str()), -1);
  EXPECT_FALSE(FileExists(Path("d2")));
  EXPECT_EQ(upnp_file_copy(Path("src").c_str(), Path("no/dir").c_str()), -1);
}

// Parts of 10, 0, 25 and 7 bytes: one logical file of 42.
TEST_F(MediaFile, MultiPartReadsAndSeeksAcrossParts) {
  const std::string whole = Pattern(42);
  const size_t lengths[] = {10, 0, 25, 7};
  upnp_file* f = nullptr;
  for (size_t i = 0, at = 0; i < 4; at += lengths[i++]) {
    const std::string path = Path("part" + std::to_string(i));
    WriteFile(path, whole.substr(at, lengths[i]));
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
  WriteFile(Path("grow"), "");
  char buf[4];
  upnp_file* plain = upnp_file_open_read(Path("grow").c_str());
  ASSERT_NE(plain, nullptr);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(upnp_mediafile_read(plain, buf, sizeof buf), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(45))
      << "an incomplete file retries an empty read after 50 ms";
  WriteFile(Path("grow"), "abcdef");
  EXPECT_EQ(upnp_mediafile_seek(plain, -2, UPNP_FILE_SEEK_END), 4);
  EXPECT_EQ(upnp_mediafile_read(plain, buf, sizeof buf), 2);
  upnp_file_close(plain);
  upnp_stat st{};
  EXPECT_EQ(upnp_mediafile_stat(Path("grow").c_str(), &st), 0);
  EXPECT_EQ(st.size, 6u);
  EXPECT_NE(upnp_mediafile_stat(Path("missing").c_str(), &st), 0);
}

class MediaPath : public LeakCheck {
 protected:
  // top/{a, d1/{b, link -> out, d2/{c}}, empty/}; out/keep lies outside the tree.
  void MakeTree() {
    for (const char* d : {"top", "top/d1", "top/d1/d2", "top/empty", "out"}) {
      ASSERT_EQ(mkdir(tmp_.File(d).c_str(), 0755), 0);
    }
    for (const char* f : {"top/a", "top/d1/b", "top/d1/d2/c", "out/keep"}) {
      WriteFile(tmp_.File(f), "x");
    }
    ASSERT_EQ(symlink(tmp_.File("out").c_str(), tmp_.File("top/d1/link").c_str()), 0);
  }
  TempDir tmp_;
};

TEST_F(MediaPath, BuildAndFullPath) {
  EXPECT_EQ(Str(upnp_file_build_path("dir/", "/name")), "dir/name");
  EXPECT_EQ(Str(upnp_file_build_path("c:\\dir\\", "\\x")), "c:\\dir/x");
  EXPECT_EQ(Str(upnp_file_build_path("dir//", "//name")), "dir///name");  // one each side only
  EXPECT_EQ(upnp_file_build_path("", "name"), nullptr);
  EXPECT_EQ(upnp_file_build_path("dir", nullptr), nullptr);
  EXPECT_EQ(Str(upnp_file_fullpath("c:\\a\\b/c")), "c:/a/b/c");
  EXPECT_EQ(upnp_file_fullpath(nullptr), nullptr);
}

TEST_F(MediaPath, SplitPath) {
  const char* const kNull = nullptr;
  const struct {
    const char *path, *dir, *name;
  } cases[] = {
      {"a/b/c.txt", "a/b", "c.txt"},  {"a/b\\c.txt", "a/b", "c.txt"}, {"a/b/", "a/b", kNull},
      {"c:\\x.ini", "c:\\", "x.ini"}, {"c:\\", "c:\\", kNull},        {"c:\\d\\x", "c:\\d", "x"},
      {"plain", "plain", "plain"},    {"/root", "/root", "/root"},    {"", kNull, kNull},
  };
  for (const auto& c : cases) {
    char* dir = reinterpret_cast<char*>(1);
    char* name = reinterpret_cast<char*>(1);
    upnp_file_split_path(c.path, &dir, &name);
    EXPECT_EQ(Str(dir) + "|" + Str(name),
              std::string(c.dir ? c.dir : "<null>") + "|" + (c.name ? c.name : "<null>"))
        << c.path;
  }
  char* only = nullptr;
  upnp_file_split_path("a/b", nullptr, &only);
  EXPECT_EQ(Str(only), "b");
}

TEST_F(MediaPath, CreatePathMakesEachLevel) {
  ASSERT_EQ(mkdir(tmp_.File("x").c_str(), 0755), 0);
  EXPECT_EQ(upnp_file_create_path(tmp_.File("x/y/z").c_str()), 0);
  EXPECT_EQ(upnp_file_create_path((tmp_.path() + "\\b1\\b2\\").c_str()), 0);
  EXPECT_EQ(upnp_file_ensure_path_exists(tmp_.File("x/y/z").c_str()), 0);
  EXPECT_EQ(upnp_is_file(tmp_.File("x/y/z").c_str()), 0);
  EXPECT_EQ(upnp_file_exists(tmp_.File("b1/b2").c_str()), 1);
  EXPECT_EQ(upnp_file_create_path(""), -1);

  WriteFile(tmp_.File("file"), "x");
  EXPECT_EQ(upnp_is_file(tmp_.File("file").c_str()), 1);
  EXPECT_EQ(upnp_file_create_path(tmp_.File("file/sub/leaf").c_str()), -1);
}

TEST_F(MediaPath, TreeRemovalsNeverFollowLinks) {
  MakeTree();
  upnp_file_empty_dir(tmp_.File("top/d1").c_str());
  EXPECT_FALSE(FileExists(tmp_.File("top/d1/b")));
  EXPECT_FALSE(FileExists(tmp_.File("top/d1/link")));
  EXPECT_TRUE(FileExists(tmp_.File("top/d1/d2/c")));
  upnp_file_remove_dir_sub_tree(tmp_.File("top").c_str());
  EXPECT_TRUE(FileExists(tmp_.File("top")));
  EXPECT_FALSE(FileExists(tmp_.File("top/a")) || FileExists(tmp_.File("top/d1")) ||
               FileExists(tmp_.File("top/empty")));
  ASSERT_EQ(symlink(tmp_.File("out").c_str(), tmp_.File("top/link").c_str()), 0);
  upnp_file_remove_dir_tree(tmp_.File("top").c_str());
  EXPECT_FALSE(FileExists(tmp_.File("top")));
  EXPECT_TRUE(FileExists(tmp_.File("out/keep")));
  upnp_file_remove_dir_tree(nullptr);
}

TEST_F(MediaPath, BackgroundRemovalFinishesAndFreesItsCopy) {
  MakeTree();
  upnp_file_remove_dir_tree_background(tmp_.File("top").c_str());
  upnp_file_remove_dir_tree_background("");
  // The thread frees its copy of the name after the tree is gone (the fixture checks the memory).
  EXPECT_TRUE(WaitFor([&] { return !FileExists(tmp_.File("top")) && upnp_mem_used() == start_; }));
  EXPECT_TRUE(FileExists(tmp_.File("out/keep")));
}

}  // namespace
