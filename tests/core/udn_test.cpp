// SPDX-License-Identifier: Apache-2.0
#include "ssdp/ssdp_fixture.h"

namespace tw::test {
namespace {

int32_t g_exit_code = -1;
void RecordExit(int32_t code) { g_exit_code = code; }

class ServerUdn : public SsdpTest {};

TEST_F(ServerUdn, EachDeviceHasItsOwnUdnMadeOnceFromFriendlyNameAndInstance) {
  const char* server = upnp_get_server_udn();  // the others are checked on the wire
  EXPECT_EQ(upnp_get_renderer2_udn(), Udn("61"));
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_FRIENDLYNAME, "AB");  // 0x41 + 0x42
  __atomic_store_n(&g_nInstance, 2, __ATOMIC_RELAXED);
  EXPECT_EQ(upnp_get_server_udn(), server);
  EXPECT_EQ(server, kServerUdn);
  core::ResetDeviceUdnsForTesting();
  EXPECT_STREQ(upnp_get_server_udn(), "uuid:5521726e-7769-636b-5383-424242424242");
  EXPECT_STREQ(upnp_get_renderer_udn(), "uuid:5601726e-7769-636b-5383-424242424242");
  core::ResetDeviceUdnsForTesting();
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_FRIENDLYNAME, "");  // set, summing to 0
  __atomic_store_n(&g_nInstance, 0x10c, __ATOMIC_RELAXED);        // only the low byte counts
  EXPECT_STREQ(upnp_get_server_udn(), "uuid:55<1726e-7769-636b-5300-424242424242");
}

TEST_F(ServerUdn, OutOfMemoryLeavesTheBufferEmptyUntilTheNextCall) {
  register_upnp_exit_function(RecordExit);
  platform::FailAllocAfter(0);
  EXPECT_STREQ(upnp_get_ruic_udn(), "");
  register_upnp_exit_function(nullptr);
  EXPECT_EQ(g_exit_code, 0);  // the critical line ends the library through the exit function
  EXPECT_EQ(upnp_get_ruic_udn(), kRuicUdn);
}

}  // namespace
}  // namespace tw::test
