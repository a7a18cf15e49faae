// SPDX-License-Identifier: Apache-2.0
// The INI file: its path, the reader (UTF-8, or UTF-16 behind a byte-order mark) and the writer.
#include <cstdio>
#include <cstring>

#include "config/config_state.h"
#include "platform/allocator.h"
#include "platform/critical_section.h"
#include "tarnwick/log.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace tw::config {

namespace {

// Largest read handed to the file layer at once (its length parameter is 32-bit).
constexpr size_t kReadChunk = size_t{1} << 20;

constexpr char kHeaderFormat[] =
    "#! Tarnwick ini file / charset UTF-%d\n"
    "#! Change settings by commandline or by editing this file\n"
    "#! Do not add space characters before or after equal sign!\n"
    "\n"
    "[main]\n";

// A copy of the INI path taken under the lock, so that a concurrent change of inipath or
// ininame (which frees the cached path) cannot pull it away while the file is used.
CPtr IniPathCopy() noexcept {
  LazyGuard guard(g_ini_lock);
  if (!guard.held()) return CPtr();
  const char* path = IniPathLocked();
  return CPtr(path != nullptr ? upnp_strdup_impl(path) : nullptr);
}

// Writes one piece of text as UTF-8, or as UTF-16 units (little-endian, no terminator).
void WritePiece(upnp_file* file, bool utf16, const char* text) noexcept {
  if (text == nullptr || *text == '\0') return;
  if (!utf16) {
    upnp_file_write(file, text, static_cast<uint32_t>(std::strlen(text)));
    return;
  }
  CPtr units_block(reinterpret_cast<char*>(upnp_string_utf8_to_utf16(text)));
  if (!units_block) return;
  const auto* units = reinterpret_cast<const uint8_t*>(units_block.get());
  size_t bytes = 0;
  while (units[bytes] != 0 || units[bytes + 1] != 0) bytes += 2;
  upnp_file_write(file, units, static_cast<uint32_t>(bytes));
}

}  // namespace

const char* IniPathLocked() noexcept {
  if (g_state.ini_path != nullptr) return g_state.ini_path;
  const Property* dir_property = FindByKeyLocked(kKeyIniPath);
  const Property* name_property = FindByKeyLocked(kKeyIniName);
  const char* dir = dir_property != nullptr ? EffectiveValue(*dir_property) : nullptr;
  const char* name = name_property != nullptr ? EffectiveValue(*name_property) : nullptr;
  if (dir != nullptr && *dir != '\0') upnp_file_create_path(dir);
  g_state.ini_path = upnp_file_build_path(dir, name);
  return g_state.ini_path;
}

void DropIniPathLocked() noexcept {
  if (g_state.ini_path != nullptr) upnp_free_impl(g_state.ini_path);
  g_state.ini_path = nullptr;
}

void ApplyIniText(char* text, size_t length) noexcept {
  LazyGuard guard(g_ini_lock);
  if (!guard.held()) return;
  char* name = nullptr;
  char* value = nullptr;
  // The scan runs to the real end of the data: a NUL inside a (binary) file is a control byte
  // and ends its line like any other. The last line counts only when a line end follows it.
  for (size_t i = 0; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte > 31) {
      if (byte == '=' && value == nullptr) {
        text[i] = '\0';
        value = text + i + 1;
      } else if (name == nullptr) {
        name = text + i;
      }
      continue;
    }
    text[i] = '\0';
    if (name != nullptr && value != nullptr && name[0] != '#') {
      SetValueLocked(FindByNameLocked(name), value, false, false, Origin::kIniFile);
    }
    name = nullptr;
    value = nullptr;
  }
}

void ApplyIniBuffer(char* buffer, size_t length) noexcept {
  if (length < 2) return;
  bool utf16 = false;
  {
    LazyGuard guard(g_ini_lock);
    if (!guard.held()) return;
    if (static_cast<unsigned char>(buffer[0]) == 0xFF &&
        static_cast<unsigned char>(buffer[1]) == 0xFE) {
      g_state.utf16 = true;
    }
    // Once a UTF-16 file was seen, every later read is taken as UTF-16 behind its first two
    // bytes, whatever they are: the flag is process state, not a property of one file.
    utf16 = g_state.utf16;
  }
  if (!utf16) {
    ApplyIniText(buffer, length);
    return;
  }
  CPtr converted(upnp_string_utf16_to_utf8(reinterpret_cast<const uint8_t*>(buffer + 2)));
  if (!converted) return;
  ApplyIniText(converted.get(), std::strlen(converted.get()));
}

void ReadIniFile() noexcept {
  CPtr path = IniPathCopy();
  if (!path) return;
  upnp_stat status{};
  if (upnp_file_stat(path.get(), &status) != 0 || status.size < 2) return;
  if (status.size > SIZE_MAX - kIniPadding) return;
  const auto size = static_cast<size_t>(status.size);
  CPtr buffer(static_cast<char*>(upnp_malloc_impl(size + kIniPadding)));
  if (!buffer) return;  // out of memory: the read is dropped
  upnp_file* file = upnp_file_open_read(path.get());
  if (file == nullptr) return;
  size_t got = 0;
  while (got < size) {
    const size_t want = size - got < kReadChunk ? size - got : kReadChunk;
    const int32_t n = upnp_file_read(file, buffer.get() + got, static_cast<uint32_t>(want));
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  upnp_file_close(file);
  std::memset(buffer.get() + got, 0, kIniPadding);
  ApplyIniBuffer(buffer.get(), got);
}

void WriteIniFile() noexcept {
  CPtr path;
  {
    LazyGuard guard(g_ini_lock);
    if (!guard.held()) return;
    const Property* read_only = FindByKeyLocked(kKeyReadOnly);
    const char* flag = read_only != nullptr ? EffectiveValue(*read_only) : nullptr;
    if (flag != nullptr && flag[0] != '\0' && flag[0] != '0') return;
    const char* cached = IniPathLocked();
    if (cached != nullptr) path.reset(upnp_strdup_impl(cached));
  }
  // Opening for writing does not truncate, so a file that cannot be deleted first would keep
  // the tail of its old text behind a shorter new one: such a path counts as not writable.
  const bool stuck = path && upnp_file_unlink(path.get()) != 0 && upnp_file_exists(path.get());
  upnp_file* file = path && !stuck ? upnp_file_open_write(path.get()) : nullptr;
  if (file == nullptr) {
    upnp_log_err_impl(kLogSystem, "writeProperties \nini file \"%s\" not writable! ***\n",
                      path ? path.get() : "(NULL)");
    return;
  }
  {
    LazyGuard guard(g_ini_lock);
    if (!guard.held()) {  // released meanwhile: nothing left to write
      upnp_file_close(file);
      return;
    }
    const bool utf16 = g_state.utf16;
    if (utf16) {
      static constexpr uint8_t kByteOrderMark[2] = {0xFF, 0xFE};
      upnp_file_write(file, kByteOrderMark, 2);
    }
    char header[sizeof(kHeaderFormat) + 8];
    std::snprintf(header, sizeof(header), kHeaderFormat, utf16 ? 16 : 8);
    WritePiece(file, utf16, header);
    for (int16_t i = 0; i < g_state.count; ++i) {
      const Property& p = g_state.records[i];
      if (p.name == nullptr || p.hidden || p.disabled) continue;
      if (p.description != nullptr && *p.description != '\0') {
        WritePiece(file, utf16, "# ");
        WritePiece(file, utf16, p.description);
        WritePiece(file, utf16, "\n");
      }
      WritePiece(file, utf16, p.name);
      WritePiece(file, utf16, "=");
      WritePiece(file, utf16, EffectiveValue(p));
      WritePiece(file, utf16, "\n\n");  // one blank line follows each property
    }
  }
  upnp_file_close(file);
}

void DeleteIniFile() noexcept {
  CPtr path = IniPathCopy();
  if (path) upnp_file_unlink(path.get());
}

}  // namespace tw::config
