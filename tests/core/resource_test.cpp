// SPDX-License-Identifier: Apache-2.0
#include "core/resource.h"

#include "support/test_support.h"

namespace {

using namespace tw::test;

std::string g_getter_name;

int HostGetter(const char* name, uint32_t* size_out, void** data_out) {
  g_getter_name = name;
  if (std::string(name) != "host.bin") return 0;
  auto* data = static_cast<char*>(upnp_malloc_impl(3));
  std::memcpy(data, "abc", 3);
  *size_out = 3;
  *data_out = data;
  return 1;
}

class ServerResource : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    std::filesystem::create_directory(dir_.File("resources"));
    upnp_resource_init();
  }
  void TearDown() override {
    register_upnp_resource_get_function(nullptr);
    upnp_resource_exit();
    LeakCheck::TearDown();
  }
  void Put(const std::string& name, const std::string& bytes) {
    WriteFile(dir_.File("resources/" + name), bytes);
  }
  // The delivered bytes (plus the two bytes behind them when `with_tail`), or "<none>".
  std::string Get(std::string name, bool with_tail = false) {
    uint32_t size = 77;
    void* data = reinterpret_cast<void*>(1);
    if (!tw::core::GetResource(dir_.path().c_str(), name.data(), &size, &data)) return "<none>";
    std::string bytes(static_cast<char*>(data), size + (with_tail ? 2 : 0));
    upnp_free_impl(data);
    return bytes;
  }
  TempDir dir_;
};

TEST_F(ServerResource, OnlyKnownExtensionsAreCached) {
  // Two zero bytes behind; the last dot's text counts; empty files are delivered, never cached.
  const char* const names[] = {"icon.png", "v1.2.xml", "readme.html", "upper.PNG", "noext"};
  for (const char* name : names) Put(name, "one");
  Put("empty.xml", "");
  for (const char* name : names) EXPECT_EQ(Get(name, true), std::string("one\0\0", 5)) << name;
  EXPECT_EQ(Get("empty.xml", true), std::string("\0\0", 2));
  for (const char* name : names) Put(name, "two");
  Put("empty.xml", "now");
  std::string name = "icon.png?x";  // the query is cut off in place
  uint32_t size = 0;
  void* data = nullptr;
  ASSERT_TRUE(tw::core::GetResource(dir_.path().c_str(), name.data(), &size, &data));
  EXPECT_EQ(name, std::string("icon.png\0x", 10));
  EXPECT_EQ(std::string(static_cast<char*>(data), size), "one");
  upnp_free_impl(data);
  EXPECT_EQ(
      Get("v1.2.xml") + Get("readme.html") + Get("upper.PNG") + Get("noext") + Get("empty.xml"),
      "onetwotwotwonow");
}

TEST_F(ServerResource, FullCacheStillDeliversAndLogs) {
  const std::string log = Logged(UPNP_LOG_SYSTEM, [&] {
    for (size_t i = 0; i <= tw::core::kResourceCacheEntries; ++i) {
      Put("f" + std::to_string(i) + ".txt", "v1");
      EXPECT_EQ(Get("f" + std::to_string(i) + ".txt"), "v1");
    }
  });
  EXPECT_THAT(log, testing::HasSubstr("add_to_cache - too many files"));

  Put("f0.txt", "v2");
  Put("f100.txt", "v2");
  EXPECT_EQ(Get("f0.txt"), "v1");    // cached
  EXPECT_EQ(Get("f100.txt"), "v2");  // the 101st found no slot
}

TEST_F(ServerResource, MissingFileFallsBackToTheHostGetter) {
  std::filesystem::create_directory(dir_.File("resources/sub.xml"));  // not a regular file
  EXPECT_EQ(Get("host.bin"), "<none>");
  register_upnp_resource_get_function(&HostGetter);
  EXPECT_EQ(Get("host.bin?q"), "abc");
  EXPECT_EQ(g_getter_name, "host.bin");
  EXPECT_EQ(Get("sub.xml"), "<none>");
  EXPECT_EQ(g_getter_name, "sub.xml");

  uint32_t size = 9;
  void* data = reinterpret_cast<void*>(1);
  EXPECT_EQ(upnp_resource_get(nullptr, &size, &data), 0);
  EXPECT_TRUE(size == 0 && data == nullptr);
}

TEST_F(ServerResource, OutOfMemoryNeverLeaksOrCachesHalfAnEntry) {
  Put("a.xml", "payload");
  ForEachAllocFailure([&] { return Get("a.xml"); },
                      [](const std::string& got, bool failed) {
                        EXPECT_TRUE(got == "payload" || (failed && got == "<none>"));
                      });
  EXPECT_EQ(Get("a.xml"), "payload");
}

TEST_F(ServerResource, WorksWithoutInitAndSurvivesRepeatedExit) {
  Put("t.txt", "x");
  upnp_resource_exit();
  upnp_resource_exit();
  EXPECT_EQ(Get("t.txt"), "x");  // delivered, nothing cached without the lock
  Put("t.txt", "y");
  EXPECT_EQ(Get("t.txt"), "y");
}

}  // namespace
