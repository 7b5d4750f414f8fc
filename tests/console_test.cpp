// The program as an operator meets it on a terminal or through a pipe.
#include <gtest/gtest.h>

#include "run.h"

using namespace testsupport;

namespace {

// Output lost to a reader that has gone never changes the exit status.
TEST(Console, ReportIntoAClosedPipeEndsWithZero) {
  Scratch s;
  gendb::Params p;
  p.lastBlock = 100;
  Generate(p, s.Path("db.dat"));
  const std::string command = "bash -c \"" + ShellCommand() + " -r '" + Shown(s.Path("db.dat")) +
                              "' | true; exit \\${PIPESTATUS[0]}\"";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(std::system(command.c_str()), 0);
}

// On a terminal each progress line shows as it is printed, not all of them at the end.
TEST(Console, ProgressLineReachesTheTerminalWhileTheRunGoesOn) {
  Scratch s;
  gendb::Params p;
  p.sizeCode = 1;
  p.lastBlock = 60000;
  p.freeShare = 0.2;
  p.mix = gendb::Mix{4, 6, 1, 3, 0, 1, 0};  // no bad blocks: their messages end lines
  Generate(p, s.Path("db.dat"));
  WriteBytes(s.Path("none"), 0, {});
  const std::string shown = RunConsole("pty", 120, s.Path("none"), {s.Path("db.dat")});
  ASSERT_NE(shown.find("status 0\n"), std::string::npos) << shown;
  // The read that brings the first progress line brings neither lines from much later in the
  // run nor the final line (held back, they would all come in one write).
  const std::size_t first = shown.find("1000 blocks");
  ASSERT_NE(first, std::string::npos) << shown;
  const std::string read = shown.substr(first, shown.find('\n', first) - first);
  EXPECT_EQ(read.find("30000 blocks"), std::string::npos) << shown;
  EXPECT_EQ(read.find("Done converting"), std::string::npos) << shown;
}

// A long stretch of blocks that the run reads and passes over (big string blocks nobody
// references) shows its progress as it goes: a line waits neither for a slow read of blocks after
// it nor for a slow write of a block after it, only for converted blocks before it.
TEST(Console, ProgressThroughAStretchOfPassedOverBlocks) {
  Scratch s;
  gendb::Params p;
  p.sizeCode = 1;
  p.lastBlock = 8000;
  p.freeShare = 0;
  p.mix = gendb::Mix{1, 0, 0, 0, 0, 40, 0};
  Generate(p, s.Path("db.dat"));
  WriteBytes(s.Path("none"), 0, {});
  // The first block after 3000 that is converted (not a big string block) is written slowly, the
  // read of block 6500 is slow: three seconds each.
  const auto at = [](std::uint64_t b) { return (b - 1) * 4096; };
  std::uint64_t written = 3001;
  while (ReadBytes(s.Path("db.dat"), at(written) + 4, 1) == std::vector<std::uint8_t>{24}) ++written;
  ASSERT_LT(written, 3900u);
  const std::string plan = "write:db.dat:" + std::to_string(at(written)) + ":slow;read:db.dat:" + std::to_string(at(6500)) + ":slow";
  const std::string shown = RunConsole("pty", 120, s.Path("none"), {s.Path("db.dat")}, "", UnderTest().faultsExe,
                                       "BYTETURN_FAULTS='" + plan + "'");
  ASSERT_NE(shown.find("status 0\n"), std::string::npos) << shown;
  // What came before the first pause, between the two, and after the second.
  const std::size_t first = shown.find("pause\n"), second = shown.find("pause\n", first + 1);
  ASSERT_NE(second, std::string::npos) << shown;
  EXPECT_NE(shown.find("\\r3000 blocks"), std::string::npos) << shown;
  EXPECT_LT(shown.find("\\r3000 blocks"), first) << shown;
  EXPECT_GT(shown.find("\\r4000 blocks"), first) << shown;
  EXPECT_LT(shown.find("\\r6000 blocks"), second) << shown;
  EXPECT_GT(shown.find("\\r7000 blocks"), second) << shown;
}

// The three answers typed at once, before the first prompt: none of them is thrown away when
// echo is turned off for the password.
TEST(Console, AnswersTypedAheadConvertAnEncryptedDatabase) {
  Scratch s;
  const std::vector<std::uint8_t> key(32, 0x5A);
  gendb::Params p;
  p.lastBlock = 300;
  p.databaseKey = key;
  p.keyId = "typed-ahead";
  ASSERT_EQ(gendb::WriteKeyfile(s.Path("k.key"), "1.0", "typed-ahead", "admin", "pw", key), "");
  Generate(p, s.Path("db.dat"));
  Generate(TwinOf(p), s.Path("twin.dat"));
  const std::string answers = Shown(s.Path("k.key")) + "\nadmin\npw\n";
  WriteBytes(s.Path("answers"), 0, std::vector<std::uint8_t>(answers.begin(), answers.end()));
  const std::string shown = RunConsole("pty", 60, s.Path("answers"), {"-t", s.Path("db.dat")});
  EXPECT_NE(shown.find("status 0\n"), std::string::npos) << shown;
  EXPECT_EQ(gendb::CompareFiles(s.Path("db.dat"), s.Path("twin.dat"), 8192), "");
}

}  // namespace
