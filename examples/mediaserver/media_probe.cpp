// SPDX-License-Identifier: Apache-2.0
// Media header probing. The format is told by the file's first bytes, not by its name; the MIME
// type only sets the kind and lets an MPEG audio file start with junk before its first frame.
//
// Every probe is bounded three ways, so a hostile file costs little: the bytes asked of the
// reader (kMaxBytesRead), the seeks that may refill its buffer (kMaxSeeks) and, per format, the
// number of chunks, boxes or segments looked at. Every size a file states is checked against
// the file size before it is used; sizes past the end are cut to it, so a truncated file still
// gives what its surviving header says.
#include "media_probe.h"

#include <cstring>

#include "tarnwick/media.h"
#include "tarnwick/platform.h"

namespace mediaserver {
namespace {

constexpr uint32_t kBufferSize = 4096;
constexpr int64_t kMaxBytesRead = 256 * 1024;
constexpr int32_t kMaxSeeks = 1024;
constexpr int32_t kMaxWavChunks = 64;
constexpr int32_t kMaxId3Tags = 4;
constexpr int64_t kMaxMp3SyncScan = 64 * 1024;  // junk allowed before the first frame
constexpr int32_t kMaxMp4Boxes = 512;
constexpr int32_t kMaxMp4Depth = 8;
constexpr int32_t kMaxJpegSegments = 256;
constexpr int32_t kMaxJpegFill = 64;  // 0xFF fill bytes allowed before a marker

constexpr uint32_t FourCc(const char (&s)[5]) {
  return (static_cast<uint32_t>(static_cast<uint8_t>(s[0])) << 24) |
         (static_cast<uint32_t>(static_cast<uint8_t>(s[1])) << 16) |
         (static_cast<uint32_t>(static_cast<uint8_t>(s[2])) << 8) |
         static_cast<uint32_t>(static_cast<uint8_t>(s[3]));
}

// duration / timescale in milliseconds without overflow on any platform (no 128-bit type on
// 32-bit ARM); 0 when the result would not fit.
int64_t ScaleToMs(uint64_t duration, uint64_t timescale) {
  if (timescale == 0) return 0;
  const uint64_t seconds = duration / timescale;
  if (seconds > static_cast<uint64_t>(INT64_MAX / 1000 - 1)) return 0;
  const uint64_t rest = duration % timescale;  // < timescale <= 2^32, so rest * 1000 fits
  return static_cast<int64_t>(seconds * 1000 + rest * 1000 / timescale);
}

// Bytes per second of `bytes` played in `ms`; 0 when unknown.
int64_t BytesPerSecond(int64_t bytes, int64_t ms) {
  if (bytes <= 0 || ms <= 0 || bytes > INT64_MAX / 1000) return 0;
  return bytes * 1000 / ms;
}

// The buffered reader with the probe's budget. Every read first asks Has(n), which fails past
// the end of the file or of the budget, so the integer calls never run on missing bytes.
class Reader {
 public:
  explicit Reader(const char* path) {
    upnp_stat st{};
    if (path == nullptr || upnp_file_stat(path, &st) != 0) return;
    if ((st.mode & UPNP_S_IFMT) != UPNP_S_IFREG || st.size > static_cast<uint64_t>(INT64_MAX)) {
      return;
    }
    size_ = static_cast<int64_t>(st.size);
    reader_ = upnp_file_open_read_b(path, kBufferSize);
  }
  ~Reader() { upnp_file_close_b(reader_); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  bool ok() const { return reader_ != nullptr; }
  int64_t size() const { return size_; }
  int64_t pos() const { return pos_; }

  bool Has(int64_t n) {
    if (reader_ == nullptr || n < 0 || n > size_ - pos_ || n > kMaxBytesRead - spent_) {
      return false;
    }
    spent_ += n;
    return true;
  }
  bool Seek(int64_t target) {
    if (reader_ == nullptr || target < 0 || target > size_ || ++seeks_ > kMaxSeeks) return false;
    if (upnp_file_seek_b(reader_, target, UPNP_FILE_SEEK_SET) != target) return false;
    pos_ = target;
    return true;
  }
  bool Skip(int64_t n) { return n >= 0 && n <= size_ - pos_ && Seek(pos_ + n); }
  // Exactly n bytes into out, or false.
  bool Read(void* out, uint32_t n) {
    if (!Has(n)) return false;
    if (upnp_file_read_b(reader_, out, n) != static_cast<int32_t>(n)) return false;
    pos_ += n;
    return true;
  }
  // The integer calls; the caller has made sure with Has() that the bytes exist.
  uint32_t U8() {
    pos_ += 1;
    const int32_t b = upnp_file_read_byte(reader_);
    return b < 0 ? 0 : static_cast<uint32_t>(b);
  }
  uint32_t U16le() {
    pos_ += 2;
    return upnp_file_read_word(reader_);
  }
  uint32_t U32le() {
    pos_ += 4;
    return upnp_file_read_dword(reader_);
  }
  uint32_t U16be() {
    pos_ += 2;
    return upnp_file_read_word_be(reader_);
  }
  uint32_t U32be() {
    pos_ += 4;
    return upnp_file_read_dword_be(reader_);
  }
  uint64_t U64be() {
    pos_ += 8;
    return upnp_file_read_qword_be(reader_);
  }

 private:
  upnp_file_b* reader_ = nullptr;
  int64_t size_ = 0;
  int64_t pos_ = 0;
  int64_t spent_ = 0;
  int32_t seeks_ = 0;
};

// ---- WAV --------------------------------------------------------------------------------------

void ProbeWav(Reader& in, MediaInfo& info) {
  if (!in.Seek(12)) return;
  uint32_t byte_rate = 0;
  bool have_format = false;
  int64_t data_size = -1;
  for (int32_t chunk = 0; chunk < kMaxWavChunks && in.Has(8); ++chunk) {
    const uint32_t id = in.U32be();
    const int64_t size = in.U32le();
    const int64_t body = in.pos();
    if (id == FourCc("fmt ") && size >= 16 && in.Has(16)) {
      in.U16le();  // format tag: any, the average byte rate below holds for compressed data too
      info.channels = static_cast<int32_t>(in.U16le());
      info.sample_rate = static_cast<int32_t>(in.U32le() & 0x7fffffffu);
      byte_rate = in.U32le();
      in.U16le();  // block align
      info.bits_per_sample = static_cast<int32_t>(in.U16le());
      have_format = true;
    } else if (id == FourCc("data")) {
      // Streams write 0xFFFFFFFF before they know the size; the file then tells.
      const int64_t left = in.size() - body;
      data_size = size > left ? left : size;
    }
    if (have_format && data_size >= 0) break;
    if (!in.Seek(body) || !in.Skip(size + (size & 1))) break;  // chunks are padded to even
  }
  if (!have_format) return;
  if (byte_rate == 0 && info.bits_per_sample > 0) {
    byte_rate = static_cast<uint32_t>(info.sample_rate) * static_cast<uint32_t>(info.channels) *
                static_cast<uint32_t>(info.bits_per_sample) / 8;
  }
  info.bitrate = byte_rate;
  if (data_size > 0 && byte_rate > 0 && data_size <= INT64_MAX / 1000) {
    info.duration_ms = data_size * 1000 / byte_rate;
  }
}

// ---- MPEG audio -------------------------------------------------------------------------------

struct MpegFrame {
  int32_t version = 0;  // 1 MPEG-1, 2 MPEG-2, 3 MPEG-2.5
  int32_t layer = 0;    // 1..3
  int32_t kbps = 0;
  int32_t sample_rate = 0;
  int32_t channels = 0;
  int32_t length = 0;     // bytes, header included
  int32_t samples = 0;    // per frame
  int32_t side_info = 0;  // bytes after the header in layer III
};

// Decodes a 4-byte frame header; false for anything not a playable frame (free format
// included: without a bitrate there is neither a frame length nor a duration).
bool DecodeFrameHeader(uint32_t h, MpegFrame& f) {
  static constexpr int16_t kKbps[5][15] = {
      {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},  // V1 L1
      {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},     // V1 L2
      {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},      // V1 L3
      {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},     // V2 L1
      {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}};         // V2 L2, L3
  static constexpr int32_t kRates[3] = {44100, 48000, 32000};
  if ((h & 0xffe00000u) != 0xffe00000u) return false;
  const uint32_t version_bits = (h >> 19) & 3;
  const uint32_t layer_bits = (h >> 17) & 3;
  const uint32_t rate_index = (h >> 10) & 3;
  const uint32_t kbps_index = (h >> 12) & 15;
  if (version_bits == 1 || layer_bits == 0 || rate_index == 3 || kbps_index == 0 ||
      kbps_index == 15) {
    return false;
  }
  f.version = version_bits == 3 ? 1 : version_bits == 2 ? 2 : 3;
  f.layer = static_cast<int32_t>(4 - layer_bits);
  const int32_t row = f.version == 1 ? f.layer - 1 : (f.layer == 1 ? 3 : 4);
  f.kbps = kKbps[row][kbps_index];
  f.sample_rate = kRates[rate_index] >> (f.version - 1);
  const bool mono = ((h >> 6) & 3) == 3;
  f.channels = mono ? 1 : 2;
  const int32_t padding = static_cast<int32_t>((h >> 9) & 1);
  if (f.layer == 1) {
    f.samples = 384;
    f.length = (12 * f.kbps * 1000 / f.sample_rate + padding) * 4;
  } else {
    f.samples = (f.layer == 3 && f.version != 1) ? 576 : 1152;
    f.length = f.samples / 8 * f.kbps * 1000 / f.sample_rate + padding;
  }
  if (f.version == 1) {
    f.side_info = mono ? 17 : 32;
  } else {
    f.side_info = mono ? 9 : 17;
  }
  return true;
}

bool SameStream(const MpegFrame& a, const MpegFrame& b) {
  return a.version == b.version && a.layer == b.layer && a.sample_rate == b.sample_rate;
}

// Skips ID3v2 tags at the start: the offset after them, or -1 when a tag claims more than the
// file holds (nothing audible can follow).
int64_t SkipId3v2(Reader& in) {
  int64_t at = 0;
  for (int32_t tag = 0; tag < kMaxId3Tags; ++tag) {
    uint8_t h[10];
    if (!in.Seek(at) || !in.Read(h, sizeof h) || std::memcmp(h, "ID3", 3) != 0) break;
    if ((h[6] | h[7] | h[8] | h[9]) & 0x80) return at;  // not a syncsafe size: not a tag
    const int64_t body = (static_cast<int64_t>(h[6]) << 21) | (h[7] << 14) | (h[8] << 7) | h[9];
    const int64_t next = at + 10 + body + ((h[5] & 0x10) != 0 ? 10 : 0);  // with footer
    if (next > in.size()) return -1;
    at = next;
  }
  return at;
}

// The first frame at or after `from` whose successor (when the file holds one) belongs to the
// same stream: one lucky 0xFFE pattern in a picture tag must not pass for audio.
int64_t FindFirstFrame(Reader& in, int64_t from, bool scan, MpegFrame& frame) {
  const int64_t limit = scan ? from + kMaxMp3SyncScan : from + 1;
  uint8_t window[4];
  if (!in.Seek(from) || !in.Read(window, 3)) return -1;
  for (int64_t at = from; at < limit; ++at) {
    if (!in.Read(window + 3, 1)) return -1;
    const uint32_t h =
        (static_cast<uint32_t>(window[0]) << 24) | (window[1] << 16) | (window[2] << 8) | window[3];
    std::memmove(window, window + 1, 3);
    if (!DecodeFrameHeader(h, frame)) continue;
    const int64_t next = at + frame.length;
    const int64_t resume = in.pos();
    if (next + 4 > in.size()) return at;  // a single frame: take it
    MpegFrame second;
    if (!in.Seek(next) || !in.Has(4)) return -1;
    const bool follows = DecodeFrameHeader(in.U32be(), second) && SameStream(frame, second);
    if (follows) return at;
    if (!in.Seek(resume)) return -1;
  }
  return -1;
}

// Frame count from a Xing/Info or VBRI header in the first frame; audio_bytes gets the stream
// size when the header states one. 0 when there is no such header.
int64_t ReadVbrFrameCount(Reader& in, int64_t frame_at, const MpegFrame& f, int64_t& audio_bytes) {
  uint8_t tag[4];
  if (in.Seek(frame_at + 4 + f.side_info) && in.Read(tag, 4) &&
      (std::memcmp(tag, "Xing", 4) == 0 || std::memcmp(tag, "Info", 4) == 0) && in.Has(4)) {
    const uint32_t flags = in.U32be();
    int64_t frames = 0;
    if ((flags & 1) != 0 && in.Has(4)) frames = in.U32be();
    if ((flags & 2) != 0 && in.Has(4)) {
      const int64_t bytes = in.U32be();
      if (bytes > 0) audio_bytes = bytes;
    }
    return frames;
  }
  if (in.Seek(frame_at + 36) && in.Read(tag, 4) && std::memcmp(tag, "VBRI", 4) == 0 && in.Has(14)) {
    in.U16be();  // version
    in.U16be();  // delay
    in.U16be();  // quality
    const int64_t bytes = in.U32be();
    if (bytes > 0) audio_bytes = bytes;
    return in.U32be();
  }
  return 0;
}

void ProbeMpegAudio(Reader& in, bool scan, MediaInfo& info) {
  const int64_t start = SkipId3v2(in);
  if (start < 0) return;
  MpegFrame f;
  const int64_t first = FindFirstFrame(in, start, scan || start > 0, f);
  if (first < 0) return;
  info.sample_rate = f.sample_rate;
  info.channels = f.channels;
  int64_t end = in.size();
  uint8_t tag[3];
  if (end - 128 > first && in.Seek(end - 128) && in.Read(tag, 3) &&
      std::memcmp(tag, "TAG", 3) == 0) {
    end -= 128;  // ID3v1 at the end is not audio
  }
  int64_t audio_bytes = end - first;
  const int64_t frames = ReadVbrFrameCount(in, first, f, audio_bytes);
  if (frames > 0) {
    info.duration_ms = ScaleToMs(static_cast<uint64_t>(frames) * static_cast<uint64_t>(f.samples),
                                 static_cast<uint64_t>(f.sample_rate));
    info.bitrate = BytesPerSecond(audio_bytes, info.duration_ms);
  } else {
    info.bitrate = static_cast<int64_t>(f.kbps) * 1000 / 8;
    info.duration_ms = audio_bytes * 8 / f.kbps;  // kbit/s: bytes * 8 / kbps is milliseconds
  }
}

// ---- MP4 / QuickTime --------------------------------------------------------------------------

struct Mp4State {
  int32_t boxes = 0;
  uint64_t movie_timescale = 0;
  uint64_t movie_duration = 0;
  int64_t longest_track_ms = 0;
  // the track being walked
  uint32_t handler = 0;
  int32_t track_width = 0;
  int32_t track_height = 0;
  int32_t entry_width = 0;
  int32_t entry_height = 0;
  // results
  int32_t width = 0;
  int32_t height = 0;
  int32_t sample_rate = 0;
  int32_t channels = 0;
  int32_t bits = 0;
};

// Version and flags of a full box: the version byte.
uint32_t FullBoxVersion(Reader& in) { return in.U32be() >> 24; }

void ReadMvhd(Reader& in, int64_t end, Mp4State& st) {
  if (!in.Has(4)) return;
  const uint32_t version = FullBoxVersion(in);
  const int64_t need = version == 1 ? 28 : 16;
  if (end - in.pos() < need || !in.Has(need)) return;
  if (version == 1) {
    in.U64be();  // creation
    in.U64be();  // modification
    st.movie_timescale = in.U32be();
    st.movie_duration = in.U64be();
    if (st.movie_duration == UINT64_MAX) st.movie_duration = 0;  // "unknown"
  } else {
    in.U32be();
    in.U32be();
    st.movie_timescale = in.U32be();
    st.movie_duration = in.U32be();
    if (st.movie_duration == UINT32_MAX) st.movie_duration = 0;
  }
}

void ReadMdhd(Reader& in, int64_t end, Mp4State& st) {
  if (!in.Has(4)) return;
  const uint32_t version = FullBoxVersion(in);
  const int64_t need = version == 1 ? 28 : 16;
  if (end - in.pos() < need || !in.Has(need)) return;
  uint64_t timescale = 0;
  uint64_t duration = 0;
  if (version == 1) {
    in.U64be();
    in.U64be();
    timescale = in.U32be();
    duration = in.U64be();
    if (duration == UINT64_MAX) duration = 0;
  } else {
    in.U32be();
    in.U32be();
    timescale = in.U32be();
    duration = in.U32be();
    if (duration == UINT32_MAX) duration = 0;
  }
  const int64_t ms = ScaleToMs(duration, timescale);
  if (ms > st.longest_track_ms) st.longest_track_ms = ms;
}

// Width and height are 16.16 fixed point at the end of the track header.
void ReadTkhd(Reader& in, int64_t end, Mp4State& st) {
  if (!in.Has(4)) return;
  const uint32_t version = FullBoxVersion(in);
  const int64_t skip = (version == 1 ? 32 : 20) + 52;  // times, id, duration; layer..matrix
  if (end - in.pos() < skip + 8 || !in.Skip(skip) || !in.Has(8)) return;
  st.track_width = static_cast<int32_t>(in.U32be() >> 16);
  st.track_height = static_cast<int32_t>(in.U32be() >> 16);
}

void ReadHdlr(Reader& in, int64_t end, Mp4State& st) {
  if (end - in.pos() < 12 || !in.Has(12)) return;
  in.U32be();  // version and flags
  in.U32be();  // pre-defined (the component type in QuickTime)
  st.handler = in.U32be();
}

// The channel count of an MPEG-4 audio stream from its esds box: ES_Descriptor (tag 3) holds
// DecoderConfigDescriptor (4), which holds the AudioSpecificConfig (5). 0 when not found.
int32_t EsdsChannels(Reader& in, int64_t end) {
  if (!in.Skip(4)) return 0;  // version and flags
  for (int32_t descriptor = 0; descriptor < 8 && in.Has(1); ++descriptor) {
    const uint32_t tag = in.U8();
    int64_t length = 0;
    for (int32_t i = 0; i < 4 && in.Has(1); ++i) {  // 7 bits per byte, high bit: more follow
      const uint32_t b = in.U8();
      length = (length << 7) | (b & 0x7f);
      if ((b & 0x80) == 0) break;
    }
    if (length > end - in.pos()) return 0;
    if (tag == 3) {  // ES id, flags, then what the flags announce
      if (!in.Has(3)) return 0;
      in.U16be();
      const uint32_t flags = in.U8();
      int64_t skip = ((flags & 0x80) != 0 ? 2 : 0) + ((flags & 0x20) != 0 ? 2 : 0);
      if ((flags & 0x40) != 0 && in.Has(1)) skip += in.U8();  // URL length
      if (!in.Skip(skip)) return 0;
    } else if (tag == 4) {  // object type, stream type, buffer size, two bitrates
      if (!in.Skip(13)) return 0;
    } else if (tag == 5) {
      if (length < 2 || !in.Has(2)) return 0;
      const uint32_t b0 = in.U8();
      const uint32_t b1 = in.U8();
      // 5 bits object type, 4 bits rate index, 4 bits channels; escapes (object type 31,
      // explicit rate 15) move the channels further and are left alone.
      if ((b0 >> 3) == 31 || (((b0 & 7) << 1) | (b1 >> 7)) == 15) return 0;
      static constexpr int32_t kChannels[8] = {0, 1, 2, 3, 4, 5, 6, 8};
      return kChannels[(b1 >> 3) & 7];
    } else if (!in.Skip(length)) {
      return 0;
    }
  }
  return 0;
}

bool IsPcmFormat(uint32_t format) {
  static constexpr uint32_t kPcm[] = {FourCc("lpcm"), FourCc("sowt"), FourCc("twos"),
                                      FourCc("in24"), FourCc("in32"), FourCc("raw ")};
  for (uint32_t pcm : kPcm) {
    if (format == pcm) return true;
  }
  return false;
}

// The first sample entry of the track's description. ISO files write the audio entry's
// channel count and sample size as fixed 2 and 16, so the count of an MPEG-4 audio track comes
// from its decoder configuration and the sample size is kept for PCM alone.
void ReadStsd(Reader& in, int64_t end, Mp4State& st) {
  if (end - in.pos() < 16 || !in.Has(16)) return;
  in.U32be();  // version and flags
  if (in.U32be() == 0) return;
  const int64_t entry_at = in.pos();
  const int64_t entry_size = in.U32be();
  const uint32_t format = in.U32be();
  if (entry_size < 36 || entry_size > end - entry_at) return;
  const int64_t entry_end = entry_at + entry_size;
  if (!in.Skip(8)) return;  // reserved, data reference index
  if (st.handler == FourCc("soun") && in.Has(20)) {
    const uint32_t version = in.U16be();
    in.U16be();  // revision
    in.U32be();  // vendor
    int32_t channels = static_cast<int32_t>(in.U16be());
    const int32_t bits = static_cast<int32_t>(in.U16be());
    in.U32be();  // compression id, packet size
    const int32_t rate = static_cast<int32_t>(in.U32be() >> 16);
    if (version > 1 || st.sample_rate != 0) return;  // version 2 moves the fields elsewhere
    if (format == FourCc("mp4a")) {
      // child boxes follow the entry, after QuickTime's 16 more bytes in version 1
      int64_t at = entry_at + 36 + (version == 1 ? 16 : 0);
      for (int32_t child = 0; child < 8 && entry_end - at >= 8; ++child) {
        if (!in.Seek(at) || !in.Has(8)) break;
        const int64_t size = in.U32be();
        const uint32_t type = in.U32be();
        if (size < 8 || size > entry_end - at) break;
        if (type == FourCc("esds")) {
          channels = EsdsChannels(in, at + size);
          break;
        }
        at += size;
      }
    }
    st.sample_rate = rate;
    st.channels = channels;
    st.bits = IsPcmFormat(format) ? bits : 0;
  } else if (st.handler == FourCc("vide")) {
    if (!in.Skip(16) || !in.Has(4)) return;  // pre-defined and reserved
    st.entry_width = static_cast<int32_t>(in.U16be());
    st.entry_height = static_cast<int32_t>(in.U16be());
  }
}

void WalkBoxes(Reader& in, int64_t begin, int64_t end, int32_t depth, Mp4State& st) {
  int64_t at = begin;
  while (end - at >= 8 && ++st.boxes <= kMaxMp4Boxes) {
    if (!in.Seek(at) || !in.Has(8)) return;
    uint64_t size = in.U32be();
    const uint32_t type = in.U32be();
    int64_t header = 8;
    if (size == 1) {
      if (end - at < 16 || !in.Has(8)) return;
      size = in.U64be();
      header = 16;
    } else if (size == 0) {
      size = static_cast<uint64_t>(end - at);  // runs to the end of its parent
    }
    if (size < static_cast<uint64_t>(header)) return;
    // A box past its parent's end is cut there: a truncated file keeps its early boxes.
    const int64_t box_end =
        size > static_cast<uint64_t>(end - at) ? end : at + static_cast<int64_t>(size);
    const int64_t body = at + header;
    switch (type) {
      case FourCc("trak"):
        st.handler = 0;
        st.track_width = st.track_height = st.entry_width = st.entry_height = 0;
        if (depth < kMaxMp4Depth) WalkBoxes(in, body, box_end, depth + 1, st);
        if (st.handler == FourCc("vide") && st.width == 0) {
          st.width = st.track_width > 0 ? st.track_width : st.entry_width;
          st.height = st.track_width > 0 ? st.track_height : st.entry_height;
        }
        break;
      case FourCc("moov"):
      case FourCc("mdia"):
      case FourCc("minf"):
      case FourCc("stbl"):
        if (depth < kMaxMp4Depth) WalkBoxes(in, body, box_end, depth + 1, st);
        break;
      case FourCc("mvhd"):
        ReadMvhd(in, box_end, st);
        break;
      case FourCc("mdhd"):
        ReadMdhd(in, box_end, st);
        break;
      case FourCc("tkhd"):
        ReadTkhd(in, box_end, st);
        break;
      case FourCc("hdlr"):
        ReadHdlr(in, box_end, st);
        break;
      case FourCc("stsd"):
        ReadStsd(in, box_end, st);
        break;
      default:
        break;
    }
    if (depth == 0 && type == FourCc("moov")) return;  // all we read sits in the movie box
    at = box_end;
  }
}

void ProbeMp4(Reader& in, MediaInfo& info) {
  Mp4State st;
  WalkBoxes(in, 0, in.size(), 0, st);
  int64_t ms = ScaleToMs(st.movie_duration, st.movie_timescale);
  if (ms == 0) ms = st.longest_track_ms;  // fragmented files leave the movie's duration at 0
  info.duration_ms = ms;
  info.width = st.width;
  info.height = st.height;
  info.sample_rate = st.sample_rate;
  info.channels = st.channels;
  info.bits_per_sample = st.bits;
  info.bitrate = BytesPerSecond(in.size(), ms);  // the whole file over its duration
}

// ---- Pictures ---------------------------------------------------------------------------------

bool IsJpegFrameMarker(uint32_t m) {
  // SOF0..SOF15; C4 (DHT), C8 (JPG) and CC (DAC) share the range but describe no frame.
  return m >= 0xc0 && m <= 0xcf && m != 0xc4 && m != 0xc8 && m != 0xcc;
}

void ProbeJpeg(Reader& in, MediaInfo& info) {
  if (!in.Seek(2)) return;
  for (int32_t segment = 0; segment < kMaxJpegSegments; ++segment) {
    uint8_t b = 0;
    if (!in.Read(&b, 1) || b != 0xff) return;
    int32_t fill = 0;
    while (b == 0xff && fill++ < kMaxJpegFill) {
      if (!in.Read(&b, 1)) return;
    }
    const uint32_t marker = b;
    if (marker == 0xff || marker == 0x00) return;
    if (marker == 0x01 || (marker >= 0xd0 && marker <= 0xd8)) continue;  // no length
    if (marker == 0xd9 || marker == 0xda) return;  // image end or scan: no frame header came
    if (!in.Has(2)) return;
    const int64_t length = in.U16be();
    if (length < 2) return;
    if (IsJpegFrameMarker(marker)) {
      if (length < 7 || !in.Has(5)) return;
      in.U8();                                         // sample precision
      info.height = static_cast<int32_t>(in.U16be());  // 0: given later by a DNL marker
      info.width = static_cast<int32_t>(in.U16be());
      return;
    }
    if (!in.Skip(length - 2)) return;
  }
}

void ProbePng(Reader& in, MediaInfo& info) {
  uint8_t ihdr[8];
  if (!in.Seek(8) || !in.Read(ihdr, 8) || std::memcmp(ihdr + 4, "IHDR", 4) != 0 || !in.Has(8)) {
    return;
  }
  const uint32_t width = in.U32be();
  const uint32_t height = in.U32be();
  if (width == 0 || height == 0 || width > INT32_MAX || height > INT32_MAX) return;
  info.width = static_cast<int32_t>(width);
  info.height = static_cast<int32_t>(height);
}

bool IsMpegAudioType(const char* mime_type) {
  if (mime_type == nullptr) return false;
  static constexpr const char* kTypes[] = {"audio/mpeg", "audio/MPA", "audio/x-mpeg", "audio/mp1"};
  for (const char* type : kTypes) {
    if (std::strcmp(mime_type, type) == 0) return true;
  }
  return false;
}

}  // namespace

MediaKind KindOfMimeType(const char* mime_type) {
  if (mime_type == nullptr) return MediaKind::kOther;
  if (std::strncmp(mime_type, "audio/", 6) == 0) return MediaKind::kAudio;
  if (std::strncmp(mime_type, "image/", 6) == 0) return MediaKind::kImage;
  if (std::strncmp(mime_type, "video/", 6) == 0) return MediaKind::kVideo;
  return MediaKind::kOther;
}

MediaInfo ProbeMedia(const char* path, const char* mime_type) {
  MediaInfo info;
  info.kind = KindOfMimeType(mime_type);
  Reader in(path);
  uint8_t head[12] = {};
  if (!in.Read(head, sizeof head)) return info;  // shorter than any header
  static constexpr uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  const uint32_t box_type =
      (static_cast<uint32_t>(head[4]) << 24) | (head[5] << 16) | (head[6] << 8) | head[7];
  if (std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "WAVE", 4) == 0) {
    ProbeWav(in, info);
  } else if (std::memcmp(head, kPngSignature, 8) == 0) {
    ProbePng(in, info);
  } else if (head[0] == 0xff && head[1] == 0xd8 && head[2] == 0xff) {
    ProbeJpeg(in, info);
  } else if (box_type == FourCc("ftyp") || box_type == FourCc("moov") ||
             box_type == FourCc("mdat") || box_type == FourCc("wide") ||
             box_type == FourCc("free") || box_type == FourCc("skip")) {
    ProbeMp4(in, info);
  } else if (std::memcmp(head, "ID3", 3) == 0 || IsMpegAudioType(mime_type) ||
             (head[0] == 0xff && (head[1] & 0xe0) == 0xe0)) {
    ProbeMpegAudio(in, IsMpegAudioType(mime_type), info);
  }
  return info;
}

}  // namespace mediaserver
