// SPDX-License-Identifier: Apache-2.0
// The forgiving parser, the node tree operations and the scanning primitives.

#include "support/test_support.h"

namespace {

using namespace tw::test;

class XmlParse : public LeakCheck {};
class XmlTree : public LeakCheck {};
class XmlScan : public LeakCheck {};

// A compact picture of a tree: name, [attributes in list order], ="value", (children), and the
// end offset after '@' when asked for. Siblings are separated by ','.
std::string Dump(const upnp_xml_node* node, bool ends = false) {
  std::string out;
  for (; node != nullptr; node = node->next) {
    if (!out.empty()) out += ",";
    out += node->name != nullptr ? node->name : "<null>";
    if (node->attributes != nullptr) {
      out += "[";
      for (const upnp_xml_attribute* a = node->attributes; a != nullptr; a = a->next) {
        out += std::string(a->name) + "=" + (a->value != nullptr ? a->value : "<null>");
        if (a->next != nullptr) out += ",";
      }
      out += "]";
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
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<a>";
  text += inner;
  for (int i = 0; i < depth; ++i) text += "</a>";
  return text;
}

int Depth(const upnp_xml_node* node) {
  int depth = 0;
  for (; node != nullptr; node = node->children) ++depth;
  return depth;
}

TEST_F(XmlParse, ShapesOfElementsAndTheirQuirks) {
  const struct {
    const char* text;
    const char* tree;
  } cases[] = {
      {"<?xml version=\"1.0\"?>\n<!-- x -->\n<root>r</root>", "root=\"r\""},
      // Attributes come out in reverse document order.
      {"<a x='v w' y=\"&lt;b&gt;\"/>", "a[y=<b>,x=v w]"},
      {"<a x=\"it's\"/>", "a[x=it's]"},
      // Trailing control bytes go before entities are resolved; leading spaces stay.
      {"<a>  hi &amp; bye\r\n</a>", "a=\"  hi & bye\""},
      {"<a>x&#10;</a>", "a=\"x\n\""},
      {"<a>t<b>1</b>u</a>", "a(b=\"1\")"},
      {"<a><![CDATA[<c/>]]><b/></a>", "a(b)"},
      {"<a><!-- <c/> --><b/><?pi?><d/></a>", "a(b,d)"},
      {"<a></a>", "a=\"\""},
      {"<s:Envelope xmlns:s=\"urn:x\"><s:Body/></s:Envelope>", "s:Envelope[xmlns:s=urn:x](s:Body)"},
      // A name ended by a line break and a space loses the line break.
      {"<a\n x=\"1\">t</a>", "a[x=1]=\"t\""},
      // Two spaces before '>': the tag runs to the next '/', the text is lost.
      {"<r><a x=\"1\"  >t</a><c/></r>", "r(a[x=1],c)"},
      {"<a x=\"1\" >t</a>", "a[x=1]=\"t\""},
      // Unquoted values end at '/'.
      {"<a href=http://h/p>t</a>", "a[href=http:]"},
      // An apostrophe between children hides the tags up to the next one.
      {"<a><b/>it's<c/><d/>'<e/></a>", "a(b,e)"},
      {"<a/><b/>", "a"},
      {"<a>text", "a"},
      {"<a><b x=\"1", "a(b[x=\"1])"},
      {"<a", "<null>"},
      {"no tags at all", "<null>"},
      {"<?xml version=\"1.0\"?>", "<null>"},
  };
  for (const auto& c : cases) EXPECT_EQ(ParseDump(c.text), c.tree) << c.text;
  EXPECT_EQ(upnp_xml_parse(nullptr), nullptr);
}

TEST_F(XmlParse, EndOffsetsAreRelativeToEachElementsOwnText) {
  // Children count from their own '<'; the root from the start of the text.
  EXPECT_EQ(ParseDump("  <r><a>1</a>\n <b x=\"2\"/></r>!", true), "r@28(a=\"1\"@7,b[x=2]@9)");
  EXPECT_EQ(ParseDump("<a x=\"1\"/>", true), "a[x=1]@9");
  EXPECT_EQ(ParseDump("<a>text", true), "a@3");
  EXPECT_EQ(ParseDump("<a><b>1</b>", true), "a@11(b=\"1\"@7)");
  // A child that cannot be parsed ends its parent at its '<'.
  EXPECT_EQ(ParseDump("<a><b/><c", true), "a@7(b@3)");
}

TEST_F(XmlParse, MismatchedEndTagIsLoggedAndTolerated) {
  std::string tree;
  const std::string log = Logged(UPNP_LOG_PLUGIN, [&] { tree = ParseDump("<r><a>1</b><c/></r>"); });
  EXPECT_EQ(tree, "r(a=\"1\",c)");
  EXPECT_THAT(log, HasSubstr("upnp_xml_parse XML: bad end tag!\na"));
  // Only a prefix of the end tag is compared.
  EXPECT_EQ(Logged(UPNP_LOG_PLUGIN, [] { EXPECT_EQ(ParseDump("<a>1</ab>"), "a=\"1\""); }), "");
}

TEST_F(XmlParse, NestingStopsAtTheCapWithAPartialTree) {
  constexpr int kCap = UPNP_XML_MAX_DEPTH;
  upnp_xml_node* root = upnp_xml_parse(Nested(kCap, "x").c_str());
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(Depth(root), kCap);
  const upnp_xml_node* deepest = root;
  while (deepest->children != nullptr) deepest = deepest->children;
  EXPECT_STREQ(deepest->value, "x");
  upnp_xml_release(root);

  // One level more: the element at the cap comes back without children and the parse ends
  // there, so the sibling behind the deep chain is lost.
  const std::string deeper = "<r>" + Nested(kCap, "x") + "<z/></r>";
  root = upnp_xml_parse(deeper.c_str());
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(Depth(root), kCap);
  EXPECT_EQ(root->children->next, nullptr);
  EXPECT_EQ(root->end, 3u * kCap);
  deepest = root;
  while (deepest->children != nullptr) deepest = deepest->children;
  EXPECT_EQ(deepest->value, nullptr);
  upnp_xml_release(root);
}

// Runs body on a thread started as the library starts its workers (128 KiB of stack).
void OnWorkerThread(void (*body)()) {
  static void (*run)() = nullptr;
  run = body;
  pthread_t thread = upnp_start_joinable_thread(
      [](void*) -> void* {
        run();
        return nullptr;
      },
      nullptr, 0);
  ASSERT_NE(thread, pthread_t{});
  pthread_join(thread, nullptr);
}

// Hostile documents on a worker's stack: nesting far past the cap, and a start tag with a huge
// number of attributes (released and copied without a frame per attribute).
TEST_F(XmlParse, HostileDocumentsFitAWorkerThreadStack) {
  static std::string text;
  static int depth = 0;
  static size_t written = 0;
  text = Nested(100000, "x");
  OnWorkerThread([] {
    upnp_xml_node* root = upnp_xml_parse(text.c_str());
    upnp_xml_node* copy = upnp_xml_copy_tree(root);
    depth = Depth(copy);
    EXPECT_EQ(upnp_xml_find_tag(copy, "missing"), nullptr);
    for (int pretty = 0; pretty < 2; ++pretty) {
      upnp_string* s = upnp_xml_tree_to_compliant_string(copy, pretty, 0);
      written += s->length;
      upnp_string_free(s);
    }
    upnp_xml_release(copy);
    upnp_xml_release(root);
  });
  EXPECT_EQ(depth, UPNP_XML_MAX_DEPTH);
  EXPECT_GT(written, 0u);

  text = "<a";
  for (int i = 0; i < 200000; ++i) text += " k" + std::to_string(i) + "=\"v\"";
  text += "/>";
  OnWorkerThread([] {
    upnp_xml_node* root = upnp_xml_parse(text.c_str());
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root->attributes->name, "k199999");
    upnp_xml_node* copy = upnp_xml_copy_node(root);
    upnp_xml_release(root);
    upnp_xml_release(copy);
  });
  text.clear();
  text.shrink_to_fit();
}

// A child that cannot be parsed (its name runs into the end of the text) under a deep chain
// ends every open element there; re-trying it at every level would cost depth x length.
TEST_F(XmlParse, UnparsableChildEndsTheWholeChainAtOnce) {
  const std::string text = Nested(250, "").substr(0, 750) + "<b" + std::string(8000000, 'x');
  const auto start = std::chrono::steady_clock::now();
  upnp_xml_node* root = upnp_xml_parse(text.c_str());
  EXPECT_EQ(Depth(root), 250);
  EXPECT_EQ(root->end, 750u);
  upnp_xml_release(root);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(XmlParse, MemoryShortageGivesNullOrAPartialTreeWithoutLeaks) {
  const char* text =
      "<root a=\"1\" b='2'><x>1&amp;2</x><!-- c --><y z=\"3\"><w/>t</y><v>v</v></root>";
  const std::string whole = ParseDump(text);
  ForEachAllocFailure([&] { return upnp_xml_parse(text); },
                      [&](upnp_xml_node* root, bool failed) {
                        if (!failed) {
                          EXPECT_EQ(Dump(root), whole);
                        }
                        upnp_xml_release(root);
                      });
  upnp_xml_node* root = upnp_xml_parse(text);
  ForEachAllocFailure([&] { return upnp_xml_copy_tree(root); },
                      [&](upnp_xml_node* copy, bool failed) {
                        EXPECT_EQ(Dump(copy), failed ? "" : whole);
                        upnp_xml_release(copy);
                      });
  upnp_xml_release(root);
}

TEST_F(XmlTree, BuildAppendAndCopy) {
  EXPECT_EQ(upnp_xml_new_node(nullptr, "v"), nullptr);
  upnp_xml_node* root = upnp_xml_new_node("r", nullptr);
  upnp_xml_node* a = upnp_xml_new_node("a", "1");
  a->next = upnp_xml_new_node("b", nullptr);  // a chain: both are appended
  upnp_xml_add_as_subnode(root, a);
  upnp_xml_add_as_subnode(root, upnp_xml_new_node("c", ""));
  a->attributes = upnp_xml_new_attribute("x", "1");
  a->attributes->next = upnp_xml_new_attribute("y", nullptr);
  EXPECT_EQ(Dump(root), "r(a[x=1,y=<null>]=\"1\",b,c=\"\")");

  upnp_xml_node* one = upnp_xml_copy_node(a);
  upnp_xml_node* chain = upnp_xml_copy_tree(a);
  EXPECT_EQ(Dump(one), "a[x=1,y=<null>]=\"1\"");
  EXPECT_EQ(Dump(chain), "a[x=1,y=<null>]=\"1\",b,c=\"\"");
  upnp_xml_node* appended = upnp_xml_copy_to_subnode(one, chain->next);
  EXPECT_EQ(Dump(one), "a[x=1,y=<null>]=\"1\"(b,c=\"\")");
  EXPECT_NE(appended, chain->next);
  EXPECT_EQ(upnp_xml_copy_to_subnode(nullptr, chain), chain);
  upnp_xml_release(one);
  upnp_xml_release(chain);
  upnp_xml_release(root);
}

TEST_F(XmlTree, LookupsWalkPreOrderWithExactNames) {
  upnp_xml_node* root = upnp_xml_parse(
      "<root><device><n>7</n><m> 5</m><service id=\"s1\"><n>8</n></service>"
      "<service id=\"s2\"/></device><S:n>x</S:n><n>9</n></root>");
  EXPECT_STREQ(upnp_xml_find_tag_value(root, "S:n"), "x");
  EXPECT_EQ(upnp_xml_find_tag(root, "N"), nullptr);
  EXPECT_EQ(upnp_xml_find_tag_value_int(root, "n"), 7);
  EXPECT_EQ(upnp_xml_find_tag_value_uint(root, "n", 42), 7u);
  EXPECT_EQ(upnp_xml_find_tag_value_uint(root, "m", 42), 42u);  // ' 5' begins with a space

  std::string ids;
  for (upnp_xml_node* s = upnp_xml_find_tag(root, "service"); s != nullptr;
       s = upnp_xml_find_next_tag(s, "service")) {
    ids += std::string(upnp_xml_find_attribute_value(s, "id")) + ",";
  }
  EXPECT_EQ(ids, "s1,s2,");

  uint32_t count = 0;
  upnp_xml_node** all = upnp_xml_find_all_nodes(root, "n", nullptr, &count);
  all = upnp_xml_find_all_nodes(root, "S:n", all, &count);  // appends to the same array
  ASSERT_EQ(count, 4u);
  EXPECT_EQ(std::string(all[0]->value) + all[1]->value + all[2]->value + all[3]->value, "789x");
  upnp_free_impl(all);
  upnp_xml_release(root);
}

TEST_F(XmlScan, TagStartSkipsQuotesCommentsAndCdata) {
  EXPECT_EQ(
      Results(upnp_xml_find_tagstart, {"", "abc", "<a>", "  </a>", "<?x?><a>", "<!-- <a> --><b>",
                                       "<!-- <a>", "<![CDATA[<a>]]><b>", "'<a>'<b>", "\"<a>",
                                       "<!DOCTYPE d [<!ENTITY e 'v'>]><r>", "<"}),
      "-1,-1,1,3,6,13,-1,16,6,-1,31,-1,");
  EXPECT_EQ(upnp_xml_find_tagstart(nullptr), -1);
}

TEST_F(XmlScan, FindHonoursQuotes) {
  const auto find = [](const char* text) { return upnp_xml_find(text, " />"); };
  EXPECT_EQ(Results(find, {"ab>", "a\"b c\"d e", "a'b\"c'd/", "abc", "\"unclosed x"}),
            "2,7,7,3,11,");
  EXPECT_EQ(upnp_xml_find(nullptr, "<"), 0);
  EXPECT_EQ(upnp_xml_find("a<", nullptr), 0);
}

TEST_F(XmlScan, CopiesTrimTrailingControlBytesAndPickQuotedText) {
  const struct {
    const char* text;
    int32_t length;
    bool quoted;
    const char* copy;
  } cases[] = {
      {"abc\r\n", 5, false, "abc"},  {"ab \t", 4, false, "ab "},  {"abc", 10, false, "abc"},
      {"abc", -1, false, "<null>"},  {"'x'", 3, true, "x"},       {"\"abc", 4, true, "\"abc"},
      {"a\"b\"c", 5, true, "b"},     {"\"ab\"", 3, true, "\"ab"}, {"'a\"b'", 5, true, "a\"b"},
      {"\" x\r\n\"", 6, true, " x"},
  };
  for (const auto& c : cases) {
    const std::string got =
        Str(c.quoted ? upnp_strdup_quoted(c.text, c.length) : upnp_xml_strdup(c.text, c.length));
    EXPECT_EQ(got, c.copy) << c.text << " / " << c.length;
  }
  EXPECT_EQ(upnp_xml_strdup(nullptr, 1), nullptr);
  EXPECT_EQ(upnp_strdup_quoted(nullptr, 1), nullptr);
}

}  // namespace
