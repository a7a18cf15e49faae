// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <map>
#include <string>

#include "platform/file_handle.h"
#include "platform/folders_internal.h"
#include "platform/fs_internal.h"
#include "platform/test_hooks.h"
#include "support/test_support.h"
#include "tarnwick/platform.h"

namespace {

using tw::test::Owned;
using tw::test::ReadFile;
using tw::test::WriteFile;

mode_t Umask() {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}

class PlatformFs : public tw::test::LeakCheck {
 protected:
  std::string File(const char* name) { return dir_.File(name); }
  tw::test::TempDir dir_;
};

TEST_F(PlatformFs, RawOpensCreateWithoutTruncatingAndAppend) {
  const std::string path = File("raw");
  int fd = open_write(path.c_str());
  ASSERT_EQ(write(fd, "hello", 5), 5);
  close_file(fd);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u & ~Umask());
  fd = open_write(path.c_str());
  ASSERT_EQ(write(fd, "ab", 2), 2);
  close_file(fd);
  EXPECT_EQ(ReadFile(path), "abllo") << "overwritten in place, not cut";
  fd = open_append(path.c_str());
  ASSERT_EQ(write(fd, "!", 1), 1);
  close_file(fd);
  EXPECT_EQ(ReadFile(path), "abllo!");
  EXPECT_EQ(open_read(File("missing").c_str()), -1);
  EXPECT_EQ(open_read(nullptr) + open_write(nullptr) + open_append(nullptr), -3);
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
  // Offsets beyond 32 bits (sparse file).
  const int64_t far = (int64_t{5} << 30) + 3;
  EXPECT_EQ(upnp_file_seek(out, far, SEEK_SET), far);
  EXPECT_EQ(out->position, static_cast<uint64_t>(far));
  EXPECT_EQ(upnp_file_write(out, "z", 1), 1);
  upnp_stat st{};
  ASSERT_EQ(upnp_file_stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.size, static_cast<uint64_t>(far) + 1);
  ASSERT_EQ(ftruncate(out->descriptor, 10), 0);
  close_file(out->descriptor);
  upnp_free_impl(out);

  upnp_file in{};
  in.descriptor = open_read(path.c_str());
  EXPECT_EQ(upnp_file_read(&in, buf, 4), 4);
  EXPECT_EQ(std::string(buf), "0123");
  EXPECT_EQ(upnp_file_seek(&in, -2, SEEK_END), 8);
  EXPECT_EQ(upnp_file_read(&in, buf, 16), 2);
  EXPECT_EQ(upnp_file_read(&in, buf, 16), 0);
  EXPECT_EQ(in.position, 10u);
  EXPECT_EQ(upnp_file_seek(&in, -100, SEEK_CUR), -1);
  EXPECT_EQ(in.position, 10u) << "a failed seek keeps the position";
  close_file(in.descriptor);
  EXPECT_EQ(upnp_open_shared_write(File("no/dir").c_str()), nullptr);
  EXPECT_EQ(upnp_file_read(nullptr, buf, 1) + upnp_file_write(nullptr, buf, 1) +
                upnp_file_seek(nullptr, 0, 0) + upnp_file_flush(nullptr),
            -4);
}

TEST_F(PlatformFs, StatTouchAndNameChanges) {
  const std::string file = File("f");
  WriteFile(file, "12345");
  upnp_stat st{};
  ASSERT_EQ(upnp_file_stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.size, 5u);
  EXPECT_EQ(st.mode & UPNP_S_IFMT, UPNP_S_IFREG);
  ASSERT_EQ(upnp_file_touch(file.c_str(), 1234567890), 0);
  ASSERT_EQ(upnp_file_stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.mtime, 1234567890);
  ASSERT_EQ(upnp_file_touch(file.c_str(), 0), 0);
  ASSERT_EQ(upnp_file_stat(file.c_str(), &st), 0);
  EXPECT_LE(std::abs(st.mtime - static_cast<int64_t>(std::time(nullptr))), 2) << "0 means now";
  if (sizeof(time_t) == 8) {
    ASSERT_EQ(upnp_file_touch(file.c_str(), 4102444800), 0);  // 2100-01-01
    ASSERT_EQ(upnp_file_stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.mtime, 4102444800);
  } else {
    EXPECT_EQ(upnp_file_touch(file.c_str(), 4102444800), -1) << "documented 32-bit limit";
  }
  EXPECT_EQ(upnp_file_stat(nullptr, &st) + upnp_file_stat(file.c_str(), nullptr), -2);
  EXPECT_EQ(upnp_file_stat(File("missing").c_str(), &st), -1);

  const std::string sub = File("sub");
  ASSERT_EQ(upnp_file_mkdir(sub.c_str()), 0);
  ASSERT_EQ(upnp_file_stat(sub.c_str(), &st), 0);
  EXPECT_EQ(st.mode & UPNP_S_IFMT, UPNP_S_IFDIR);
  EXPECT_EQ(st.mode & 0777, 0777u & ~Umask());
  ASSERT_EQ(upnp_file_rename(file.c_str(), (sub + "/g").c_str()), 0);
  EXPECT_EQ(upnp_dir_unlink(sub.c_str()), -1) << "not empty";
  EXPECT_EQ(upnp_file_unlink((sub + "/g").c_str()) + upnp_dir_unlink(sub.c_str()), 0);
  EXPECT_FALSE(tw::test::FileExists(sub));
  EXPECT_EQ(upnp_file_mkdir(nullptr) + upnp_file_rename(nullptr, "x") + upnp_file_unlink(nullptr) +
                upnp_dir_unlink(nullptr) + upnp_file_touch(nullptr, 1),
            -5);
  char path[] = "a\\b/c\\\\d";
  to_unix_path(path);
  EXPECT_STREQ(path, "a/b/c//d");
}

using Listing = std::map<std::string, std::string>;  // name -> "path dir link"

Listing List(const std::string& path) {
  Listing found;
  for (upnp_find_handle* h = upnp_file_find_first_file(path.c_str()); h != nullptr;
       h = upnp_file_find_next_file(h)) {
    found[upnp_file_find_get_name(h)] = std::string(upnp_file_find_get_path(h)) + " " +
                                        std::to_string(upnp_file_find_is_dir(h)) + " " +
                                        std::to_string(upnp_file_find_is_link(h));
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
  ASSERT_EQ(symlink("dir", (d + "/dirlink").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", (d + "/dangling").c_str()), 0);
  const Listing expected = {{"file", d + "/file 0 0"},
                            {"dir", d + "/dir 1 0"},
                            {"dirlink", d + "/dirlink 1 1"},
                            {"dangling", d + "/dangling 0 1"}};
  EXPECT_EQ(List(d), expected);
  EXPECT_EQ(List(d + "/"), expected) << "one trailing slash is dropped from the base";

  for (const char* refused : {"/proc/1", "/proc", "/no/such/dir"}) {
    EXPECT_EQ(upnp_file_find_first_file(refused), nullptr) << refused;
  }

  upnp_find_handle* root = upnp_file_find_first_file("/");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(std::string(upnp_file_find_get_path(root)),
            std::string("/") + upnp_file_find_get_name(root));
  upnp_file_find_close(root);  // before the end: frees everything (checked by the fixture)
}

TEST_F(PlatformFs, ListingUnderMemoryShortageEndsEarlyWithoutLeaks) {
  for (const char* name : {"f0", "f1", "f2"}) WriteFile(File(name), "x");
  for (int n = 0; n < 12; ++n) {
    tw::platform::FailAllocAfter(n);
    const size_t seen = List(dir_.path()).size();
    const bool fired = tw::platform::AllocFailureFired();
    tw::platform::ClearAllocFailure();
    EXPECT_EQ(seen < 3, fired) << "n=" << n;
  }
}

TEST_F(PlatformFs, DiskInfoInKilobytes) {
  EXPECT_EQ(tw::platform::KilobytesOf(1536, 2), 2u) << "block size divided first";
  EXPECT_EQ(tw::platform::KilobytesOf(512, 1000), 0u) << "small blocks count 0 (intended)";
  struct statvfs vfs;
  ASSERT_EQ(statvfs(dir_.path().c_str(), &vfs), 0);
  uint64_t total = 0, free_kb = 0;
  ASSERT_EQ(upnp_get_disk_info(dir_.path().c_str(), &total, &free_kb), 0);
  EXPECT_EQ(total, static_cast<uint64_t>(vfs.f_bsize / 1024) * vfs.f_blocks);
  EXPECT_LE(free_kb, total);
  EXPECT_EQ(upnp_get_disk_info(dir_.path().c_str(), nullptr, &free_kb), 2);
  EXPECT_EQ(upnp_get_disk_info(File("missing").c_str(), &total, &free_kb), 14);

  uint64_t total2 = 7, free2 = 7;
  ASSERT_EQ(getdiskinfo(dir_.path().c_str(), &total2, nullptr), 0);
  EXPECT_EQ(total2, total);
  EXPECT_EQ(getdiskinfo("", &total2, &free2), -1);
  EXPECT_EQ(total2 + free2, 0u) << "outputs cleared first";
}

TEST_F(PlatformFs, FoldersForRootUnknownAndKnownUsers) {
  using tw::platform::MediaDirFor;
  EXPECT_EQ(Owned(tw::platform::AppDataDirFor(nullptr)).str(), "/var/tarnwick");
  EXPECT_EQ(Owned(tw::platform::AppDataDirFor("/home/ann")).str(), "/home/ann/.tarnwick");
  EXPECT_EQ(Owned(MediaDirFor(nullptr, "/sdcard/", "music")).str(), "/sdcard/tarnwick/music");
  EXPECT_EQ(Owned(MediaDirFor(nullptr, "D:\\m\\", "music")).str(), "D:\\m\\tarnwick/music");
  EXPECT_EQ(Owned(MediaDirFor(nullptr, nullptr, "music")).str(), "/tarnwick/music");
  EXPECT_EQ(Owned(MediaDirFor("/home/ann", "/sdcard", "pictures")).str(),
            "/home/ann/tarnwick/pictures");

  std::string home;  // the running user, as the public calls see it
  const passwd* pw = getuid() != 0 ? getpwuid(getuid()) : nullptr;
  if (pw != nullptr && pw->pw_dir != nullptr) home = pw->pw_dir;
  const std::string media = home.empty() ? "/sdcard/tarnwick" : home + "/tarnwick";
  EXPECT_EQ(Owned(getAppDataDir()).str(), home.empty() ? "/var/tarnwick" : home + "/.tarnwick");
  EXPECT_EQ(Owned(getMyVideoDir("/sdcard")).str(), media + "/videos");
  EXPECT_EQ(Owned(getPathExpandSpecialFolders("%MUSIC%")).str(), "%MUSIC%");
  tw::platform::FailAllocAfter(0);
  EXPECT_EQ(getMyMusicDir("/sdcard/"), nullptr);
  tw::platform::ClearAllocFailure();
}

}  // namespace
