// SPDX-License-Identifier: Apache-2.0
// The shared folder as objects: IDs that no trick turns into a path outside the folder, and
// the change detection behind SystemUpdateID.
#include "library.h"

#include <string>
#include <vector>

#include "support/test_support.h"

namespace tw::test {
namespace {

using mediaserver::IdOfRelativePath;

TEST(MediaLibrary, IdsAreHexOfPlainRelativePathsOnly) {
  for (const char* relative :
       {"Music", "Music/a b & c.mp3", "\xc3\xa9t\xc3\xa9/x.jpg", "a/b/c/d"}) {
    std::string back;
    const std::string id = IdOfRelativePath(relative);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    ASSERT_TRUE(mediaserver::RelativePathOfId(id, &back)) << relative;
    EXPECT_EQ(back, relative);
  }
  std::string root = "x";
  EXPECT_TRUE(mediaserver::RelativePathOfId("0", &root));
  EXPECT_EQ(root, "");
  struct Bad {
    const char* what;
    std::string id;
  } bad[] = {
      {"empty", ""},
      {"odd length", "4d7"},
      {"upper case", "4D75"},
      {"not hex", "zz"},
      {"parent", IdOfRelativePath("..")},
      {"parent inside", IdOfRelativePath("a/../b")},
      {"current", IdOfRelativePath("./a")},
      {"absolute", IdOfRelativePath("/etc/passwd")},
      {"empty component", IdOfRelativePath("a//b")},
      {"trailing slash", IdOfRelativePath("a/")},
      {"hidden", IdOfRelativePath("a/.ssh")},
      {"backslash", IdOfRelativePath("a\\..\\b")},
      {"NUL", "6100"},
  };
  for (const Bad& b : bad) {
    std::string relative = "untouched";
    EXPECT_FALSE(mediaserver::RelativePathOfId(b.id, &relative)) << b.what;
  }
}

TEST(MediaLibrary, ChangesRaiseTheUpdateIdAndDepthIsCapped) {
  TempDir folder;
  WriteFile(folder.File("a.mp3"), "a");
  mediaserver::SetSharedFolder(folder.path() + "/", "Root");
  EXPECT_FALSE(mediaserver::CheckForChanges());  // the first look only takes the picture
  const uint32_t first = mediaserver::SystemUpdateId();
  EXPECT_FALSE(mediaserver::CheckForChanges());
  // Within the same second as the first look: names count, not only directory times.
  WriteFile(folder.File("b.mp3"), "b");
  EXPECT_TRUE(mediaserver::CheckForChanges());
  EXPECT_EQ(mediaserver::SystemUpdateId(), first + 1);
  std::filesystem::create_directories(folder.File("x/y"));
  WriteFile(folder.File("x/y/c.jpg"), "c");
  EXPECT_TRUE(mediaserver::CheckForChanges());
  std::filesystem::remove(folder.File("x/y/c.jpg"));
  EXPECT_TRUE(mediaserver::CheckForChanges());
  EXPECT_EQ(mediaserver::SystemUpdateId(), first + 3);

  // A listed item is found again without a walk, until a change shows it became a link.
  mediaserver::Object object;
  std::vector<mediaserver::Object> listed;
  ASSERT_TRUE(mediaserver::FindObject("0", &object));
  ASSERT_TRUE(mediaserver::ListChildren(object, &listed));
  ASSERT_TRUE(mediaserver::FindObject(IdOfRelativePath("a.mp3"), &object));
  EXPECT_EQ(object.size, 1);
  std::filesystem::remove(folder.File("a.mp3"));
  std::filesystem::create_symlink("/etc/passwd", folder.File("a.mp3"));
  EXPECT_TRUE(mediaserver::CheckForChanges());
  EXPECT_FALSE(mediaserver::FindObject(IdOfRelativePath("a.mp3"), &object));
  std::filesystem::remove(folder.File("a.mp3"));
  WriteFile(folder.File("a.mp3"), "a");
  EXPECT_TRUE(mediaserver::CheckForChanges());
  EXPECT_EQ(mediaserver::SystemUpdateId(), first + 5);

  ASSERT_TRUE(mediaserver::FindObject("0", &object));
  EXPECT_EQ(object.title, "Root");
  EXPECT_EQ(object.path, folder.path());
  EXPECT_EQ(object.child_count, 3);  // x, a, b
  // Folders nested deeper than the cap are neither listed nor reachable.
  std::string deep;
  for (int i = 0; i < 40; ++i) deep += (deep.empty() ? "" : "/") + std::string("d");
  std::filesystem::create_directories(folder.File(deep));
  WriteFile(folder.File(deep + "/e.mp3"), "e");
  EXPECT_FALSE(mediaserver::FindObject(IdOfRelativePath(deep + "/e.mp3"), &object));
  ASSERT_TRUE(mediaserver::FindObject(IdOfRelativePath("d"), &object));
  std::vector<mediaserver::Object> items;
  mediaserver::ListItemsBelow(object, 100, &items);
  EXPECT_TRUE(items.empty());
}

}  // namespace
}  // namespace tw::test
