// SPDX-License-Identifier: Apache-2.0
// Escaping, unescaping and the three writers.

#include "support/test_support.h"

namespace {

using namespace tw::test;

class XmlWrite : public LeakCheck {};

enum Mode { kPlain, kValid, kCompliant };

std::string Write(const upnp_xml_node* node, Mode mode, bool pretty = false, bool single = false) {
  using Writer = upnp_string* (*)(const upnp_xml_node*, int, int);
  constexpr Writer kWriters[] = {upnp_xml_tree_to_string, upnp_xml_tree_to_string_valid,
                                 upnp_xml_tree_to_compliant_string};
  return Take(kWriters[mode](node, pretty, single));
}

TEST_F(XmlWrite, EveryReplacementOnceAndTwiceWithBothApostrophes) {
  const char* text = "a\"&'<>\t\n\r\x1f\xe9";
  const std::string once = "a&quot;&amp;&#39;&lt;&gt;&#9;&#10;&#13;&#31;\xe9";
  const std::string twice =
      "a&amp;quot;&amp;amp;&amp;#39;&amp;lt;&amp;gt;&amp;#9;&amp;#10;&amp;#13;&amp;#31;\xe9";
  EXPECT_EQ(Str(upnp_xml_escape_cond(text, 0)), once);
  EXPECT_EQ(Str(upnp_xml_escape_cond(text, 1)), twice);
  EXPECT_EQ(Str(upnp_xml_escape(text)), twice);  // the doubled form, by design
  EXPECT_EQ(upnp_xml_escape_cond(nullptr, 0), nullptr);

  upnp_string* s = upnp_string_create("old text", 4);
  const auto external = [&s](const char* in, int doubled, int numeric) -> std::string {
    upnp_xml_escape_cond_externout(in, &s, doubled, numeric);
    return s->length == std::strlen(s->buffer) ? s->buffer : "<length mismatch>";
  };
  EXPECT_EQ(external(text, 0, 1), once);
  EXPECT_EQ(external(text, 1, 1), twice);
  EXPECT_EQ(external("it's", 0, 0), "it&apos;s");
  EXPECT_EQ(external("it's", 1, 0), "it&amp;apos;s");
  EXPECT_EQ(external(std::string(5000, '&').c_str(), 0, 1).size(), 25000u);  // grows
  EXPECT_EQ(external(nullptr, 0, 1), "");
  upnp_string_free(s);
}

TEST_F(XmlWrite, UnescapeResolvesNamedAndShortNumericReferences) {
  const auto unescaped = [](const char* text) {
    std::string copy = text;
    upnp_xml_unescape(copy.data());
    return std::string(copy.c_str());
  };
  // More than four characters after '#' stay as written; the low eight bits of a number make
  // one byte (never UTF-8); one level only; a reference needs its ';'; "&#0;" ends the text.
  EXPECT_EQ(Results(unescaped, {"&#x4A;&#74;&lt;&nbsp;&foo;", "&#12345;", "&#233;", "&#x1E9;",
                                "&quot;&apos;&gt;&amp;", "&amp;lt;", "&&amp;a&#65", "x&#0;y"}),
            "JJ< &foo;,&#12345;,\xe9,\xe9,\"'>&,&lt;,&&a&#65,x,");
  upnp_xml_unescape(nullptr);
}

TEST_F(XmlWrite, ExactBytesOfParsedDocuments) {
  // Parsed attributes are listed, and so written, in reverse document order.
  const std::string quoted = "<a x=\"1\" y=\"&lt;&amp;'\">it's &lt;b&gt;</a>";
  // Document, writer, pretty, the bytes written.
  const std::tuple<std::string, Mode, bool, std::string> cases[] = {
      {"<a><b>1</b><d/></a>", kPlain, false, "<a><b>1</b><d></d></a>"},
      {"<r><a><b><c>x</c></b></a><e/></r>", kPlain, true,
       "<r>\n    <a>\n        <b>\n            <c>x</c>\n        </b>\n    </a>\n    "
       "<e></e>\n</r>"},
      {quoted, kPlain, false, "<a y=\"<&'\" x=\"1\">it's <b></a>"},
      {quoted, kValid, false, "<a y=\"&lt;&amp;&#39;\" x=\"1\">it&#39;s &lt;b&gt;</a>"},
      {"<a x=\"\"></a>", kValid, false, "<a x=\"\"></a>"},
      // Compliant: a desc whose nameSpace and xmlns differ is skipped, the line break before it
      // is still written.
      {"<i><desc nameSpace=\"a\" xmlns=\"b\">x</desc><desc nameSpace=\"a\" xmlns=\"a\">y</desc>"
       "<desc nameSpace=\"a\">z</desc></i>",
       kCompliant, false,
       "<i><desc xmlns=\"a\" nameSpace=\"a\">y</desc><desc nameSpace=\"a\">z</desc></i>"},
      {"<r><a/><desc nameSpace=\"1\" xmlns=\"2\"/></r>", kCompliant, true,
       "<r>\n    <a></a>\n\n</r>"},
  };
  for (const auto& [doc, mode, pretty, out] : cases) {
    upnp_xml_node* root = upnp_xml_parse(doc.c_str());
    EXPECT_EQ(Write(root, mode, pretty), out) << doc;
    upnp_xml_release(root);
  }
}

TEST_F(XmlWrite, SiblingsSingleAndHandBuiltNodes) {
  upnp_xml_node* a = upnp_xml_new_node("a", "v");
  upnp_xml_add_as_subnode(a, upnp_xml_new_node("c", nullptr));  // value first, then children
  a->next = upnp_xml_new_node("", "v");  // nameless: the compliant writer skips it
  a->next->next = upnp_xml_new_node("b", nullptr);
  a->attributes = upnp_xml_new_attribute("k", nullptr);
  a->attributes->next = upnp_xml_new_attribute("z", "1");
  a->attributes->next->next = static_cast<upnp_xml_attribute*>(
      upnp_calloc_impl(1, sizeof(upnp_xml_attribute)));  // a zero-filled record ends the list
  const std::string first = "<a k=\"\" z=\"1\">v<c></c></a>";
  EXPECT_EQ(Write(a, kPlain), first + "<>v</><b></b>");
  EXPECT_EQ(Write(a, kPlain, false, true), first);
  EXPECT_EQ(Write(a, kPlain, true), "<a k=\"\" z=\"1\">v\n    <c></c>\n</a>\n<>v</>\n<b></b>");
  EXPECT_EQ(Take(upnp_xml_node_to_string(a, 0)), first + "<>v</><b></b>");
  EXPECT_EQ(Write(a, kCompliant), first + "<b></b>");
  EXPECT_EQ(Write(a->next, kCompliant, false, true), "");
  upnp_xml_release(a);
}

TEST_F(XmlWrite, CompliantValuesFollowTheRuleOfTheirName) {
  const std::string t300(300, 't');
  // Name, value, and the text written, or "<omitted>" when the element is written empty.
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"dc:title", t300, t300.substr(0, 253) + "..."},
      {"dc:title", std::string(256, 't'), std::string(256, 't')},
      // Lengths count the escaped text.
      {"dc:title", std::string(255, 't') + "&", std::string(253, 't') + "..."},
      {"upnp:class", t300, t300.substr(0, 256)},
      {"upnp:channelNr", "123456789012", "<omitted>"},
      {"upnp:channelNr", "12345678901", "12345678901"},
      {"unknown", std::string(257, 'u'), "<omitted>"},
      {"restricted", "true", "1"},
      {"restricted", "False", "1"},
      {"restricted", "false", "0"},
      {"duration", "0:03:25.500", "00:03:25"},
      {"dc:date", "2020-01-31T10:00:00", "2020-01-31T10:00:00"},
      {"dc:date", "31.01.2020", "<omitted>"},
      {"protocolInfo", "http-get:*:video/mpeg:DLNA.ORG_PN=MPEG_PS_PAL;BAD;DLNA.ORG_OP=01",
       "http-get:*:video/mpeg:DLNA.ORG_PN=MPEG_PS_PAL;DLNA.ORG_OP=01"},
      {"protocolInfo", "BAD;A=1;;B=x y;C=2", "BAD;A=1;;B=x y;C=2"},  // fewer than three ':'
      {"protocolInfo", "http-get:*:audio/mpeg:*;junk", "http-get:*:audio/mpeg:*;junk"},
      {"protocolInfo", "a:b:c:x;A=1;;B=x y;C=2", "a:b:c:A=1;C=2"},
      {"other", std::string(1100, 'o'), std::string(1021, 'o') + "..."},
      {"other", "a<b", "a&lt;b"},
  };
  for (const auto& [name, value, written] : cases) {
    const std::string text = written == "<omitted>" ? "" : written;
    // Attributes follow the same rules; an omitted value leaves empty quotes.
    upnp_xml_node* node = upnp_xml_new_node(name.c_str(), value.c_str());
    node->attributes = upnp_xml_new_attribute(name.c_str(), value.c_str());
    EXPECT_EQ(Write(node, kCompliant),
              "<" + name + " " + name + "=\"" + text + "\">" + text + "</" + name + ">")
        << value;
    upnp_xml_release(node);
  }
}

}  // namespace
