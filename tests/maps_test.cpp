#include <gtest/gtest.h>

#include "map_block.h"
#include "run.h"
#include "pass.h"
#include "database.h"

using namespace testsupport;

namespace {

// Map areas, true maps and governing maps for every block size code, written out by hand.
TEST(Maps, PlacementForEveryBlockSizeCode) {
  struct Case {
    std::uint32_t code;
    std::vector<std::uint32_t> area, notArea, trueMaps, notTrue;
  };
  const std::vector<Case> cases = {
      // BPM 30720, CM 16, SAT 5: area BPM+2 .. BPM+115, group k: 16*k*BPM+2 .. +95
      {1, {2, 5, 15, 30722, 30835, 491522, 491617, 983042}, {1, 3, 4, 16, 30721, 30836, 491521, 491618},
       {2, 30722, 30736, 491522, 491537, 983042}, {3, 5, 30721, 30737, 491538}},
      // BPM 62464, CM 8, SAT 2: area BPM+2 .. BPM+49, group k: 8*k*BPM+2 .. +47
      {2, {2, 62466, 62513, 499714, 499761}, {62465, 62514, 499713, 499762}, {62466, 62472, 499714, 499721},
       {62473, 499722}},
      // BPM 125952, CM 4, SAT 1: area BPM+2 .. BPM+19, group k: 4*k*BPM+2 .. +23
      {3, {125954, 125971, 503810, 503833}, {125953, 125972, 503834}, {125954, 125956, 503810, 503813},
       {125957, 503814}},
      // BPM 252928, CM 2, SAT 1: area BPM+2 .. BPM+7, group k: 2*k*BPM+2 .. +11
      {4, {252930, 252935, 505858, 505869}, {252929, 252936, 505870}, {252930, 505858, 505859},
       {252931, 505860}},
      // BPM 506880, CM 1: no middle area; group k: k*BPM+2 .. +5
      {5, {2, 15, 506882, 506887, 1013762}, {16, 506881, 506888, 1013768}, {2, 506882, 1013762},
       {3, 15, 506883, 1013763}},
  };
  for (const Case& c : cases) {
    bt::SetGeometry(c.code);
    for (auto b : c.area) EXPECT_TRUE(bt::InMapArea(b)) << "code " << c.code << " block " << b;
    for (auto b : c.notArea) EXPECT_FALSE(bt::InMapArea(b)) << "code " << c.code << " block " << b;
    for (auto b : c.trueMaps) EXPECT_TRUE(bt::IsTrueMapBlock(b)) << "code " << c.code << " block " << b;
    for (auto b : c.notTrue) EXPECT_FALSE(bt::IsTrueMapBlock(b)) << "code " << c.code << " block " << b;
  }
  bt::SetGeometry(2);
  EXPECT_EQ(bt::GoverningMap(3), 2u);
  EXPECT_EQ(bt::GoverningMap(62464), 2u);
  EXPECT_EQ(bt::GoverningMap(62465), 62466u);
  EXPECT_EQ(bt::GoverningMap(8 * 62464), 62472u);
  EXPECT_EQ(bt::GoverningMap(8 * 62464 + 1), 499714u);
  EXPECT_EQ(bt::GoverningMap(9 * 62464 + 1), 499715u);
  bt::SetGeometry(5);
  EXPECT_EQ(bt::GoverningMap(506881), 506882u);
  EXPECT_EQ(bt::GoverningMap(2 * 506880 + 1), 1013762u);
}

TEST(Maps, MissingListHeadIsFatal) {
  // The message goes to standard output; a death test only sees stderr, so run it in a child
  // whose stdout is redirected to stderr.
  bt::SetGeometry(2);
  bt::Pass pass;
  std::fflush(stdout);
  EXPECT_EQ(OUTPUT_OF_FAILURE(bt::FetchGoverningMap(pass.maps, pass.blocks, 5000, 2)),
            "\r\nCould not find map block 2 in map list. map=0x0000000000000000");
}

// A map ahead that is not a map, and one beyond the last block, end the run before the block.
TEST(Maps, ReadCurMapFailures) {
  Scratch s;
  const std::string db = s.Path("db.dat");
  gendb::Params p;
  p.sizeCode = 1;
  p.lastBlock = 30720 + 300;
  p.freeShare = 0.9;
  p.sparse = true;
  Generate(p, db);
  WriteBytes(db, std::uint64_t{30722 - 1} * 4096 + 40, {'x'});
  RunResult r = RunByteturn({"-t", db});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.ends_with("\r\nReadCurMap read a bad map block, block #30722. type = x.")) << r.out;

  Generate(p, db);
  PatchU32(db, 1112, 30721, true);  // last block before its own map
  r = RunByteturn({"-t", db});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.ends_with("\r\nReadCurMap block points to block (30722) that is not in the fileset.")) << r.out;
}

}  // namespace
