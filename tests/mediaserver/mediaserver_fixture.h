// SPDX-License-Identifier: Apache-2.0
// The example media server's handlers on a real server on 127.0.0.1, sharing a folder the test
// writes, driven through the library's public interface only (the example links the shared
// library, as a host does). Each test runs in its own process, so one server per test.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "didl.h"
#include "eventing.h"
#include "host.h"
#include "library.h"
#include "support/test_support.h"

namespace tw::test {

class MediaServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TW_REQUIRE_LOOPBACK_NAMESPACE();
    upnp_ini_file_init();
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_IP, "127.0.0.1");
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NMCMODE, "0");
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_APPDATA, data_.path().c_str());
    for (const auto& [name, bytes] : Files()) {
      std::filesystem::create_directories(std::filesystem::path(folder_.File(name)).parent_path());
      WriteFile(folder_.File(name), bytes);
    }
    mediaserver::Settings settings;
    settings.folder = folder_.path();
    settings.friendly_name = "Test & Server";
    settings.udn = "uuid:00000000-1111-2222-3333-444444444444";
    mediaserver::SetSettings(settings);
    mediaserver::SetSharedFolder(settings.folder, settings.friendly_name);
    mediaserver::RegisterDescriptionHandlers();
    mediaserver::RegisterContentDirectory();
    mediaserver::RegisterConnectionManager();
    mediaserver::RegisterEventHandlers();
    mediaserver::RegisterStreamingHandlers();
    mediaserver::RegisterStatusPage();
    upnp_server_start(&g_server_running);
    ASSERT_TRUE(WaitFor([&] {
      const upnp_server_data* record = getHTTPServerData(0);
      if (record == nullptr || record->http_socket == -1) return false;
      port_ = record->http_port;
      return true;
    }));
  }
  void TearDown() override {
    if (__atomic_load_n(&g_server_running, __ATOMIC_ACQUIRE) == 1) {
      mediaserver::StopEventing();
      upnp_server_stop(&g_server_running);
    }
  }

  // The files of the shared folder: relative path and contents.
  virtual std::vector<std::pair<std::string, std::string>> Files() const {
    return {{"Music/Tone & <one>.mp3", std::string(3000, 'a')},
            {"Music/b.mp3", std::string(1000, 'b')},
            {"Music/notes.txt", "not media"},
            {"Music/.hidden.mp3", "hidden"},
            {"Pictures/p.jpg", std::string(500, 'p')},
            {"Video/c.mp4", std::string(700, 'c')},
            {"z.wav", std::string(200, 'z')}};
  }

  // A HEAD answer announces a body that never comes: wait for it only briefly.
  HttpResponse Request(const std::string& request, int timeout_ms = kPeerTimeoutMs) {
    HttpPeer peer;
    if (!peer.Connect(port_)) return {};
    peer.Send(request);
    return peer.ReadResponse(timeout_ms);
  }
  HttpResponse Get(const std::string& path, const std::string& lines = "") {
    return Request("GET " + path + " HTTP/1.1\r\nHOST: 127.0.0.1\r\n" + lines + "\r\n");
  }
  // A SOAP action of a service ("ContentDirectory", "ConnectionManager").
  HttpResponse Soap(const std::string& service, const std::string& action,
                    const std::vector<std::pair<std::string, std::string>>& arguments) {
    const std::string type = "urn:schemas-upnp-org:service:" + service + ":1";
    std::string body =
        "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\""
        "><s:Body><u:" +
        action + " xmlns:u=\"" + type + "\">";
    for (const auto& [name, value] : arguments)
      body += "<" + name + ">" + value + "</" + name + ">";
    body += "</u:" + action + "></s:Body></s:Envelope>";
    return Request("POST /" + service +
                   "/Control HTTP/1.1\r\nHOST: 127.0.0.1\r\n"
                   "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\nSOAPACTION: \"" +
                   type + "#" + action + "\"\r\nCONTENT-LENGTH: " + std::to_string(body.size()) +
                   "\r\n\r\n" + body);
  }

  TempDir folder_;
  TempDir data_;
  int port_ = 0;
};

// The text of an element of a SOAP answer, entities resolved once, or "<none>".
inline std::string SoapValue(const std::string& body, const char* name) {
  upnp_xml_node* root = upnp_xml_parse(body.c_str());
  const upnp_xml_node* node = upnp_xml_find_tag(root, name);
  std::string value = node == nullptr ? "<none>" : node->value != nullptr ? node->value : "";
  upnp_xml_release(root);
  return value;
}

}  // namespace tw::test
