// I/O faults injected below the program (byteturn-faults, see fault_seam.h): each ends the run
// with its message and status 1, keeps the lock, and leaves every block before the failing one
// converted and every block from it on as it was. Each case runs against both stores (run.h):
// writes straight to the files, and through the journal, whose run leaves its mark at the end of
// the main file besides.
#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "run.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t kBlock = 8192;

gendb::Params Database() {
  gendb::Params p;
  p.seed = 21;
  p.sizeCode = 2;
  p.lastBlock = 2000;
  p.freeShare = 0.05;
  p.mix = gendb::Mix{3, 6, 1, 3, 1, 0, 0};  // no big strings: nothing is rewritten out of order
  p.bigRefShare = 0;
  p.compressShare = 0.2;
  p.methods = {1, 2, 3};
  return p;
}

std::uint64_t At(std::uint32_t b) { return std::uint64_t{b - 1} * kBlock; }

// A copy of a generated database, made afresh: the journal of an earlier run is removed, as
// Generate does.
void CopyOver(const std::string& from, const std::string& to) {
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  fs::remove(to + ".journal");
}

class Faults : public PerStore {};
PER_STORE(Faults);

struct FaultCase {
  std::string name, plan, message;
  std::uint32_t firstUnchanged;
};

TEST_P(Faults, InjectedFailuresEndTheRunAtTheirBlock) {
  const int io = UnderTest().windows ? 1117 : EIO;     // ERROR_IO_DEVICE
  const int full = UnderTest().windows ? 112 : ENOSPC;  // ERROR_DISK_FULL
  const std::vector<FaultCase> cases = {
      {"read", "read:ORVA.DAT:" + std::to_string(At(301) + 100) + ":EIO",
       "\r\nError read block #301. " + ErrorShown(io) + "\r\n", 301},
      {"write", "write:ORVA.DAT:" + std::to_string(At(1200)) + ":EIO",
       "\r\nError writing block 1200. " + ErrorShown(io) + "\r\n", 1200},
      {"disk full", "write:ORVA.DAT:" + std::to_string(At(1999) + kBlock - 1) + ":ENOSPC",
       "\r\nError writing block 1999. " + ErrorShown(full) + "\r\n", 1999},
      {"label block", "write:ORVA.DAT:0:EIO", "\r\nWrite of label block failed. " + ErrorShown(io) + "\r\n", 1},
      {"flush", "sync:ORVA.DAT::EIO", "\r\nError flushing volume #0. " + ErrorShown(io) + "\r\n", 2001},
  };
  Scratch s;
  const gendb::Params p = Database();
  const gendb::Params twin = TwinOf(p);
  Generate(p, s.Path("original.dat"));
  Generate(twin, s.Path("twin.dat"));
  // The same with the largest batches and, but in the slow stages (run.h), with one block per call.
  for (const std::string batch : {"", "BYTETURN_BATCH_BLOCKS=1 "}) for (const FaultCase& c : cases) {
    if (!batch.empty() && SlowStage()) break;
    // A flush without a journal comes at the end of the volume only; a journaled run flushes at
    // every commit, and stops at the first that fails (journal_test).
    if (c.name == "flush" && Journaled()) continue;
    SCOPED_TRACE(batch + c.name);
    CopyOver(s.Path("original.dat"), s.Path("ORVA.DAT"));
    fs::remove(s.Path("orva.lck"));
    RunResult r = RunByteturn({"-t", s.Path("ORVA.DAT")}, "", "", UnderTest().faultsExe,
                              Env() + batch + "BYTETURN_FAULTS='" + c.plan + "'");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.ends_with(c.message)) << r.out << r.err;
    EXPECT_EQ(r.out.find("Done converting"), std::string::npos);
    EXPECT_EQ(ReadText(s.Path("orva.lck")), "\tsealturn");
    ExpectConvertedBefore(s.Path("ORVA.DAT"), s.Path("twin.dat"), s.Path("original.dat"), c.firstUnchanged, kBlock);
  }
}

// A database or volume file that ends inside a block, or right where a block would start (its
// read returns no byte at all): the blocks before it are converted, and the message names the end
// of the file, never a success.
TEST_P(Faults, FileCutShort) {
  Scratch s;
  const gendb::Params p = Database();
  Generate(TwinOf(p), s.Path("twin.dat"));
  Generate(p, s.Path("generated.dat"));
  for (const std::uint64_t into : {std::uint64_t{4000}, std::uint64_t{0}}) {
    SCOPED_TRACE(into);
    for (const char* name : {"ORVA.DAT", "original.dat"}) {
      CopyOver(s.Path("generated.dat"), s.Path(name));
      fs::resize_file(s.Path(name), At(500) + into);
    }
    fs::remove(s.Path("orva.lck"));
    RunResult r = RunByteturn({"-t", s.Path("ORVA.DAT")}, "", "", "", Env());
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.ends_with("\r\nError read block #500. " + EndOfFileError() + "\r\n")) << r.out;
    EXPECT_EQ(ReadText(s.Path("orva.lck")), "\tsealturn");
    // A main file shorter than its blocks bears the mark of the journaled run too, which the read
    // of the missing block does not find.
    EXPECT_EQ(Unmark(s.Path("ORVA.DAT")), Journaled());
    const auto now = ReadBytes(s.Path("ORVA.DAT")), converted = ReadBytes(s.Path("twin.dat")),
               before = ReadBytes(s.Path("original.dat"));
    EXPECT_TRUE(std::equal(now.begin(), now.begin() + At(500), converted.begin()));
    EXPECT_TRUE(std::equal(now.begin() + At(500), now.end(), before.begin() + At(500)));
  }

  // A further volume cut right before one of its blocks that the run converts.
  gendb::Params set = p;
  set.sizeCode = 1;
  set.lastBlock = 3000;
  set.volumeSet.volumes = 2;
  set.volumeSet.placement = {0, 0};
  for (const char* dir : {"db", "original", "twin"}) fs::create_directories(s.Path(dir));
  Generate(set, s.Path("db/ORVA.DAT"));
  Generate(set, s.Path("original/ORVA.DAT"));
  Generate(TwinOf(set), s.Path("twin/ORVA.DAT"));
  const auto files = gendb::DatabaseFiles(set, s.Path("db/ORVA.DAT"));
  const auto originals = gendb::DatabaseFiles(set, s.Path("original/ORVA.DAT"));
  const auto twins = gendb::DatabaseFiles(TwinOf(set), s.Path("twin/ORVA.DAT"));
  const std::uint32_t size = 4096;
  const std::uint64_t first2 = 1 + (fs::file_size(files[0]) + fs::file_size(files[1])) / size;
  const auto volume = ReadBytes(originals[2]), volumeTwin = ReadBytes(twins[2]);
  std::uint64_t cut = volume.size() / size / 2;
  while (std::equal(volume.begin() + cut * size, volume.begin() + (cut + 1) * size, volumeTwin.begin() + cut * size)) ++cut;
  fs::resize_file(files[2], cut * size);
  fs::resize_file(originals[2], cut * size);
  RunResult r = RunByteturn({"-t", "ORVA.DAT"}, "yes\n", s.Path("db"), "", Env());
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.ends_with("\r\nError read block #" + std::to_string(first2 + cut) + ". " + EndOfFileError() + "\r\n"))
      << r.out;
  EXPECT_EQ(Unmark(files[0]), Journaled());
  for (std::size_t v = 0; v < 2; ++v) EXPECT_EQ(ReadBytes(files[v]), ReadBytes(twins[v])) << "volume " << v;
  const auto now = ReadBytes(files[2]);
  EXPECT_TRUE(std::equal(now.begin(), now.begin() + cut * size, volumeTwin.begin()));
}

// A further volume that cannot be opened when the run reaches it (it could when the set was
// checked): the volumes before it are converted, it and those after it are as they were.
TEST_P(Faults, VolumeThatCannotBeOpenedWhenTheRunReachesIt) {
  Scratch s;
  gendb::Params p = Database();
  p.sizeCode = 1;
  p.lastBlock = 3000;
  p.volumeSet.volumes = 3;
  p.volumeSet.placement = {0, 0, 0};
  const gendb::Params twin = TwinOf(p);
  fs::create_directories(s.Path("db"));
  fs::create_directories(s.Path("original"));
  fs::create_directories(s.Path("twin"));
  Generate(p, s.Path("db/ORVA.DAT"));
  Generate(p, s.Path("original/ORVA.DAT"));
  Generate(twin, s.Path("twin/ORVA.DAT"));
  // The set check opens the volume once; the run's own open is the second.
  const int denied = UnderTest().windows ? 5 : EACCES;
  RunResult r = RunByteturn({"-t", "ORVA.DAT"}, "yes\n", s.Path("db"), UnderTest().faultsExe,
                            Env() + "BYTETURN_FAULTS='open:ORVA-0002.VOL:2:EACCES'");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.ends_with("\r\nError opening volume #2 for reading. " + ErrorShown(denied) + "\r\n")) << r.out;
  EXPECT_EQ(ReadText(s.Path("db/orva.lck")), "\tsealturn");
  EXPECT_EQ(Unmark(s.Path("db/ORVA.DAT")), Journaled());
  const auto files = gendb::DatabaseFiles(p, s.Path("db/ORVA.DAT")), originals = gendb::DatabaseFiles(p, s.Path("original/ORVA.DAT")),
             twins = gendb::DatabaseFiles(twin, s.Path("twin/ORVA.DAT"));
  for (std::size_t v = 0; v < files.size(); ++v)
    EXPECT_EQ(ReadBytes(files[v]), ReadBytes(v < 2 ? twins[v] : originals[v])) << "volume " << v;
}

// Reading and writing many blocks per call changes nothing that can be seen: for every kind of
// database, a run one block at a time and a run with the largest batches give the same files and
// the same output. The slow stages (run.h) leave out the plain kind, which the compressed one
// holds, and the one of many maps.
TEST_P(Faults, BatchesChangeNothingThatCanBeSeen) {
  std::vector<gendb::Params> kinds;
  gendb::Params plain = Database();
  plain.mix = gendb::Mix{3, 8, 2, 4, 1, 1, 1};  // big strings and bad offsets too
  plain.bigRefShare = 0.6;
  plain.mirrorV1Share = 0.5;
  kinds.push_back(plain);
  gendb::Params compressed = plain;
  compressed.compressShare = 0.6;
  compressed.methods = {1, 2, 3, 4, 5};
  kinds.push_back(compressed);
  gendb::Params encrypted = plain;
  encrypted.bigEndian = false;
  encrypted.databaseKey.assign(24, 0x33);
  encrypted.keyId = "batch";
  kinds.push_back(encrypted);
  gendb::Params maps = plain;  // many maps, mostly free: reads stop at free blocks and map changes
  maps.sizeCode = 1;
  maps.lastBlock = 30720 * 2 + 900;
  maps.sparse = true;
  maps.freeShare = 0.6;
  kinds.push_back(maps);
  gendb::Params volumes = compressed;  // big strings reached across volume files
  volumes.sizeCode = 1;
  volumes.lastBlock = 3000;
  volumes.volumeSet.volumes = 3;
  volumes.volumeSet.placement = {0, 0, 0};
  kinds.push_back(volumes);
  for (std::size_t k = 0; k < kinds.size(); ++k) {
    if (SlowStage() && (k == 0 || kinds[k].sparse)) continue;
    SCOPED_TRACE(k);
    Scratch s;
    const gendb::Params& p = kinds[k];
    std::string answers = p.volumeSet.volumes != 0 ? "yes\n" : "";
    if (!p.databaseKey.empty()) {
      ASSERT_EQ(gendb::WriteKeyfile(s.Path("k.key"), "1.0", p.keyId, "admin", "pw", p.databaseKey), "");
      answers = Shown(s.Path("k.key")) + "\nadmin\npw\n";
    }
    // The last with the journal's writer a group behind.
    const std::vector<const char*> others =
        Journaled() ? std::vector<const char*>{"many", "lagging"} : std::vector<const char*>{"many"};
    fs::create_directories(s.Path("one"));
    Generate(p, s.Path("one/ORVA.DAT"));
    const auto ones = gendb::DatabaseFiles(p, s.Path("one/ORVA.DAT"));
    ASSERT_EQ(ones.size(), p.volumeSet.volumes + 1u);
    RunResult many, lagging;
    for (auto [dir, batch, r] : {std::tuple{"many", "", &many}, std::tuple{"lagging", "BYTETURN_WRITER_LAG=1", &lagging}}) {
      if (!Journaled() && r == &lagging) continue;
      fs::create_directories(s.Path(dir));
      const auto files = gendb::DatabaseFiles(p, s.Path(std::string(dir) + "/ORVA.DAT"));
      for (std::size_t v = 0; v < ones.size(); ++v) fs::copy_file(ones[v], files[v]);
      *r = RunByteturn({"ORVA.DAT"}, answers, s.Path(dir), UnderTest().faultsExe, Env() + batch);
    }
    const RunResult one = RunByteturn({"ORVA.DAT"}, answers, s.Path("one"), UnderTest().faultsExe,
                                      Env() + "BYTETURN_BATCH_BLOCKS=1");
    EXPECT_EQ(one.status, 0) << one.out;
    EXPECT_EQ(many.status, one.status);
    EXPECT_EQ(one.out, many.out);
    EXPECT_EQ(one.err, many.err);
    if (Journaled()) {
      EXPECT_EQ(one.out, lagging.out);
    }
    for (const char* other : others) {
      const auto others = gendb::DatabaseFiles(p, s.Path(std::string(other) + "/ORVA.DAT"));
      for (std::size_t v = 0; v < ones.size(); ++v)
        EXPECT_EQ(gendb::CompareFiles(ones[v], others[v], gendb::GeometryFor(p.sizeCode).blockSize), "")
            << other << ", volume " << v;
    }
  }
}

// A read that fails out of order (a big string reached from a data node): the converted blocks
// before the data node's block are on disk, as when each block is written in its turn.
TEST_P(Faults, OutOfOrderReadFailureAfterBatchedBlocks) {
  Scratch s;
  gendb::Params p = Database();
  p.mix = gendb::Mix{3, 8, 2, 4, 1, 0, 0};
  p.bigRefShare = 0.8;
  Generate(p, s.Path("one.dat"));
  // The last big string block: the failure comes when its data node is converted.
  const auto bytes = ReadBytes(s.Path("one.dat"));
  std::uint64_t big = 0;
  for (std::uint64_t at = 0; at + kBlock <= bytes.size(); at += kBlock)
    if (bytes[at + 4] == 24) big = at;
  ASSERT_GT(big, 0u);
  CopyOver(s.Path("one.dat"), s.Path("many.dat"));
  RunResult one, many;
  for (auto [name, batch, r] : {std::tuple{"one.dat", "BYTETURN_BATCH_BLOCKS=1 ", &one}, std::tuple{"many.dat", "", &many}})
    *r = RunByteturn({"-t", s.Path(name)}, "", "", UnderTest().faultsExe,
                     Env() + batch + "BYTETURN_FAULTS='read:" + name + ":" + std::to_string(big + 10) + ":EIO'");
  EXPECT_EQ(one.status, 1);
  EXPECT_NE(one.out.find(" failed to read block #" + std::to_string(big / kBlock + 1) + "."), std::string::npos) << one.out;
  EXPECT_EQ(one.out, many.out);
  for (const char* name : {"one.dat", "many.dat"}) EXPECT_EQ(Unmark(s.Path(name)), Journaled()) << name;
  EXPECT_EQ(gendb::CompareFiles(s.Path("one.dat"), s.Path("many.dat"), kBlock), "");
}

// A block that cannot be written inside a batch: what the later blocks of the batch printed is
// never shown, as when each block is written in its turn.
TEST_P(Faults, WriteFailureHidesMessagesOfLaterBlocks) {
  Scratch s;
  gendb::Params p = Database();
  p.mix = gendb::Mix{3, 6, 1, 3, 0, 0, 2};  // blocks with bad offsets: each has its message
  Generate(p, s.Path("original.dat"));
  Generate(TwinOf(p), s.Path("twin.dat"));
  Generate(p, s.Path("probe.dat"));
  const std::string all = RunByteturn({s.Path("probe.dat")}).out;
  const std::string skip = "Skip a bad block, block #";
  const std::size_t at = all.find(skip, all.find(skip) + 1);  // the second one: blocks before it
  ASSERT_NE(at, std::string::npos) << all;
  const auto k = static_cast<std::uint32_t>(std::stoul(all.substr(at + skip.size())));
  // The nearest block before it that the run writes.
  const auto original = ReadBytes(s.Path("original.dat")), twin = ReadBytes(s.Path("twin.dat"));
  std::uint32_t f = k - 1;
  while (f > 2 && std::equal(original.begin() + At(f), original.begin() + At(f + 1), twin.begin() + At(f))) --f;
  // Written a block at a time, in batches, and with the journal's writer lagging a group behind.
  const std::vector<const char*> names = Journaled() ? std::vector<const char*>{"one.dat", "many.dat", "lagging.dat"}
                                                     : std::vector<const char*>{"one.dat", "many.dat"};
  RunResult one, many, lagging;
  for (auto [name, batch, r] : {std::tuple{"one.dat", "BYTETURN_BATCH_BLOCKS=1 ", &one}, std::tuple{"many.dat", "", &many},
                                std::tuple{"lagging.dat", "BYTETURN_WRITER_LAG=1 ", &lagging}}) {
    if (!Journaled() && r == &lagging) continue;
    CopyOver(s.Path("original.dat"), s.Path(name));
    *r = RunByteturn({s.Path(name)}, "", "", UnderTest().faultsExe,
                     Env() + batch + "BYTETURN_FAULTS='write:" + name + ":" + std::to_string(At(f)) + ":EIO'");
  }
  EXPECT_EQ(one.status, 1);
  EXPECT_NE(one.out.find("\r\nError writing block " + std::to_string(f) + "."), std::string::npos) << one.out;
  EXPECT_EQ(one.out.find(skip + std::to_string(k)), std::string::npos) << one.out;
  EXPECT_EQ(many.out, one.out);
  if (Journaled()) {
    EXPECT_EQ(lagging.out, one.out);
  }
  for (const char* name : names) EXPECT_EQ(Unmark(s.Path(name)), Journaled()) << name;
  for (const char* name : names) EXPECT_EQ(gendb::CompareFiles(s.Path("one.dat"), s.Path(name), kBlock), "") << name;
}

// A block that cannot be written, which printed a line of its own before its write (its progress
// line, the message of a malformed node in it): that line comes before the write error, as when
// each block is written in its turn, and nothing of a later block does.
TEST_P(Faults, WriteFailureAtABlockThatPrintedALine) {
  Scratch s;
  const gendb::Params p = Database();
  const int io = UnderTest().windows ? 1117 : EIO;
  Generate(p, s.Path("original.dat"));
  Generate(TwinOf(p), s.Path("twin.dat"));
  const auto original = ReadBytes(s.Path("original.dat")), twin = ReadBytes(s.Path("twin.dat"));
  const auto converted = [&](std::uint32_t b) {
    return !std::equal(original.begin() + At(b), original.begin() + At(b + 1), twin.begin() + At(b));
  };
  ASSERT_TRUE(converted(1000));
  // A plain data block after it, whose first node is made zero length.
  std::uint32_t data = 1200;
  while (original[At(data) + 4] != 8 || !converted(data)) ++data;
  const std::string malformed = "\r\nIn Data block #" + std::to_string(data) + ", node #1 at offset 28 is zero length.\r\n";
  struct Case {
    std::vector<std::string> options;
    std::uint32_t block;
    std::string line;
  };
  for (const Case& c : {Case{{}, 1000, "\r1000 blocks (50%)     "}, Case{{"-t"}, data, malformed}}) {
    // A block at a time (not in the slow stages), in batches, and with the journal's writer lagging.
    for (const std::string batch : {"BYTETURN_BATCH_BLOCKS=1 ", "", "BYTETURN_WRITER_LAG=1 "}) {
      if ((!Journaled() && batch.starts_with("BYTETURN_WRITER_LAG")) || (SlowStage() && batch.starts_with("BYTETURN_BATCH")))
        continue;
      SCOPED_TRACE(batch + std::to_string(c.block));
      CopyOver(s.Path("original.dat"), s.Path("ORVA.DAT"));
      WriteBytes(s.Path("ORVA.DAT"), At(data) + 28, {0x80, 0, 0, 0});
      fs::remove(s.Path("orva.lck"));
      std::vector<std::string> args = c.options;
      args.push_back(s.Path("ORVA.DAT"));
      RunResult r = RunByteturn(args, "", "", UnderTest().faultsExe,
                                Env() + batch + "BYTETURN_FAULTS='write:ORVA.DAT:" + std::to_string(At(c.block)) + ":EIO'");
      EXPECT_EQ(r.status, 1);
      EXPECT_TRUE(r.out.ends_with(c.line + "\r\nError writing block " + std::to_string(c.block) + ". " + ErrorShown(io) + "\r\n"))
          << r.out;
    }
  }
}

// The power goes right after a run ended: byteturn on another database, sharing the page cache
// ledger (fault_seam.h), is cut at its first write, which loses, keeps or tears each write that
// the earlier run left unflushed, as the seed decides.
void CutThePowerAfterTheRun(const Scratch& s, const std::string& ledger) {
  gendb::Params other = Database();
  other.lastBlock = 100;
  fs::create_directories(s.Path("other"));
  Generate(other, s.Path("other/ORVA.DAT"));
  const RunResult cut = RunByteturn({"-t", "ORVA.DAT"}, "", s.Path("other"), UnderTest().faultsExe,
                                    "BYTETURN_JOURNAL=off BYTETURN_PAGECACHE='" + Shown(ledger) + "' BYTETURN_POWERCUT=1:2");
  ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
}

// A big string in an earlier volume that a block of a later volume reaches is rewritten after the
// earlier volume's own flush: the run flushes that volume again before it says it is done, so a
// power cut right after it loses nothing, also where the set has more volumes than the run keeps
// open (a volume given up is flushed first); and a failure of that second flush ends the run with
// its message, the lock kept.
TEST_P(Faults, VolumeRewrittenAfterItsFlushIsFlushedAgain) {
  Scratch s;
  gendb::Params p = Database();
  p.sizeCode = 1;
  p.lastBlock = 3000;
  // Enough blocks to take big strings from that the nodes of the last volumes still find some,
  // anywhere in the set.
  p.mix = gendb::Mix{12, 8, 2, 4, 1, 0, 0};
  p.bigRefShare = 0.3;
  p.compressShare = 0;
  for (const unsigned volumes : {2u, 14u}) {
    p.volumeSet.volumes = volumes;
    for (const char* dir : {"db", "twin", "other"}) fs::remove_all(s.Path(dir));
    for (const char* dir : {"db", "twin"}) fs::create_directories(s.Path(dir));
    Generate(p, s.Path("db/ORVA.DAT"));
    Generate(TwinOf(p), s.Path("twin/ORVA.DAT"));
    const auto files = gendb::DatabaseFiles(p, s.Path("db/ORVA.DAT")),
               twins = gendb::DatabaseFiles(p, s.Path("twin/ORVA.DAT"));
    const std::string ledger = s.Path("pagecache");
    fs::remove(ledger);
    const RunResult done = RunByteturn({"-t", "ORVA.DAT"}, "yes\n", s.Path("db"),
                                       UnderTest().faultsExe, Env() + "BYTETURN_PAGECACHE='" + Shown(ledger) + "'");
    ASSERT_EQ(done.status, 0) << done.out << done.err;
    EXPECT_NE(done.out.find("\r\nDone converting to little-endian\r\n"), std::string::npos) << done.out;
    CutThePowerAfterTheRun(s, ledger);
    for (std::size_t v = 0; v < files.size(); ++v)
      EXPECT_EQ(gendb::CompareFiles(files[v], twins[v], 4096), "") << volumes << " volumes, volume " << v;
  }

  p.volumeSet.volumes = 2;
  for (const char* dir : {"db", "twin"}) fs::remove_all(s.Path(dir));
  fs::create_directories(s.Path("db"));
  Generate(p, s.Path("db/ORVA.DAT"));
  const int io = UnderTest().windows ? 1117 : EIO;
  RunResult r = RunByteturn({"-t", "ORVA.DAT"}, "yes\n", s.Path("db"), UnderTest().faultsExe,
                            Env() + "BYTETURN_FAULTS='sync:ORVA-0001.VOL:2:EIO'");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.ends_with("\r\nError flushing volume #1. " + ErrorShown(io) + "\r\n")) << r.out;
  EXPECT_EQ(r.out.find("Done converting"), std::string::npos);
  EXPECT_EQ(ReadText(s.Path("db/orva.lck")), "\tsealturn");
}

// The lock is created only where no file of its name exists: one that appears after the run
// looked for it (another run took it meanwhile) is left as it is, and the run is told "locked".
TEST(LockFaults, LockThatAppearsBeforeItsCreateIsLeftAlone) {
  Scratch s;
  Generate(Database(), s.Path("ORVA.DAT"));
  const auto before = ReadBytes(s.Path("ORVA.DAT"));
  RunResult r = RunByteturn({"-t", s.Path("ORVA.DAT")}, "", "", UnderTest().faultsExe,
                            "BYTETURN_FAULTS='create:orva.lck::appears'");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, Shown(s.Path("ORVA.DAT")) + " is locked by Veltrano ORVA.\n");
  EXPECT_EQ(ReadText(s.Path("orva.lck")), "another run");
  EXPECT_EQ(ReadBytes(s.Path("ORVA.DAT")), before);
}

// A lock whose text cannot reach the disk (it is written as the lock is closed: the disk full)
// ends the run before it writes anything, as a short write of it does.
TEST(LockFaults, LockTextLostAtItsCloseEndsTheRun) {
  Scratch s;
  Generate(Database(), s.Path("ORVA.DAT"));
  const auto before = ReadBytes(s.Path("ORVA.DAT"));
  RunResult r = RunByteturn({"-t", "ORVA.DAT"}, "", s.dir, UnderTest().faultsExe, "BYTETURN_FAULTS='close:orva.lck:1:ENOSPC'");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error writing to lockfile orva.lck.\n");
  EXPECT_EQ(ReadBytes(s.Path("ORVA.DAT")), before);
  EXPECT_FALSE(Exists(s.Path("ORVA.DAT.journal")));
}

// Of two runs started together exactly one converts; the other finds the lock. The one that
// takes it holds it open three seconds before writing it, so that the other surely looks for it
// meanwhile, and must find it (on Windows a lock opened without sharing could not be read).
// A run held up between the check of the label and its lock, while another run converts the file
// through another name (a link in another directory, with a lock of its own), finds the file
// changed once it holds it, and leaves it as the other run left it.
TEST(LockFaults, AFileConvertedWhileTheRunTookItsLockIsLeftAlone) {
  Scratch s;
  const gendb::Params p = SparseDatabase(2000, 0.5);
  Generate(p, s.Path("ORVA.DAT"));
  Generate(TwinOf(p), s.Path("twin.dat"));
  // The other run's work, done while this one holds its new lock three seconds before it writes
  // it (the lock appears once the label is checked): the file as that run leaves it, written over
  // this one's in place.
  const std::string run = ShellCommand(UnderTest().faultsExe) + " -t ORVA.DAT";
  const std::string script = "cd '" + s.dir + "' && { BYTETURN_FAULTS='create:orva.lck::slow' " + run +
                             " > a.out 2> a.err; echo $? > a.status; } & cd '" + s.dir +
                             "' && for i in $(seq 400); do [ -e orva.lck ] && break; sleep 0.05; done && " +
                             "cat twin.dat > ORVA.DAT && wait";
  ASSERT_EQ(std::system(script.c_str()), 0);
  EXPECT_EQ(ReadText(s.Path("a.status")), "1\n") << ReadText(s.Path("a.out"));
  EXPECT_EQ(ReadText(s.Path("a.err")),
            "ORVA.DAT changed while this run was starting (another run may have converted it): nothing was written.\n");
  EXPECT_EQ(gendb::CompareFiles(s.Path("ORVA.DAT"), s.Path("twin.dat"), 4096), "");
  EXPECT_FALSE(Exists(s.Path("orva.lck")));
}

TEST(LockFaults, TwoRunsStartedTogether) {
  Scratch s;
  const gendb::Params p = SparseDatabase(2000000, 0.999);
  Generate(p, s.Path("ORVA.DAT"));
  Generate(TwinOf(p), s.Path("twin.dat"));
  const std::string run = ShellCommand(UnderTest().faultsExe) + " -t '" + Shown(s.Path("ORVA.DAT")) + "'";
  const std::string script = "cd '" + s.dir + "' && export BYTETURN_FAULTS='create:orva.lck::slow' && { " + run +
                             " > a.out 2> a.err & " + run +
                             " > b.out 2> b.err; echo $? > b.status; wait $!; echo $? > a.status; }";
  ASSERT_EQ(std::system(script.c_str()), 0);
  const std::string a = ReadText(s.Path("a.status")), b = ReadText(s.Path("b.status"));
  EXPECT_TRUE((a == "0\n" && b == "1\n") || (a == "1\n" && b == "0\n")) << a << b;
  const std::string refused = ReadText(s.Path(a == "1\n" ? "a.err" : "b.err"));
  EXPECT_EQ(refused, Shown(s.Path("ORVA.DAT")) + " is locked by Veltrano ORVA.\n");
  EXPECT_EQ(gendb::CompareFiles(s.Path("ORVA.DAT"), s.Path("twin.dat"), 4096), "");
  EXPECT_FALSE(Exists(s.Path("orva.lck")));
}

}  // namespace
