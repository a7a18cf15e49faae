// SPDX-License-Identifier: Apache-2.0
// "clients.data": the client records kept across restarts. A record is 13 fields, each a length
// of exactly three decimal digits, the text and a line feed (the length does not count it). No
// header, no version: the file is rewritten whole after every change, into "clients.data.new"
// beside it, which then replaces it. A full disk or a crash in the middle of a write so leaves
// the previous table whole instead of cut short (the next read would drop every record behind
// the cut), and the devices a user enabled stay enabled.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "clientdb/clientdb.h"
#include "clientdb/records.h"
#include "clientdb/types.h"
#include "tarnwick/config.h"
#include "tarnwick/log.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace tw::clientdb {
namespace {

constexpr size_t kPathSize = 1024;
constexpr int kFields = 13;
constexpr size_t kLengthDigits = 3;
constexpr size_t kMaxFieldText = 999;  // what three digits can announce

// Cut silently at the buffer's size, as every path of the library.
void TablePath(char (&path)[kPathSize], const char* suffix = "") noexcept {
  const char* dir = upnp_ini_file_getString(UPNP_INI_KEY_APPDATA);
  std::snprintf(path, sizeof(path), "%s%cclients.data%s", dir != nullptr ? dir : "", '/', suffix);
}

// Remembers whether every write went through, so that one check decides the whole file.
class TableWriter {
 public:
  explicit TableWriter(upnp_file* file) noexcept : file_(file) {}
  bool ok() const noexcept { return ok_; }

  void Write(const void* bytes, size_t length) noexcept {
    if (!ok_ || length == 0) return;
    const int32_t n = upnp_file_write(file_, bytes, static_cast<uint32_t>(length));
    ok_ = n >= 0 && static_cast<size_t>(n) == length;
  }

  void Field(const char* text) noexcept {
    if (text == nullptr) text = "";
    const size_t length = std::strlen(text);
    // Texts longer than 999 bytes are not provided for: the prefix then takes four digits and
    // the file reads back short from that field on, which the reader treats as a corrupt end.
    char prefix[16];
    const int n = std::snprintf(prefix, sizeof(prefix), "%03zu", length);
    Write(prefix, static_cast<size_t>(n));
    Write(text, length);
    Write("\n", 1);
  }

 private:
  upnp_file* file_;
  bool ok_ = true;
};

void WriteRecord(TableWriter& out, const upnp_client& r) noexcept {
  const char* const texts[] = {
      r.friendly_name, r.mac,           r.ip, r.udn, r.header_pattern, r.second_header_pattern,
      r.icon_url,      r.icon_mime_type};
  for (const char* text : texts) out.Field(text);
  char number[16];
  std::snprintf(number, sizeof(number), "%03d", r.client_type);
  out.Field(number);
  std::snprintf(number, sizeof(number), "%01d", r.enabled);
  out.Field(number);
  std::snprintf(number, sizeof(number), "%03d", r.assignment);
  out.Field(number);
  out.Field(r.view);
  out.Field(HasDefaultView(r.client_type) ? "1" : "0");  // informational, never read
}

// Detected clients that show the default view are found again on their next request.
bool Stored(const upnp_client& r) noexcept {
  return r.assignment >= UPNP_CLIENT_FIXED ||
         (r.view != nullptr && std::strcmp(r.view, DefaultView()) != 0);
}

enum class FieldResult { kOk, kEnd, kNoMemory };

// One field into buffer (at least kMaxFieldText + 2 bytes): its text, NUL-terminated.
FieldResult ReadField(upnp_file* file, char* buffer) noexcept {
  char digits[kLengthDigits];
  if (upnp_file_read(file, digits, kLengthDigits) != static_cast<int32_t>(kLengthDigits)) {
    return FieldResult::kEnd;
  }
  uint32_t length = 0;
  for (char digit : digits) {
    if (digit < '0' || digit > '9') return FieldResult::kEnd;  // a corrupt field ends the file
    length = length * 10 + static_cast<uint32_t>(digit - '0');
  }
  const uint32_t want = length + 1;
  uint32_t got = 0;
  while (got < want) {
    const int32_t n = upnp_file_read(file, buffer + got, want - got);
    if (n <= 0) return FieldResult::kEnd;
    got += static_cast<uint32_t>(n);
  }
  buffer[length] = '\0';  // the line feed, or whatever stands in its place
  return FieldResult::kOk;
}

// Fields 1-8 and 12 are texts, 9-11 numbers, 13 is dropped. Empty texts leave the field unset.
bool StoreField(upnp_client* r, int index, const char* text) noexcept {
  if (text[0] == '\0') return true;
  char** const texts[] = {&r->friendly_name,
                          &r->mac,
                          &r->ip,
                          &r->udn,
                          &r->header_pattern,
                          &r->second_header_pattern,
                          &r->icon_url,
                          &r->icon_mime_type};
  if (index < 8) return SetText(texts[index], text);
  switch (index) {
    case 8:
      r->client_type = std::atoi(text);
      return true;
    case 9:
      r->enabled = std::atoi(text);
      return true;
    case 10:
      r->assignment = std::atoi(text);
      return true;
    case 11:
      return SetText(&r->view, text);
    default:
      return true;
  }
}

// Reads records until the end of the file, a corrupt field or a memory shortage; a record cut
// short is dropped. Each record goes to the head, so the file's order flips on every read.
int ReadRecordsLocked(upnp_file* file) noexcept {
  char buffer[kMaxFieldText + 2];
  int count = 0;
  for (;;) {
    auto* record = static_cast<upnp_client*>(upnp_calloc_impl(1, sizeof(upnp_client)));
    if (record == nullptr) return count;
    for (int field = 0; field < kFields; ++field) {
      if (ReadField(file, buffer) != FieldResult::kOk || !StoreField(record, field, buffer)) {
        FreeRecord(record);
        return count;
      }
    }
    record->next = g_pClients;
    g_pClients = record;
    ++count;
  }
}

}  // namespace

void ReadTable() noexcept {
  int count = 0;
  // The path is taken before the lock: the configuration lock comes first in the lock order.
  char path[kPathSize];
  TablePath(path);
  {
    Guard guard;
    if (!guard.held()) return;
    FreeClientsLocked();
    upnp_file* file = upnp_file_open_read(path);
    if (file == nullptr) return;
    count = ReadRecordsLocked(file);
    upnp_file_close(file);
  }
  if (count > kMaxStoredRecords) ResetClients();
}

void WriteTable() noexcept {
  char path[kPathSize];
  char next[kPathSize];
  TablePath(path);
  TablePath(next, ".new");
  bool saved = false;
  {
    Guard guard;
    if (!guard.held()) return;
    upnp_file_unlink(next);  // a leftover of an earlier failure; opening for write appends
    upnp_file* file = upnp_file_open_write(next);
    if (file != nullptr) {
      TableWriter out(file);
      for (const upnp_client* r = g_pClients; r != nullptr && out.ok(); r = r->next) {
        if (Stored(*r)) WriteRecord(out, *r);
      }
      // On the disk before the rename, or a power cut could leave the new name on no data.
      saved = out.ok() && upnp_file_flush(file) == 0;
      upnp_file_close(file);
      saved = saved && upnp_file_rename(next, path) == 0;
      if (!saved) upnp_file_unlink(next);
    }
  }
  // Logged outside the table lock: the log may take other locks.
  if (!saved) {
    upnp_log_err_impl(UPNP_LOG_CLIENT_DB,
                      "client_table_write could not write %s, the previous table stays", next);
  }
}

void ResetClients() noexcept {
  char path[kPathSize];
  TablePath(path);
  Guard guard;
  if (!guard.held()) return;
  FreeClientsLocked();
  FreeUdnsLocked();
  upnp_file_unlink(path);
}

}  // namespace tw::clientdb
