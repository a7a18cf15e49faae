// SPDX-License-Identifier: Apache-2.0
// Entries: DLNA flag strings, protocolInfo fields, JPEG profiles and picture scaling.
#include "tarnwick/util.h"
#include "util/helpers.h"

extern "C" {

TW_API uint32_t dlnaflagstring_flags_get_from_string(const char* text) noexcept {
  return text == nullptr ? 0 : tw::util::ReadDlnaFlags(text);
}

TW_API int dlnaflagstring_bit_get_from_string(const char* text, int32_t bit) noexcept {
  if (text == nullptr || bit < 0 || bit >= 32) return 0;
  return (tw::util::ReadDlnaFlags(text) >> bit) & 1u ? 1 : 0;
}

TW_API int dlnaflagstring_bit_set_in_string(char* text, int32_t bit) noexcept {
  if (text == nullptr) return -1;
  return tw::util::SetDlnaFlagBit(text, bit) ? 0 : -1;
}

TW_API const char* upnp_get_protocolInfoField(const char* protocol_info, int32_t n,
                                              uint32_t* length) noexcept {
  uint32_t ignored = 0;
  uint32_t* out = length != nullptr ? length : &ignored;
  if (protocol_info == nullptr) {
    *out = 0;
    return nullptr;
  }
  return tw::util::ProtocolInfoField(protocol_info, n, out);
}

TW_API int upnp_get_otherParamLength(const char* text, uint32_t* name_length,
                                     uint32_t* value_length, uint32_t* total_length) noexcept {
  if (text == nullptr) {
    if (name_length != nullptr) *name_length = 0;
    if (value_length != nullptr) *value_length = 0;
    if (total_length != nullptr) *total_length = 0;
    return 0;
  }
  return tw::util::OtherParamLength(text, name_length, value_length, total_length) ? 1 : 0;
}

TW_API char* jpeg_map_dlna_profile(uint32_t width, uint32_t height) noexcept {
  const char* profile = tw::util::JpegProfile(width, height);
  return profile == nullptr ? nullptr : tw::DupToC(profile);
}

TW_API void get_proportional_scale(uint32_t width, uint32_t height, uint32_t max_width,
                                   uint32_t max_height, uint32_t* out_width,
                                   uint32_t* out_height) noexcept {
  tw::util::ProportionalScale(width, height, max_width, max_height, out_width, out_height);
}

}  // extern "C"
