// SPDX-License-Identifier: Apache-2.0
// DLNA flag strings, protocolInfo fields, JPEG profiles and picture scaling.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/ascii.h"
#include "tarnwick/util.h"
#include "util/helpers.h"

namespace tw::util {
namespace {

constexpr std::string_view kFlagsKey = "DLNA.ORG_FLAGS=";
constexpr size_t kFlagDigits = 8;

// One byte as "%02X" scans it: up to two hex digits; no digit at all leaves 0.
uint32_t ScanHexByte(const char* p) noexcept {
  const int high = ascii::HexDigitValue(p[0]);
  if (high < 0) return 0;
  const int low = ascii::HexDigitValue(p[1]);
  if (low < 0) return static_cast<uint32_t>(high);
  return static_cast<uint32_t>(high * 16 + low);
}

struct JpegProfileLimit {
  uint32_t max_width;
  uint32_t max_height;
  std::string_view name;
};

// Checked in order; the first box the picture fits in names its profile.
constexpr std::array<JpegProfileLimit, 4> kJpegProfiles = {{
    {160, 160, "JPEG_TN"},
    {640, 480, "JPEG_SM"},
    {1024, 768, "JPEG_MED"},
    {4096, 4096, "JPEG_LRG"},
}};
static_assert(kJpegProfiles.size() == 4);

// Rounds a non-negative scaled size; values past the 32-bit range (absurd boxes near 2^32,
// where float rounding can overshoot) saturate instead of being undefined.
uint32_t RoundSize(float value) noexcept {
  if (!(value > 0.0f)) return 0;
  if (value >= 4294967296.0f) return UINT32_MAX;
  return static_cast<uint32_t>(value);
}

}  // namespace

char* FindDlnaFlagDigits(const char* text) noexcept {
  const char* key = std::strstr(text, kFlagsKey.data());
  const char* digits = key != nullptr ? key + kFlagsKey.size() : text;
  // Requiring a decimal first digit also refuses values starting with A..F; that is intended,
  // the primary flags always start with a small digit in practice and the check is cheap.
  if (!ascii::IsDigit(digits[0])) return nullptr;
  if (std::strlen(digits) < kFlagDigits) return nullptr;
  return const_cast<char*>(digits);
}

uint32_t ReadDlnaFlags(const char* text) noexcept {
  const char* digits = FindDlnaFlagDigits(text);
  if (digits == nullptr) return 0;
  uint32_t flags = 0;
  for (size_t i = 0; i < kFlagDigits; i += 2) flags = (flags << 8) | ScanHexByte(digits + i);
  return flags;
}

bool SetDlnaFlagBit(char* text, int32_t bit) noexcept {
  if (bit < 0 || bit > 32) return false;
  char* digits = FindDlnaFlagDigits(text);
  if (digits == nullptr) return true;  // nothing readable, nothing written: not an error
  uint32_t flags = ReadDlnaFlags(text);
  // Bit 32 sets nothing but still rewrites the digits (normalising them to upper case).
  if (bit < 32) flags |= 1u << bit;
  char formatted[kFlagDigits + 1];
  std::snprintf(formatted, sizeof(formatted), "%08X", flags);
  std::memcpy(digits, formatted, kFlagDigits);
  return true;
}

const char* ProtocolInfoField(const char* protocol_info, int32_t n, uint32_t* length) noexcept {
  *length = 0;
  if (n < 1) return nullptr;
  const char* field = protocol_info;
  for (int32_t i = 1; i < n; ++i) {
    field = std::strchr(field, ':');
    if (field == nullptr) return nullptr;
    ++field;
  }
  if (*field == '\0') return nullptr;
  *length = static_cast<uint32_t>(std::strcspn(field, ":"));
  return field;
}

bool OtherParamLength(const char* text, uint32_t* name_length, uint32_t* value_length,
                      uint32_t* total_length) noexcept {
  const uint32_t total = static_cast<uint32_t>(std::strcspn(text, ";"));
  const uint32_t name = upnp_find_name_end(text);
  uint32_t value = 0;
  bool well_formed = false;
  // A parameter needs a name; the value may be empty ("name=" followed by ';' or the end).
  if (name > 0 && text[name] == '=') {
    value = upnp_find_value_end(text + name + 1);
    const char after = text[name + 1 + value];
    well_formed = after == ';' || after == '\0';
  }
  if (name_length != nullptr) *name_length = name;
  if (value_length != nullptr) *value_length = value;
  if (total_length != nullptr) *total_length = total;
  return well_formed;
}

const char* JpegProfile(uint32_t width, uint32_t height) noexcept {
  for (const auto& profile : kJpegProfiles) {
    if (width <= profile.max_width && height <= profile.max_height) return profile.name.data();
  }
  return nullptr;
}

void ProportionalScale(uint32_t width, uint32_t height, uint32_t max_width, uint32_t max_height,
                       uint32_t* out_width, uint32_t* out_height) noexcept {
  uint32_t fitted_width = max_width;
  uint32_t fitted_height = max_height;
  if (width != 0 && height != 0 && max_width != 0 && max_height != 0) {
    // Single precision on purpose: the results must match the sizes other devices compute.
    const float rw = static_cast<float>(width) / static_cast<float>(max_width);
    const float rh = static_cast<float>(height) / static_cast<float>(max_height);
    if (rw > rh) fitted_height = RoundSize(static_cast<float>(height) / rw + 0.5f);
    if (rw < rh) fitted_width = RoundSize(static_cast<float>(width) / rh + 0.5f);
  }
  if (out_width != nullptr) *out_width = fitted_width;
  if (out_height != nullptr) *out_height = fitted_height;
}

}  // namespace tw::util
