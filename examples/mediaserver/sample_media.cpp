// SPDX-License-Identifier: Apache-2.0
// Build-time tool: writes small, valid media files into the example server's sample folder when
// no ffmpeg is at hand (or it is not wanted). Every file is put together byte by byte here:
//   tone.wav   2 s of a 440 Hz PCM tone, 22050 Hz mono 16-bit
//   tone.mp3   an ID3v2 title, then 84 silent MPEG-1 Layer III frames (48 kHz mono 64 kbit/s,
//              2.016 s); a silent frame is a header, zero side info and zero main data
//   tone.m4a   an MP4 audio track of 2 s (structure only: its one sample is not AAC data)
//   clip.mp4   an MP4 video track 320x240 of 2 s plus the audio track (structure only)
//   frame.jpg  a baseline JPEG of coloured bars, 64x48: DC coefficients only
//   frame.png  an RGB gradient, 64x48, stored (uncompressed) zlib blocks
// Usage: tarnwick-sample-media FOLDER [NAME...]; NAMEs are paths relative to FOLDER as listed in
// kFiles below, none means all. Exit status 0, or 1 when a file could not be written.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace {

using Bytes = std::vector<uint8_t>;

void Put16be(Bytes& b, uint32_t v) {
  b.push_back(static_cast<uint8_t>(v >> 8));
  b.push_back(static_cast<uint8_t>(v));
}
void Put32be(Bytes& b, uint32_t v) {
  Put16be(b, v >> 16);
  Put16be(b, v & 0xffff);
}
void Put16le(Bytes& b, uint32_t v) {
  b.push_back(static_cast<uint8_t>(v));
  b.push_back(static_cast<uint8_t>(v >> 8));
}
void Put32le(Bytes& b, uint32_t v) {
  Put16le(b, v & 0xffff);
  Put16le(b, v >> 16);
}
void PutText(Bytes& b, const char* text) { b.insert(b.end(), text, text + std::strlen(text)); }
void Append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }

// ---- WAV --------------------------------------------------------------------------------------

Bytes MakeWav() {
  constexpr uint32_t kRate = 22050;
  constexpr uint32_t kSamples = kRate * 2;
  Bytes b;
  PutText(b, "RIFF");
  Put32le(b, 36 + kSamples * 2);
  PutText(b, "WAVEfmt ");
  Put32le(b, 16);
  Put16le(b, 1);  // PCM
  Put16le(b, 1);  // mono
  Put32le(b, kRate);
  Put32le(b, kRate * 2);  // bytes per second
  Put16le(b, 2);          // block align
  Put16le(b, 16);         // bits per sample
  PutText(b, "data");
  Put32le(b, kSamples * 2);
  for (uint32_t i = 0; i < kSamples; ++i) {
    const double s = std::sin(2.0 * 3.14159265358979 * 440.0 * i / kRate);
    Put16le(b, static_cast<uint16_t>(static_cast<int16_t>(s * 8000.0)));
  }
  return b;
}

// ---- MP3 --------------------------------------------------------------------------------------

Bytes MakeMp3() {
  Bytes b;
  // ID3v2.3 tag with one TIT2 frame; the tag size is syncsafe (7 bits per byte).
  const char* title = "Tone";
  const uint32_t frame_size = 1 + static_cast<uint32_t>(std::strlen(title));  // encoding byte
  const uint32_t tag_size = 10 + frame_size;
  PutText(b, "ID3");
  b.push_back(3);
  b.push_back(0);
  b.push_back(0);
  for (int shift = 21; shift >= 0; shift -= 7) b.push_back((tag_size >> shift) & 0x7f);
  PutText(b, "TIT2");
  Put32be(b, frame_size);
  Put16be(b, 0);
  b.push_back(0);  // ISO-8859-1
  PutText(b, title);
  // MPEG-1 Layer III, no CRC, 64 kbit/s (index 5), 48 kHz (index 1), no padding, mono:
  // 144 * 64000 / 48000 = 192 bytes per frame of 1152 samples.
  constexpr int kFrames = 84;
  for (int i = 0; i < kFrames; ++i) {
    const size_t start = b.size();
    b.push_back(0xff);
    b.push_back(0xfb);
    b.push_back(0x54);
    b.push_back(0xc0);
    b.resize(start + 192, 0);  // 17 bytes of side info, all zero: no main data, silence
  }
  return b;
}

// ---- MP4 --------------------------------------------------------------------------------------

Bytes Box(const char* type, const Bytes& body) {
  Bytes b;
  Put32be(b, static_cast<uint32_t>(8 + body.size()));
  PutText(b, type);
  Append(b, body);
  return b;
}
Bytes FullBox(const char* type, uint32_t version_flags, const Bytes& body) {
  Bytes full;
  Put32be(full, version_flags);
  Append(full, body);
  return Box(type, full);
}
void PutMatrix(Bytes& b) {
  const uint32_t unity[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
  for (uint32_t v : unity) Put32be(b, v);
}

constexpr uint32_t kMovieTimescale = 1000;
constexpr uint32_t kMovieDurationMs = 2000;

struct Track {
  bool video;
  uint32_t id;
  uint32_t timescale;    // of the media
  uint32_t sample_size;  // the one sample's bytes in mdat
};

Bytes SampleTables(const Track& t, uint32_t chunk_offset) {
  Bytes entry;  // the sample entry: 6 reserved bytes, data reference 1
  for (int i = 0; i < 6; ++i) entry.push_back(0);
  Put16be(entry, 1);
  if (t.video) {
    for (int i = 0; i < 16; ++i) entry.push_back(0);
    Put16be(entry, 320);
    Put16be(entry, 240);
    Put32be(entry, 0x480000);  // 72 dpi
    Put32be(entry, 0x480000);
    Put32be(entry, 0);
    Put16be(entry, 1);                                // frames per sample
    for (int i = 0; i < 32; ++i) entry.push_back(0);  // compressor name
    Put16be(entry, 24);
    Put16be(entry, 0xffff);
  } else {
    Put32be(entry, 0);  // version, revision
    Put32be(entry, 0);  // vendor
    Put16be(entry, 2);  // channels
    Put16be(entry, 16);
    Put32be(entry, 0);  // compression id, packet size
    Put32be(entry, 44100u << 16);
  }
  Bytes stsd;
  Put32be(stsd, 1);
  Append(stsd, Box(t.video ? "mp4v" : "mp4a", entry));
  Bytes stts;  // one sample lasting the whole track
  Put32be(stts, 1);
  Put32be(stts, 1);
  Put32be(stts, t.timescale * 2);
  Bytes stsc;
  Put32be(stsc, 1);
  Put32be(stsc, 1);
  Put32be(stsc, 1);
  Put32be(stsc, 1);
  Bytes stsz;
  Put32be(stsz, t.sample_size);
  Put32be(stsz, 1);
  Bytes stco;
  Put32be(stco, 1);
  Put32be(stco, chunk_offset);
  Bytes stbl = FullBox("stsd", 0, stsd);
  Append(stbl, FullBox("stts", 0, stts));
  Append(stbl, FullBox("stsc", 0, stsc));
  Append(stbl, FullBox("stsz", 0, stsz));
  Append(stbl, FullBox("stco", 0, stco));
  return Box("stbl", stbl);
}

Bytes TrackBox(const Track& t, uint32_t chunk_offset) {
  Bytes tkhd;
  Put32be(tkhd, 0);  // creation
  Put32be(tkhd, 0);  // modification
  Put32be(tkhd, t.id);
  Put32be(tkhd, 0);
  Put32be(tkhd, kMovieDurationMs);
  Put32be(tkhd, 0);
  Put32be(tkhd, 0);
  Put16be(tkhd, 0);                    // layer
  Put16be(tkhd, t.video ? 0 : 1);      // alternate group
  Put16be(tkhd, t.video ? 0 : 0x100);  // volume
  Put16be(tkhd, 0);
  PutMatrix(tkhd);
  Put32be(tkhd, t.video ? 320u << 16 : 0);
  Put32be(tkhd, t.video ? 240u << 16 : 0);
  Bytes mdhd;
  Put32be(mdhd, 0);
  Put32be(mdhd, 0);
  Put32be(mdhd, t.timescale);
  Put32be(mdhd, t.timescale * 2);
  Put16be(mdhd, 0x55c4);  // language "und"
  Put16be(mdhd, 0);
  Bytes hdlr;
  Put32be(hdlr, 0);
  PutText(hdlr, t.video ? "vide" : "soun");
  for (int i = 0; i < 12; ++i) hdlr.push_back(0);
  PutText(hdlr, t.video ? "VideoHandler" : "SoundHandler");
  hdlr.push_back(0);
  Bytes media_header;
  if (t.video) {
    Put32be(media_header, 0);  // graphics mode, opcolor
    Put32be(media_header, 0);
  } else {
    Put32be(media_header, 0);  // balance, reserved
  }
  Bytes url;
  Put32be(url, 1);
  Append(url, FullBox("url ", 1, {}));  // flag 1: the data is in this file
  Bytes minf = FullBox(t.video ? "vmhd" : "smhd", t.video ? 1 : 0, media_header);
  Append(minf, Box("dinf", FullBox("dref", 0, url)));
  Append(minf, SampleTables(t, chunk_offset));
  Bytes mdia = FullBox("mdhd", 0, mdhd);
  Append(mdia, FullBox("hdlr", 0, hdlr));
  Append(mdia, Box("minf", minf));
  Bytes trak = FullBox("tkhd", 3, tkhd);  // enabled, in movie
  Append(trak, Box("mdia", mdia));
  return Box("trak", trak);
}

// ftyp, moov, mdat: the movie box first so that a client can start without seeking.
Bytes MakeMp4(bool with_video) {
  Bytes ftyp;
  PutText(ftyp, with_video ? "isom" : "M4A ");
  Put32be(ftyp, 0x200);
  PutText(ftyp, with_video ? "isomiso2mp41" : "M4A isomiso2");
  const Bytes ftyp_box = Box("ftyp", ftyp);
  std::vector<Track> tracks;
  if (with_video) tracks.push_back({true, 1, 10, 64});
  tracks.push_back({false, with_video ? 2u : 1u, 44100, 64});
  // The moov size does not depend on the chunk offsets, so lay it out once to learn it.
  auto build_moov = [&](uint32_t mdat_body) {
    Bytes mvhd;
    Put32be(mvhd, 0);
    Put32be(mvhd, 0);
    Put32be(mvhd, kMovieTimescale);
    Put32be(mvhd, kMovieDurationMs);
    Put32be(mvhd, 0x10000);  // rate 1.0
    Put16be(mvhd, 0x100);    // volume 1.0
    for (int i = 0; i < 10; ++i) mvhd.push_back(0);
    PutMatrix(mvhd);
    for (int i = 0; i < 24; ++i) mvhd.push_back(0);
    Put32be(mvhd, static_cast<uint32_t>(tracks.size() + 1));  // next track id
    Bytes moov = FullBox("mvhd", 0, mvhd);
    uint32_t offset = mdat_body;
    for (const Track& t : tracks) {
      Append(moov, TrackBox(t, offset));
      offset += t.sample_size;
    }
    return Box("moov", moov);
  };
  const size_t moov_size = build_moov(0).size();
  const uint32_t mdat_body = static_cast<uint32_t>(ftyp_box.size() + moov_size + 8);
  Bytes file = ftyp_box;
  Append(file, build_moov(mdat_body));
  uint32_t payload = 0;
  for (const Track& t : tracks) payload += t.sample_size;
  Append(file, Box("mdat", Bytes(payload, 0)));
  return file;
}

// ---- JPEG -------------------------------------------------------------------------------------

// Huffman-coded bits, with the 0x00 stuffed after every 0xFF the entropy-coded data holds.
class BitWriter {
 public:
  explicit BitWriter(Bytes& out) : out_(out) {}
  void Put(uint32_t bits, int count) {
    for (int i = count - 1; i >= 0; --i) {
      acc_ = static_cast<uint8_t>((acc_ << 1) | ((bits >> i) & 1));
      if (++held_ == 8) Flush();
    }
  }
  void Finish() {
    while (held_ != 0) Put(1, 1);  // pad with ones
  }

 private:
  void Flush() {
    out_.push_back(acc_);
    if (acc_ == 0xff) out_.push_back(0);
    acc_ = 0;
    held_ = 0;
  }
  Bytes& out_;
  uint8_t acc_ = 0;
  int held_ = 0;
};

// The usual luminance DC table: code lengths per category 0..11.
constexpr uint8_t kDcCounts[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};

// Canonical code of DC category `category` for kDcCounts.
void DcCode(int category, uint32_t& code, int& length) {
  uint32_t next = 0;
  int symbol = 0;
  for (int len = 1; len <= 16; ++len) {
    for (int i = 0; i < kDcCounts[len - 1]; ++i, ++symbol, ++next) {
      if (symbol == category) {
        code = next;
        length = len;
        return;
      }
    }
    next <<= 1;
  }
  code = 0;
  length = 0;
}

void PutDc(BitWriter& w, int diff) {
  int category = 0;
  for (int v = diff < 0 ? -diff : diff; v != 0; v >>= 1) ++category;
  uint32_t code = 0;
  int length = 0;
  DcCode(category, code, length);
  w.Put(code, length);
  if (category == 0) return;
  const uint32_t bits = diff < 0 ? static_cast<uint32_t>(diff - 1) : static_cast<uint32_t>(diff);
  w.Put(bits & ((1u << category) - 1), category);
}

Bytes Segment(uint8_t marker, const Bytes& body) {
  Bytes b = {0xff, marker};
  Put16be(b, static_cast<uint32_t>(body.size() + 2));
  Append(b, body);
  return b;
}

// 64x48, YCbCr without subsampling, one MCU per 8x8 block: each block is one flat colour, so a
// block is its DC difference and an end-of-block. The AC table holds only that end-of-block.
Bytes MakeJpeg() {
  constexpr int kWidth = 64;
  constexpr int kHeight = 48;
  constexpr uint8_t kBars[8][3] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235}, {16, 235, 16},
                                   {235, 16, 235},  {235, 16, 16},  {16, 16, 235},  {16, 16, 16}};
  Bytes b = {0xff, 0xd8};
  Bytes app0;
  PutText(app0, "JFIF");
  app0.push_back(0);
  Put16be(app0, 0x0101);
  app0.push_back(0);  // aspect ratio only
  Put16be(app0, 1);
  Put16be(app0, 1);
  Put16be(app0, 0);  // no thumbnail
  Append(b, Segment(0xe0, app0));
  Bytes dqt = {0};  // 8-bit table 0, all 8: a DC of 8 * (level - 128) quantises to level - 128
  dqt.resize(65, 8);
  Append(b, Segment(0xdb, dqt));
  Bytes sof = {8};
  Put16be(sof, kHeight);
  Put16be(sof, kWidth);
  sof.push_back(3);
  for (uint8_t id = 1; id <= 3; ++id) {
    sof.push_back(id);
    sof.push_back(0x11);  // 1x1 sampling
    sof.push_back(0);     // quantisation table 0
  }
  Append(b, Segment(0xc0, sof));
  Bytes dht = {0x00};  // DC table 0
  dht.insert(dht.end(), kDcCounts, kDcCounts + 16);
  for (uint8_t v = 0; v < 12; ++v) dht.push_back(v);
  dht.push_back(0x10);  // AC table 0: one code of one bit, for end-of-block
  dht.push_back(1);
  for (int i = 1; i < 16; ++i) dht.push_back(0);
  dht.push_back(0x00);
  Append(b, Segment(0xc4, dht));
  Bytes sos = {3, 1, 0x00, 2, 0x00, 3, 0x00, 0, 63, 0};
  Append(b, Segment(0xda, sos));
  BitWriter w(b);
  int previous[3] = {0, 0, 0};
  for (int by = 0; by < kHeight / 8; ++by) {
    for (int bx = 0; bx < kWidth / 8; ++bx) {
      const uint8_t* rgb = kBars[bx];
      const double r = rgb[0], g = rgb[1], bl = rgb[2];
      const double shade = 1.0 - 0.1 * by;
      const double ycc[3] = {(0.299 * r + 0.587 * g + 0.114 * bl) * shade,
                             128.0 - 0.168736 * r - 0.331264 * g + 0.5 * bl,
                             128.0 + 0.5 * r - 0.418688 * g - 0.081312 * bl};
      for (int c = 0; c < 3; ++c) {
        const int dc = static_cast<int>(std::lround(ycc[c])) - 128;
        PutDc(w, dc - previous[c]);
        previous[c] = dc;
        w.Put(0, 1);  // end of block
      }
    }
  }
  w.Finish();
  b.push_back(0xff);
  b.push_back(0xd9);
  return b;
}

// ---- PNG --------------------------------------------------------------------------------------

uint32_t Crc32(const uint8_t* data, size_t size) {
  uint32_t crc = 0xffffffffu;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1)));
  }
  return crc ^ 0xffffffffu;
}

void PutChunk(Bytes& png, const char* type, const Bytes& body) {
  Put32be(png, static_cast<uint32_t>(body.size()));
  const size_t typed = png.size();
  PutText(png, type);
  Append(png, body);
  Put32be(png, Crc32(png.data() + typed, png.size() - typed));
}

Bytes MakePng() {
  constexpr uint32_t kWidth = 64;
  constexpr uint32_t kHeight = 48;
  Bytes raw;  // each row: filter type 0, then RGB
  for (uint32_t y = 0; y < kHeight; ++y) {
    raw.push_back(0);
    for (uint32_t x = 0; x < kWidth; ++x) {
      raw.push_back(static_cast<uint8_t>(x * 4));
      raw.push_back(static_cast<uint8_t>(y * 5));
      raw.push_back(static_cast<uint8_t>(255 - x * 2));
    }
  }
  Bytes zlib = {0x78, 0x01};
  for (size_t at = 0; at < raw.size();) {
    const size_t n = raw.size() - at < 65535 ? raw.size() - at : 65535;
    zlib.push_back(at + n == raw.size() ? 1 : 0);  // stored block, final flag
    Put16le(zlib, static_cast<uint32_t>(n));
    Put16le(zlib, static_cast<uint32_t>(~n & 0xffff));
    zlib.insert(zlib.end(), raw.begin() + static_cast<std::ptrdiff_t>(at),
                raw.begin() + static_cast<std::ptrdiff_t>(at + n));
    at += n;
  }
  uint32_t a = 1, s = 0;  // Adler-32
  for (uint8_t v : raw) {
    a = (a + v) % 65521;
    s = (s + a) % 65521;
  }
  Put32be(zlib, (s << 16) | a);
  Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  Bytes ihdr;
  Put32be(ihdr, kWidth);
  Put32be(ihdr, kHeight);
  ihdr.push_back(8);  // bit depth
  ihdr.push_back(2);  // RGB
  ihdr.push_back(0);
  ihdr.push_back(0);
  ihdr.push_back(0);
  PutChunk(png, "IHDR", ihdr);
  PutChunk(png, "IDAT", zlib);
  PutChunk(png, "IEND", {});
  return png;
}

// ---- Writing ----------------------------------------------------------------------------------

struct SampleFile {
  const char* name;
  Bytes (*make)();
};
constexpr SampleFile kFiles[] = {
    {"Music/tone.wav", MakeWav},
    {"Music/tone.mp3", MakeMp3},
    {"Music/tone.m4a", [] { return MakeMp4(false); }},
    {"Video/clip.mp4", [] { return MakeMp4(true); }},
    {"Pictures/frame.jpg", MakeJpeg},
    {"Pictures/frame.png", MakePng},
};

bool WriteWhole(const std::string& path, const Bytes& bytes) {
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && upnp_file_create_path(path.substr(0, slash).c_str()) != 0) {
    return false;
  }
  upnp_file_unlink(path.c_str());  // opening for writing does not truncate
  upnp_file* out = upnp_file_open_write(path.c_str());
  if (out == nullptr) return false;
  bool ok = true;
  for (size_t at = 0; ok && at < bytes.size();) {
    const int32_t n =
        upnp_file_write(out, bytes.data() + at, static_cast<uint32_t>(bytes.size() - at));
    ok = n > 0;
    if (ok) at += static_cast<size_t>(n);
  }
  upnp_file_close(out);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FOLDER [NAME...]\n", argv[0]);
    return 2;
  }
  upnp_mem_init();
  const std::string folder = argv[1];
  int status = 0;
  for (const SampleFile& file : kFiles) {
    bool wanted = argc == 2;
    for (int i = 2; i < argc && !wanted; ++i) wanted = std::strcmp(argv[i], file.name) == 0;
    if (!wanted) continue;
    if (!WriteWhole(folder + "/" + file.name, file.make())) {
      std::fprintf(stderr, "%s: cannot write %s/%s\n", argv[0], folder.c_str(), file.name);
      status = 1;
    }
  }
  return status;
}
