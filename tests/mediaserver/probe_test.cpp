// SPDX-License-Identifier: Apache-2.0
#include "media_probe.h"
#include "support/test_support.h"

namespace {

using mediaserver::MediaInfo;
using mediaserver::MediaKind;
using mediaserver::ProbeMedia;
using namespace tw::test;

// ---- byte builders ----------------------------------------------------------------------------

std::string Be16(uint32_t v) { return {char(v >> 8), char(v)}; }
std::string Be32(uint32_t v) { return Be16(v >> 16) + Be16(v & 0xffff); }
std::string Be64(uint64_t v) { return Be32(uint32_t(v >> 32)) + Be32(uint32_t(v)); }
std::string Le16(uint32_t v) { return {char(v), char(v >> 8)}; }
std::string Le32(uint32_t v) { return Le16(v & 0xffff) + Le16(v >> 16); }
std::string Zeros(size_t n) { return std::string(n, '\0'); }

std::string Chunk(const char* id, const std::string& body) {
  return id + Le32(uint32_t(body.size())) + body + (body.size() % 2 ? Zeros(1) : "");
}
std::string Wav(uint32_t rate, uint32_t channels, uint32_t bits, uint32_t data_bytes,
                uint32_t stated_data = 0) {
  const uint32_t block = channels * bits / 8;
  const std::string fmt =
      Le16(1) + Le16(channels) + Le32(rate) + Le32(rate * block) + Le16(block) + Le16(bits);
  const std::string body = "WAVE" + Chunk("LIST", "odd") + Chunk("fmt ", fmt) + "data" +
                           Le32(stated_data ? stated_data : data_bytes) + Zeros(data_bytes);
  return "RIFF" + Le32(uint32_t(body.size())) + body;
}

std::string Id3(uint32_t size) {
  return std::string("ID3\3\0\0", 6) + char((size >> 21) & 0x7f) + char((size >> 14) & 0x7f) +
         char((size >> 7) & 0x7f) + char(size & 0x7f) + Zeros(size);
}
// MPEG-1 Layer III, 64 kbit/s, 48 kHz, mono: 192-byte frames of 1152 samples.
const std::string kMono48k("\xff\xfb\x54\xc0", 4);
// MPEG-2 Layer III, 64 kbit/s, 24 kHz, stereo: 192-byte frames of 576 samples.
const std::string kStereo24k("\xff\xf3\x84\x00", 4);
std::string Frames(const std::string& header, int count, const std::string& first_body = "") {
  std::string out;
  for (int i = 0; i < count; ++i) {
    const std::string body = i == 0 ? first_body : "";
    out += header + body + Zeros(188 - body.size());
  }
  return out;
}

std::string Box(const char* type, const std::string& body) {
  return Be32(uint32_t(8 + body.size())) + type + body;
}
std::string Full(const char* type, const std::string& body, uint32_t version = 0) {
  return Box(type, Be32(version << 24) + body);
}
std::string Mvhd0(uint32_t timescale, uint32_t duration) {
  return Full("mvhd", Be32(0) + Be32(0) + Be32(timescale) + Be32(duration) + Zeros(80));
}
std::string Mvhd1(uint32_t timescale, uint64_t duration) {
  return Full("mvhd", Be64(0) + Be64(0) + Be32(timescale) + Be64(duration) + Zeros(80), 1);
}
std::string Track(const char* handler, uint32_t w, uint32_t h, const std::string& entry) {
  const std::string tkhd = Full("tkhd", Zeros(20 + 52) + Be32(w << 16) + Be32(h << 16));
  const std::string hdlr = Full("hdlr", Be32(0) + handler + Zeros(13));
  const std::string stsd = Full("stsd", Be32(1) + entry);
  return Box("trak", tkhd + Box("mdia", hdlr + Box("minf", Box("stbl", stsd))));
}
// An audio sample entry; with an esds box when asc (AudioSpecificConfig bytes) is given.
std::string Mp4a(uint32_t channels, uint32_t bits, uint32_t rate, const std::string& asc = "") {
  const std::string dsi = "\x05" + std::string(1, char(asc.size())) + asc;
  const std::string config = "\x04" + std::string(1, char(13 + dsi.size())) + Zeros(13) + dsi;
  const std::string es = std::string("\x03\x80\x80\x80", 4) + char(3 + config.size()) + Zeros(3) +
                         config;  // the length in its long form
  return Box("mp4a", Zeros(6) + Be16(1) + Zeros(8) + Be16(channels) + Be16(bits) + Zeros(4) +
                         Be32(rate << 16) + (asc.empty() ? "" : Full("esds", es)));
}
const std::string kFtyp = Box("ftyp", "isom" + Be32(0x200) + "isomiso2");

std::string Segment(uint8_t marker, const std::string& body) {
  return std::string{'\xff', char(marker)} + Be16(uint32_t(body.size() + 2)) + body;
}
std::string Sof(uint8_t marker, uint32_t w, uint32_t h) {
  return Segment(marker, "\x08" + Be16(h) + Be16(w) + "\x01\x01\x11" + Zeros(1));
}
const std::string kSoi("\xff\xd8", 2);

std::string Png(uint32_t w, uint32_t h) {
  return std::string("\x89PNG\r\n\x1a\n", 8) + Be32(13) + "IHDR" + Be32(w) + Be32(h) + "\x08\x02" +
         Zeros(3) + Be32(0);
}

// ---- facts ------------------------------------------------------------------------------------

std::string Show(const MediaInfo& m) {
  return "kind " + std::to_string(int(m.kind)) + " ms " + std::to_string(m.duration_ms) + " " +
         std::to_string(m.width) + "x" + std::to_string(m.height) + " rate " +
         std::to_string(m.sample_rate) + " ch " + std::to_string(m.channels) + " bits " +
         std::to_string(m.bits_per_sample) + " B/s " + std::to_string(m.bitrate);
}
MediaInfo Info(MediaKind kind, int64_t ms, int32_t w, int32_t h, int32_t rate, int32_t ch,
               int32_t bits, int64_t bitrate) {
  MediaInfo m;
  m.kind = kind;
  m.duration_ms = ms;
  m.width = w;
  m.height = h;
  m.sample_rate = rate;
  m.channels = ch;
  m.bits_per_sample = bits;
  m.bitrate = bitrate;
  return m;
}
constexpr MediaKind kA = MediaKind::kAudio, kV = MediaKind::kVideo, kI = MediaKind::kImage;

struct Row {
  const char* name;
  std::string bytes;
  const char* mime;
  MediaInfo want;
};

std::vector<Row> GoodFiles() {
  // a movie of 1500/600 s: an AAC-LC track (esds: 44.1 kHz, mono) and a 640x360 video track
  const std::string av_movie =
      kFtyp +
      Box("moov", Mvhd0(600, 1500) + Track("soun", 0, 0, Mp4a(2, 16, 44100, "\x12\x08")) +
                      Track("vide", 640, 360, Box("avc1", Zeros(78)))) +
      Box("mdat", Zeros(100));
  std::string pcm_movie = Mp4a(2, 24, 48000);
  pcm_movie.replace(4, 4, "sowt");
  pcm_movie = Box("moov", Mvhd0(1000, 1000) + Track("soun", 0, 0, pcm_movie));
  // moov after a 64-bit mdat, running to the end of the file (size 0); 30 hours in 64 bits
  const std::string long_movie = kFtyp + Be32(1) + "mdat" + Be64(16 + 40) + Zeros(40) + Be32(0) +
                                 "moov" + Mvhd1(90000, 90000ull * 3600 * 30);
  return {
      {"wav", Wav(8000, 1, 8, 12000), "audio/x-wav", Info(kA, 1500, 0, 0, 8000, 1, 8, 8000)},
      {"wav streamed, size unknown", Wav(8000, 2, 16, 16000, 0xffffffff), "audio/x-wav",
       Info(kA, 500, 0, 0, 8000, 2, 16, 32000)},
      // ID3v2 in front, ID3v1 behind: neither counts as audio (25 frames of 192 bytes)
      {"mp3 cbr", Id3(100) + Frames(kMono48k, 25) + "TAG" + Zeros(125), "audio/mpeg",
       Info(kA, 600, 0, 0, 48000, 1, 0, 8000)},
      {"mp3 xing", Frames(kMono48k, 3, Zeros(17) + "Xing" + Be32(3) + Be32(1000) + Be32(24000)),
       "audio/mpeg", Info(kA, 24000, 0, 0, 48000, 1, 0, 1000)},
      {"mp3 vbri after junk",
       "junk" + Frames(kStereo24k, 3, Zeros(32) + "VBRI" + Zeros(6) + Be32(36000) + Be32(500)),
       "audio/mpeg", Info(kA, 12000, 0, 0, 24000, 2, 0, 3000)},
      {"mp4 v0", av_movie, "video/mp4",
       Info(kV, 2500, 640, 360, 44100, 1, 0, int64_t(av_movie.size()) * 1000 / 2500)},
      {"mov pcm, no ftyp", pcm_movie, "video/quicktime",
       Info(kV, 1000, 0, 0, 48000, 2, 24, int64_t(pcm_movie.size()))},
      {"mp4 v1, largesize, size 0", long_movie, "video/mp4", Info(kV, 108000000, 0, 0, 0, 0, 0, 0)},
      // a frame header hidden in APP1 (an Exif thumbnail) and DHT/DAC markers come first
      {"jpeg",
       kSoi + Segment(0xe1, Sof(0xc0, 160, 120)) + Segment(0xc4, Zeros(20)) +
           Segment(0xcc, Zeros(2)) + "\xff\xff" + Sof(0xc2, 1024, 768) + Segment(0xda, Zeros(8)) +
           "\xff\xd9",
       "image/jpeg", Info(kI, 0, 1024, 768, 0, 0, 0, 0)},
      {"png", Png(4000, 3000), "image/png", Info(kI, 0, 4000, 3000, 0, 0, 0, 0)},
      {"text", "plain words, nothing more", "text/plain", MediaInfo{}},
  };
}

// Accounted memory back at its start value after each test: the probe must close its reader on
// every path. (LeakCheck needs the library's internal hooks, out of reach of this program.)
class MediaProbe : public ::testing::Test {
 protected:
  void SetUp() override { start_ = upnp_mem_used(); }
  void TearDown() override { EXPECT_EQ(upnp_mem_used(), start_) << "accounted memory left"; }
  uint32_t start_ = 0;
  MediaInfo Probe(const std::string& bytes, const char* mime) {
    WriteFile(path_, bytes);
    return ProbeMedia(path_.c_str(), mime);
  }
  TempDir dir_;
  std::string path_ = dir_.File("media");
};

TEST_F(MediaProbe, HeaderFactsPerFormat) {
  for (const Row& row : GoodFiles()) {
    EXPECT_EQ(Show(Probe(row.bytes, row.mime)), Show(row.want)) << row.name;
  }
}

// Cut anywhere, a file gives no fact it does not hold: each field is 0 or what the whole file
// says, and durations may shrink with the data, never grow. (The bitrate may change: with a VBR
// table cut off, the frame header's own rate is the best left.)
TEST_F(MediaProbe, TruncatedFilesGiveNothingFalse) {
  for (const Row& row : GoodFiles()) {
    const MediaInfo whole = Probe(row.bytes, row.mime);
    for (size_t cut = 0; cut < row.bytes.size(); cut += cut < 600 ? 1 : 997) {
      const MediaInfo m = Probe(row.bytes.substr(0, cut), row.mime);
      const std::string at = std::string(row.name) + " cut at " + std::to_string(cut);
      for (auto [got, want] : {std::pair{m.width, whole.width},
                               {m.height, whole.height},
                               {m.sample_rate, whole.sample_rate},
                               {m.channels, whole.channels},
                               {m.bits_per_sample, whole.bits_per_sample}}) {
        EXPECT_TRUE(got == 0 || got == want) << at << ": " << Show(m);
      }
      EXPECT_TRUE(m.duration_ms >= 0 && m.duration_ms <= whole.duration_ms) << at << Show(m);
      EXPECT_GE(m.bitrate, 0) << at;
      EXPECT_EQ(m.kind, whole.kind) << at;
    }
  }
}

TEST_F(MediaProbe, HostileHeadersGiveZerosOrTrueFacts) {
  const MediaInfo none_a = Info(kA, 0, 0, 0, 0, 0, 0, 0);
  const MediaInfo none_v = Info(kV, 0, 0, 0, 0, 0, 0, 0);
  const MediaInfo none_i = Info(kI, 0, 0, 0, 0, 0, 0, 0);
  std::string nested = Mvhd0(1000, 5000);
  for (int i = 0; i < 2000; ++i) nested = Box(i % 2 ? "moov" : "trak", nested);
  std::string many_boxes = kFtyp;
  for (int i = 0; i < 100000; ++i) many_boxes += Box("free", "");
  many_boxes += Box("moov", Mvhd0(1000, 5000));
  std::string id3_chain;
  for (int i = 0; i < 1000; ++i) id3_chain += Id3(0);
  id3_chain += Frames(kMono48k, 2);
  std::string tiny_segments = kSoi;
  for (int i = 0; i < 100000; ++i) tiny_segments += Segment(0xe0, "");
  tiny_segments += Sof(0xc0, 8, 8);
  const std::string mvhd = Mvhd0(1000, 5000);
  const std::string cut_moov = kFtyp + Be32(0xfffffff0) + "moov" + mvhd;
  const std::string huge_moov = kFtyp + Be32(1) + "moov" + Be64(1ull << 63) + mvhd;
  const std::string open_trak =
      kFtyp + Box("moov", mvhd + Be32(0) + "trak" + Full("tkhd", Zeros(72) + Be32(9u << 16)));
  auto five_seconds = [](const std::string& file) {
    return Info(kV, 5000, 0, 0, 0, 0, 0, int64_t(file.size()) * 1000 / 5000);
  };
  const std::vector<Row> rows = {
      {"no moov end: cut to the file", cut_moov, "video/mp4", five_seconds(cut_moov)},
      {"box smaller than its header", kFtyp + Be32(4) + "moov" + mvhd, "video/mp4", none_v},
      {"largesize below 16", kFtyp + Be32(1) + "moov" + Be64(8) + mvhd, "video/mp4", none_v},
      {"largesize 2^63", huge_moov, "video/mp4", five_seconds(huge_moov)},
      {"zero-size trak inside moov", open_trak, "video/mp4", five_seconds(open_trak)},
      {"2000 nested boxes", Be32(8) + "ftyp" + nested, "video/mp4", none_v},
      {"100000 empty boxes", many_boxes, "video/mp4", none_v},
      {"timescale 0", kFtyp + Box("moov", Mvhd0(0, 5000)), "video/mp4", none_v},
      {"duration past int64 ms", kFtyp + Box("moov", Mvhd1(1, ~0ull - 1)), "video/mp4", none_v},
      {"mvhd cut short", kFtyp + Box("moov", Box("mvhd", Be32(1 << 24) + Zeros(10))), "video/mp4",
       none_v},
      {"ID3 larger than the file", Id3(0).substr(0, 6) + "\x7f\x7f\x7f\x7f" + Frames(kMono48k, 4),
       "audio/mpeg", none_a},
      // only four tags are skipped as tags; the search for a frame then passes the others
      {"1000 empty ID3 tags", id3_chain, "audio/mpeg", Info(kA, 48, 0, 0, 48000, 1, 0, 8000)},
      {"0xFF everywhere", std::string(200000, '\xff'), "audio/mpeg", none_a},
      {"one lone frame header in noise", "noise" + kMono48k + "more noise" + Zeros(400),
       "audio/mpeg", none_a},
      {"wav chunk past the end",
       "RIFF" + Le32(100) + "WAVE" + "LIST" + Le32(0xffffffff) + Zeros(40), "audio/x-wav", none_a},
      {"wav zero byte rate", Wav(0, 0, 0, 1000), "audio/x-wav", none_a},
      {"jpeg length 0", kSoi + "\xff\xe0" + Be16(0) + Sof(0xc0, 8, 8), "image/jpeg", none_i},
      {"jpeg length past the end", kSoi + "\xff\xe0" + Be16(0xffff) + Sof(0xc0, 8, 8), "image/jpeg",
       none_i},
      {"jpeg endless fill", kSoi + std::string(100000, '\xff') + Sof(0xc0, 8, 8).substr(1),
       "image/jpeg", none_i},
      {"jpeg 100000 empty segments", tiny_segments, "image/jpeg", none_i},
      {"jpeg frame header cut", kSoi + Sof(0xc0, 8, 8).substr(0, 6), "image/jpeg", none_i},
      {"png width past int32", Png(0x80000000u, 10), "image/png", none_i},
      {"png without IHDR", std::string("\x89PNG\r\n\x1a\n", 8) + Be32(13) + "IDAT" + Zeros(30),
       "image/png", none_i},
      {"empty file", "", "audio/mpeg", none_a},
  };
  for (const Row& row : rows) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Show(Probe(row.bytes, row.mime)), Show(row.want)) << row.name;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << row.name;
  }
  EXPECT_EQ(Show(ProbeMedia(dir_.File("missing").c_str(), "audio/mpeg")), Show(none_a));
  EXPECT_EQ(Show(ProbeMedia(dir_.path().c_str(), "video/mp4")), Show(none_v));
  EXPECT_EQ(Show(ProbeMedia(nullptr, nullptr)), Show(MediaInfo{}));
}

// ffmpeg's own encodes in the build's sample folder agree with ffprobe about their duration and
// size. The folder is found beside the test program's directory (build/tests/..).
TEST_F(MediaProbe, AgreesWithFfprobeOnSampleFolder) {
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe");
  const std::string sample = (exe.parent_path().parent_path() / "sample").string();
  if (std::system("command -v ffprobe > /dev/null 2>&1") != 0) GTEST_SKIP() << "no ffprobe";
  const std::pair<const char*, const char*> files[] = {
      {"Music/tone.wav", "audio/x-wav"},    {"Music/tone.mp3", "audio/mpeg"},
      {"Music/tone.m4a", "audio/mp4"},      {"Video/clip.mp4", "video/mp4"},
      {"Pictures/frame.jpg", "image/jpeg"}, {"Pictures/frame.png", "image/png"}};
  int compared = 0;
  for (const auto& [name, mime] : files) {
    const std::string path = sample + "/" + name;
    // Only files that carry ffmpeg's mark; the build's own generator may have made the others.
    const std::string bytes = ReadFile(path);
    if (bytes.find("Lavf") == std::string::npos && bytes.find("Lavc") == std::string::npos) {
      continue;
    }
    FILE* pipe = popen(("ffprobe -v error -select_streams 0 -show_entries "
                        "format=duration:stream=width,height -of default=nw=1 '" +
                        path + "'")
                           .c_str(),
                       "r");
    ASSERT_NE(pipe, nullptr);
    char line[256];
    std::map<std::string, std::string> said;
    while (fgets(line, sizeof line, pipe) != nullptr) {
      std::string text(line);
      const size_t eq = text.find('=');
      if (eq != std::string::npos)
        said[text.substr(0, eq)] = text.substr(eq + 1, text.find('\n') - eq - 1);
    }
    pclose(pipe);
    const MediaInfo m = ProbeMedia(path.c_str(), mime);
    if (said["duration"] != "N/A" && !said["duration"].empty()) {
      EXPECT_NEAR(double(m.duration_ms), std::atof(said["duration"].c_str()) * 1000, 60) << name;
    }
    if (said.count("width") != 0 && said["width"] != "N/A") {
      EXPECT_EQ(m.width, std::atoi(said["width"].c_str())) << name;
      EXPECT_EQ(m.height, std::atoi(said["height"].c_str())) << name;
    }
    ++compared;
  }
  if (compared == 0) GTEST_SKIP() << "no ffmpeg-made files in " << sample;
  RecordProperty("compared", compared);
}

}  // namespace
