// SPDX-License-Identifier: Apache-2.0
// The client-type resource over arbitrary text: splitting, the "MT:" scan and every query on a
// few client types, in and out of range. Every accounted byte must come back after the release.
#include <cstdint>
#include <cstring>
#include <string>

#include "clientdb/clientdb.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/core.h"
#include "tarnwick/platform.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

int32_t (*const kGetters[])(int32_t) = {
    upnp_client_db_needs_4th_field,
    upnp_client_db_needs_duration,
    upnp_client_db_supports_icy_data,
    upnp_client_db_is_psp,
    upnp_client_db_exact_protocolinfo,
    upnp_client_db_allow_unlimited_xml,
    upnp_client_db_give_no_transcoded_pictures,
    upnp_client_db_is_sonybravia,
    upnp_client_db_viera_divxprofile,
    upnp_client_db_add_time_to_date,
    upnp_client_db_force_mp4_profile,
    upnp_client_db_philips_search,
    upnp_client_db_force_res,
    upnp_client_db_no_utf,
    upnp_client_db_give_roku_search,
    upnp_client_db_needs_1_0_proxyresponse,
    upnp_client_db_needs_1_0_response,
    upnp_client_db_needs_psp_style_content_length,
    upnp_client_db_needs_content_length_for_live,
    upnp_client_db_needs_absolute_uris,
    upnp_client_db_ignore_sort,
    upnp_client_db_redsonic_compliant,
    upnp_client_db_no_utf8_sort,
    upnp_client_db_suppress_events,
    upnp_client_can_not_register_device,
    upnp_client_db_can_not_work_with_embedded_albumart,
    upnp_client_db_needs_philips_srt_style,
    upnp_client_db_wmc_compliant,
    upnp_client_db_allways_close_connection,
    upnp_client_db_supports_chunked,
    upnp_client_db_is_musicclient,
};

char* (*const kCopies[])(int32_t) = {
    upnp_client_db_get_default_view,     upnp_client_db_get_webbrowse,
    upnp_client_db_get_description_file, upnp_client_db_get_supported_transcoding_profiles,
    upnp_client_db_albumart_scaling,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint32_t start = upnp_mem_used();
  const std::string text(reinterpret_cast<const char*>(data), size);
  upnp_client_db_add_view("music#kids");
  tw::clientdb::LoadTypes(text.c_str());
  for (int32_t type : {0, 1, 2, 19, 148, 149, 150, -1}) {
    const char* entry = tw::clientdb::TypeEntry(type);
    Check(type < 149 || entry == nullptr);
    for (auto getter : kGetters) Check(getter(type) <= 1);
    for (auto copy : kCopies) {
      char* value = copy(type);
      Check(value == nullptr || entry != nullptr);
      if (value != nullptr) upnp_free_impl(value);
    }
    (void)upnp_client_db_DLNA_version(type);
    (void)upnp_client_db_get_value(type, "XM:");
    for (const char* ext : {"avi", "mkv", "m4a", "", "a"}) {
      const char* mime = upnp_client_db_needs_special_mime_type(type, ext);
      Check(mime == nullptr || upnp_client_db_special_mime_type_get_extension(mime) != nullptr);
    }
    char* view = tw::clientdb::KnownDefaultView(type);
    if (view != nullptr) upnp_free_impl(view);
    char buffer[16];
    for (int32_t running : {0, 1}) {
      __atomic_store_n(&g_server_running, running, __ATOMIC_RELEASE);
      const int32_t got = upnp_client_db_getKeyword(entry, buffer, sizeof(buffer), "NA:");
      Check(std::strlen(buffer) < sizeof(buffer) && (got == 1) == (buffer[0] != '\0'));
      Check(running == 1 || std::strlen(buffer) <= 1);
    }
    __atomic_store_n(&g_server_running, 0, __ATOMIC_RELEASE);
  }
  // Header matching over the input itself and a few heads: check_header and a request from a
  // peer without a hardware address (identified by its head alone) must agree.
  const std::string heads[] = {text, "User-Agent: DLNADOC/1.50\r\n", "GET / HTTP/1.1\r\n\r\n"};
  for (const std::string& head : heads) {
    if (head.c_str()[0] == '\0') continue;  // an empty head is no request at all
    int32_t type = -1;
    int32_t fix = -1;
    char* pattern = nullptr;
    char* second = nullptr;
    char* name = nullptr;
    const int32_t matched =
        upnp_client_db_check_header(head.c_str(), &type, &fix, &pattern, &second, &name);
    // Type 0 only through a fixed match.
    Check(matched == 0 || ((type > 0 || fix != 0) && type >= 0 && type < 149 && fix >= 0 &&
                           fix <= 2 && pattern != nullptr && second != nullptr && name != nullptr));
    for (char* text_out : {pattern, second, name}) {
      if (text_out != nullptr) upnp_free_impl(text_out);
    }
    const int32_t by_request =
        upnp_client_db_add_by_ip("http://127.0.0.9:1/", "127.0.0.1", head.c_str());
    Check(by_request == (matched != 0 ? type : UPNP_CLIENT_TYPE_UNKNOWN));
  }
  char* table = upnp_client_db_get_table();
  if (table != nullptr) upnp_free_impl(table);
  upnp_client_db_exit();
  Check(upnp_mem_used() == start);
  return 0;
}
