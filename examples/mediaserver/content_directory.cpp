// SPDX-License-Identifier: Apache-2.0
// ContentDirectory:1 at "/ContentDirectory/Control": Browse, Search and the capability and
// update-ID queries. Objects come from library.h, DIDL-Lite from didl.h; the answer carries the
// DIDL-Lite text as the value of Result, so SendSoapResponse escapes it once more and every
// value inside ends up escaped twice, as control points expect.
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "didl.h"
#include "host.h"
#include "library.h"
#include "soap.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/http.h"
#include "tarnwick/services.h"

namespace mediaserver {
namespace {

constexpr char kServiceType[] = "urn:schemas-upnp-org:service:ContentDirectory:1";
constexpr char kSearchCapabilities[] = "dc:title,upnp:class";
constexpr char kSortCapabilities[] = "dc:title,dc:date";
// Objects in one answer unless the client may have unlimited XML; a control point pages on.
constexpr uint32_t kMaxReturned = 5000;
constexpr size_t kMaxSearchItems = 20000;
constexpr size_t kMaxCriteriaDepth = 16;

// Codes the library's error table does not know: the host table adds them.
constexpr int32_t kErrorUnsupportedSort = 709;
constexpr int32_t kErrorCannotProcess = 720;
constexpr upnp_errmsg kHostErrors[] = {
    {kErrorUnsupportedSort, "Unsupported or invalid sort criteria"},
    {kErrorCannotProcess, "Cannot process the request"},
    {-1, nullptr},
};

// A ui4 argument; false when it is not a plain decimal number of at most 32 bits.
bool ReadCount(const std::string& text, uint32_t* value) {
  if (text.empty() || text.size() > 10 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long long number = std::strtoull(text.c_str(), nullptr, 10);
  if (number > 0xFFFFFFFFULL) return false;
  *value = static_cast<uint32_t>(number);
  return true;
}

// ---- Sorting --------------------------------------------------------------------------------

struct SortKey {
  bool by_title;  // else by date
  bool ascending;
};

bool ReadSortCriteria(const std::string& text, std::vector<SortKey>* keys) {
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = std::min(text.find(',', start), text.size());
    std::string key = text.substr(start, end - start);
    start = end + 1;
    key.erase(0, key.find_first_not_of(" \t"));
    key.erase(key.find_last_not_of(" \t") + 1);
    if (key.empty()) continue;
    bool ascending = true;
    if (key[0] == '+' || key[0] == '-') {
      ascending = key[0] == '+';
      key.erase(0, 1);
    }
    if (key == "dc:title") {
      keys->push_back(SortKey{true, ascending});
    } else if (key == "dc:date") {
      keys->push_back(SortKey{false, ascending});
    } else {
      return false;
    }
  }
  return true;
}

void Sort(std::vector<Object>* objects, const std::vector<SortKey>& keys) {
  if (keys.empty()) return;
  std::stable_sort(objects->begin(), objects->end(), [&](const Object& a, const Object& b) {
    for (const SortKey& key : keys) {
      const int order = key.by_title              ? strcasecmp(a.title.c_str(), b.title.c_str())
                        : a.modified < b.modified ? -1
                        : a.modified > b.modified ? 1
                                                  : 0;
      if (order != 0) return key.ascending ? order < 0 : order > 0;
    }
    return false;
  });
}

// ---- Search criteria ------------------------------------------------------------------------
// A small recursive-descent reader of the criteria grammar: "*", or relations joined by "and"
// and "or" with parentheses. Relations on upnp:class (=, !=, derivedfrom), dc:title (=, !=,
// contains, doesNotContain) and "exists" on any property; anything else is error 708.

class Criteria {
 public:
  explicit Criteria(const std::string& text) : text_(text) {}

  // Parses the whole text; false for a criterion this server does not support.
  bool Parse() {
    Skip();
    if (text_.compare(position_, std::string::npos, "*") == 0) {
      root_ = Node();
      return true;
    }
    if (!Or(&root_, 0)) return false;
    Skip();
    return position_ == text_.size();
  }

  bool Matches(const Object& object) const { return Evaluate(root_, object); }

 private:
  struct Node {
    enum Kind { kAll, kAnd, kOr, kRelation } kind = kAll;
    std::string property, op, value;
    std::vector<Node> children;
  };

  void Skip() {
    while (position_ < text_.size() && std::strchr(" \t\r\n", text_[position_]) != nullptr) {
      ++position_;
    }
  }
  bool Word(std::string* word) {
    Skip();
    const size_t start = position_;
    while (position_ < text_.size() && std::strchr(" \t\r\n()\"", text_[position_]) == nullptr) {
      ++position_;
    }
    *word = text_.substr(start, position_ - start);
    return !word->empty();
  }
  bool Keyword(const char* keyword) {
    Skip();
    const size_t saved = position_;
    std::string word;
    if (Word(&word) && word == keyword) return true;
    position_ = saved;
    return false;
  }
  bool Quoted(std::string* value) {
    Skip();
    if (position_ >= text_.size() || text_[position_] != '"') return false;
    value->clear();
    for (++position_; position_ < text_.size(); ++position_) {
      if (text_[position_] == '\\' && position_ + 1 < text_.size()) {
        *value += text_[++position_];
      } else if (text_[position_] == '"') {
        ++position_;
        return true;
      } else {
        *value += text_[position_];
      }
    }
    return false;
  }
  bool Or(Node* node, size_t depth) {
    Node first;
    if (!And(&first, depth)) return false;
    node->kind = Node::kOr;
    node->children.push_back(std::move(first));
    while (Keyword("or")) {
      Node next;
      if (!And(&next, depth)) return false;
      node->children.push_back(std::move(next));
    }
    return true;
  }
  bool And(Node* node, size_t depth) {
    Node first;
    if (!Factor(&first, depth)) return false;
    node->kind = Node::kAnd;
    node->children.push_back(std::move(first));
    while (Keyword("and")) {
      Node next;
      if (!Factor(&next, depth)) return false;
      node->children.push_back(std::move(next));
    }
    return true;
  }
  bool Factor(Node* node, size_t depth) {
    Skip();
    if (position_ < text_.size() && text_[position_] == '(') {
      if (depth >= kMaxCriteriaDepth) return false;
      ++position_;
      if (!Or(node, depth + 1)) return false;
      Skip();
      if (position_ >= text_.size() || text_[position_] != ')') return false;
      ++position_;
      return true;
    }
    node->kind = Node::kRelation;
    if (!Word(&node->property) || !Word(&node->op)) return false;
    if (node->op == "exists")
      return Word(&node->value) && (node->value == "true" || node->value == "false");
    if (!Quoted(&node->value)) return false;
    if (node->property == "upnp:class") {
      return node->op == "=" || node->op == "!=" || node->op == "derivedfrom";
    }
    if (node->property == "dc:title") {
      return node->op == "=" || node->op == "!=" || node->op == "contains" ||
             node->op == "doesNotContain";
    }
    return false;
  }

  static bool Has(const Object& object, const std::string& property) {
    return property == "dc:title" || property == "upnp:class" || property == "res" ||
           property == "@id" || property == "@parentID" || property == "dc:date" ||
           (property == "res@duration" && object.media.duration_ms > 0);
  }
  static std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return text;
  }
  static bool Evaluate(const Node& node, const Object& object) {
    switch (node.kind) {
      case Node::kAll:
        return true;
      case Node::kAnd:
        return std::all_of(node.children.begin(), node.children.end(),
                           [&](const Node& child) { return Evaluate(child, object); });
      case Node::kOr:
        return std::any_of(node.children.begin(), node.children.end(),
                           [&](const Node& child) { return Evaluate(child, object); });
      case Node::kRelation:
        break;
    }
    if (node.op == "exists") return Has(object, node.property) == (node.value == "true");
    const std::string have =
        node.property == "upnp:class" ? UpnpClassOf(object) : Lower(object.title);
    const std::string want = node.property == "upnp:class" ? node.value : Lower(node.value);
    if (node.op == "=") return have == want;
    if (node.op == "!=") return have != want;
    if (node.op == "derivedfrom") return have.compare(0, want.size(), want) == 0;
    if (node.op == "contains") return have.find(want) != std::string::npos;
    return have.find(want) == std::string::npos;  // doesNotContain
  }

  std::string text_;
  size_t position_ = 0;
  Node root_;
};

// ---- Actions --------------------------------------------------------------------------------

ClientContext ContextOf(const HttpRequest& request) {
  ClientContext client;
  client.client_type = request.client_id;
  client.base_url = request.base_url;
  return client;
}

// Sends one page of objects as Result with NumberReturned, TotalMatches and UpdateID.
int32_t SendPage(HttpRequest* request, const SoapAction& action, std::vector<Object> objects,
                 const std::string& filter, uint32_t start, uint32_t count) {
  const auto total = static_cast<uint32_t>(objects.size());
  uint32_t limit = count == 0 ? total : count;
  if (upnp_client_db_allow_unlimited_xml(request->client_id) == 0) {
    limit = std::min(limit, kMaxReturned);
  }
  std::vector<Object> page;
  if (start < total) {
    const uint32_t end = total - start < limit ? total : start + limit;
    page.assign(std::make_move_iterator(objects.begin() + start),
                std::make_move_iterator(objects.begin() + end));
  }
  const std::string didl = BuildDidl(page, ContextOf(*request), filter);
  if (didl.empty()) return upnp_send_error(request, 603);
  return SendSoapResponse(request, action,
                          {{"Result", didl},
                           {"NumberReturned", std::to_string(page.size())},
                           {"TotalMatches", std::to_string(total)},
                           {"UpdateID", std::to_string(SystemUpdateId())}});
}

struct Paging {
  std::string filter;
  uint32_t start = 0;
  uint32_t count = 0;
  std::vector<SortKey> sort;
};

// Reads Filter, StartingIndex, RequestedCount and SortCriteria; 0 or the UPnP error.
int32_t ReadPaging(const SoapAction& action, int32_t client_type, Paging* paging) {
  std::string start;
  std::string count;
  std::string sort;
  if (!action.Get("Filter", &paging->filter) || !action.Get("StartingIndex", &start) ||
      !action.Get("RequestedCount", &count) || !action.Get("SortCriteria", &sort)) {
    return kErrorInvalidArgs;
  }
  if (!ReadCount(start, &paging->start) || !ReadCount(count, &paging->count)) {
    return kErrorInvalidArgs;
  }
  if (!ReadSortCriteria(sort, &paging->sort)) return kErrorUnsupportedSort;
  if (upnp_client_db_ignore_sort(client_type) != 0) paging->sort.clear();
  return 0;
}

int32_t Browse(HttpRequest* request, const SoapAction& action) {
  std::string id;
  std::string flag;
  Paging paging;
  if (!action.Get("ObjectID", &id) || !action.Get("BrowseFlag", &flag)) {
    return upnp_send_error(request, kErrorInvalidArgs);
  }
  if (const int32_t error = ReadPaging(action, request->client_id, &paging); error != 0) {
    return upnp_send_error(request, error);
  }
  Object object;
  if (!FindObject(id, &object, flag == "BrowseMetadata")) {
    return upnp_send_error(request, kErrorNoSuchObject);
  }
  if (flag == "BrowseMetadata") {
    if (paging.start > 0) return upnp_send_error(request, kErrorInvalidArgs);
    return SendPage(request, action, {object}, paging.filter, 0, 1);
  }
  if (flag != "BrowseDirectChildren") return upnp_send_error(request, kErrorInvalidArgs);
  std::vector<Object> children;
  if (object.container && !ListChildren(object, &children)) {
    return upnp_send_error(request, kErrorCannotProcess);
  }
  Sort(&children, paging.sort);
  return SendPage(request, action, std::move(children), paging.filter, paging.start, paging.count);
}

int32_t Search(HttpRequest* request, const SoapAction& action) {
  std::string id;
  std::string criteria_text;
  Paging paging;
  if (!action.Get("ContainerID", &id) || !action.Get("SearchCriteria", &criteria_text)) {
    return upnp_send_error(request, kErrorInvalidArgs);
  }
  if (const int32_t error = ReadPaging(action, request->client_id, &paging); error != 0) {
    return upnp_send_error(request, error);
  }
  Object container;
  if (!FindObject(id, &container, false) || !container.container) {
    return upnp_send_error(request, kErrorNoSuchContainer);
  }
  Criteria criteria(criteria_text);
  if (!criteria.Parse()) return upnp_send_error(request, kErrorInvalidSearchCriteria);
  std::vector<Object> items;
  ListItemsBelow(container, kMaxSearchItems, &items);
  items.erase(std::remove_if(items.begin(), items.end(),
                             [&](const Object& item) { return !criteria.Matches(item); }),
              items.end());
  Sort(&items, paging.sort);
  return SendPage(request, action, std::move(items), paging.filter, paging.start, paging.count);
}

int32_t OnControl(HttpRequest* request) {
  SoapAction action;
  if (!ReadSoapAction(*request, &action)) return upnp_send_error(request, kErrorBadRequest);
  if (action.service_type != kServiceType) return upnp_send_error(request, kErrorInvalidAction);
  if (action.name == "Browse") return Browse(request, action);
  if (action.name == "Search") return Search(request, action);
  if (action.name == "GetSearchCapabilities") {
    return SendSoapResponse(request, action, {{"SearchCaps", kSearchCapabilities}});
  }
  if (action.name == "GetSortCapabilities") {
    return SendSoapResponse(request, action, {{"SortCaps", kSortCapabilities}});
  }
  if (action.name == "GetSystemUpdateID") {
    return SendSoapResponse(request, action, {{"Id", std::to_string(SystemUpdateId())}});
  }
  return upnp_send_error(request, kErrorInvalidAction);
}

}  // namespace

void RegisterContentDirectory() {
  upnp_set_errmsgs(kHostErrors);
  upnp_http_register_handler(&OnControl, HTTP_METHOD_POST, "/ContentDirectory/Control", 1, 0);
}

}  // namespace mediaserver
