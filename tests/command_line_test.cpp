#include <gtest/gtest.h>

#include "command_line.h"
#include "run.h"

using namespace testsupport;

namespace {

const std::string kUsage =
    "\r\nUsage:  byteturn [-option] file\r\n"
    "\r\n\t-option = -b[ig], -l[ittle], or -r[eport]\r\n"
    "\r\n\toptional option is -t[erse]\r\n";

bt::CommandLine Parse(std::vector<const char*> args) {
  args.insert(args.begin(), "byteturn");
  bt::CommandLine cl;
  EXPECT_TRUE(bt::ParseCommandLine(static_cast<int>(args.size()), args.data(), cl));
  return cl;
}

TEST(CommandLine, UsageErrorsPrintTheThreeLinesAndEndWithOne) {
  const std::vector<std::vector<std::string>> cases = {
      {}, {"?"}, {"-b"}, {"-t", "-t", "db"}, {"-x", "db"}, {"-", "db"}, {"-b", "stray", "db"}};
  for (const auto& args : cases) {
    RunResult r = RunByteturn(args);
    EXPECT_EQ(r.status, 1) << args.size();
    EXPECT_EQ(r.out, kUsage);
  }
}

TEST(CommandLine, OptionLettersAndOrder) {
  bt::CommandLine cl = Parse({"-Big", "db"});
  EXPECT_EQ(cl.direction, bt::kDirectionBig);
  EXPECT_TRUE(cl.alreadyConvertedCheck);
  EXPECT_TRUE(cl.verbose);
  EXPECT_EQ(cl.fileName, "db");

  cl = Parse({"-report", "-LITTLE", "db"});  // a later letter overrides an earlier one
  EXPECT_EQ(cl.direction, bt::kDirectionLittle);

  cl = Parse({"-r", "-b", "-terse", "db"});
  EXPECT_EQ(cl.direction, bt::kDirectionBig);
  EXPECT_FALSE(cl.verbose);
  EXPECT_TRUE(cl.alreadyConvertedCheck);

  cl = Parse({"-t", "db"});  // -t alone converts whatever the order
  EXPECT_FALSE(cl.alreadyConvertedCheck);
  EXPECT_FALSE(cl.verbose);
}

TEST(CommandLine, TwoArgumentForm) {
  bt::CommandLine cl = Parse({"db", "BIG"});
  EXPECT_TRUE(cl.statedOrderCheck);
  EXPECT_EQ(cl.orderWord, "BIG");
  EXPECT_FALSE(cl.alreadyConvertedCheck);

  EXPECT_FALSE(Parse({"db", "bigger"}).statedOrderCheck);
  EXPECT_FALSE(Parse({"db", "little", "more"}).statedOrderCheck);
  EXPECT_TRUE(Parse({"db", "LiTtLe"}).statedOrderCheck);
  EXPECT_EQ(Parse({"db", "anything"}).fileName, "db");
}

TEST(CommandLine, UnopenableDatabaseFileIsReported) {
  Scratch s;
  RunResult r = RunByteturn({"-r", s.Path("missing.dat")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Error opening database file " + Shown(s.Path("missing.dat")) + " for reading. " +
                       ErrorShown(Codes().fileNotFound) + "\r\n");
  r = RunByteturn({"-r", s.dir});  // a directory cannot be opened for writing
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Error opening database file " + Shown(s.dir) + " for reading. " +
                       ErrorShown(Codes().openDirectory) + "\r\n");

  WriteBytes(s.Path("short.dat"), 0, std::vector<std::uint8_t>(100, 1));
  r = RunByteturn({"-r", s.Path("short.dat")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "\r\nerror reading map block of database file. " + EndOfFileError() + "\r\n");
}

}  // namespace
