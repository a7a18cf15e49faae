// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>
#include <unistd.h>

#include "support/test_support.h"

namespace {

using tw::test::FileExists;
using tw::test::Owned;

class MediaPath : public tw::test::LeakCheck {
 protected:
  // top/{a, d1/{b, link -> out, d2/{c}}, empty/}; out/keep lies outside the tree.
  void MakeTree() {
    for (const char* d : {"top", "top/d1", "top/d1/d2", "top/empty", "out"}) {
      ASSERT_EQ(mkdir(tmp_.File(d).c_str(), 0755), 0);
    }
    for (const char* f : {"top/a", "top/d1/b", "top/d1/d2/c", "out/keep"}) {
      tw::test::WriteFile(tmp_.File(f), "x");
    }
    ASSERT_EQ(symlink(tmp_.File("out").c_str(), tmp_.File("top/d1/link").c_str()), 0);
  }
  tw::test::TempDir tmp_;
};

std::string Str(char* p) { return Owned(p).str(); }

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
    Owned d(dir), n(name);
    EXPECT_EQ(d.str(), c.dir != nullptr ? c.dir : "<null>") << c.path;
    EXPECT_EQ(n.str(), c.name != nullptr ? c.name : "<null>") << c.path;
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

  tw::test::WriteFile(tmp_.File("file"), "x");
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
  EXPECT_TRUE(tw::test::WaitFor(
      [&] { return !FileExists(tmp_.File("top")) && upnp_mem_used() == start_; }));
  EXPECT_TRUE(FileExists(tmp_.File("out/keep")));
}

}  // namespace
