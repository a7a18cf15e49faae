// SPDX-License-Identifier: Apache-2.0
// File transfers. A download streams to "<path>.<time>-<n>.part" in the target's directory and is
// renamed over the target only once the body arrived complete, so a transfer that breaks off
// midway leaves neither a partial file under the target name nor a damaged earlier copy.
#include "httpclient/transfer.h"

#include <atomic>
#include <cinttypes>
#include <cstring>

#include "httpclient/body_reader.h"
#include "httpclient/exchange.h"
#include "httpclient/head_values.h"
#include "httpclient/requests.h"
#include "tarnwick/log.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace tw::httpclient {
namespace {

constexpr uint32_t kUploadPiece = 8192;

std::atomic<uint32_t> g_temp_serial{0};

struct FileSink {
  upnp_file* file;
  int64_t written;
};

// A BodyWriter: writes every byte (a short write continues), false on a write error.
bool WriteToFile(void* context, const char* bytes, uint32_t count) {
  auto* sink = static_cast<FileSink*>(context);
  for (uint32_t done = 0; done < count;) {  // each round writes a byte or more, or fails
    const int32_t wrote = upnp_file_write(sink->file, bytes + done, count - done);
    if (wrote < 1) return false;
    done += static_cast<uint32_t>(wrote);
  }
  sink->written += count;
  return true;
}

bool IsSuccess(int32_t status) noexcept { return status >= 200 && status <= 299; }

// Sends size bytes of the open file; false when a read or send fails or the file ends early.
bool SendFileBody(int32_t socket, upnp_file* file, uint64_t size) noexcept {
  auto* piece = static_cast<char*>(upnp_malloc_impl(kUploadPiece));
  if (piece == nullptr) return false;
  uint64_t sent = 0;
  while (sent < size) {  // each round sends a byte or more, or stops
    const uint64_t left = size - sent;
    const int32_t got = upnp_file_read(
        file, piece, left < kUploadPiece ? static_cast<uint32_t>(left) : kUploadPiece);
    if (got < 1 || upnp_send(socket, piece, got) < 0) break;
    sent += static_cast<uint64_t>(got);
  }
  upnp_free_impl(piece);
  return sent == size;
}

}  // namespace

bool ReceiveFile(int32_t socket, const char* head, const char* path, int64_t* length_out) noexcept {
  if (length_out != nullptr) *length_out = 0;
  char* temp = FormatNew("%s.%" PRId64 "-%" PRIu32 ".part", path, getSystemTime(),
                         g_temp_serial.fetch_add(1));
  if (temp == nullptr) return false;
  upnp_file_unlink(temp);  // a leftover of a process that died mid-transfer; open does not truncate
  upnp_file* file = upnp_file_open_write(temp);
  if (file == nullptr) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_receive_file: Cannot create %s\n", temp);
    upnp_free_impl(temp);
    return false;
  }
  FileSink sink{file, 0};
  const BodyEnd end = StreamBody(socket, head, WriteToFile, &sink);
  // On disk before the rename makes it visible under its name.
  const bool flushed = upnp_file_flush(file) == 0;
  upnp_file_close(file);
  bool saved = flushed && (end == BodyEnd::kComplete || end == BodyEnd::kNone);
  if (!saved) {
    upnp_log_err_impl(UPNP_LOG_HTTP,
                      "HTTP_receive_file: Body for %s incomplete after %" PRId64 " bytes\n", path,
                      sink.written);
  } else if (upnp_file_rename(temp, path) != 0) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_receive_file: Cannot rename %s to %s\n", temp, path);
    saved = false;
  }
  if (!saved) upnp_file_unlink(temp);
  upnp_free_impl(temp);
  if (saved && length_out != nullptr) *length_out = sink.written;
  return saved;
}

bool DownloadFile(const char* url, const char* extra_headers, const char* path,
                  int64_t* length_out) noexcept {
  if (length_out != nullptr) *length_out = 0;
  int32_t socket = Open(url, 0);
  if (socket == -1) return false;
  bool saved = false;
  char head[kResponseHeadSize];
  if (!SendHeadOrGet("GET", socket, url, extra_headers, false)) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_download_file: Failed to send request to %s\n", url);
  } else if (ReadFinalHead(socket, head, sizeof(head)) == 0) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_download_file: No answer from %s\n", url);
  } else if (!IsSuccess(ResponseStatus(head))) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_download_file: %s answered %d\n", url,
                      ResponseStatus(head));
  } else {
    saved = ReceiveFile(socket, head, path, length_out);
  }
  upnp_close_socket(&socket);
  return saved;
}

bool PostFile(const char* url, const char* extra_headers, const char* path,
              const char* content_type, int32_t* status_out) noexcept {
  if (status_out != nullptr) *status_out = 0;
  upnp_stat info{};
  if (upnp_file_stat(path, &info) != 0 || (info.mode & UPNP_S_IFMT) != UPNP_S_IFREG) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_post_file: No file %s\n", path);
    return false;
  }
  upnp_file* file = upnp_file_open_read(path);
  if (file == nullptr) {
    upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_post_file: Cannot open %s\n", path);
    return false;
  }
  int32_t socket = Open(url, 0);
  bool done = false;
  if (socket != -1 && SendPostHeader(socket, url, content_type, static_cast<int64_t>(info.size),
                                     false, extra_headers)) {
    if (!SendFileBody(socket, file, info.size)) {
      upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_post_file: Failed to send %s to %s\n", path, url);
    } else {
      char head[kResponseHeadSize];
      if (ReadFinalHead(socket, head, sizeof(head)) == 0) {
        upnp_log_err_impl(UPNP_LOG_HTTP, "HTTP_post_file: No answer from %s\n", url);
      } else {
        const int32_t status = ResponseStatus(head);
        if (status_out != nullptr) *status_out = status;
        done = IsSuccess(status);
      }
    }
  }
  upnp_file_close(file);
  if (socket != -1) upnp_close_socket(&socket);
  return done;
}

}  // namespace tw::httpclient
