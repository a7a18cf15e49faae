// SPDX-License-Identifier: Apache-2.0
// XML throughput against three widely used parsers, measured in the same run:
//   - parsing a 5 MB DIDL-Lite listing and a 3 KB device description: upnp_xml_parse (tree) vs
//     libxml2's xmlReadMemory (tree), pugixml's load_buffer (tree) and expat (events only, the
//     lower bound of what any parser can do);
//   - writing the parsed listing: the compliant writer vs pugixml's raw writer;
//   - the tree's memory (accounted bytes after the parse) against the document's size.
#include <benchmark/benchmark.h>
#include <expat.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdio>
#include <cstring>
#include <pugixml.hpp>
#include <string>

#include "tarnwick/platform.h"
#include "tarnwick/util.h"
#include "tarnwick/xml.h"

namespace {

void AppendItem(std::string& out, int id, int parent) {
  char item[1400];
  std::snprintf(
      item, sizeof(item),
      "<item id=\"%d\" parentID=\"%d\" restricted=\"1\">"
      "<dc:title>Track %d &amp; the &quot;long&quot; title of an album cut</dc:title>"
      "<dc:creator>Some Artist %d</dc:creator><upnp:artist>Some Artist %d</upnp:artist>"
      "<upnp:album>Album number %d</upnp:album><upnp:genre>Rock</upnp:genre>"
      "<upnp:originalTrackNumber>%d</upnp:originalTrackNumber><dc:date>2011-03-%02d</dc:date>"
      "<upnp:albumArtURI dlna:profileID=\"JPEG_TN\">http://192.168.1.10:9000/art/%d.jpg"
      "</upnp:albumArtURI><upnp:class>object.item.audioItem.musicTrack</upnp:class>"
      "<res protocolInfo=\"http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_FLAGS="
      "01700000000000000000000000000000\" size=\"%d\" duration=\"0:0%d:2%d.000\" "
      "bitrate=\"40000\" sampleFrequency=\"44100\" nrAudioChannels=\"2\">"
      "http://192.168.1.10:9000/media/%d.mp3</res></item>\n",
      id, parent, id, id % 97, id % 97, id % 311, id % 20 + 1, id % 28 + 1, id, 3000000 + id,
      id % 10, id % 10, id);
  out += item;
}

// A browse result: containers three deep, each holding twenty tracks, until 5 MB.
std::string MakeDidl() {
  std::string doc =
      "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
      "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
      "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\" "
      "xmlns:dlna=\"urn:schemas-dlna-org:metadata-1-0/\">\n";
  int id = 100;
  for (int a = 0; doc.size() < 5u * 1024 * 1024; ++a) {
    doc += "<container id=\"a" + std::to_string(a) +
           "\" parentID=\"0\" restricted=\"1\" childCount=\"4\"><dc:title>Artist " +
           std::to_string(a) + "</dc:title><upnp:class>object.container.person.musicArtist" +
           "</upnp:class>\n";
    for (int b = 0; b < 4; ++b) {
      doc += "<container id=\"b" + std::to_string(a * 4 + b) + "\" parentID=\"a" +
             std::to_string(a) + "\" restricted=\"1\"><dc:title>Album " + std::to_string(b) +
             "</dc:title><upnp:class>object.container.album.musicAlbum</upnp:class>\n";
      for (int t = 0; t < 20; ++t) AppendItem(doc, id++, a * 4 + b);
      doc += "</container>\n";
    }
    doc += "</container>\n";
  }
  doc += "</DIDL-Lite>\n";
  return doc;
}

std::string MakeDescription() {
  std::string doc =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<root xmlns=\"urn:schemas-upnp-org:device-1-0\" "
      "xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">\n"
      "<specVersion><major>1</major><minor>0</minor></specVersion>\n<device>\n"
      "<deviceType>urn:schemas-upnp-org:device:MediaRenderer:1</deviceType>\n"
      "<friendlyName>Living Room TV</friendlyName>\n"
      "<manufacturer>Example Electronics</manufacturer>\n"
      "<manufacturerURL>http://www.example.com/</manufacturerURL>\n"
      "<modelDescription>Network media renderer with a long description</modelDescription>\n"
      "<modelName>TV-4200</modelName><modelNumber>4200</modelNumber>\n"
      "<modelURL>http://www.example.com/tv4200/</modelURL>\n"
      "<serialNumber>0123456789</serialNumber>\n"
      "<UDN>uuid:4d696e69-444c-164e-9d41-001122334455</UDN>\n"
      "<dlna:X_DLNADOC>DMR-1.50</dlna:X_DLNADOC>\n<iconList>\n";
  for (int i = 0; i < 4; ++i) {
    doc += "<icon><mimetype>image/" + std::string(i % 2 ? "png" : "jpeg") + "</mimetype><width>" +
           std::to_string(48 << (i / 2)) + "</width><height>" + std::to_string(48 << (i / 2)) +
           "</height><depth>24</depth><url>/icons/" + std::to_string(i) +
           (i % 2 ? ".png" : ".jpg") + "</url></icon>\n";
  }
  doc += "</iconList>\n<serviceList>\n";
  const char* services[] = {"RenderingControl", "ConnectionManager", "AVTransport"};
  for (const char* s : services) {
    doc += std::string("<service><serviceType>urn:schemas-upnp-org:service:") + s +
           ":1</serviceType><serviceId>urn:upnp-org:serviceId:" + s +
           "</serviceId><SCPDURL>/upnp/" + s + "/desc.xml</SCPDURL><controlURL>/upnp/" + s +
           "/control</controlURL><eventSubURL>/upnp/" + s + "/event</eventSubURL></service>\n";
  }
  doc +=
      "</serviceList>\n<presentationURL>http://192.168.1.20/</presentationURL>\n</device>\n"
      "</root>\n";
  while (doc.size() < 3 * 1024) doc.insert(doc.size() - 8, "<!-- padding -->\n");
  return doc;
}

const std::string& Doc(int which) {
  static const std::string didl = MakeDidl();
  static const std::string description = MakeDescription();
  return which == 0 ? didl : description;
}

void SetBytes(benchmark::State& state, const std::string& doc) {
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(doc.size()));
}

void BM_ParseTarnwick(benchmark::State& state) {
  const std::string& doc = Doc(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    upnp_xml_node* root = upnp_xml_parse(doc.c_str());
    benchmark::DoNotOptimize(root);
    upnp_xml_release(root);
  }
  SetBytes(state, doc);
  const int64_t before = static_cast<int64_t>(upnp_mem_used());
  upnp_xml_node* root = upnp_xml_parse(doc.c_str());
  state.counters["tree_bytes_per_doc_byte"] =
      static_cast<double>(static_cast<int64_t>(upnp_mem_used()) - before) /
      static_cast<double>(doc.size());
  upnp_xml_release(root);
}
BENCHMARK(BM_ParseTarnwick)->Arg(0)->Arg(1);

void BM_ParseLibxml2(benchmark::State& state) {
  const std::string& doc = Doc(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    xmlDocPtr tree = xmlReadMemory(doc.data(), static_cast<int>(doc.size()), "bench.xml", nullptr,
                                   XML_PARSE_NONET);
    benchmark::DoNotOptimize(tree);
    xmlFreeDoc(tree);
  }
  SetBytes(state, doc);
}
BENCHMARK(BM_ParseLibxml2)->Arg(0)->Arg(1);

void BM_ParsePugixml(benchmark::State& state) {
  const std::string& doc = Doc(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    pugi::xml_document tree;
    pugi::xml_parse_result result = tree.load_buffer(doc.data(), doc.size());
    benchmark::DoNotOptimize(result);
  }
  SetBytes(state, doc);
}
BENCHMARK(BM_ParsePugixml)->Arg(0)->Arg(1);

void XMLCALL OnStart(void* count, const XML_Char*, const XML_Char**) {
  ++*static_cast<int64_t*>(count);
}
void XMLCALL OnEnd(void*, const XML_Char*) {}
void XMLCALL OnText(void*, const XML_Char*, int) {}

void BM_ParseExpat(benchmark::State& state) {
  const std::string& doc = Doc(static_cast<int>(state.range(0)));
  int64_t elements = 0;
  for (auto _ : state) {
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &elements);
    XML_SetElementHandler(parser, OnStart, OnEnd);
    XML_SetCharacterDataHandler(parser, OnText);
    benchmark::DoNotOptimize(XML_Parse(parser, doc.data(), static_cast<int>(doc.size()), 1));
    XML_ParserFree(parser);
  }
  benchmark::DoNotOptimize(elements);
  SetBytes(state, doc);
}
BENCHMARK(BM_ParseExpat)->Arg(0)->Arg(1);

void BM_WriteCompliantTarnwick(benchmark::State& state) {
  upnp_xml_node* root = upnp_xml_parse(Doc(0).c_str());
  int64_t written = 0;
  for (auto _ : state) {
    upnp_string* text = upnp_xml_tree_to_compliant_string(root, 0, 0);
    written = static_cast<int64_t>(text->length);
    benchmark::DoNotOptimize(upnp_string_get_cstring(text));
    upnp_string_free(text);
  }
  upnp_xml_release(root);
  state.SetBytesProcessed(state.iterations() * written);
}
BENCHMARK(BM_WriteCompliantTarnwick);

void BM_WritePlainTarnwick(benchmark::State& state) {
  upnp_xml_node* root = upnp_xml_parse(Doc(0).c_str());
  for (auto _ : state) {
    upnp_string* text = upnp_xml_tree_to_string(root, 0, 0);
    benchmark::DoNotOptimize(upnp_string_get_cstring(text));
    upnp_string_free(text);
  }
  upnp_xml_release(root);
}
BENCHMARK(BM_WritePlainTarnwick);

struct StringWriter : pugi::xml_writer {
  std::string text;
  void write(const void* data, size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
};

void BM_WritePugixml(benchmark::State& state) {
  pugi::xml_document tree;
  tree.load_buffer(Doc(0).data(), Doc(0).size());
  int64_t written = 0;
  for (auto _ : state) {
    StringWriter out;
    tree.save(out, "", pugi::format_raw | pugi::format_no_declaration);
    written = static_cast<int64_t>(out.text.size());
    benchmark::DoNotOptimize(out.text.data());
  }
  state.SetBytesProcessed(state.iterations() * written);
}
BENCHMARK(BM_WritePugixml);

}  // namespace

BENCHMARK_MAIN();
