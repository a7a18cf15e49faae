// SPDX-License-Identifier: Apache-2.0
// The items' resources: "/media/<object id>-<DLNA markers>/item.<ext>" (didl.h makes them)
// streams the file with byte ranges. The library composes the DLNA response headers:
// contentFeatures.dlna.org from the markers, transferMode.dlna.org from the request, and the
// Content-Range of a 206. Only objects the listings show can be reached: the ID is resolved
// through them (or found among the IDs they handed out), never used as a path.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "didl.h"
#include "host.h"
#include "library.h"
#include "tarnwick/http.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace mediaserver {
namespace {

constexpr char kMediaPrefix[] = "/media/";
constexpr int32_t kStatusOk = 200;
constexpr int32_t kStatusPartial = 206;
constexpr int32_t kStatusBadRequest = 400;
constexpr int32_t kStatusNotAcceptable = 406;
constexpr int32_t kStatusRangeNotSatisfiable = 416;

// The status for a range the request asks for that cannot be served, else 0.
int32_t RangeError(const HttpRequest& request, int64_t size) {
  const int64_t start = request.range_start;
  const int64_t end = request.range_end;
  if (start == HTTP_RANGE_UNSET || end == HTTP_RANGE_UNSET) return kStatusBadRequest;
  if (start == HTTP_RANGE_REFUSED || end == HTTP_RANGE_REFUSED) return kStatusNotAcceptable;
  if (request.is_timeseek != 0) return kStatusNotAcceptable;  // files here have no timeline
  if (start < 0) return 0;
  if (start >= size || (end >= 0 && end < start)) return kStatusRangeNotSatisfiable;
  return 0;
}

// The connection's last item stays open in the library's per-connection file cache (freed by
// the library when the connection ends): a renderer fetches range after range of one file over
// one connection, and each fetch then needs no open, no status read and no close. The path is
// looked at again once a second, so a file replaced or rewritten meanwhile is opened afresh.
// The cache's first block holds what was opened.
constexpr int64_t kRecheckMs = 1000;
struct CachedItem {
  int64_t checked_ms;  // when the path's status last matched
  upnp_stat status;
  char path[1];  // the rest of the block
};

bool SameFile(const upnp_stat& a, const upnp_stat& b) {
  return a.size == b.size && a.mtime == b.mtime && a.mode == b.mode;
}

upnp_file* OpenThroughCache(HttpRequest* request, const std::string& id, Object* item,
                            bool* owned) {
  *owned = false;
  std::string path;
  if (!ItemPathOfId(id, &path)) return nullptr;
  HttpFileCache* cache = request->file_cache;
  auto* cached = cache != nullptr ? static_cast<CachedItem*>(cache->blocks[0]) : nullptr;
  const int64_t now = getSystemTime();
  if (cached != nullptr && cache->file != nullptr && path == cached->path) {
    upnp_stat info{};
    const bool fresh = now - cached->checked_ms < kRecheckMs;
    if (fresh || (upnp_file_stat(path.c_str(), &info) == 0 && SameFile(info, cached->status))) {
      if (!fresh) cached->checked_ms = now;
      return ItemOfStatus(id, cached->status, item) ? cache->file : nullptr;
    }
  }
  upnp_file* file = upnp_file_open_read(path.c_str());
  upnp_stat info{};
  if (file == nullptr || upnp_file_get_stat(file, &info) != 0 || !ItemOfStatus(id, info, item)) {
    if (file != nullptr) upnp_file_close(file);
    return nullptr;
  }
  if (cache == nullptr) {
    cache = static_cast<HttpFileCache*>(upnp_calloc_impl(1, sizeof(HttpFileCache)));
    if (cache == nullptr) {
      *owned = true;  // served uncached
      return file;
    }
    request->file_cache = cache;
  }
  if (cache->file != nullptr) upnp_file_close(cache->file);
  if (cache->blocks[0] != nullptr) upnp_free_impl(cache->blocks[0]);  // null logs a complaint
  cache->file = file;
  cached = static_cast<CachedItem*>(upnp_malloc_impl(sizeof(CachedItem) + path.size()));
  if (cached != nullptr) {
    cached->checked_ms = now;
    cached->status = info;
    std::memcpy(cached->path, path.c_str(), path.size() + 1);
  }
  cache->blocks[0] = cached;
  return file;
}

int32_t OnMedia(HttpRequest* request) {
  std::string id;
  Object item;
  bool owned = false;
  upnp_file* file = nullptr;
  if (!ObjectIdOfResourcePath(request->url, &id) ||
      (file = OpenThroughCache(request, id, &item, &owned)) == nullptr) {
    return HTTP_send_file_not_found(request);
  }
  const int64_t size = item.size;
  // The library asks the client database for a client's own MIME type first.
  request->mime_type = HTTP_get_mime_type(request, HTTP_get_extension(item.path.c_str()));
  if (item.media.duration_ms > 0 && item.media.duration_ms <= INT32_MAX) {
    request->duration_ms = static_cast<int32_t>(item.media.duration_ms);
  }
  request->content_length = size;
  request->total_size = size;
  HTTP_get_range_header(request);
  int32_t result = 0;
  if (const int32_t error = RangeError(*request, size); error != 0) {
    request->content_length = 0;
    result = HTTP_send_error_code(request, error);
  } else {
    int32_t status = kStatusOk;
    int64_t offset = 0;
    if (request->range_start >= 0) {
      if (request->range_end < 0 || request->range_end >= size) request->range_end = size - 1;
      offset = request->range_start;
      request->content_length = request->range_end - request->range_start + 1;
      status = kStatusPartial;
    }
    // Header and body in one call: sendfile on a plain connection, the TLS hook otherwise.
    result = HTTP_send_file(request, status, file, offset);
  }
  if (owned) upnp_file_close(file);
  return result;
}

}  // namespace

void RegisterStreamingHandlers() {
  const uint32_t get = HTTP_METHOD_GET | HTTP_METHOD_HEAD;
  upnp_http_register_handler(&OnMedia, get, kMediaPrefix, 0, 0);
}

}  // namespace mediaserver
