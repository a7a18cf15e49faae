// SPDX-License-Identifier: Apache-2.0
// SOAP control requests. The action comes from the SOAPACTION header ("<service type>#<action>")
// and must match the element in the envelope's body; the arguments are that element's children.
// The library's parser has already resolved the entities of their values.
#include "soap.h"

#include <strings.h>

#include <cstring>

#include "tarnwick/platform.h"
#include "tarnwick/services.h"
#include "tarnwick/util.h"
#include "tarnwick/xml.h"

namespace mediaserver {
namespace {

constexpr char kXmlType[] = "text/xml; charset=\"utf-8\"";
constexpr size_t kMaxArguments = 32;

// The value of header line "name:" (any case) of a request head, blanks trimmed, or "".
std::string HeaderValue(const char* head, const char* name) {
  const size_t length = std::strlen(name);
  for (const char* line = std::strstr(head, "\r\n"); line != nullptr;
       line = std::strstr(line + 2, "\r\n")) {
    const char* start = line + 2;
    if (strncasecmp(start, name, length) != 0 || start[length] != ':') continue;
    const char* value = start + length + 1;
    const char* end = std::strstr(value, "\r\n");
    std::string text(value, end != nullptr ? static_cast<size_t>(end - value) : std::strlen(value));
    const size_t first = text.find_first_not_of(" \t");
    const size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
  }
  return "";
}

// The local part of an element name: "u:Browse" gives "Browse".
const char* LocalName(const char* name) {
  const char* colon = std::strrchr(name, ':');
  return colon != nullptr ? colon + 1 : name;
}

// Owns a parsed tree for the length of a request.
struct Tree {
  upnp_xml_node* root;
  ~Tree() { upnp_xml_release(root); }
};

}  // namespace

bool SoapAction::Get(const char* argument, std::string* value) const {
  for (const auto& [argument_name, text] : arguments) {
    if (argument_name == argument) {
      *value = text;
      return true;
    }
  }
  return false;
}

bool ReadSoapAction(const HttpRequest& request, SoapAction* action) {
  *action = SoapAction{};
  if (request.body == nullptr) return false;
  std::string soap_action = HeaderValue(request.header, "SOAPACTION");
  if (soap_action.size() >= 2 && soap_action.front() == '"' && soap_action.back() == '"') {
    soap_action = soap_action.substr(1, soap_action.size() - 2);
  }
  const size_t hash = soap_action.find('#');
  if (hash == std::string::npos || hash == 0 || hash + 1 == soap_action.size()) return false;
  action->service_type = soap_action.substr(0, hash);
  action->name = soap_action.substr(hash + 1);

  const Tree tree{upnp_xml_parse(request.body)};
  if (tree.root == nullptr || std::strcmp(LocalName(tree.root->name), "Envelope") != 0) {
    return false;
  }
  const upnp_xml_node* body = tree.root->children;
  while (body != nullptr && std::strcmp(LocalName(body->name), "Body") != 0) body = body->next;
  if (body == nullptr || body->children == nullptr) return false;
  const upnp_xml_node* element = body->children;
  if (action->name != LocalName(element->name)) return false;
  for (const upnp_xml_node* argument = element->children; argument != nullptr;
       argument = argument->next) {
    if (action->arguments.size() == kMaxArguments) return false;
    action->arguments.emplace_back(argument->name,
                                   argument->value != nullptr ? argument->value : "");
  }
  return true;
}

int32_t SendSoapResponse(HttpRequest* request, const SoapAction& action,
                         const std::vector<std::pair<std::string, std::string>>& outputs) {
  size_t room = 512;
  for (const auto& output : outputs) room += output.second.size() + output.second.size() / 4;
  std::string xml;
  xml.reserve(room);  // a Browse answer is large: grow it once
  xml +=
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" +
      action.name + "Response xmlns:u=\"" + action.service_type + "\">";
  for (const auto& [name, value] : outputs) {
    char* escaped = upnp_xml_escape_cond(value.c_str(), 0);
    if (escaped == nullptr) return upnp_send_error(request, 603);  // Out of Memory
    xml += "<" + name + ">" + escaped + "</" + name + ">";
    upnp_free_impl(escaped);
  }
  xml += "</u:" + action.name + "Response></s:Body></s:Envelope>\r\n";
  request->mime_type = kXmlType;
  request->content_length = static_cast<int64_t>(xml.size());
  return HTTP_send(request, xml.c_str());
}

}  // namespace mediaserver
