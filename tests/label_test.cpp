#include <gtest/gtest.h>

#include "label_block.h"
#include "run.h"
#include "database.h"

using namespace testsupport;

namespace {

gendb::Params Small(bool big) {
  gendb::Params p;
  p.bigEndian = big;
  p.lastBlock = 300;
  p.seed = 7;
  return p;
}

TEST(Label, ReportEndsWithZeroAndWritesNothing) {
  Scratch s;
  const std::string db = s.Path("ORVA.DAT");
  Generate(Small(true), db);
  auto before = ReadBytes(db);

  RunResult r = RunByteturn({"-r", db});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "This database is big-endian.\r\nThis database has a block size of 8192 Bytes.\r\n");
  r = RunByteturn({"-r", "-t", db});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "big-endian <8192 Bytes>\r\n");
  EXPECT_EQ(ReadBytes(db), before);
  EXPECT_FALSE(Exists(s.Path("orva.lck")));

  gendb::Params little = Small(false);
  little.sizeCode = 4;
  Generate(little, db);
  r = RunByteturn({"-report", "-t", db});
  EXPECT_EQ(r.out, "little-endian <32768 Bytes>\r\n");
}

TEST(Label, RefusalsEndWithOneBeforeAnythingIsWritten) {
  Scratch s;
  const std::string db = s.Path("db.dat");
  struct Case {
    bool big;
    std::vector<std::string> args;
    std::string out;
  };
  const std::vector<Case> cases = {
      {true, {"-b", db}, "This database is already big-endian and does not require conversion.\r\n"},
      {false, {"-l", db}, "This database is already little-endian and does not require conversion.\r\n"},
      {false, {"-t", "-l", db}, "This database is already little-endian and does not require conversion.\r\n"},
      {true, {db, "little"}, "This is a big-endian database but you have specified little-endian\r\n"},
      {false, {db, "big"}, "This is a little-endian database but you have specified big-endian\r\n"},
  };
  for (const Case& c : cases) {
    Generate(Small(c.big), db);
    auto before = ReadBytes(db);
    RunResult r = RunByteturn(c.args);
    EXPECT_EQ(r.status, 1) << c.out;
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(ReadBytes(db), before);
  }
  // Only a lower-case first letter of the stated order is compared.
  Generate(Small(true), db);
  RunResult r = RunByteturn({"-r", db});
  r = RunByteturn({db, "LITTLE"});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("\r\nDone converting to little-endian\r\n"), std::string::npos);
}

TEST(Label, UnsupportedDatabasesAreRefusedEvenForAReport) {
  Scratch s;
  const std::string db = s.Path("db.dat");
  Generate(Small(true), db);
  PatchU32(db, bt::label::kBlockSizeCode, 0, true);
  RunResult r = RunByteturn({"-r", db});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "This is a 2k database and is no longer supported by byteturn\r\n");

  // An unknown code is refused where the size table is needed: after the order checks.
  PatchU32(db, bt::label::kBlockSizeCode, 9, true);
  r = RunByteturn({"-r", db});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "This database is big-endian.\r\n"
                   "This database has an unknown block size code (9) and cannot be converted by byteturn\r\n");
  PatchU32(db, bt::label::kBlockSizeCode, 6, true);
  r = RunByteturn({"-b", db});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "This database is already big-endian and does not require conversion.\r\n");
  // 6, the first code past the size table, is refused like any other: in a report and in a
  // conversion, before the lock is taken and before anything is written.
  const std::string orva = s.Path("ORVA.DAT");
  Generate(Small(true), orva);
  PatchU32(orva, bt::label::kBlockSizeCode, 6, true);
  const auto code6 = ReadBytes(orva);
  for (const std::vector<std::string>& args : {std::vector<std::string>{"-r", orva}, std::vector<std::string>{orva}}) {
    r = RunByteturn(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_EQ(r.out, "This database is big-endian.\r\n"
                     "This database has an unknown block size code (6) and cannot be converted by byteturn\r\n");
    EXPECT_EQ(ReadBytes(orva), code6);
    EXPECT_FALSE(Exists(s.Path("orva.lck")));
  }

  Generate(Small(false), db);
  PatchU16(db, bt::label::kOldVolumeCount, 2, false);
  r = RunByteturn({"-r", db});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "This is a multivolume database and is no longer supported by byteturn\r\n");
}

TEST(Label, ConversionReportNamesMapsAndManagerDirectory) {
  Scratch s;
  const std::string db = s.Path("db.dat");
  gendb::Params p = Small(true);
  p.managerDirectory = "/srv/orva/mgr/";
  Generate(p, db);
  PatchU32(db, bt::label::kMapCount, 1, true);
  RunResult r = RunByteturn({db});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("This database is big-endian.\r\nThis database has a block size of 8192 Bytes.\r\n"
                        "\r\nThis database has 1 map.\r\nThe last block is 300.\r\n"
                        "\r\nOriginal manager directory is /srv/orva/mgr/\r\n",
                        0),
            0u)
      << r.out;
  EXPECT_TRUE(r.out.ends_with("\r\nDone converting to little-endian\r\n")) << r.out;

  p.bigEndian = false;
  p.unicodeManagerDirectory = true;  // longer than 255: not printed
  Generate(p, db);
  PatchU32(db, bt::label::kMapCount, 3, false);
  r = RunByteturn({"-t", db});
  EXPECT_EQ(r.out, "little-endian <8192 Bytes>\r\n\r\nThis database has 3 maps.\r\nThe last block is 300.\r\n"
                   "\r\nDone converting to big-endian\r\n");
  PatchU32(db, bt::label::kMapCount, 0, true);
  r = RunByteturn({"-r", "-l", db});  // -l overrides -r: converts back
  EXPECT_NE(r.out.find("This database has 0 map.\r\n"), std::string::npos) << r.out;

  p.unicodeManagerDirectory = false;
  p.managerDirectory = std::string(254, 'm') + "/";  // 255 bytes: still a text, printed
  Generate(p, db);
  r = RunByteturn({"-t", db});
  EXPECT_NE(r.out.find("\r\nOriginal manager directory is " + p.managerDirectory + "\r\n"), std::string::npos) << r.out;
}

TEST(Label, ConvertLabelBlockReversesFieldsAndUnitTexts) {
  std::vector<std::uint8_t> block(4096);
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<std::uint8_t>(i * 31 + 7);
  bt::swapFlag = 1;
  // Manager directory of 0x0103 units -> 3 units; key ID with bit 15 -> 2 units; second text bytes.
  block[1532] = 0x01, block[1533] = 0x03;
  block[1792] = 0x00, block[1793] = 0x05;
  block[1920] = 0x80, block[1921] = 0x02;
  auto original = block;
  bt::ConvertLabelBlock(bt::Bytes(block));
  EXPECT_EQ(block[1100], original[1103]);
  EXPECT_EQ(block[1103], original[1100]);
  EXPECT_EQ(block[1148], original[1149]);
  EXPECT_EQ(block[1150], original[1150]);  // not a field
  EXPECT_EQ(block[1534], original[1535]);
  EXPECT_EQ(block[1538], original[1539]);
  EXPECT_EQ(block[1540], original[1540]);  // past the third unit
  EXPECT_EQ(block[1794], original[1794]);  // byte text left alone
  EXPECT_EQ(block[1922], original[1923]);
  EXPECT_EQ(block[1924], original[1925]);
  EXPECT_EQ(block[1926], original[1926]);
  bt::swapFlag = 0;  // converting back takes the lengths in the new order and restores every byte
  bt::ConvertLabelBlock(bt::Bytes(block));
  EXPECT_EQ(block, original);

  // A manager directory of 255 units runs over the second text's length (1792) and the key ID's
  // (1920): which runs are swapped is still decided by the lengths the database stored.
  for (int swap : {1, 0}) {
    std::vector<std::uint8_t> label(4096, 0);
    bt::swapFlag = swap;
    auto put = [&](std::size_t at, std::uint16_t v) {
      label[at + (swap ? 0 : 1)] = static_cast<std::uint8_t>(v >> 8);
      label[at + (swap ? 1 : 0)] = static_cast<std::uint8_t>(v);
    };
    put(1532, 0x01FF);  // 255 units: 1534 to 2043
    put(1792, 0x8002);  // two units at 1794
    put(1920, 0x0003);  // bytes
    label[1794] = 1, label[1795] = 2, label[1796] = 3, label[1797] = 4;
    label[1922] = 5, label[1923] = 6;
    const auto stored = label;
    bt::ConvertLabelBlock(bt::Bytes(label));
    // Swapped as part of the directory, then again as the second text: back where they were.
    EXPECT_EQ(std::vector<std::uint8_t>(label.begin() + 1794, label.begin() + 1798),
              std::vector<std::uint8_t>(stored.begin() + 1794, stored.begin() + 1798));
    EXPECT_EQ(label[1922], 6);  // only the directory's units swapped the key ID's bytes
    EXPECT_EQ(label[1923], 5);
    // The length fields are swapped as directory units and as fields: as they were.
    EXPECT_EQ(label[1792], stored[1792]);
    EXPECT_EQ(label[1920], stored[1920]);
  }
}

}  // namespace
