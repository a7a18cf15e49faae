// SPDX-License-Identifier: Apache-2.0
// The status page: "/status.html", which the library also serves for "/" (the default URL). It
// shows the server, one folder of the shared tree at a time ("/status.html?folder=<object ID>",
// the root without a parameter), and the client devices the library has recognised. Everything
// shown is escaped; the page needs no script and no outside resource.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "didl.h"
#include "host.h"
#include "library.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace mediaserver {
namespace {

constexpr char kPageUrl[] = "/status.html";
constexpr char kFolderParameter[] = "folder=";
constexpr char kHtmlType[] = "text/html; charset=utf-8";
constexpr size_t kMaxListed = 1000;     // entries of one folder shown; the rest are counted
constexpr size_t kMaxBreadcrumbs = 40;  // deeper than the library shows anyway
constexpr int32_t kStatusOk = 200;

constexpr char kStyle[] =
    "body{font-family:system-ui,sans-serif;margin:0;background:#f4f6f8;color:#1c2430}"
    "header{background:#1f4e79;color:#fff;padding:16px 24px}"
    "header h1{margin:0 0 4px;font-size:24px}header p{margin:0;font-size:13px;opacity:.85}"
    "main{padding:8px 24px 24px;max-width:960px}"
    "h2{font-size:18px;margin:20px 0 8px}"
    "table{border-collapse:collapse;width:100%;background:#fff;"
    "box-shadow:0 1px 2px rgba(0,0,0,.15)}"
    "th,td{text-align:left;padding:6px 10px;border-bottom:1px solid #e2e6ea;font-size:14px}"
    "th{background:#e8edf2}td.num{text-align:right;white-space:nowrap}"
    "a{color:#1f4e79}nav{font-size:14px}.empty{color:#5a6570;font-style:italic}"
    ".on{color:#1e7b34}.off{color:#a12b2b}";

std::string FolderLink(const std::string& id) {
  return std::string(kPageUrl) + "?" + kFolderParameter + UrlEscape(id);
}

// "1.5 MiB" and the like; bytes below 1 KiB as they are.
std::string HumanSize(int64_t bytes) {
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(bytes) + " bytes";
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof(kUnits) / sizeof(kUnits[0])) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f %s", value, kUnits[unit]);
  return text;
}

// The folder asked for: the root without the parameter; false when the ID names no container.
bool RequestedFolder(const char* url, Object* folder) {
  std::string id = kRootId;
  const char* query = std::strchr(url, '?');
  // The handler is found by prefix: "/status.htmlx" is not this page.
  const size_t path_length = query != nullptr ? static_cast<size_t>(query - url) : std::strlen(url);
  if (path_length != std::strlen(kPageUrl)) return false;
  if (query != nullptr) {
    std::string parameters = query + 1;
    size_t at = 0;
    while (at <= parameters.size()) {
      const size_t end = std::min(parameters.find('&', at), parameters.size());
      const std::string parameter = parameters.substr(at, end - at);
      if (parameter.compare(0, std::strlen(kFolderParameter), kFolderParameter) == 0) {
        id = parameter.substr(std::strlen(kFolderParameter));
      }
      at = end + 1;
    }
  }
  return FindObject(id, folder) && folder->container;
}

// "Root / Music / Live": links to every folder above this one.
std::string Breadcrumbs(const Object& folder) {
  std::vector<Object> chain = {folder};
  while (chain.size() < kMaxBreadcrumbs && chain.back().parent_id != kRootParentId) {
    Object parent;
    if (!FindObject(chain.back().parent_id, &parent)) break;
    chain.push_back(parent);
  }
  std::string html = "<nav>";
  for (size_t i = chain.size(); i-- > 0;) {
    const Object& step = chain[i];
    if (i != chain.size() - 1) html += " / ";
    if (i == 0) {
      html += "<strong>" + XmlEscape(step.title) + "</strong>";
    } else {
      html +=
          "<a href=\"" + XmlEscape(FolderLink(step.id)) + "\">" + XmlEscape(step.title) + "</a>";
    }
  }
  return html + "</nav>\n";
}

std::string Listing(const Object& folder) {
  std::vector<Object> children;
  if (!ListChildren(folder, &children)) {
    return "<p class=\"empty\">The folder cannot be read.</p>\n";
  }
  if (children.empty()) return "<p class=\"empty\">Nothing to show in this folder.</p>\n";
  std::string html = "<table>\n<tr><th>Name</th><th>Type</th><th>Size</th></tr>\n";
  const size_t shown = std::min(children.size(), kMaxListed);
  for (size_t i = 0; i < shown; ++i) {
    const Object& child = children[i];
    if (child.container) {
      html += "<tr><td><a href=\"" + XmlEscape(FolderLink(child.id)) + "\">" +
              XmlEscape(child.title) + "/</a></td><td>folder</td><td class=\"num\">" +
              std::to_string(child.child_count) + (child.child_count == 1 ? " entry" : " entries") +
              "</td></tr>\n";
    } else {
      html += "<tr><td><a href=\"" + XmlEscape(ResourcePathOf(child)) + "\">" +
              XmlEscape(child.title) + "</a></td><td>" +
              XmlEscape(child.mime_type != nullptr ? child.mime_type : "") +
              "</td><td class=\"num\" title=\"" + std::to_string(child.size) + " bytes\">" +
              HumanSize(child.size) + "</td></tr>\n";
    }
  }
  html += "</table>\n";
  if (children.size() > shown) {
    html += "<p class=\"empty\">" + std::to_string(children.size() - shown) +
            " more entries are not listed.</p>\n";
  }
  return html;
}

// The names of the client types, by number, from the library's "%03d,name,%03d,name" list.
std::vector<std::string> TypeNames() {
  std::vector<std::string> names(UPNP_CLIENT_TYPE_SLOTS);
  char* table = upnp_client_db_get_table();
  if (table == nullptr) return names;
  const std::string text = table;
  upnp_free_impl(table);
  // An item starts with three digits and a comma, at the start or behind a comma; a name may
  // hold commas of its own, so an item ends only where the next such start is.
  auto is_item_start = [&text](size_t at) {
    return at + 4 <= text.size() && std::isdigit(static_cast<unsigned char>(text[at])) &&
           std::isdigit(static_cast<unsigned char>(text[at + 1])) &&
           std::isdigit(static_cast<unsigned char>(text[at + 2])) && text[at + 3] == ',';
  };
  size_t at = 0;
  while (is_item_start(at)) {
    const int type = std::atoi(text.substr(at, 3).c_str());
    size_t end = text.find(',', at + 4);
    while (end != std::string::npos && !is_item_start(end + 1)) end = text.find(',', end + 1);
    const size_t stop = end == std::string::npos ? text.size() : end;
    if (type >= 0 && type < UPNP_CLIENT_TYPE_SLOTS)
      names[type] = text.substr(at + 4, stop - at - 4);
    if (end == std::string::npos) break;
    at = end + 1;
  }
  return names;
}

struct ClientRow {
  int type = 0;
  std::string mac, ip, name;
  bool enabled = false;
};

// The client table through its printout (the walk under the database's own lock): per record
// type, MAC, IP, UDN, enabled, friendly name, icon URL, icon type, view, default-view flag and
// a "##########" line. The name is the one free-text field: it may span lines, so it is what
// lies between the first five lines and the last four.
std::vector<ClientRow> Clients() {
  std::vector<ClientRow> rows;
  upnp_string* list = upnp_get_connected_client_list();
  if (list == nullptr) return rows;
  const char* buffer = upnp_string_get_cstring(list);
  const std::string text = buffer != nullptr ? buffer : "";
  upnp_string_free(list);
  constexpr char kSeparator[] = "##########\n";
  constexpr size_t kLinesBefore = 5;
  constexpr size_t kLinesAfter = 4;
  size_t at = 0;
  for (size_t end = text.find(kSeparator); end != std::string::npos;
       at = end + sizeof(kSeparator) - 1, end = text.find(kSeparator, at)) {
    std::vector<std::string> lines;
    for (size_t from = at; from < end;) {
      const size_t newline = text.find('\n', from);
      lines.push_back(text.substr(from, newline - from));
      from = newline + 1;
    }
    if (lines.size() < kLinesBefore + 1 + kLinesAfter) continue;
    ClientRow row;
    row.type = std::atoi(lines[0].c_str());
    row.mac = lines[1];
    row.ip = lines[2];
    row.enabled = lines[4] == "1";
    for (size_t i = kLinesBefore; i < lines.size() - kLinesAfter; ++i) {
      row.name += (i > kLinesBefore ? " " : "") + lines[i];
    }
    rows.push_back(row);
  }
  return rows;
}

std::string ClientTable() {
  const std::vector<ClientRow> rows = Clients();
  if (rows.empty()) return "<p class=\"empty\">No client device has been seen yet.</p>\n";
  const std::vector<std::string> names = TypeNames();
  std::string html =
      "<table>\n<tr><th>Name</th><th>Address</th><th>MAC</th><th>Type</th><th>Access</th></tr>\n";
  for (const ClientRow& row : rows) {
    const bool named =
        row.type >= 0 && row.type < static_cast<int>(names.size()) && !names[row.type].empty();
    const std::string type = named ? names[row.type] : "type " + std::to_string(row.type);
    html += "<tr><td>" + XmlEscape(row.name.empty() ? "(unnamed)" : row.name) + "</td><td>" +
            XmlEscape(row.ip) + "</td><td>" + XmlEscape(row.mac) + "</td><td>" + XmlEscape(type) +
            "</td><td class=\"" + (row.enabled ? "on\">enabled" : "off\">blocked") + "</td></tr>\n";
  }
  return html + "</table>\n";
}

std::string Page(const Object& folder) {
  const Settings& settings = CurrentSettings();
  const std::string name = XmlEscape(settings.friendly_name);
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
         name + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n<header>\n<h1>" + name +
         "</h1>\n<p>UPnP media server &middot; " + XmlEscape(settings.udn) +
         "</p>\n</header>\n<main>\n<h2>Shared folder</h2>\n" + Breadcrumbs(folder) +
         Listing(folder) + "<h2>Client devices</h2>\n" + ClientTable() +
         "</main>\n</body>\n</html>\n";
}

int32_t OnStatusPage(HttpRequest* request) {
  Object folder;
  if (!RequestedFolder(request->url, &folder)) return HTTP_send_file_not_found(request);
  const std::string html = Page(folder);
  request->mime_type = kHtmlType;
  request->content_length = static_cast<int64_t>(html.size());
  return HTTP_send(request, html.c_str());
}

}  // namespace

void RegisterStatusPage() {
  upnp_http_register_handler(&OnStatusPage, HTTP_METHOD_GET | HTTP_METHOD_HEAD, kPageUrl, 0, 0);
  upnp_http_set_default_url(kPageUrl);
}

}  // namespace mediaserver
