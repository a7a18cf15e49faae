// SPDX-License-Identifier: Apache-2.0

#include "platform/file_handle.h"
#include "platform/folders_internal.h"
#include "platform/fs_internal.h"
#include "support/test_support.h"

namespace {

using namespace tw::test;

upnp_stat Stat(const std::string& path) {
  upnp_stat st{};
  EXPECT_EQ(upnp_file_stat(path.c_str(), &st), 0) << path;
  return st;
}

void WriteAndClose(int32_t fd, const std::string& text) {
  EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close_file(fd);
}

class PlatformFs : public LeakCheck {
 protected:
  ~PlatformFs() override { umask(old_umask_); }
  std::string File(const char* name) { return dir_.File(name); }
  const mode_t old_umask_ = umask(0);  // modes as the library asks for them
  TempDir dir_;
};

TEST_F(PlatformFs, RawOpensStatTouchAndNameChanges) {
  const std::string file = File("f"), sub = File("sub");
  WriteAndClose(open_write(file.c_str()), "hello");
  WriteAndClose(open_write(file.c_str()), "ab");
  EXPECT_EQ(ReadFile(file), "abllo") << "overwritten in place, not cut";
  WriteAndClose(open_append(file.c_str()), "!");
  EXPECT_EQ(ReadFile(file), "abllo!");
  EXPECT_EQ(open_read(nullptr) + open_write(nullptr) + open_append(nullptr), -3);
  EXPECT_EQ(Stat(file).mode & (UPNP_S_IFMT | 0777), UPNP_S_IFREG | 0644u);
  ASSERT_EQ(upnp_file_touch(file.c_str(), 1234567890), 0);
  EXPECT_EQ(Stat(file).mtime, 1234567890);
  ASSERT_EQ(upnp_file_touch(file.c_str(), 0), 0);
  EXPECT_LE(std::abs(Stat(file).mtime - std::time(nullptr)), 2) << "0 means now";
  const bool wide = sizeof(time_t) == 8;  // a 32-bit time_t cannot reach 2100 (documented)
  EXPECT_EQ(upnp_file_touch(file.c_str(), 4102444800), wide ? 0 : -1);
  EXPECT_EQ(Stat(file).mtime == 4102444800, wide);
  upnp_stat st{};
  EXPECT_EQ(upnp_file_stat(nullptr, &st) + upnp_file_stat(file.c_str(), nullptr), -2);

  ASSERT_EQ(upnp_file_mkdir(sub.c_str()), 0);
  EXPECT_EQ(Stat(sub).mode & (UPNP_S_IFMT | 0777), UPNP_S_IFDIR | 0777u);
  ASSERT_EQ(upnp_file_rename(file.c_str(), (sub + "/g").c_str()), 0);
  EXPECT_EQ(upnp_file_unlink((sub + "/g").c_str()) + upnp_dir_unlink(sub.c_str()), 0);
  EXPECT_EQ(upnp_file_mkdir(nullptr) + upnp_file_rename(nullptr, "x") + upnp_file_unlink(nullptr) +
                upnp_dir_unlink(nullptr) + upnp_file_touch(nullptr, 1),
            -5);
  char path[] = "a\\b/c\\\\d";
  to_unix_path(path);
  EXPECT_STREQ(path, "a/b/c//d");
}

TEST_F(PlatformFs, HandleCallsTrackThePosition) {
  const std::string path = File("handle");
  upnp_file* out = upnp_open_shared_write(path.c_str());
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(upnp_file_write(out, "0123456789", 10), 10);
  EXPECT_EQ(upnp_file_flush(out), 0);
  char buf[16] = {};
  EXPECT_EQ(upnp_file_read(out, buf, 1), -1) << "write-only";
  EXPECT_EQ(out->position, 0u) << "writes and failed reads leave the position alone";
  const int64_t far = (int64_t{5} << 30) + 3;  // beyond 32 bits (sparse file)
  EXPECT_EQ(upnp_file_seek(out, far, SEEK_SET), far);
  EXPECT_EQ(out->position, static_cast<uint64_t>(far));
  EXPECT_EQ(upnp_file_write(out, "z", 1), 1);
  EXPECT_EQ(Stat(path).size, static_cast<uint64_t>(far) + 1);
  ASSERT_EQ(ftruncate(out->descriptor, 10), 0);
  close_file(out->descriptor);
  upnp_free_impl(out);

  upnp_file in{};
  in.descriptor = open_read(path.c_str());
  // Reads move the position, at the end they read 0; a failed seek keeps the position.
  const int64_t results[] = {upnp_file_read(&in, buf, 4), upnp_file_seek(&in, -2, SEEK_END),
                             upnp_file_read(&in, buf + 4, 8), upnp_file_read(&in, buf, 8),
                             upnp_file_seek(&in, -100, SEEK_CUR)};
  EXPECT_THAT(results, ElementsAre(4, 8, 2, 0, -1));
  EXPECT_EQ(std::string(buf, 6), "012389");
  EXPECT_EQ(in.position, 10u);
  close_file(in.descriptor);
  EXPECT_EQ(upnp_open_shared_write(File("no/dir").c_str()), nullptr);
  EXPECT_EQ(upnp_file_read(nullptr, buf, 1) + upnp_file_write(nullptr, buf, 1) +
                upnp_file_seek(nullptr, 0, 0) + upnp_file_flush(nullptr),
            -4);
}

// Name -> "dir link" flags of every visible entry; each path must be `base`/name.
std::map<std::string, std::string> List(const std::string& path, const std::string& base) {
  std::map<std::string, std::string> found;
  for (upnp_find_handle* h = upnp_file_find_first_file(path.c_str()); h != nullptr;
       h = upnp_file_find_next_file(h)) {
    const std::string name = upnp_file_find_get_name(h);
    EXPECT_EQ(upnp_file_find_get_path(h), base + "/" + name);
    found[name] =
        std::to_string(upnp_file_find_is_dir(h)) + std::to_string(upnp_file_find_is_link(h));
  }
  return found;
}

TEST_F(PlatformFs, ListingSkipsHiddenEntriesAndFlagsDirectoriesAndLinks) {
  const std::string& d = dir_.path();
  WriteFile(d + "/.hidden", "h");
  ASSERT_EQ(mkdir((d + "/lost+found").c_str(), 0755), 0);
  EXPECT_EQ(upnp_file_find_first_file(d.c_str()), nullptr) << "nothing visible: no handle";
  WriteFile(d + "/file", "1");
  ASSERT_EQ(mkdir((d + "/dir").c_str(), 0755), 0);
  ASSERT_EQ(
      symlink("dir", (d + "/dirlink").c_str()) + symlink("nowhere", (d + "/dangling").c_str()), 0);
  const std::map<std::string, std::string> expected = {
      {"file", "00"}, {"dir", "10"}, {"dirlink", "11"}, {"dangling", "01"}};
  EXPECT_EQ(List(d, d), expected);
  EXPECT_EQ(List(d + "/", d), expected) << "one trailing slash is dropped from the base";
  for (const char* refused : {"/proc/1", "/proc", "/no/such/dir"}) {
    EXPECT_EQ(upnp_file_find_first_file(refused), nullptr) << refused;
  }
  upnp_find_handle* root = upnp_file_find_first_file("/");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(upnp_file_find_get_path(root), "/" + std::string(upnp_file_find_get_name(root)));
  upnp_file_find_close(root);  // before the end: frees everything (checked by the fixture)
}

TEST_F(PlatformFs, ListingUnderMemoryShortageEndsEarlyWithoutLeaks) {
  for (const char* name : {"f0", "f1", "f2"}) WriteFile(File(name), "x");
  ForEachAllocFailure([&] { return List(dir_.path(), dir_.path()).size(); },
                      [](size_t seen, bool failed) { EXPECT_EQ(seen < 3, failed); });
}

TEST_F(PlatformFs, DiskInfoInKilobytes) {
  EXPECT_EQ(tw::platform::KilobytesOf(1536, 2), 2u) << "block size divided first";
  EXPECT_EQ(tw::platform::KilobytesOf(512, 1000), 0u) << "small blocks count 0 (intended)";
  const char* d = dir_.path().c_str();
  uint64_t total = 0, free_kb = 0, total2 = 7, free2 = 7;
  ASSERT_EQ(upnp_get_disk_info(d, &total, &free_kb), 0);
  EXPECT_GT(total, 0u);
  EXPECT_LE(free_kb, total);
  EXPECT_EQ(upnp_get_disk_info(d, nullptr, &free_kb), 2);
  EXPECT_EQ(upnp_get_disk_info(File("missing").c_str(), &total, &free_kb), 14);
  ASSERT_EQ(getdiskinfo(d, &total2, nullptr), 0);
  EXPECT_EQ(total2, total);
  EXPECT_EQ(getdiskinfo("", &total2, &free2), -1);
  EXPECT_EQ(total2 + free2, 0u) << "outputs cleared first";
}

TEST_F(PlatformFs, FoldersForRootUnknownAndKnownUsers) {
  using tw::platform::MediaDirFor;
  EXPECT_EQ(Str(tw::platform::AppDataDirFor(nullptr)), "/var/tarnwick");
  EXPECT_EQ(Str(tw::platform::AppDataDirFor("/home/ann")), "/home/ann/.tarnwick");
  EXPECT_EQ(Str(MediaDirFor(nullptr, "/sdcard/", "music")), "/sdcard/tarnwick/music");
  EXPECT_EQ(Str(MediaDirFor(nullptr, "D:\\m\\", "music")), "D:\\m\\tarnwick/music");
  EXPECT_EQ(Str(MediaDirFor(nullptr, nullptr, "music")), "/tarnwick/music");
  EXPECT_EQ(Str(MediaDirFor("/home/ann", "/sdcard", "pictures")), "/home/ann/tarnwick/pictures");
  EXPECT_EQ(Str(getPathExpandSpecialFolders("%MUSIC%")), "%MUSIC%") << "nothing is expanded";
}

}  // namespace
