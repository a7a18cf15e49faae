// SPDX-License-Identifier: Apache-2.0
// The client and the XML parser against a media server this project did not write: MiniDLNA,
// started by scripts/with-minidlna.sh on loopback with a generated folder whose names need
// escaping. Skipped when the description URL is not given (the script exits 77 without the
// server program).
#include "support/test_support.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/xml.h"

namespace {

using namespace tw::test;

constexpr char kContentDirectory[] = "urn:schemas-upnp-org:service:ContentDirectory:1";

class MiniDlna : public LeakCheck {
 protected:
  void SetUp() override {
    LeakCheck::SetUp();
    const char* url = std::getenv("TW_MINIDLNA_URL");
    if (url == nullptr) GTEST_SKIP() << "run through scripts/with-minidlna.sh";
    description_url_ = url;
    base_url_ = description_url_.substr(0, description_url_.find('/', 7));
  }

  // A parsed document from a body the client fetched; null when nothing came.
  static upnp_xml_node* ParseBody(upnp_string* body) {
    if (body == nullptr) return nullptr;
    upnp_xml_node* root = upnp_xml_parse(upnp_string_get_cstring(body));
    upnp_string_free(body);
    return root;
  }

  // The DIDL-Lite result of one Browse of the direct children of object_id, parsed; the count
  // the answer claims in *returned.
  upnp_xml_node* BrowseChildren(const std::string& control_url, const std::string& object_id,
                                uint32_t* returned) {
    const std::string body =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
        "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
        "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
        "<u:Browse xmlns:u=\"" +
        std::string(kContentDirectory) + "\"><ObjectID>" + object_id +
        "</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter>"
        "<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount>"
        "<SortCriteria></SortCriteria></u:Browse></s:Body></s:Envelope>";
    const std::string action = "\"" + std::string(kContentDirectory) + "#Browse\"";
    upnp_xml_node* answer = ParseBody(
        HTTP_soap_action(base_url_.c_str(), control_url.c_str(), action.c_str(), body.c_str()));
    if (answer == nullptr) return nullptr;
    EXPECT_STREQ(answer->name, "s:Envelope");
    *returned = upnp_xml_find_tag_value_uint(answer, "NumberReturned", 0);
    // The parser resolved one level of escaping: the result value is the DIDL-Lite text itself.
    const char* result = upnp_xml_find_tag_value(answer, "Result");
    upnp_xml_node* didl = result != nullptr ? upnp_xml_parse(result) : nullptr;
    upnp_xml_release(answer);
    return didl;
  }

  // (title, id) of every child element called kind, in document order.
  static std::vector<std::pair<std::string, std::string>> Entries(const upnp_xml_node* didl,
                                                                  const char* kind) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const upnp_xml_node* n = didl != nullptr ? didl->children : nullptr; n != nullptr;
         n = n->next) {
      if (std::strcmp(n->name, kind) != 0) continue;
      const char* title = upnp_xml_find_tag_value(n->children, "dc:title");
      const char* id = upnp_xml_find_attribute_value(n, "id");
      out.emplace_back(title != nullptr ? title : "", id != nullptr ? id : "");
    }
    return out;
  }

  std::string description_url_;
  std::string base_url_;
};

TEST_F(MiniDlna, DescriptionThenBrowseDownToTheTracks) {
  upnp_xml_node* description = ParseBody(HTTP_get(description_url_.c_str()));
  ASSERT_NE(description, nullptr);
  EXPECT_STREQ(description->name, "root");
  EXPECT_STREQ(upnp_xml_find_tag_value(description, "friendlyName"), "Interop Server");
  std::string control_url;
  for (const upnp_xml_node* s = upnp_xml_find_tag(description, "service"); s != nullptr;
       s = upnp_xml_find_next_tag(s, "service")) {
    const char* type = upnp_xml_find_tag_value(s->children, "serviceType");
    if (type != nullptr && std::strcmp(type, kContentDirectory) == 0) {
      control_url = upnp_xml_find_tag_value(s->children, "controlURL");
    }
  }
  upnp_xml_release(description);
  ASSERT_FALSE(control_url.empty());

  // Root, then the folder view, then the generated folder: each level found by its title.
  std::string object_id = "0";
  for (const std::string title : {"Browse Folders", "Live & Loud"}) {
    uint32_t returned = 0;
    upnp_xml_node* didl = BrowseChildren(control_url, object_id, &returned);
    ASSERT_NE(didl, nullptr) << "browsing " << object_id;
    EXPECT_STREQ(didl->name, "DIDL-Lite");
    const auto containers = Entries(didl, "container");
    EXPECT_EQ(containers.size(), returned);
    upnp_xml_release(didl);
    const auto hit = std::find_if(containers.begin(), containers.end(),
                                  [&](const auto& c) { return c.first == title; });
    ASSERT_NE(hit, containers.end()) << "no container " << title << " in " << object_id;
    object_id = hit->second;
  }

  uint32_t returned = 0;
  upnp_xml_node* didl = BrowseChildren(control_url, object_id, &returned);
  ASSERT_NE(didl, nullptr);
  std::vector<std::string> titles;
  for (const auto& item : Entries(didl, "item")) titles.push_back(item.first);
  std::sort(titles.begin(), titles.end());
  EXPECT_THAT(titles, ElementsAre("Track 1 & more", "Track 2 <live>", "Track 3 'quoted'"));
  EXPECT_EQ(returned, 3u);
  const char* protocol =
      upnp_xml_find_attribute_value(upnp_xml_find_tag(didl, "res"), "protocolInfo");
  ASSERT_NE(protocol, nullptr);
  EXPECT_THAT(protocol, HasSubstr("http-get:*:audio/mpeg:"));
  upnp_xml_release(didl);
}

}  // namespace
