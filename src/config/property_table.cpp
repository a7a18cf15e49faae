// SPDX-License-Identifier: Apache-2.0
// The library's own properties, created by the first upnp_ini_file_init in this order.
#include <cstdint>
#include <string_view>

#include "config/config_state.h"
#include "tarnwick/log.h"

namespace tw::config {

namespace {

struct BuiltinProperty {
  uint32_t key;
  std::string_view name;
  std::string_view default_value;  // a default-constructed view (null data) means "no default"
  bool hidden;
  bool restart_required;
  std::string_view description;
};

constexpr std::string_view kNoDefault{};
constexpr uint32_t kEndOfTable = 0xFFFFFFFFu;

// Every view refers to a string literal, so data() is NUL-terminated.
constexpr BuiltinProperty kBuiltins[] = {
    {0, "friendlyname", kNoDefault, false, true, "Visible name in the network"},
    {1, "ip", kNoDefault, false, true, "IP address to listen to (default: all networks)"},
    {2, "nicrestart", "1", false, false, "Watch changes in machine's network conf (1: yes, 0: no)"},
    {3, "v", "0", false, false, "Verbose level for logging"},
    {4, "platform", "UNIX", false, false, "Compile platform"},
    {5, "httpport", kNoDefault, false, true, "Port of the http server"},
    {6, "ininame", "tarnwick.ini", true, false, ""},
    {7, "inipath", kNoDefault, true, false, ""},
    {8, "read_only", "0", true, false, "Do not overwrite ini file after initial read. Default: 0"},
    {9, "ssdpttl", "4", false, true, "TTL for SSDP packets. Default: 4"},
    {12, "logfile", "stdout", false, false, "Logfile where all logs are stored"},
    {13, "appdata", kNoDefault, true, true,
     "Directory under which all application data, like ini file and database will be stored"},
    {14, "clearclientsonrestart", "0", false, false,
     "clear detected clients table on each restart"},
    {15, "disablelocalssdp", "0", false, false, "disable SSDP on localhost"},
    {16, "enabletls", "1", false, true, "enable https remote connections"},
    {17, "nmcmode", "1", false, true,
     "NMC mode (0:disable, 1:stationary, 2:mobiledirect, 3:mobileremote, 4:standalone)"},
    {kEndOfTable, "", kNoDefault, false, false, ""},
};
static_assert(sizeof(kBuiltins) / sizeof(kBuiltins[0]) == 17, "16 properties and the end mark");
static_assert(kBuiltins[16].key == kEndOfTable, "the table is closed by an all-ones key");

}  // namespace

void CreateBuiltinsLocked() noexcept {
  for (const BuiltinProperty* p = kBuiltins; p->key != kEndOfTable; ++p) {
    const int32_t result =
        CreatePropertyLocked(p->key, p->name.data(), p->default_value.data(), p->description.data(),
                             false, p->hidden, false, p->restart_required);
    if (result != UPNP_INI_OK) {
      upnp_log_info_impl(kLogSystem, "Error in creating ini file property %s : %d", p->name.data(),
                         static_cast<int>(result));
    }
  }
}

}  // namespace tw::config
