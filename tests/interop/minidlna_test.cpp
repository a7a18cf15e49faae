// SPDX-License-Identifier: Apache-2.0
// The client and the XML parser against MiniDLNA, which scripts/with-minidlna.sh starts on
// loopback with a folder whose names need escaping (it exits 77, a skip, without the program).
#include "support/test_support.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/xml.h"

namespace {

using namespace tw::test;

const std::string kDirectory = "urn:schemas-upnp-org:service:ContentDirectory:1";

std::string Text(const char* value) { return value != nullptr ? value : "<none>"; }

class MiniDlna : public LeakCheck {};

TEST_F(MiniDlna, DescriptionThenBrowseDownToTheTracks) {
  const char* url = std::getenv("TW_MINIDLNA_URL");
  if (url == nullptr) GTEST_SKIP() << "run through scripts/with-minidlna.sh";
  upnp_xml_node* description = upnp_xml_parse(Take(HTTP_get(url)).c_str());
  EXPECT_EQ(Text(upnp_xml_find_tag_value(description, "friendlyName")), "Interop Server");
  std::string control;
  for (const upnp_xml_node* s = upnp_xml_find_tag(description, "service"); s != nullptr;
       s = upnp_xml_find_next_tag(s, "service")) {
    if (Text(upnp_xml_find_tag_value(s->children, "serviceType")) == kDirectory) {
      control = Text(upnp_xml_find_tag_value(s->children, "controlURL"));
    }
  }
  upnp_xml_release(description);
  // Root, then the folder view, then the generated folder, each found by its title; the parser
  // resolved one level of escaping, so the Result value is the DIDL-Lite text itself.
  std::string id = "0";
  std::vector<std::string> titles;
  upnp_xml_node* didl = nullptr;
  for (const std::string wanted : {"Browse Folders", "Live & Loud", ""}) {
    ASSERT_NE(id, "") << "no container " << wanted;
    const std::string browse =
        "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><u:Browse "
        "xmlns:u=\"" +
        kDirectory + "\"><ObjectID>" + id +
        "</ObjectID><BrowseFlag>"
        "BrowseDirectChildren</BrowseFlag></u:Browse></s:Body></s:Envelope>";
    upnp_xml_node* answer = upnp_xml_parse(
        Take(HTTP_soap_action(url, control.c_str(), ("\"" + kDirectory + "#Browse\"").c_str(),
                              browse.c_str()))
            .c_str());
    upnp_xml_release(didl);
    didl = upnp_xml_parse(Text(upnp_xml_find_tag_value(answer, "Result")).c_str());
    const uint32_t returned = upnp_xml_find_tag_value_uint(answer, "NumberReturned", 0);
    upnp_xml_release(answer);
    titles.clear();
    id.clear();
    for (const upnp_xml_node* n = didl != nullptr ? didl->children : nullptr; n; n = n->next) {
      titles.push_back(Text(upnp_xml_find_tag_value(n->children, "dc:title")));
      if (titles.back() == wanted) id = Text(upnp_xml_find_attribute_value(n, "id"));
    }
    EXPECT_EQ(titles.size(), returned);
  }
  std::sort(titles.begin(), titles.end());
  EXPECT_THAT(titles, ElementsAre("Track 1 & more", "Track 2 <live>", "Track 3 'quoted'"));
  EXPECT_THAT(Text(upnp_xml_find_attribute_value(upnp_xml_find_tag(didl, "res"), "protocolInfo")),
              HasSubstr("http-get:*:audio/mpeg:"));
  upnp_xml_release(didl);
}

}  // namespace
