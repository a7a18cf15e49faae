// SPDX-License-Identifier: Apache-2.0
// The forgiving parser, the node tree operations and the scanning primitives.

#include "support/test_support.h"

namespace {

using namespace tw::test;

class XmlParse : public LeakCheck {};

// A compact picture of a tree: name, [attributes in list order], ="value", @end when asked for,
// (children). Siblings are separated by ','.
std::string Dump(const upnp_xml_node* node, bool ends = false) {
  std::string out;
  for (; node != nullptr; node = node->next) {
    if (!out.empty()) out += ",";
    out += node->name;
    for (const upnp_xml_attribute* a = node->attributes; a != nullptr; a = a->next) {
      out += (a == node->attributes ? "[" : ",") + std::string(a->name) + "=" +
             (a->value != nullptr ? a->value : "<null>") + (a->next == nullptr ? "]" : "");
    }
    if (node->value != nullptr) out += "=\"" + std::string(node->value) + "\"";
    if (ends) out += "@" + std::to_string(node->end);
    if (node->children != nullptr) out += "(" + Dump(node->children, ends) + ")";
  }
  return out;
}

std::string ParseDump(const std::string& text, bool ends = false) {
  upnp_xml_node* root = upnp_xml_parse(text.c_str());
  std::string out = root != nullptr ? Dump(root, ends) : "<null>";
  upnp_xml_release(root);
  return out;
}

std::string Nested(int depth, const std::string& inner) {
  std::string open;
  std::string close;
  for (int i = 0; i < depth; ++i) open += "<a>", close += "</a>";
  return open + inner + close;
}

// The picture of n nested "a" elements, the innermost shown as leaf.
std::string Chain(int n, const std::string& leaf) {
  std::string tree;
  for (int i = 1; i < n; ++i) tree += "a(";
  return tree + leaf + std::string(n - 1, ')');
}

TEST_F(XmlParse, ShapesOfElementsAndTheirQuirks) {
  constexpr int kCap = UPNP_XML_MAX_DEPTH;
  // Text and the picture of its tree, with end offsets when the picture shows any '@'.
  const std::pair<std::string, std::string> cases[] = {
      {"<?xml version=\"1.0\"?>\n<!-- x -->\n<root>r</root>", "root=\"r\""},
      {"<a x='v w' y=\"&lt;b&gt;\"/>", "a[y=<b>,x=v w]"},  // attributes reversed
      // Trailing control bytes go before entities are resolved; leading spaces stay.
      {"<a>  hi &amp; bye&#10;\r\n</a>", "a=\"  hi & bye\n\""},
      {"<a>t<![CDATA[<c/>]]><b>1</b><!-- <c/> -->u<?pi?><d/></a>", "a(b=\"1\",d)"},
      {"<a></a>", "a=\"\""},
      {"<s:Envelope xmlns:s=\"urn:x\"><s:Body/></s:Envelope>", "s:Envelope[xmlns:s=urn:x](s:Body)"},
      // A name ended by a line break and a space loses the line break; one space before '>'
      // is fine, but with two the tag runs to the next '/' and the text is lost.
      {"<a\n x=\"1\" >t</a>", "a[x=1]=\"t\""},
      {"<r><a x=\"1\"  >t</a><c/></r>", "r(a[x=1],c)"},
      {"<a href=http://h/p>t</a>", "a[href=http:]"},  // unquoted values end at '/'
      // An apostrophe between children hides the tags up to the next one.
      {"<a><b/>it's<c/><d/>'<e/></a>", "a(b,e)"},
      // Quotes, comments and declarations before the root hide the tags inside them.
      {"'<a>'<!-- <c> --><!DOCTYPE d [<!ENTITY e 'v'>]><b/>", "b"},
      {"<!-- <a>", "<null>"},
      {"<a><b x=\"1", "a(b[x=\"1])"},
      {"<a", "<null>"},
      {"no tags at all", "<null>"},
      // End offsets: the root's from the start of the text, a child's from its own '<'.
      {"  <r><a>1</a>\n <b x=\"2\"/></r><c/>", "r@28(a=\"1\"@7,b[x=2]@9)"},
      {"<a>text", "a@3"},
      {"<a><b>1</b>", "a@11(b=\"1\"@7)"},
      // A child that cannot be parsed ends its parent at its '<'.
      {"<a><b/><c", "a@7(b@3)"},
      // Past the nesting cap the element at the cap comes back without children and the parse
      // ends there, so the sibling behind the deep chain is lost.
      {Nested(kCap, "x"), Chain(kCap, "a=\"x\"")},
      {"<r>" + Nested(kCap, "x") + "<z/></r>", "r(" + Chain(kCap - 1, "a") + ")"},
  };
  for (const auto& [text, tree] : cases) {
    EXPECT_EQ(ParseDump(text, tree.find('@') != std::string::npos), tree) << text;
  }
  EXPECT_EQ(upnp_xml_parse(nullptr), nullptr);
}

TEST_F(XmlParse, MismatchedEndTagIsLoggedAndTolerated) {
  std::string tree;
  const std::string log = Logged(UPNP_LOG_PLUGIN, [&] { tree = ParseDump("<r><a>1</b><c/></r>"); });
  EXPECT_EQ(tree, "r(a=\"1\",c)");
  EXPECT_EQ(log.substr(log.find(" [") + 1),  // all of it but the time stamp
            "[Info] - LOG_PLUGIN: upnp_xml_parse XML: bad end tag!\na\n");
  // Only a prefix of the end tag is compared.
  EXPECT_EQ(Logged(UPNP_LOG_PLUGIN, [] { EXPECT_EQ(ParseDump("<a>1</ab>"), "a=\"1\""); }), "");
}

// On a worker's 128 KiB stack: nesting far past the cap under a start tag with a huge number of
// attributes (released, copied and written without a frame per attribute).
TEST_F(XmlParse, HostileDocumentFitsAWorkerThreadStack) {
  static std::string text;
  static std::string seen;
  text = "<a";
  for (int i = 0; i < 200000; ++i) text += " k" + std::to_string(i) + "=\"v\"";
  text += ">" + Nested(100000, "x");
  const auto body = [](void*) -> void* {
    upnp_xml_node* root = upnp_xml_parse(text.c_str());
    upnp_xml_node* copy = upnp_xml_copy_tree(root);
    int depth = 0;
    for (const upnp_xml_node* n = copy; n != nullptr; n = n->children) ++depth;
    seen = std::to_string(depth) + copy->attributes->name +
           (upnp_xml_find_tag(copy, "missing") == nullptr ? "" : "found");
    seen += Take(upnp_xml_tree_to_compliant_string(copy, 1, 0)).substr(0, 14);
    upnp_xml_release(copy);
    upnp_xml_release(root);
    return nullptr;
  };
  const pthread_t thread = upnp_start_joinable_thread(body, nullptr, 0);
  ASSERT_NE(thread, pthread_t{});
  pthread_join(thread, nullptr);
  EXPECT_EQ(seen, std::to_string(UPNP_XML_MAX_DEPTH) + "k199999<a k199999=\"v\"");
}

// A child that cannot be parsed (its name runs into the end of the text) under a deep chain
// ends every open element there; re-trying it at every level would cost depth x length.
TEST_F(XmlParse, UnparsableChildEndsTheWholeChainAtOnce) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ParseDump(Nested(250, "").substr(0, 750) + "<b" + std::string(8000000, 'x')),
            Chain(250, "a"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

// Every allocation of a parse, a copy and the three writers failing in turn: no crash, no leak,
// a copy whole or null, and the full output once nothing fails.
TEST_F(XmlParse, MemoryShortageAnywhereLeavesNothingBehind) {
  const std::string doc = "<r a='1&amp;2'><dc:title>t&lt;</dc:title><res duration=\"0:00:01\">" +
                          std::string(1100, 'u') + "</res></r>";  // long enough to grow
  const auto run = [&doc] {
    upnp_xml_node* root = upnp_xml_parse(doc.c_str());
    upnp_xml_node* copy = upnp_xml_copy_tree(root);
    std::string out;
    EXPECT_TRUE(copy == nullptr || Dump(copy) == Dump(root));
    for (auto* write : {upnp_xml_tree_to_string, upnp_xml_tree_to_string_valid,
                        upnp_xml_tree_to_compliant_string}) {
      out += Take(write(copy, 1, 0));
    }
    upnp_xml_release(copy);
    upnp_xml_release(root);
    return out;
  };
  ForEachAllocFailure(run, [whole = run()](const std::string& out, bool failed) {
    EXPECT_EQ(failed ? whole : out, whole);
  });
}

TEST_F(XmlParse, BuildAppendAndCopy) {
  EXPECT_EQ(upnp_xml_new_node(nullptr, "v"), nullptr);
  upnp_xml_node* root = upnp_xml_new_node("r", nullptr);
  upnp_xml_node* a = upnp_xml_new_node("a", "1");
  a->next = upnp_xml_new_node("b", nullptr);  // a chain: both are appended
  upnp_xml_add_as_subnode(root, a);
  upnp_xml_add_as_subnode(root, upnp_xml_new_node("c", ""));
  a->attributes = upnp_xml_new_attribute("x", "1");
  a->attributes->next = upnp_xml_new_attribute("y", nullptr);

  upnp_xml_node* one = upnp_xml_copy_node(a);
  upnp_xml_node* chain = upnp_xml_copy_tree(a);
  EXPECT_EQ(Dump(one), "a[x=1,y=<null>]=\"1\"");
  EXPECT_EQ(Dump(chain), "a[x=1,y=<null>]=\"1\",b,c=\"\"");
  EXPECT_NE(upnp_xml_copy_to_subnode(one, chain->next), chain->next);  // a copy is appended
  EXPECT_EQ(Dump(one), "a[x=1,y=<null>]=\"1\"(b,c=\"\")");
  EXPECT_EQ(upnp_xml_copy_to_subnode(nullptr, chain), chain);
  upnp_xml_release(one);
  upnp_xml_release(chain);
  upnp_xml_release(root);
}

TEST_F(XmlParse, LookupsWalkPreOrderWithExactNames) {
  upnp_xml_node* root = upnp_xml_parse(
      "<root><device><n>7</n><m> 5</m><service id=\"s1\"><n>8</n></service>"
      "<service id=\"s2\"/></device><S:n>x</S:n><n>9</n></root>");
  EXPECT_STREQ(upnp_xml_find_tag_value(root, "S:n"), "x");
  EXPECT_EQ(upnp_xml_find_tag(root, "N"), nullptr);
  EXPECT_EQ(upnp_xml_find_tag_value_uint(root, "n", 42), 7u);
  EXPECT_EQ(upnp_xml_find_tag_value_uint(root, "m", 42), 42u);  // ' 5' begins with a space

  const upnp_xml_node* s2 = upnp_xml_find_next_tag(upnp_xml_find_tag(root, "service"), "service");
  EXPECT_STREQ(upnp_xml_find_attribute_value(s2, "id"), "s2");
  EXPECT_EQ(upnp_xml_find_next_tag(s2, "service"), nullptr);

  uint32_t count = 0;
  upnp_xml_node** all = upnp_xml_find_all_nodes(root, "n", nullptr, &count);
  all = upnp_xml_find_all_nodes(root, "S:n", all, &count);  // appends to the same array
  ASSERT_EQ(count, 4u);
  EXPECT_EQ(std::string(all[0]->value) + all[1]->value + all[2]->value + all[3]->value, "789x");
  upnp_free_impl(all);
  upnp_xml_release(root);
}

TEST_F(XmlParse, ScansAndCopiesTrimTrailingControlBytes) {
  EXPECT_EQ(Results(upnp_xml_find_tagstart, {"  </a>", "<![CDATA[<a>]]><b>", "\"<a>", "<"}),
            "3,16,-1,-1,");
  EXPECT_EQ(upnp_xml_find_tagstart(nullptr), -1);
  EXPECT_EQ(upnp_xml_find("a'b\"c'd /e", " />"), 7);
  const auto dup = [](const char* text) { return Str(upnp_xml_strdup(text, 5)); };
  EXPECT_EQ(Results(dup, {"abc\r\n", " b \t", "abc", "abcdefg"}), "abc, b ,abc,abcde,");
  // The first quote and the next of its kind within the length; else the whole, trimmed.
  const auto quoted = [](const char* text) { return Str(upnp_strdup_quoted(text, 6)); };
  EXPECT_EQ(Results(quoted, {"'x'", "a\"b\"c", "'a\"b'", "\" x\r\n\"", "\"abcde\"", "\"ab\r\n"}),
            "x,b,a\"b, x,\"abcde,\"ab,");
  EXPECT_EQ(upnp_xml_strdup("abc", -1), nullptr);
  EXPECT_EQ(upnp_xml_strdup(nullptr, 1), nullptr);
}

}  // namespace
