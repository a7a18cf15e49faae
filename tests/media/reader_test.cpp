// SPDX-License-Identifier: Apache-2.0
#include "media/reader.h"

#include "support/test_support.h"

namespace {

using namespace tw::test;

class MediaReader : public LeakCheck {
 protected:
  upnp_file_b* Open(const std::string& bytes, uint32_t buffer_size) {
    const std::string path = tmp_.File("r" + std::to_string(++count_));
    WriteFile(path, bytes);
    upnp_file_b* r = upnp_file_open_read_b(path.c_str(), buffer_size);
    EXPECT_NE(r, nullptr);
    return r;
  }
  TempDir tmp_;
  int count_ = 0;
};

TEST_F(MediaReader, IntegersInBothByteOrdersAcrossBufferEdges) {
  const std::string data(
      "\x01\x02\x03\x04\x05\x06\x07\x88\xF1\xF2\xF3\xF4\x11\x22"
      "\xA1\xA2\xA3\xA4\xA5\xA6\xA7\xA8\xFF\xFE\xB1\xB2\xB3",
      27);
  for (uint32_t size : {1u, 3u, 7u, 64u}) {
    upnp_file_b* r = Open(data, size);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(upnp_file_read_qword(r), 0x8807060504030201ull) << size;
    EXPECT_EQ(upnp_file_read_dword(r), 0xF4F3F2F1u) << size;
    EXPECT_EQ(upnp_file_read_word(r), 0x2211u) << size;
    EXPECT_EQ(upnp_file_read_qword_be(r), 0xA1A2A3A4A5A6A7A8ull) << size;
    EXPECT_EQ(upnp_file_read_word_be(r), 0xFFFEu) << size;
    // Only three bytes are left: the missing one reads as 0, then nothing is left at all.
    EXPECT_EQ(upnp_file_read_dword_be(r), 0xB1B2B300u) << size;
    EXPECT_EQ(upnp_file_eof_b(r), 1);
    EXPECT_EQ(upnp_file_read_qword(r), 0u);
    EXPECT_EQ(upnp_file_read_byte(r), -1);
    upnp_file_close_b(r);
  }
}

// Random reads, byte reads, tells and seeks against the file's bytes: fuzz/fuzz_reader.cpp.

TEST_F(MediaReader, SeekRefusesTargetsBeforeTheStartAndAnswersZeroForUnknownWhence) {
  upnp_file_b* r = Open("abcdefghijklmnop", 8);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(upnp_file_seek_b(r, 3, UPNP_FILE_SEEK_SET), 3);
  EXPECT_EQ(upnp_file_read_byte(r), 'd');
  EXPECT_EQ(upnp_file_seek_b(r, 5, 9), 0) << "unknown whence answers 0";
  EXPECT_EQ(upnp_file_tell_b(r), 4) << "and moves nothing";
  EXPECT_EQ(upnp_file_seek_b(r, -5, UPNP_FILE_SEEK_CUR), -1);
  upnp_file_close_b(r);
}

TEST_F(MediaReader, ReadLineSkipsEmptyLinesAndSplitsLongOnes) {
  upnp_file_b* r = Open("first\r\n\r\n\nsecond line\rthird\n\nend", 3);
  ASSERT_NE(r, nullptr);
  char buf[8];
  std::string lines;
  for (int i = 0; i < 20; ++i) {
    const int32_t n = upnp_file_read_line_b(r, buf, sizeof buf);
    if (n < 0) break;
    EXPECT_EQ(static_cast<size_t>(n), std::strlen(buf));
    lines += std::string(buf) + "|";
  }
  EXPECT_EQ(lines, "first|second |line|third|end|");
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(upnp_file_read_line_b(r, buf, 1), -1);
  upnp_file_close_b(r);
}

TEST_F(MediaReader, BitReaderTakesBit15AndDoublesOnTheSlowPath) {
  // Little-endian words 0xABCD1234, 0x00008000, 0x0000C000.
  upnp_file_b* r = Open(std::string("\x34\x12\xCD\xAB\x00\x80\x00\x00\x00\xC0\x00\x00", 12), 16);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(upnp_file_read_nbits(r, 0), 0u);
  EXPECT_EQ(upnp_file_tell_b(r), 0) << "0 bits consume nothing";
  EXPECT_EQ(upnp_file_read_bit(r), 0u);  // bit 15 of 0x1234; the word becomes 0x579A2468
  EXPECT_EQ(upnp_file_tell_b(r), 4);
  EXPECT_EQ(upnp_file_read_nbits(r, 8), 0x57u);
  EXPECT_EQ(upnp_file_read_nbits(r, 16), 0x9A24u);
  EXPECT_EQ(upnp_file_read_nbits(r, 17), 0u);
  // 7 bits held (each answering 0 at bit 15), then a new word whose bit 15 is 1: the bits read are
  // 0000000 1, and this path answers twice their value.
  EXPECT_EQ(upnp_file_read_nbits(r, 8), 2u);
  EXPECT_EQ(upnp_file_seek_b(r, 8, UPNP_FILE_SEEK_SET), 8);  // drops the 31 bits held
  // Bits 1, 1, 0 of 0x0000C000 give 2 * 0b110; then 16 of the 29 held bits from the top.
  EXPECT_EQ(upnp_file_read_nbits(r, 3), 12u);
  EXPECT_EQ(upnp_file_read_nbits(r, 16), 0x0006u);
  upnp_file_close_b(r);
}

TEST_F(MediaReader, BadInputGivesNeutralResults) {
  EXPECT_EQ(upnp_file_open_read_b(tmp_.File("missing").c_str(), 16), nullptr);
  WriteFile(tmp_.File("x"), "x");
  EXPECT_EQ(upnp_file_open_read_b(tmp_.File("x").c_str(), 0), nullptr);
  upnp_file_b* empty = Open("", 8);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(upnp_file_read_nbits(empty, 16), 0u);
  EXPECT_EQ(upnp_file_read_line_b(empty, nullptr, 4), -1);
  upnp_file_close_b(empty);
  EXPECT_EQ(upnp_file_tell_b(nullptr), -1);
  EXPECT_EQ(upnp_file_eof_b(nullptr), 1);
  upnp_file_close_b(nullptr);
}

}  // namespace
