// SPDX-License-Identifier: Apache-2.0
// DIDL-Lite: each object becomes a node of the library's XML tree, and the compliant writer
// turns the tree into text. The writer escapes every value once and keeps what renderers accept
// (titles cut with an ellipsis at 256 bytes, "restricted" as 0/1, durations as H:MM:SS, only
// valid dates, only well-formed protocolInfo parameters), so nothing here escapes by hand.
#include "didl.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "tarnwick/clientdb.h"
#include "tarnwick/http.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "tarnwick/xml.h"

namespace mediaserver {
namespace {

constexpr char kMediaPrefix[] = "/media/";
constexpr char kStreamingFlags[] = "01700000";  // streaming, background, stall, DLNA 1.5
constexpr char kPictureFlags[] = "00f00000";    // interactive, background, stall, DLNA 1.5
constexpr char kByteSeek[] = "01";
constexpr char kDlnaFlagsTail[] = "000000000000000000000000";

// The DLNA profile names this server gives; a MIME type not listed has no profile.
struct ProfileRow {
  const char* mime_type;
  const char* profile;
};
constexpr ProfileRow kProfiles[] = {
    {"audio/mpeg", "MP3"},
    {"audio/mp4", "AAC_ISO_320"},
    {"audio/x-ms-wma", "WMABASE"},
    {"audio/L16", "LPCM"},
};

std::string PictureProfile(const char* prefix, const Object& item) {
  const int32_t w = item.media.width;
  const int32_t h = item.media.height;
  if (w <= 0 || h <= 0) return std::string(prefix) + "_LRG";
  if (w <= 160 && h <= 160) return std::string(prefix) + "_TN";
  if (w <= 640 && h <= 480) return std::string(prefix) + "_SM";
  if (w <= 1024 && h <= 768) return std::string(prefix) + "_MED";
  if (w <= 4096 && h <= 4096) return std::string(prefix) + "_LRG";
  return "";  // larger than any picture profile
}

// "H:MM:SS.mmm", the res@duration form.
std::string Duration(int64_t ms) {
  char text[48];
  std::snprintf(text, sizeof(text), "%lld:%02d:%02d.%03d", static_cast<long long>(ms / 3600000),
                static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                static_cast<int>(ms % 1000));
  return text;
}

std::string Date(int64_t seconds, bool with_time) {
  const auto t = static_cast<time_t>(seconds);
  struct tm parts {};
  if (gmtime_r(&t, &parts) == nullptr) return "";
  char text[32];
  std::strftime(text, sizeof(text), with_time ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d", &parts);
  return text;
}

// Which optional properties a Browse/Search Filter asks for.
class Filter {
 public:
  explicit Filter(const std::string& text) : all_(text.find('*') != std::string::npos) {
    size_t start = 0;
    while (start <= text.size() && !all_) {
      const size_t end = std::min(text.find(',', start), text.size());
      std::string name = text.substr(start, end - start);
      const size_t first = name.find_first_not_of(" \t");
      const size_t last = name.find_last_not_of(" \t");
      if (first != std::string::npos) names_.push_back(name.substr(first, last - first + 1));
      start = end + 1;
    }
  }
  bool Wants(const char* name) const {
    if (all_) return true;
    for (const std::string& listed : names_) {
      if (listed == name) return true;
      // "res@size" also asks for res; "@childCount" stands for "container@childCount".
      if (listed[0] == '@' && std::strchr(name, '@') != nullptr &&
          std::strcmp(std::strchr(name, '@'), listed.c_str()) == 0) {
        return true;
      }
      if (std::strncmp(listed.c_str(), name, std::strlen(name)) == 0 &&
          listed[std::strlen(name)] == '@') {
        return true;
      }
    }
    return false;
  }

 private:
  bool all_;
  std::vector<std::string> names_;
};

// Attributes are written in list order; this appends at the end.
void AddAttribute(upnp_xml_node* node, const char* name, const std::string& value) {
  upnp_xml_attribute* attribute = upnp_xml_new_attribute(name, value.c_str());
  if (attribute == nullptr) return;
  upnp_xml_attribute** tail = &node->attributes;
  while (*tail != nullptr) tail = &(*tail)->next;
  *tail = attribute;
}

void AddChild(upnp_xml_node* parent, const char* name, const std::string& value) {
  upnp_xml_node* child = upnp_xml_new_node(name, value.c_str());
  if (child != nullptr) upnp_xml_add_as_subnode(parent, child);
}

std::string Title(const Object& object, const ClientContext& client) {
  if (upnp_client_db_no_utf(client.client_type) == 0) return object.title;
  char* latin = upnp_strdup_from_utf8(object.title.c_str());
  if (latin == nullptr) return object.title;
  std::string text = latin;
  upnp_free_impl(latin);
  return text;
}

upnp_xml_node* ObjectNode(const Object& object, const ClientContext& client, const Filter& filter) {
  upnp_xml_node* node = upnp_xml_new_node(object.container ? "container" : "item", nullptr);
  if (node == nullptr) return nullptr;
  AddAttribute(node, "id", object.id);
  AddAttribute(node, "parentID", object.parent_id);
  if (!object.ref_id.empty()) AddAttribute(node, "refID", object.ref_id);
  AddAttribute(node, "restricted", "1");
  if (object.container) {
    if (filter.Wants("container@childCount")) {
      AddAttribute(node, "childCount", std::to_string(object.child_count));
    }
    if (filter.Wants("container@searchable")) AddAttribute(node, "searchable", "1");
  }
  AddChild(node, "dc:title", Title(object, client));
  AddChild(node, "upnp:class", UpnpClassOf(object));
  if (filter.Wants("dc:date") && object.modified > 0) {
    AddChild(node, "dc:date",
             Date(object.modified, upnp_client_db_add_time_to_date(client.client_type) != 0));
  }
  if (object.container || !filter.Wants("res")) return node;

  // Absolute, under the address the client used to reach this server.
  std::string url = client.base_url;
  if (!url.empty() && url.back() == '/') url.pop_back();
  url += ResourcePathOf(object);
  upnp_xml_node* res = upnp_xml_new_node("res", url.c_str());
  if (res == nullptr) return node;
  AddAttribute(res, "protocolInfo", ProtocolInfoOf(object, client));
  if (filter.Wants("res@size")) AddAttribute(res, "size", std::to_string(object.size));
  const bool timed =
      object.media.kind == MediaKind::kAudio || object.media.kind == MediaKind::kVideo;
  if (timed && filter.Wants("res@duration") &&
      (object.media.duration_ms > 0 || upnp_client_db_needs_duration(client.client_type) != 0)) {
    AddAttribute(res, "duration", Duration(object.media.duration_ms));
  }
  if (object.media.bitrate > 0 && filter.Wants("res@bitrate")) {
    AddAttribute(res, "bitrate", std::to_string(object.media.bitrate));
  }
  if (object.media.sample_rate > 0 && filter.Wants("res@sampleFrequency")) {
    AddAttribute(res, "sampleFrequency", std::to_string(object.media.sample_rate));
  }
  if (object.media.channels > 0 && filter.Wants("res@nrAudioChannels")) {
    AddAttribute(res, "nrAudioChannels", std::to_string(object.media.channels));
  }
  if (object.media.width > 0 && object.media.height > 0 && filter.Wants("res@resolution")) {
    AddAttribute(res, "resolution",
                 std::to_string(object.media.width) + "x" + std::to_string(object.media.height));
  }
  upnp_xml_add_as_subnode(node, res);
  return node;
}

}  // namespace

const char* UpnpClassOf(const Object& object) {
  if (object.container) {
    return object.playlist ? "object.container.playlistContainer"
                           : "object.container.storageFolder";
  }
  switch (object.media.kind) {
    case MediaKind::kAudio:
      return "object.item.audioItem.musicTrack";
    case MediaKind::kVideo:
      return "object.item.videoItem";
    case MediaKind::kImage:
      return "object.item.imageItem.photo";
    case MediaKind::kOther:
      break;
  }
  return "object.item";
}

DlnaParameters DlnaParametersOf(const Object& item) {
  DlnaParameters parameters;
  parameters.op = kByteSeek;
  parameters.flags = item.media.kind == MediaKind::kImage ? kPictureFlags : kStreamingFlags;
  if (item.mime_type == nullptr) return parameters;
  if (std::strcmp(item.mime_type, "image/jpeg") == 0) {
    parameters.profile = PictureProfile("JPEG", item);
  } else if (std::strcmp(item.mime_type, "image/png") == 0) {
    parameters.profile = PictureProfile("PNG", item);
  } else {
    for (const ProfileRow& row : kProfiles) {
      if (std::strcmp(item.mime_type, row.mime_type) == 0) parameters.profile = row.profile;
    }
  }
  return parameters;
}

std::string ProtocolInfoOf(const Object& item, const ClientContext& client) {
  const char* extension = HTTP_get_extension(item.path.c_str());
  const char* special = extension != nullptr
                            ? upnp_client_db_needs_special_mime_type(client.client_type, extension)
                            : nullptr;
  const char* mime = special != nullptr          ? special
                     : item.mime_type != nullptr ? item.mime_type
                                                 : "application/octet-stream";
  const DlnaParameters dlna = DlnaParametersOf(item);
  std::string fourth;
  if (!dlna.profile.empty()) fourth = "DLNA.ORG_PN=" + dlna.profile + ";";
  // Without a profile the field is "*" unless the client wants it filled in all the same.
  if (dlna.profile.empty() && upnp_client_db_needs_4th_field(client.client_type) == 0) {
    return std::string("http-get:*:") + mime + ":*";
  }
  fourth +=
      "DLNA.ORG_OP=" + dlna.op + ";DLNA.ORG_CI=0;DLNA.ORG_FLAGS=" + dlna.flags + kDlnaFlagsTail;
  return std::string("http-get:*:") + mime + ":" + fourth;
}

std::string ResourcePathOf(const Object& item) {
  // The markers after the ID are what the HTTP server turns into contentFeatures.dlna.org;
  // nothing else in the path may contain "-PN", "-OP", "-CI" or "-FLAGS", hence the plain last
  // segment that only carries the extension for players that look at it.
  const DlnaParameters dlna = DlnaParametersOf(item);
  std::string path = kMediaPrefix + (item.ref_id.empty() ? item.id : item.ref_id);
  if (!dlna.profile.empty()) path += "-PN" + dlna.profile;
  path += "-OP" + dlna.op + "-CI0-FLAGS" + dlna.flags + "/item";
  const char* extension = HTTP_get_extension(item.path.c_str());
  if (extension != nullptr && std::strpbrk(extension, "-/?#% ") == nullptr) {
    path += ".";
    path += extension;
  }
  return path;
}

bool ObjectIdOfResourcePath(const char* path, std::string* id) {
  if (path == nullptr || std::strncmp(path, kMediaPrefix, sizeof(kMediaPrefix) - 1) != 0) {
    return false;
  }
  const char* start = path + sizeof(kMediaPrefix) - 1;
  const size_t length = std::strcspn(start, "-/?");
  if (length == 0) return false;
  id->assign(start, length);
  return true;
}

std::string BuildDidl(const std::vector<Object>& objects, const ClientContext& client,
                      const std::string& filter_text) {
  upnp_xml_node* root = upnp_xml_new_node("DIDL-Lite", nullptr);
  if (root == nullptr) return "";
  AddAttribute(root, "xmlns", "urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/");
  AddAttribute(root, "xmlns:dc", "http://purl.org/dc/elements/1.1/");
  AddAttribute(root, "xmlns:upnp", "urn:schemas-upnp-org:metadata-1-0/upnp/");
  AddAttribute(root, "xmlns:dlna", "urn:schemas-dlna-org:metadata-1-0/");
  const Filter filter(filter_text);
  // Appending to the last child directly keeps a long answer linear.
  upnp_xml_node* last = nullptr;
  for (const Object& object : objects) {
    upnp_xml_node* node = ObjectNode(object, client, filter);
    if (node == nullptr) continue;
    if (last == nullptr) {
      root->children = node;
    } else {
      last->next = node;
    }
    last = node;
  }
  upnp_string* text = upnp_xml_tree_to_compliant_string(root, 0, 1);
  upnp_xml_release(root);
  if (text == nullptr) return "";
  std::string didl = text->buffer != nullptr ? std::string(text->buffer, text->length) : "";
  upnp_string_free(text);
  return didl;
}

}  // namespace mediaserver
