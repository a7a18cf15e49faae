// SPDX-License-Identifier: Apache-2.0
// Eight threads fetch descriptions with the HTTP client and parse, query, write and release them
// at once, as identification does for a burst of announcements. Run under TSan by the CI.
#include "httpclient/scripted_server.h"
#include "tarnwick/httpclient.h"
#include "tarnwick/xml.h"

namespace {

using namespace tw::test;

class FetchAndParse : public ClientTest {};

TEST_F(FetchAndParse, EightThreadsAtOnce) {
  constexpr int kThreads = 8, kRounds = 12, kServices = 40;
  std::string xml =
      "<root xmlns=\"urn:schemas-upnp-org:device-1-0\"><device><friendlyName>Den "
      "&amp; Hall</friendlyName><serviceList>";
  for (int i = 0; i < kServices; ++i) {
    xml += "<service><serviceType>urn:schemas-upnp-org:service:S" + std::to_string(i) +
           ":1</serviceType><controlURL>/ctl/" + std::to_string(i) + "</controlURL></service>";
  }
  xml += "</serviceList></device></root>\r\n";
  ScriptedServer server(kOk + "Content-Length: " + std::to_string(xml.size()) + "\r\n\r\n" + xml,
                        kThreads * kRounds);
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        upnp_xml_node* root = upnp_xml_parse(Take(HTTP_get(server.Url("/d.xml").c_str())).c_str());
        uint32_t count = 0;
        upnp_xml_node** services = upnp_xml_find_all_nodes(root, "service", nullptr, &count);
        const std::string written = Take(upnp_xml_tree_to_compliant_string(root, 1, 0));
        const char* name = upnp_xml_find_tag_value(root, "friendlyName");
        good += count == kServices && name != nullptr && std::strcmp(name, "Den & Hall") == 0 &&
                written.find("Den &amp; Hall</friendlyName>") != std::string::npos;
        upnp_free_impl(services);
        upnp_xml_release(root);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(good.load(), kThreads * kRounds);
}

}  // namespace
