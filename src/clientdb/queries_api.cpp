// SPDX-License-Identifier: Apache-2.0
// Entries of the quirk queries, keyword values and special MIME types. They read only the
// client-type table and the MIME columns, which change only while the database is loaded, so
// none takes a lock.
#include "clientdb/clientdb.h"
#include "clientdb/option_words.h"
#include "clientdb/types.h"
#include "tarnwick/clientdb.h"

namespace cdb = tw::clientdb;

extern "C" {

TW_API int32_t upnp_client_db_supports_option(int32_t client_type, const char* option) noexcept {
  return cdb::HasOption(client_type, option) ? 1 : 0;
}

// ---- Quirk getters: one option word each (option_words.h) ----

TW_API int32_t upnp_client_db_needs_4th_field(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNeeds4thField) ? 1 : 0;
}

TW_API int32_t upnp_client_db_needs_duration(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNeedsDuration) ? 1 : 0;
}

TW_API int32_t upnp_client_db_supports_icy_data(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kSupportsIcyData) ? 1 : 0;
}

TW_API int32_t upnp_client_db_is_psp(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kIsPsp) ? 1 : 0;
}

TW_API int32_t upnp_client_db_exact_protocolinfo(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kExactProtocolinfo) ? 1 : 0;
}

TW_API int32_t upnp_client_db_allow_unlimited_xml(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kAllowUnlimitedXml) ? 1 : 0;
}

TW_API int32_t upnp_client_db_give_no_transcoded_pictures(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kGiveNoTranscodedPictures) ? 1 : 0;
}

TW_API int32_t upnp_client_db_is_sonybravia(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kIsSonybravia) ? 1 : 0;
}

TW_API int32_t upnp_client_db_viera_divxprofile(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kVieraDivxprofile) ? 1 : 0;
}

TW_API int32_t upnp_client_db_add_time_to_date(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kAddTimeToDate) ? 1 : 0;
}

TW_API int32_t upnp_client_db_force_mp4_profile(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kForceMp4Profile) ? 1 : 0;
}

TW_API int32_t upnp_client_db_philips_search(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kPhilipsSearch) ? 1 : 0;
}

TW_API int32_t upnp_client_db_force_res(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kForceRes) ? 1 : 0;
}

TW_API int32_t upnp_client_db_no_utf(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNoUtf) ? 1 : 0;
}

TW_API int32_t upnp_client_db_give_roku_search(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kGiveRokuSearch) ? 1 : 0;
}

TW_API int32_t upnp_client_db_needs_1_0_proxyresponse(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNeeds10Proxyresponse) ? 1 : 0;
}

TW_API int32_t upnp_client_db_needs_1_0_response(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNeeds10Response) ? 1 : 0;
}

TW_API int32_t upnp_client_db_needs_psp_style_content_length(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNeedsPspStyleContentLength) ? 1 : 0;
}

TW_API int32_t upnp_client_db_needs_content_length_for_live(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNeedsContentLengthForLive) ? 1 : 0;
}

TW_API int32_t upnp_client_db_needs_absolute_uris(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNeedsAbsoluteUris) ? 1 : 0;
}

TW_API int32_t upnp_client_db_ignore_sort(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kIgnoreSort) ? 1 : 0;
}

TW_API int32_t upnp_client_db_redsonic_compliant(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kRedsonicCompliant) ? 1 : 0;
}

TW_API int32_t upnp_client_db_no_utf8_sort(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNoUtf8Sort) ? 1 : 0;
}

TW_API int32_t upnp_client_db_suppress_events(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kSuppressEvents) ? 1 : 0;
}

TW_API int32_t upnp_client_can_not_register_device(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kCanNotRegisterDevice) ? 1 : 0;
}

TW_API int32_t upnp_client_db_can_not_work_with_embedded_albumart(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kCanNotWorkWithEmbeddedAlbumart) ? 1 : 0;
}

TW_API int32_t upnp_client_db_needs_philips_srt_style(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kNeedsPhilipsSrtStyle) ? 1 : 0;
}

TW_API int32_t upnp_client_db_wmc_compliant(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kWmcCompliant) ? 1 : 0;
}

TW_API int32_t upnp_client_db_allways_close_connection(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kAllwaysCloseConnection) ? 1 : 0;
}

TW_API int32_t upnp_client_db_supports_chunked(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kSupportsChunked) ? 1 : 0;
}

TW_API int32_t upnp_client_db_is_musicclient(int32_t client_type) noexcept {
  return cdb::HasOption(client_type, cdb::words::kIsMusicclient) ? 1 : 0;
}

// ---- Keyword values ----

TW_API int32_t upnp_client_db_getKeyword(const char* entry, char* buffer, size_t size,
                                         const char* tag) noexcept {
  return cdb::GetKeyword(entry, buffer, size, tag);
}

TW_API int32_t upnp_client_db_get_value(int32_t client_type, const char* text) noexcept {
  return cdb::ValueAfter(client_type, text);
}

TW_API uint32_t upnp_client_db_DLNA_version(int32_t client_type) noexcept {
  return cdb::DlnaVersion(client_type);
}

TW_API char* upnp_client_db_get_default_view(int32_t client_type) noexcept {
  return cdb::LineValue(client_type, "DV:");
}

TW_API char* upnp_client_db_get_webbrowse(int32_t client_type) noexcept {
  return cdb::LineValue(client_type, "WB:");
}

TW_API char* upnp_client_db_get_description_file(int32_t client_type) noexcept {
  return cdb::DescriptionFile(client_type);
}

TW_API char* upnp_client_db_get_supported_transcoding_profiles(int32_t client_type) noexcept {
  return cdb::TranscodingProfiles(client_type);
}

TW_API char* upnp_client_db_albumart_scaling(int32_t client_type) noexcept {
  return cdb::AlbumArtScaling(client_type);
}

// ---- Special MIME types ----

TW_API void upnp_client_db_add_mime_table(const char* extension, const char* mime) noexcept {
  if (extension == nullptr || mime == nullptr) return;
  cdb::AddMime(extension, mime);
}

TW_API const char* upnp_client_db_special_mime_type_get_extension(const char* mime) noexcept {
  if (mime == nullptr) return nullptr;
  return cdb::ExtensionForMime(mime);
}

TW_API const char* upnp_client_db_get_from_mime_type_table(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  return cdb::MimeWithPrefixOf(text);
}

TW_API const char* upnp_client_db_needs_special_mime_type(int32_t client_type,
                                                          const char* extension) noexcept {
  if (extension == nullptr) return nullptr;
  return cdb::SpecialMimeType(client_type, extension);
}

}  // extern "C"
