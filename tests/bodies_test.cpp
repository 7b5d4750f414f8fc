#include <gtest/gtest.h>

#include <cstring>

#include "big_string.h"
#include "block_header.h"
#include "data_block.h"
#include "mirror_info.h"
#include "pointer_block.h"
#include "run.h"
#include "pass.h"
#include "database.h"
#include "vector.h"
#include "volume_io.h"

using namespace testsupport;

namespace {

gendb::Params Rich(std::uint32_t code, bool big, std::uint64_t seed) {
  gendb::Params p;
  p.seed = seed;
  p.sizeCode = code;
  p.bigEndian = big;
  p.lastBlock = code >= 4 ? 500 : 2500;
  p.freeShare = 0.1;
  p.mix = gendb::Mix{3, 8, 2, 4, 1, 1, 1};
  p.bigRefShare = 0.5;
  p.mirrorV1Share = 0.5;
  return p;
}

// Every block kind, every block size, both directions: the converted file is the twin.
TEST(Bodies, EveryBlockKindConvertsToItsMirrorImage) {
  for (std::uint32_t code = 1; code <= 5; ++code) {
    for (bool big : {true, false}) {
      Scratch s;
      RunResult r = ExpectConvertsToTwin(Rich(code, big, 100 + code), s);
      EXPECT_EQ(r.out.find("xerror"), std::string::npos);
      EXPECT_EQ(r.out.find("failed"), std::string::npos);
      EXPECT_NE(r.out.find(big ? "The 'mibver' of mirror info block has been updated from version 1 to version 2.\r\n"
                               : "The mirror info block has been converted from version 1 to version 2.\r\n"),
                std::string::npos);
    }
  }
}

TEST(Bodies, RunningTwiceRestoresEveryByte) {
  Scratch s;
  gendb::Params p = Rich(2, false, 7);
  p.mirrorV1Share = 0;  // the upgrade is one way
  const std::string db = s.Path("db.dat"), copy = s.Path("copy.dat");
  Generate(p, db);
  Generate(p, copy);
  EXPECT_EQ(RunByteturn({"-t", db}).status, 0);
  EXPECT_EQ(RunByteturn({"-t", db}).status, 0);
  EXPECT_EQ(gendb::CompareFiles(db, copy, 8192), "");
}

// A block buffer with nodes laid out by hand, converted from big-endian.
struct Block {
  std::vector<std::uint8_t> bytes = std::vector<std::uint8_t>(4096, 0);
  std::size_t pos = 28;
  Block(std::uint8_t type) {
    bt::SetGeometry(1);
    bt::swapFlag = 1;
    bytes[4] = type;
  }
  void Word(std::uint32_t w) {
    for (int i = 0; i < 4; ++i) bytes[pos + i] = static_cast<std::uint8_t>(w >> (24 - 8 * i));
  }
  std::string Data(std::size_t dataEnd, std::uint32_t b = 77) {
    ::testing::internal::CaptureStdout();
    bt::HandleCache handles;
    bt::FilesOfThePass blocks(handles);
    bt::CvDataBlock(blocks, bt::Bytes(bytes), b, dataEnd);
    return ::testing::internal::GetCapturedStdout();
  }
  std::string Pointer(std::size_t dataEnd) {
    ::testing::internal::CaptureStdout();
    bt::CvPointerBlock(bt::Bytes(bytes), 77, dataEnd);
    return ::testing::internal::GetCapturedStdout();
  }
};

TEST(Bodies, MalformedDataNodesStopTheirBlockWithTheirMessage) {
  Block zero(8);
  zero.Word(0x00000008);  // node 1: 8 bytes, untyped
  zero.pos = 36;
  zero.Word(0x80000000);  // node 2: zero length
  EXPECT_EQ(zero.Data(100), "\r\nIn Data block #77, node #2 at offset 36 is zero length.\r\n");
  EXPECT_EQ(zero.bytes[28 + 3], 0x00);  // node 1's word was reversed
  EXPECT_EQ(zero.bytes[28], 0x08);

  Block gdir(9);
  gdir.Word(0x80000000);  // a type 2 record, tested before the length
  EXPECT_EQ(gdir.Data(100), "\r\nIn block #77 (GDIR), at offset 28, a GDATA node is a type 2 record.\r\n");

  Block invalid(8);
  for (int code : {9, 12, 15, 255}) {
    invalid.Word(0x80000010);
    invalid.bytes[32] = static_cast<std::uint8_t>(code);
    EXPECT_EQ(invalid.Data(44), "\r\nInvalid data type (" + std::to_string(code) + ") in block #77.\r\n");
  }

  Block past(8);  // pntend beyond the data end: "3 bad data format"
  past.Word(0x80000040);
  EXPECT_EQ(past.Data(40).rfind("\r\nIn Data block #77, 3 bad data format pntend=0x", 0), 0u);

  Block keyPast(8);  // key length 200: p beyond the data end
  keyPast.Word(0x80000000u | 200u << 22 | 0x10);
  EXPECT_EQ(keyPast.Data(60).rfind("\r\nIn Data block #77, 2 bad data format p=0x", 0), 0u);

  Block gdirPast(9);
  gdirPast.Word(100u << 22 | 0x10);
  EXPECT_EQ(gdirPast.Data(60).rfind("\r\nIn Data block #77, 1 bad data format p=0x", 0), 0u);
}

// An integer value whose length is not a multiple of 4 has its last group reach past the node's
// end, into the next node's word, while both lie inside the block.
TEST(Bodies, IntegerRunEndingInsideTheBlockOffItsBoundary) {
  Block b(8);
  b.Word(0x8000000C);  // node 1: 12 bytes, type 0 at 32, seven value bytes 33..39
  const std::uint8_t value[] = {1, 2, 3, 4, 5, 6, 7};
  std::memcpy(b.bytes.data() + 33, value, sizeof value);
  b.pos = 40;
  b.Word(0x00000008);  // node 2: 8 bytes, untyped
  EXPECT_EQ(b.Data(48), "");
  const std::vector<std::uint8_t> expected = {4, 3, 2, 1, 0, 7, 6, 8, 0, 0, 5};
  EXPECT_EQ(std::vector<std::uint8_t>(b.bytes.begin() + 33, b.bytes.begin() + 44), expected);
}

TEST(Bodies, BigReferencesPastTheLastBlockAreReportedAndSkipped) {
  Block b(8);
  bt::lastBlock = 50;
  b.Word(0x80000000u | 3u << 22 | 0x10);  // key 3: type 5 at 35, carried u32 at 36, one number at 40
  b.bytes[35] = 5;
  b.bytes[40] = 0, b.bytes[41] = 0, b.bytes[42] = 0, b.bytes[43] = 60;
  b.pos = 44;
  b.Word(0x80000000u | 3u << 22 | 0xC);  // a value of only 4 bytes: reversed, nothing called
  b.bytes[51] = 4;
  b.bytes[52] = 0x12;
  EXPECT_EQ(b.Data(56), "\r\nBig Unicode Node points to block (60) that is not in the file."
                        "\r\nCvBigUni() failed in block 60, datablock 77, node 1. Ignored to convert.");
  EXPECT_EQ(b.bytes[40], 60);  // the number is converted all the same
  EXPECT_EQ(b.bytes[55], 0x12);
}

TEST(Bodies, PointerNodes) {
  Block p(2);
  p.Word(0x00000008 | 1);  // Type 2, 8 bytes, key 0, pad 1: value of 3 bytes
  p.bytes[33] = 0x0A, p.bytes[34] = 0x0B, p.bytes[35] = 0x0C;
  p.pos = 36;
  p.Word(0x80000000u | 1u << 22 | 0x8);  // Type 1, key 1, value 3... then one of length 1
  p.pos = 44;
  p.Word(0x00000008 | 3);  // value of 1 byte: left alone
  p.bytes[51] = 0x99;
  p.pos = 52;
  p.Word(0x000003C0);  // Type 2 with bits 6..9 set but 2..5 clear: zero length
  EXPECT_EQ(p.Pointer(100), "\r\nIn Pointer block #77, node #4 (Type 2) at offset 52 is zero length.\r\n");
  EXPECT_EQ(p.bytes[33], 0x0C);
  EXPECT_EQ(p.bytes[34], 0x0B);
  EXPECT_EQ(p.bytes[35], 0x0A);
  EXPECT_EQ(p.bytes[51], 0x99);

  Block t1(66);
  t1.Word(0x80000000);
  EXPECT_EQ(t1.Pointer(40), "\r\nIn Pointer block #77, node #1 (Type 1) at offset 28 is zero length.\r\n");
  Block bad(6);
  bad.Word(60u << 12 | 0x3C);
  EXPECT_EQ(bad.Pointer(40).rfind("\r\nIn Pointer block #77, 1 bad data format p=0x", 0), 0u);
}

// Values that would reach past the block are clipped; every in-bounds byte is still converted.
TEST(Bodies, AccessesThatWouldLeaveTheBlockAreClipped) {
  Block ints(8);
  std::memcpy(ints.bytes.data() + 28, "\x00\x00\x0F\xD8", 4);  // one untyped node up to the last one
  ints.pos = 4096 - 12;
  ints.Word(0x80000000u | 1u << 22 | 0xC);  // key 1: type at 4089, groups at 4090 and 4094
  ints.bytes[4090] = 0x11;
  ints.bytes[4094] = 0xAA;
  ints.bytes[4095] = 0xBB;
  EXPECT_EQ(ints.Data(4096), "");
  EXPECT_EQ(ints.bytes[4093], 0x11);  // the whole group is converted
  EXPECT_EQ(ints.bytes[4094], 0xAA);  // the group crossing the end is left alone
  EXPECT_EQ(ints.bytes[4095], 0xBB);

  Block gdir(9);
  gdir.pos = 4096 - 8;
  std::memcpy(gdir.bytes.data() + 28, "\x00\x00\x0F\xDC", 4);
  gdir.Word(1u << 22 | 0x8);  // q = node + 8 = the data end: passes, nothing there to reverse
  gdir.bytes[4093] = 0x77;
  EXPECT_EQ(gdir.Data(4096), "");
  EXPECT_EQ(gdir.bytes[4093], 0x77);

  // A vector whose directory and tail point far outside, with an enormous list count: the list
  // is converted entry by entry up to the last whole one.
  std::vector<std::uint8_t> v(602, 0);
  std::fill(v.begin() + 456, v.end(), 0x12);
  v[0] = 0x8B, v[1] = 0x00;   // big-endian mark u16: element type 0
  v[64] = 0x9F, v[65] = 0xFF;  // list chunk 8191: far past the end
  v[66] = 0x80, v[67] = 0x04;  // list chunk 4 at 448: count 0xFFFFFFFF
  v[448] = v[449] = v[450] = v[451] = 0xFF;
  v[12] = 0x7F;  // tail offset far past the end
  v[19] = 1;
  bt::CvVector(bt::Bytes(v), 0);
  EXPECT_EQ(v[448], 0xFF);
  EXPECT_EQ(v[456], 0x21);  // nibbles regrouped
  EXPECT_EQ(v[596], 0x21);  // the last whole 4-byte entry
  EXPECT_EQ(v[600], 0x12);  // the two bytes left over stay
  EXPECT_EQ(v[601], 0x12);
  bt::CvVector(bt::Bytes(v.data(), 1), 0);
  bt::CvVectorTail(bt::Bytes(v), 590, false);
}

TEST(Bodies, VectorMarkDecidesTheOrderAndTailFlagsAreChecked) {
  // Tail of kind 1 with one item whose flag is clear: the message, and the conversion goes on.
  std::vector<std::uint8_t> v(1024, 0);
  const std::size_t t = 256;
  v[1] = 0x8B;   // machine order as read, whatever the swap flag says
  v[0] = 3;      // element type 3
  v[12] = t & 0xFF, v[13] = t >> 8;
  v[16] = 1;
  v[t] = 1;             // one offset
  v[t + 8] = 2;         // two units of 128 bytes
  v[t + 10] = 1;        // kind 1
  v[t + 256 - 2] = 200;  // the offset, little-endian
  v[t + 200 + 2] = 0x10;  // flag bit clear
  bt::swapFlag = 1;
  ::testing::internal::CaptureStdout();
  bt::CvVector(bt::Bytes(v), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "xerror #89 from line #3216\n");
  EXPECT_EQ(v[0], 0x8B);
  EXPECT_EQ(v[1], 3);
  EXPECT_EQ(v[t + 256 - 1], 200);
  EXPECT_EQ(v[t + 200 + 3], 0x10);
}

// Chunk number 0 names the bytes 64 before the vector: a list or full chunk there is converted
// like any other, as far as the buffer holding the vector goes.
TEST(Bodies, VectorChunkZeroLiesBeforeTheVector) {
  std::vector<std::uint8_t> b(4096, 0);
  const std::size_t v = 200;
  b[v] = 0x8B, b[v + 1] = 0x00;        // big-endian mark u16: element type 0
  b[v + 64] = 0x20, b[v + 65] = 0x00;  // full chunk 0, width 1: 1024 u16 from v + 64
  b[v + 66] = 0x80, b[v + 67] = 0x00;  // list chunk 0 at v - 64, width 0
  b[v - 61] = 1;                       // one entry (count, big-endian)
  b[v - 56] = 0x12, b[v - 55] = 0x34, b[v - 54] = 0x56;
  b[v + 300] = 1, b[v + 301] = 2;
  bt::CvVector(bt::Bytes(b), v);
  EXPECT_EQ(b[v - 64], 1);  // the count reversed
  EXPECT_EQ(b[v - 56], 0x23);  // nibbles regrouped
  EXPECT_EQ(b[v - 55], 0x61);
  EXPECT_EQ(b[v - 54], 0x45);
  EXPECT_EQ(b[v + 300], 2);  // an element of the full chunk
  EXPECT_EQ(b[v + 301], 1);
  EXPECT_EQ(b[v + 64], 0x20);  // the directory: swapped as a header field, then as an element
  EXPECT_EQ(b[v + 66], 0x80);
  // At the start of a buffer (a big vector's gathered blocks) the list chunk has no count inside
  // it and is left; the full chunk's elements are inside and converted.
  std::vector<std::uint8_t> g(b.begin() + v, b.end());
  g[300] = 1, g[301] = 2, g[64] = 0x20, g[66] = 0x80;
  g[0] = 0x8B, g[1] = 0;
  bt::CvVector(bt::Bytes(g), 0);
  EXPECT_EQ(g[300], 2);
  EXPECT_EQ(g[301], 1);
}

// The tail's offset table holds n entries read back from the area's end, all of them: here 140
// one-byte offsets in an area of 128 bytes, the last twelve over the tail's own fields and before
// it. Every offset names a byte whose bit 0 is clear.
TEST(Bodies, VectorTailTableReachesBackBeforeTheTail) {
  std::vector<std::uint8_t> b(1024, 0);
  const std::size_t t = 300;
  b[t + 3] = 140;  // n, big-endian
  b[t + 9] = 1;    // one unit of 128 bytes; kind 0
  bt::swapFlag = 1;
  ::testing::internal::CaptureStdout();
  bt::CvVectorTail(bt::Bytes(b), t, false);
  const std::string out = ::testing::internal::GetCapturedStdout();
  std::size_t lines = 0;
  for (std::size_t at = out.find("xerror #89 from line #3180\n"); at != std::string::npos; at = out.find("xerror", at + 1)) ++lines;
  EXPECT_EQ(lines, 140u);
  // A table that reaches past the buffer's start stops there.
  b.assign(1024, 0);
  b[3] = 200, b[9] = 1;
  ::testing::internal::CaptureStdout();
  bt::CvVectorTail(bt::Bytes(b), 0, false);
  EXPECT_EQ(::testing::internal::GetCapturedStdout().size(), 128 * std::string("xerror #89 from line #3180\n").size());
}

TEST(Bodies, MirrorInfoVersionUpgrade) {
  std::vector<std::uint8_t> m(4096, 0);
  bt::swapFlag = 0;
  m[32] = 1;
  m[888] = 5;   // N
  m[892] = 9;   // X = 9
  m[40] = 8;    // value at 40 is 8: X is one more
  m[860] = 0x11, m[861] = 0x22;
  ::testing::internal::CaptureStdout();
  bt::CvMirInfo(bt::Bytes(m));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "The mirror info block has been converted from version 1 to version 2.\r\n");
  EXPECT_EQ(m[35], 2);        // raised, then swapped
  EXPECT_EQ(m[860], 0x11);    // the four bytes before the move keep their contents
  EXPECT_EQ(m[871], 0x11);    // moved to 864 and reversed as a 64-bit field

  std::vector<std::uint8_t> big(4096, 0);
  bt::swapFlag = 1;
  big[35] = 1;
  big[891] = 5, big[899] = 9, big[47] = 8;  // would move if it were little-endian
  ::testing::internal::CaptureStdout();
  bt::CvMirInfo(bt::Bytes(big));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "The 'mibver' of mirror info block has been updated from version 1 to version 2.\r\n");
  EXPECT_EQ(big[32], 2);
  EXPECT_EQ(big[888], 5);  // swapped in place, not moved

  // The move rule at its equality limits (value at 36 = 5, value at 40 = 8).
  const struct {
    std::uint32_t n;
    std::uint64_t x;
    bool moved;
  } limits[] = {{5, 8, true}, {4, 8, false}, {1, 9, true}, {9, 10, false}, {0, 9, false}, {5, 0, false}};
  for (const auto& c : limits) {
    std::vector<std::uint8_t> l(4096, 0);
    bt::swapFlag = 0;
    l[32] = 1, l[36] = 5, l[40] = 8;
    bt::StoreLE32(l.data() + 888, c.n);
    bt::StoreLE32(l.data() + 892, static_cast<std::uint32_t>(c.x));
    ::testing::internal::CaptureStdout();
    bt::CvMirInfo(bt::Bytes(l));
    EXPECT_EQ(::testing::internal::GetCapturedStdout().starts_with("The mirror info block has been converted"), c.moved)
        << c.n << " " << c.x;
  }

  std::vector<std::uint8_t> v2(4096, 0);
  v2[35] = 2;
  ::testing::internal::CaptureStdout();
  bt::CvMirInfo(bt::Bytes(v2));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

// CvBigUni and CvBigVec on a real file: wrong types, bad offsets, n = 0 references.
TEST(Bodies, BigStringBlocksOnDisk) {
  Scratch s;
  bt::SetGeometry(1);
  bt::swapFlag = 1;
  bt::databaseFileName = s.Path("db.dat");
  bt::furtherVolumeCount = 0;
  bt::lastBlock = 4;
  bt::databaseEncrypted = false;
  std::vector<std::uint8_t> file(4 * 4096, 0);
  file[4096 * 1 + 4] = 8;    // block 2: a data block
  file[4096 * 2 + 4] = 24;   // block 3: big string with a bad offset
  file[4096 * 2 + 0] = 0x7F;
  file[4096 * 3 + 4] = 24;   // block 4: big string in big-endian order already converted?
  file[4096 * 3 + 24] = 0xBB;
  WriteBytes(bt::databaseFileName, 0, file);
  bt::Pass pass;

  ::testing::internal::CaptureStdout();
  EXPECT_EQ(bt::CvBigUni(pass.blocks, 2, 1), 0);
  EXPECT_EQ(bt::CvBigUni(pass.blocks, 3, 0), 0);
  EXPECT_EQ(bt::CvBigUni(pass.blocks, 4, 1), 1);  // ordermark says: done already
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\r\nBad big string block, block #3, bad offset 2130706432\r\n");
  EXPECT_EQ(ReadBytes(bt::databaseFileName), file);

  std::vector<std::uint8_t> node(40, 0);
  node[11] = 2;  // first block number: 2, a data block
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(bt::CvBigVec(pass.blocks, bt::Bytes(node), 4, 12), 0);
  EXPECT_EQ(bt::CvBigVec(pass.blocks, bt::Bytes(node), 4, 8), 1);  // n = 0: nothing read or written
  node[19] = 9;
  EXPECT_EQ(bt::CvBigVec(pass.blocks, bt::Bytes(node), 12, 20), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "\r\nCvBigVec: Block 2 does not have the expected big string block type (8)."
            "\r\nCvBigVec: Node points to block (9) that is not in the file.");
  EXPECT_EQ(ReadBytes(bt::databaseFileName), file);
}

}  // namespace
