// SPDX-License-Identifier: Apache-2.0
// Escaping, unescaping and the three writers.

#include "support/test_support.h"

namespace {

using namespace tw::test;

class XmlEscape : public LeakCheck {};
class XmlWrite : public LeakCheck {};

enum Mode { kPlain, kValid, kCompliant };

std::string Write(const upnp_xml_node* node, Mode mode, bool pretty = false, bool single = false) {
  switch (mode) {
    case kPlain:
      return Take(upnp_xml_tree_to_string(node, pretty, single));
    case kValid:
      return Take(upnp_xml_tree_to_string_valid(node, pretty, single));
    case kCompliant:
      return Take(upnp_xml_tree_to_compliant_string(node, pretty, single));
  }
  return "";
}

std::string ParseWrite(const std::string& text, Mode mode, bool pretty = false) {
  upnp_xml_node* root = upnp_xml_parse(text.c_str());
  std::string out = Write(root, mode, pretty);
  upnp_xml_release(root);
  return out;
}

std::string Unescaped(std::string text) {
  upnp_xml_unescape(text.data());
  return text.c_str();  // up to the new terminator
}

TEST_F(XmlEscape, EveryReplacementOnceAndTwice) {
  const struct {
    const char* text;
    const char* once;
    const char* twice;
  } cases[] = {
      {"a<b", "a&lt;b", "a&amp;lt;b"},
      {"\"&'<>", "&quot;&amp;&#39;&lt;&gt;", "&amp;quot;&amp;amp;&amp;#39;&amp;lt;&amp;gt;"},
      {"t\ti\nl\r\x1f\xe9", "t&#9;i&#10;l&#13;&#31;\xe9",
       "t&amp;#9;i&amp;#10;l&amp;#13;&amp;#31;\xe9"},
      {"", "", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Str(upnp_xml_escape_cond(c.text, 0)), c.once);
    EXPECT_EQ(Str(upnp_xml_escape_cond(c.text, 1)), c.twice);
    EXPECT_EQ(Str(upnp_xml_escape(c.text)), c.twice);  // the doubled form, by design
  }
  EXPECT_EQ(upnp_xml_escape_cond(nullptr, 0), nullptr);
}

TEST_F(XmlEscape, ExternalStringChoosesTheApostropheAndGrows) {
  upnp_string* s = upnp_string_create("old text", 4);
  upnp_xml_escape_cond_externout("it's <b>", &s, 0, 0);
  EXPECT_STREQ(s->buffer, "it&apos;s &lt;b&gt;");
  upnp_xml_escape_cond_externout("it's", &s, 1, 0);
  EXPECT_STREQ(s->buffer, "it&amp;apos;s");
  upnp_xml_escape_cond_externout("it's", &s, 0, 1);
  EXPECT_STREQ(s->buffer, "it&#39;s");
  const std::string long_text(5000, '&');
  upnp_xml_escape_cond_externout(long_text.c_str(), &s, 0, 1);
  EXPECT_EQ(s->length, 25000u);
  EXPECT_EQ(std::strlen(s->buffer), 25000u);
  upnp_xml_escape_cond_externout(nullptr, &s, 0, 1);
  EXPECT_EQ(Take(s), "");
}

TEST_F(XmlEscape, UnescapeResolvesNamedAndShortNumericReferences) {
  const struct {
    const char* text;
    const char* plain;
  } cases[] = {
      {"&#x4A;&#74;&lt;&nbsp;&foo;", "JJ< &foo;"},
      {"&#12345;", "&#12345;"},  // more than four characters: left alone
      {"&#233;", "\xe9"},        // one byte, never UTF-8
      {"&#x1E9;", "\xe9"},       // only the low eight bits
      {"&amp;lt;", "&lt;"},      // one level only
      {"&quot;&apos;&gt;&amp;", "\"'>&"},
      {"a&#65", "a&#65"},
      {"&&amp;", "&&"},
      {"x&#0;y", "x"},
  };
  for (const auto& c : cases) EXPECT_EQ(Unescaped(c.text), c.plain) << c.text;
  upnp_xml_unescape(nullptr);
}

TEST_F(XmlEscape, UnescapeUndoesSingleEscaping) {
  std::string all;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(Unescaped(Str(upnp_xml_escape_cond(all.c_str(), 0))), all);
  upnp_string* s = upnp_string_create("", 16);
  upnp_xml_escape_cond_externout(all.c_str(), &s, 0, 0);
  EXPECT_EQ(Unescaped(Take(s)), all);
}

TEST_F(XmlWrite, PlainValidAndPrettyLayouts) {
  const std::string doc = "<a><b>1</b><d/></a>";
  EXPECT_EQ(ParseWrite(doc, kPlain, true), "<a>\n    <b>1</b>\n    <d></d>\n</a>");
  EXPECT_EQ(ParseWrite(doc, kPlain), "<a><b>1</b><d></d></a>");
  EXPECT_EQ(ParseWrite("<r><a><b><c>x</c></b></a><e/></r>", kPlain, true),
            "<r>\n    <a>\n        <b>\n            <c>x</c>\n        </b>\n    </a>\n"
            "    <e></e>\n</r>");
  // Parsed attributes are listed, and so written, in reverse document order.
  const std::string quoted = "<a x=\"1\" y=\"&lt;&amp;'\">it's &lt;b&gt;</a>";
  EXPECT_EQ(ParseWrite(quoted, kPlain), "<a y=\"<&'\" x=\"1\">it's <b></a>");
  EXPECT_EQ(ParseWrite(quoted, kValid), "<a y=\"&lt;&amp;&#39;\" x=\"1\">it&#39;s &lt;b&gt;</a>");
  EXPECT_EQ(ParseWrite("<a x=\"\"></a>", kValid), "<a x=\"\"></a>");
}

TEST_F(XmlWrite, SiblingsSingleAndHandBuiltNodes) {
  upnp_xml_node* a = upnp_xml_new_node("a", "v");
  upnp_xml_add_as_subnode(a, upnp_xml_new_node("c", nullptr));  // value first, then children
  a->next = upnp_xml_new_node("b", nullptr);
  a->attributes = upnp_xml_new_attribute("k", nullptr);
  a->attributes->next = upnp_xml_new_attribute("z", "1");
  a->attributes->next->next = static_cast<upnp_xml_attribute*>(
      upnp_calloc_impl(1, sizeof(upnp_xml_attribute)));  // a zero-filled record ends the list
  EXPECT_EQ(Write(a, kPlain), "<a k=\"\" z=\"1\">v<c></c></a><b></b>");
  EXPECT_EQ(Write(a, kPlain, false, true), "<a k=\"\" z=\"1\">v<c></c></a>");
  EXPECT_EQ(Write(a, kPlain, true), "<a k=\"\" z=\"1\">v\n    <c></c>\n</a>\n<b></b>");
  EXPECT_EQ(Take(upnp_xml_node_to_string(a, 0)), "<a k=\"\" z=\"1\">v<c></c></a><b></b>");
  upnp_xml_release(a);
}

TEST_F(XmlWrite, ValidOutputParsesBackToTheSameTree) {
  const std::string doc =
      "<DIDL-Lite xmlns=\"urn:d\"><item id=\"1&amp;2\" restricted=\"1\"><dc:title>Tom &amp; "
      "Jerry's &lt;best&gt;</dc:title><res protocolInfo=\"http-get:*:audio/mpeg:*\" "
      "size=\"12\">http://h:1/a?b=1&amp;c=2</res></item></DIDL-Lite>";
  upnp_xml_node* root = upnp_xml_parse(doc.c_str());
  const std::string once = Write(root, kValid);
  upnp_xml_node* again = upnp_xml_parse(once.c_str());
  // Attribute order flips with every parse; the second writing parses back identically.
  const std::string twice = Write(again, kValid);
  upnp_xml_node* third = upnp_xml_parse(twice.c_str());
  EXPECT_EQ(Write(third, kValid), once);
  EXPECT_STREQ(upnp_xml_find_tag_value(again, "dc:title"), "Tom & Jerry's <best>");
  upnp_xml_release(third);
  upnp_xml_release(again);
  upnp_xml_release(root);
}

TEST_F(XmlWrite, CompliantValuesFollowTheRuleOfTheirName) {
  const std::string t300(300, 't');
  const std::string c300(300, 'c');
  const struct {
    const char* name;
    std::string value;
    std::string written;  // element text, or "<omitted>" when the element is written empty
  } cases[] = {
      {"dc:title", t300, t300.substr(0, 253) + "..."},
      {"dc:title", std::string(256, 't'), std::string(256, 't')},
      // Lengths count the escaped text.
      {"dc:title", std::string(255, 't') + "&", std::string(253, 't') + "..."},
      {"upnp:album", t300, t300.substr(0, 253) + "..."},
      {"upnp:class", c300, c300.substr(0, 256)},
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
  for (const auto& c : cases) {
    upnp_xml_node* node = upnp_xml_new_node(c.name, c.value.c_str());
    const std::string open = "<" + std::string(c.name) + ">";
    const std::string close = "</" + std::string(c.name) + ">";
    const std::string text = c.written == "<omitted>" ? "" : c.written;
    EXPECT_EQ(Write(node, kCompliant), open + text + close) << c.name << " " << c.value;
    // Attributes follow the same rules; an omitted value leaves empty quotes.
    node->attributes = upnp_xml_new_attribute(c.name, c.value.c_str());
    EXPECT_EQ(Write(node, kCompliant),
              "<" + std::string(c.name) + " " + c.name + "=\"" + text + "\">" + text + close);
    upnp_xml_release(node);
  }
}

TEST_F(XmlWrite, CompliantWriterSkipsNamelessNodesAndConflictingDesc) {
  const std::string doc =
      "<item><desc nameSpace=\"urn:a\" xmlns=\"urn:b\">x</desc><desc nameSpace=\"urn:a\" "
      "xmlns=\"urn:a\">y</desc><desc nameSpace=\"urn:a\">z</desc></item>";
  EXPECT_EQ(ParseWrite(doc, kCompliant),
            "<item><desc xmlns=\"urn:a\" nameSpace=\"urn:a\">y</desc>"
            "<desc nameSpace=\"urn:a\">z</desc></item>");
  // The line break before a skipped sibling is still written.
  EXPECT_EQ(ParseWrite("<r><a/><desc nameSpace=\"1\" xmlns=\"2\"/></r>", kCompliant, true),
            "<r>\n    <a></a>\n\n</r>");
  EXPECT_THAT(ParseWrite(doc, kPlain), HasSubstr("\"urn:b\" nameSpace=\"urn:a\">x</desc>"));

  upnp_xml_node* nameless = upnp_xml_new_node("", "v");
  nameless->next = upnp_xml_new_node("b", nullptr);
  EXPECT_EQ(Write(nameless, kCompliant), "<b></b>");
  EXPECT_EQ(Write(nameless, kCompliant, false, true), "");
  EXPECT_EQ(Write(nameless, kPlain), "<>v</><b></b>");
  upnp_xml_release(nameless);
}

TEST_F(XmlWrite, WritersSurviveMemoryShortage) {
  upnp_xml_node* root = upnp_xml_parse(
      "<r a=\"1&amp;2\"><dc:title>t&lt;</dc:title><res duration=\"0:00:01\">u</res></r>");
  for (Mode mode : {kPlain, kValid, kCompliant}) {
    const std::string whole = Write(root, mode, true);
    ForEachAllocFailure([&] { return Write(root, mode, true); },
                        [&](const std::string& out, bool failed) {
                          if (!failed) {
                            EXPECT_EQ(out, whole);
                          }
                        });
  }
  upnp_xml_release(root);
}

}  // namespace
