// The journal: a run that ends anywhere (power cut, kill, a failure of its own) is finished by
// byteturn-recover, and every file then holds exactly the bytes of the uninterrupted run.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <functional>
#include <random>
#include <set>

#include "byteorder.h"
#include "journal_format.h"
#include "run.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

gendb::Params Rich() {
  gendb::Params p;
  p.seed = 41;
  p.sizeCode = 1;
  p.lastBlock = 600;
  p.mix = gendb::Mix{3, 8, 2, 4, 1, 1, 1};  // bad offsets, loose big strings, mirrors
  p.bigRefShare = 0.6;
  p.sharedBigShare = 0.4;
  p.mirrorV1Share = 0.5;
  return p;
}

// A small database with compressed blocks, for the sweeps that cut a run at every point.
gendb::Params SmallRun() {
  gendb::Params p = Rich();
  p.lastBlock = 160;
  p.compressShare = 0.3;
  return p;
}

// Two further volumes, the first in more/.
gendb::Params SmallSet() {
  gendb::Params set = Rich();
  set.lastBlock = 1000;
  set.volumeSet.volumes = 2;
  set.volumeSet.directories = {"more/"};
  set.volumeSet.storedList = {"more/"};
  set.volumeSet.placement = {1, 0};
  return set;
}

// A database in three copies: "db" (the runs), "pristine" (as generated, then changed by
// prepare) and "twin" (what the uninterrupted run gives, which for a database as generated must be
// the generator's converted twin, in "generated"), with the answers byteturn and byteturn-recover ask for.
struct Case {
  gendb::Params params;
  std::string answers;
  std::vector<std::string> files, pristine, twin;
  std::string dir, journal, lock;
  std::string keyfile;
  std::string out;     // what the uninterrupted run prints
  std::string ledger;  // the fault seam's page cache, which chains of processes share
};

// The answers to byteturn's questions about params, whose keyfile (if any) is at keyfile.
std::string AnswersFor(const gendb::Params& p, const std::string& keyfile) {
  std::string answers = p.databaseKey.empty() ? "" : Shown(keyfile) + "\nadmin\npw\n";
  if (p.volumeSet.volumes != 0) answers += "yes\n";
  return answers;
}

void CopyFiles(const std::vector<std::string>& from, const std::vector<std::string>& to) {
  for (std::size_t v = 0; v < from.size(); ++v) fs::copy_file(from[v], to[v], fs::copy_options::overwrite_existing);
}

bool FilesEqual(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  for (std::size_t v = 0; v < a.size(); ++v)
    if (ReadBytes(a[v]) != ReadBytes(b[v])) return false;
  return true;
}

RunResult Convert(const Case& c, const std::string& exe, const std::string& environment) {
  return RunByteturn({"ORVA.DAT"}, c.answers, c.dir, exe, environment);
}

RunResult Recover(const Case& c, const std::string& environment = "", const std::string& answers = "\x01") {
  return RunByteturn({"ORVA.DAT"}, answers == "\x01" ? c.answers : answers, c.dir,
                     environment.empty() ? UnderTest().recoverExe : UnderTest().recoverFaultsExe, environment);
}

// The files as generated, no lock, no journal, no page cache ledger, no removal the seam held.
void Reset(const Case& c) {
  CopyFiles(c.pristine, c.files);
  fs::remove(c.lock);
  fs::remove(c.journal);
  fs::remove(c.ledger);
  for (const fs::directory_entry& e : fs::directory_iterator(c.dir))
    if (e.path().filename().string().find(".removal-held") != std::string::npos) fs::remove(e.path());
}

Case Prepare(const Scratch& s, const gendb::Params& p, const std::function<void(const std::string&)>& prepare = {}) {
  Case c{p, "", {}, {}, {}, s.Path("db"), s.Path("db/ORVA.DAT.journal"), s.Path("db/orva.lck"), s.Path("k.key"), "",
         s.Path("pagecache")};
  if (!p.databaseKey.empty()) {
    const std::string version = p.keyId == "two" ? "2.0" : "1.0";
    EXPECT_EQ(gendb::WriteKeyfile(c.keyfile, version, p.keyId, "admin", "pw", p.databaseKey), "");
  }
  c.answers = AnswersFor(p, c.keyfile);
  for (const char* dir : {"db", "pristine", "twin", "generated"}) {
    fs::create_directories(s.Path(dir));
    for (const std::string& more : p.volumeSet.directories) fs::create_directories(s.Path(dir) + "/" + more);
  }
  Generate(p, s.Path("pristine/ORVA.DAT"));
  if (prepare) prepare(s.Path("pristine"));
  c.files = gendb::DatabaseFiles(p, s.Path("db/ORVA.DAT"));
  c.pristine = gendb::DatabaseFiles(p, s.Path("pristine/ORVA.DAT"));
  c.twin = gendb::DatabaseFiles(p, s.Path("twin/ORVA.DAT"));
  Reset(c);
  const RunResult whole = Convert(c, UnderTest().exe, "");
  EXPECT_EQ(whole.status, 0) << whole.out << whole.err;
  EXPECT_FALSE(Exists(c.journal)) << "a completed run removes its journal";
  c.out = WithoutAddresses(whole.out);
  if (!prepare) {
    Generate(TwinOf(p), s.Path("generated/ORVA.DAT"));
    const std::uint32_t size = gendb::GeometryFor(p.sizeCode).blockSize;
    const std::vector<std::string> generated = gendb::DatabaseFiles(p, s.Path("generated/ORVA.DAT"));
    for (std::size_t v = 0; v < c.files.size(); ++v) EXPECT_EQ(gendb::CompareFiles(c.files[v], generated[v], size), "") << v;
  }
  CopyFiles(c.files, c.twin);
  Reset(c);
  return c;
}

void ExpectTwin(const Case& c) {
  for (std::size_t v = 0; v < c.files.size(); ++v)
    EXPECT_EQ(gendb::CompareFiles(c.files[v], c.twin[v], gendb::GeometryFor(c.params.sizeCode).blockSize), "")
        << "volume " << v;
  EXPECT_FALSE(Exists(c.journal));
  EXPECT_FALSE(Exists(c.lock));
}

// After the line that tells where it resumes, the recovery prints the lines that the
// uninterrupted run printed from that block on, and no others. A resume point before the first
// block that the last record's group wrote would convert a block again: a block converted twice
// changes, or, where its header no longer makes sense, shows as a bad block that the run did not
// have.
void ExpectTheRunsLinesFromTheResumePoint(const Case& c, const std::string& recovered) {
  const std::string out = WithoutAddresses(recovered);
  const std::size_t resuming = out.find("\r\nResuming the interrupted conversion at block #");
  ASSERT_NE(resuming, std::string::npos) << out;
  const std::string rest = out.substr(out.find("\r\n", resuming + 2) + 2);
  EXPECT_TRUE(c.out.ends_with(rest)) << "the recovery printed:\n" << out << "\nthe uninterrupted run:\n" << c.out;
}

// After a run ended anywhere: the recovery (or, where the run left no journal, byteturn again)
// gives the twin, and prints the rest of the run's lines.
void FinishAndExpectTwin(const Case& c) {
  if (Exists(c.journal) && FilesEqual(c.files, c.twin)) {
    // Cut after the run took its mark off (a marked main file is longer than its twin), before it
    // removed the journal: the run is complete, and the recovery says so and leaves the journal and
    // the lock to the operator.
    const RunResult r = Recover(c);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("ORVA.DAT is the database that run converted, its conversion is complete; remove the journal"),
              std::string::npos)
        << r.err;
    fs::remove(c.journal);
    fs::remove(c.lock);
  } else if (Exists(c.journal)) {
    const RunResult r = Recover(c);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("Done converting to "), std::string::npos) << r.out;
    ExpectTheRunsLinesFromTheResumePoint(c, r.out);
  } else if (!FilesEqual(c.files, c.twin)) {
    // No journal: nothing was written yet, or everything was and the journal went at the end.
    ASSERT_TRUE(FilesEqual(c.files, c.pristine)) << "database files written without a journal";
    fs::remove(c.lock);
    const RunResult r = Convert(c, UnderTest().exe, "");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(WithoutAddresses(r.out), c.out);
  }
  fs::remove(c.lock);  // a run cut before its end leaves its lock, which the recovery does not need
  ExpectTwin(c);
}

std::uint64_t OperationsOf(const RunResult& r) {
  const std::size_t at = r.err.rfind("operations ");
  return at == std::string::npos ? 0 : std::stoull(r.err.substr(at + 11));
}

// Few blocks per group, so that a small database makes many commits.
const std::string kSmallGroups = "BYTETURN_GROUP_BYTES=32768 ";
// The writer starts on a committed group only when the run waits for it: every read meanwhile
// finds the disk without the group's writes.
const std::string kWriterLags = "BYTETURN_WRITER_LAG=1 ";
// The run makes each group's undo and the recorder thread writes its record, as where flushes
// cost much; else the writer thread does both, as where they cost little (and as with small groups).
const std::string kRecordByRun = "BYTETURN_RECORD_BY_RUN=1 ";
// The two take turns, group by group, as where the group limit moves across its floor.
const std::string kRecordsInTurn = "BYTETURN_RECORD_BY_RUN=2 ";

// Cut points of a run of operations: the first and the last ones, where the journal is made and
// removed, and others spread between them, picked by rng.
std::vector<std::uint64_t> CutPoints(std::uint64_t operations, std::mt19937_64& rng) {
  const std::uint64_t ends = Emulated() || Sanitized() ? 2 : 5, between = Emulated() ? 3 : Sanitized() ? 2 : 10;
  std::vector<std::uint64_t> points;
  for (std::uint64_t n = 1; n <= ends; ++n) points.push_back(n);
  for (std::uint64_t n = operations - ends + 1; n <= operations; ++n) points.push_back(n);
  for (std::uint64_t k = 0; k < between; ++k) points.push_back(ends + 1 + rng() % (operations - 2 * ends));
  return points;
}

std::vector<std::pair<std::string, gendb::Params>> EveryKind() {
  std::vector<std::pair<std::string, gendb::Params>> kinds;
  kinds.emplace_back("plain", Rich());
  for (int method : {1, 2, 3, 4, 5}) {
    gendb::Params p = Rich();
    p.compressShare = 0.6;
    p.methods = {method};
    kinds.emplace_back("compressed by method " + std::to_string(method), p);
  }
  gendb::Params little = Rich();
  little.bigEndian = false;
  kinds.emplace_back("little-endian", little);
  for (const char* id : {"one", "two"}) {
    gendb::Params p = Rich();
    p.databaseKey.assign(32, 0x3C);
    p.keyId = id;
    p.compressShare = 0.3;
    kinds.emplace_back(std::string("encrypted, keyfile ") + (p.keyId == "two" ? "2.0" : "1.0"), p);
  }
  gendb::Params set = Rich();
  set.compressShare = 0.3;
  set.lastBlock = 1000;
  set.volumeSet.volumes = 2;
  set.volumeSet.directories = {"more/"};
  set.volumeSet.storedList = {"more/"};
  set.volumeSet.placement = {1, 0};
  kinds.emplace_back("volume set", set);
  return kinds;
}

}  // namespace

// The power goes at a write, flush or rename of a run: what was not flushed is lost, kept or torn
// as the seed decides. The recovery then gives the twin, for every kind of database.
TEST(Journal, PowerCutAnywhereIsFinishedByTheRecovery) {
  std::mt19937_64 rng(19);
  std::vector<std::pair<std::string, gendb::Params>> kinds = EveryKind();
  kinds.emplace_back("malformed node", Rich());
  // On the emulated platforms and under the sanitizers: the compressed kind, whose other blocks
  // are plain, and the encrypted one; a volume set's cuts have tests of their own.
  const std::set<std::string> few = {"compressed by method 3", "encrypted, keyfile 2.0"};
  for (const auto& [name, p] : kinds) {
    if ((Emulated() || Sanitized()) && few.count(name) == 0) continue;
    SCOPED_TRACE(name);
    Scratch s;
    const Case c = Prepare(s, p, name == "malformed node" ? MalformedNode(p) : nullptr);
    // The records written by the writer thread, by the recorder, or by each in turn. Each way ends its
    // groups elsewhere: a cut near the end is put as far from it.
    const std::string ways[] = {"", kRecordByRun, kRecordsInTurn};
    std::uint64_t operations[3];
    for (std::size_t way = 0; way < 3; ++way) {
      Reset(c);
      const RunResult whole = Convert(c, UnderTest().faultsExe, kSmallGroups + ways[way] + "BYTETURN_POWERCUT=1000000");
      ASSERT_EQ(whole.status, 0) << whole.out << whole.err;
      ExpectTwin(c);
      operations[way] = OperationsOf(whole);
      ASSERT_GT(operations[way], 40u) << whole.err;
    }
    // Every other cut the writer starts on a group only when the run waits for it; every two the
    // records are written the next way.
    unsigned turn = 0;
    for (std::uint64_t n : CutPoints(operations[0], rng)) {
      const std::uint64_t seed = rng() % 1000;
      const bool lag = turn % 2 == 0;
      const std::size_t way = turn++ / 2 % 3;
      if (n + 10 > operations[0]) n = operations[way] - (operations[0] - n);
      n = std::min(n, operations[way]);
      SCOPED_TRACE("cut at " + std::to_string(n) + " of " + std::to_string(operations[way]) + ", seed " +
                   std::to_string(seed) + (lag ? ", writer lagging" : "") + ", records: " + ways[way]);
      Reset(c);
      const RunResult cut = Convert(c, UnderTest().faultsExe, kSmallGroups + (lag ? kWriterLags : "") + ways[way] +
                                                                   "BYTETURN_POWERCUT=" + std::to_string(n) + ":" +
                                                                   std::to_string(seed));
      ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
      FinishAndExpectTwin(c);
      if (HasFailure()) return;
    }
  }
}

// Every write, flush and rename of a small run, its records written by the writer thread or by
// the run and the writer in turn: every point once, the two ways taking every other point each and
// the seeds taking turns; under the sanitizers every sixteenth point of each way, and on the
// emulated platforms, which run each process slowly, every twentieth.
TEST(Journal, PowerCutAtEveryPointOfASmallRun) {
  Scratch s;
  const Case c = Prepare(s, SmallRun());
  const std::string groups = "BYTETURN_GROUP_BYTES=16384 ";
  const std::uint64_t step = Emulated() ? 20 : Sanitized() ? 16 : 2;
  std::uint64_t cuts = 0;
  for (const std::string& byRun : {std::string(), kRecordsInTurn}) {
    Reset(c);
    const RunResult whole = Convert(c, UnderTest().faultsExe, groups + byRun + "BYTETURN_POWERCUT=1000000");
    ASSERT_EQ(whole.status, 0);
    const std::uint64_t operations = OperationsOf(whole);
    for (std::uint64_t n = byRun.empty() ? 1 : 1 + step / 2; n <= operations; n += step) {
      const std::uint64_t seed = 1 + cuts++ % 2;
      SCOPED_TRACE("cut at " + std::to_string(n) + " of " + std::to_string(operations) + ", seed " + std::to_string(seed) +
                   (byRun.empty() ? "" : ", records by the run and the writer in turn"));
      Reset(c);
      const RunResult cut = Convert(c, UnderTest().faultsExe,
                                    groups + byRun + "BYTETURN_POWERCUT=" + std::to_string(n) + ":" + std::to_string(seed));
      ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
      FinishAndExpectTwin(c);
      if (HasFailure()) return;
    }
  }
}

// Once its journal is gone, nothing can finish a run: every file it wrote must be on stable
// storage by then. A volume set of more volumes than the run keeps open, in groups of 1 MiB (a
// group a volume: no bad offset or old mirror block makes a message that ends one early), whose
// last volume's nodes name big strings not converted yet all over the set: its last group writes
// blocks in earlier volumes that the run has let go of since, and only its final flush makes
// them durable. Cut at each operation from the last one back, the files must be the twin while
// the cut leaves no journal; the first cut that leaves the journal is finished by the recovery.
TEST(Journal, ACutAfterTheJournalIsGoneFindsEveryFileConverted) {
  gendb::Params p = Rich();
  p.lastBlock = 2000;
  p.mix.other = 12;  // the blocks that big strings are taken from: enough for the last volume's nodes
  p.mix.badOffset = 0;
  p.mirrorV1Share = 0;
  p.bigRefShare = 0.3;
  p.volumeSet.volumes = 16;
  Scratch s;
  const Case c = Prepare(s, p);
  const std::string groups = "BYTETURN_GROUP_BYTES=1048576 ";
  Reset(c);
  const RunResult whole = Convert(c, UnderTest().faultsExe, groups + "BYTETURN_POWERCUT=1000000");
  ASSERT_EQ(whole.status, 0) << whole.out << whole.err;
  const std::uint64_t operations = OperationsOf(whole);
  for (std::uint64_t n = operations; n > 0; --n) {
    SCOPED_TRACE("cut at " + std::to_string(n) + " of " + std::to_string(operations));
    Reset(c);
    const RunResult cut = Convert(c, UnderTest().faultsExe, groups + "BYTETURN_POWERCUT=" + std::to_string(n) + ":1");
    ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
    if (Exists(c.journal)) {
      FinishAndExpectTwin(c);
      return;
    }
    fs::remove(c.lock);
    ExpectTwin(c);
    if (HasFailure()) return;
  }
}

// The power goes again while the recovery runs: the next recovery still gives the twin.
TEST(Journal, ACutDuringTheRecoveryIsFinishedByTheNext) {
  std::mt19937_64 rng(7);
  for (const auto& [name, p] : EveryKind()) {
    if (name != "plain" && name != "volume set" && name != "encrypted, keyfile 1.0") continue;
    SCOPED_TRACE(name);
    Scratch s;
    const Case c = Prepare(s, p);
    Reset(c);
    const RunResult whole = Convert(c, UnderTest().faultsExe, kSmallGroups + "BYTETURN_POWERCUT=1000000");
    const std::uint64_t operations = OperationsOf(whole);
    for (int round = 0; round < (SlowStage() ? 2 : 6); ++round) {
      Reset(c);
      const std::uint64_t n = operations / 4 + rng() % (operations / 2);
      const RunResult cut = Convert(c, UnderTest().faultsExe, kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(n) + ":3");
      ASSERT_EQ(cut.status, 99);
      ASSERT_TRUE(Exists(c.journal));
      const RunResult full = Recover(c, kSmallGroups + "BYTETURN_POWERCUT=1000000");
      ASSERT_EQ(full.status, 0) << full.out << full.err;
      const std::uint64_t recoveryOperations = OperationsOf(full);
      Reset(c);
      ASSERT_EQ(Convert(c, UnderTest().faultsExe, kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(n) + ":3").status, 99);
      const std::uint64_t m = 1 + rng() % recoveryOperations, seed = rng() % 1000;
      SCOPED_TRACE("run cut at " + std::to_string(n) + ", recovery cut at " + std::to_string(m) + " of " +
                   std::to_string(recoveryOperations) + ", seed " + std::to_string(seed));
      const RunResult again =
          Recover(c, kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(m) + ":" + std::to_string(seed));
      ASSERT_EQ(again.status, 99) << again.out << again.err;
      FinishAndExpectTwin(c);
      if (HasFailure()) return;
    }
  }
}

// Recoveries interrupted one after another, each before it finishes what the one before it began:
// killed (what it did not flush stays in the page cache) and then power-cut, which loses what the
// killed ones did not flush. Each recovery's put-back stands for the blocks of the records before
// it; the blocks that needed no change are those an earlier recovery put back, and the next one
// must still find them as this one did.
TEST(Journal, RecoveriesInterruptedOneAfterAnotherAreFinishedByTheNext) {
  std::mt19937_64 rng(11);
  for (const auto& [name, p] : EveryKind()) {
    if (name != "plain" && name != "volume set") continue;
    SCOPED_TRACE(name);
    Scratch s;
    const Case c = Prepare(s, p);
    const std::string chain = kSmallGroups + "BYTETURN_PAGECACHE='" + Shown(c.ledger) + "' ";
    Reset(c);
    const std::uint64_t operations = OperationsOf(Convert(c, UnderTest().faultsExe, chain + "BYTETURN_POWERCUT=1000000"));
    ASSERT_GT(operations, 40u);
    for (int round = 0; round < (SlowStage() ? 1 : 16); ++round) {
      Reset(c);
      const std::uint64_t n = operations / 8 + rng() % (operations * 3 / 4);
      ASSERT_EQ(Convert(c, UnderTest().faultsExe, chain + "BYTETURN_POWERCUT=" + std::to_string(n) + ":1").status, 99);
      std::string trace = "run cut at " + std::to_string(n) + " of " + std::to_string(operations) + ", recoveries";
      // Three killed, at their put-back's commit or past it, then one power-cut there.
      for (int k = 0; k < 4; ++k) {
        const std::uint64_t m = 12 + rng() % 150;
        trace += (k == 3 ? " cut at " : " killed at ") + std::to_string(m);
        const RunResult r =
            Recover(c, chain + "BYTETURN_POWERCUT=" + std::to_string(m) + ":" + std::to_string(k + 1) + (k == 3 ? "" : ":kill"));
        ASSERT_TRUE(r.status == 98 || r.status == 99 || r.status == 0) << trace << "\n" << r.out << r.err;
        if (r.status == 0 || !Exists(c.journal)) break;  // stopped once it removed the journal: the files are done
      }
      SCOPED_TRACE(trace);
      FinishAndExpectTwin(c);
      if (HasFailure()) return;
    }
  }
}

// A run killed at each of its flushes leaves what it did not flush in the page cache, where the
// recovery finds it; the recovery is power-cut at each of its first operations, which loses, keeps
// or tears the killed run's unflushed writes as well as its own; the next recovery finishes the
// run. Both write their records in the run's thread: sized to what they hold, records lie close,
// and the recovery's first record lands among the killed run's last ones.
TEST(Journal, ChainsOfInterruptionsEndInAJournalTheNextRecoveryFinishes) {
  Scratch s;
  const Case c = Prepare(s, SmallRun());
  const std::string chain = "BYTETURN_GROUP_BYTES=16384 " + kRecordByRun + "BYTETURN_PAGECACHE='" + Shown(c.ledger) + "' ";
  const std::string flushes = chain + "BYTETURN_POWERCUT_COUNTS=flushes ";
  Reset(c);
  const RunResult whole = Convert(c, UnderTest().faultsExe, flushes + "BYTETURN_POWERCUT=1000000");
  ASSERT_EQ(whole.status, 0) << whole.out << whole.err;
  ExpectTwin(c);
  EXPECT_TRUE(Exists(c.ledger)) << "the lock's removal, never made durable, is handed on";
  const std::uint64_t runFlushes = OperationsOf(whole);
  ASSERT_GT(runFlushes, 20u) << whole.err;
  // Past the first three flushes, every other one (a group flushes three times, so the commits of
  // half the groups are met); on the emulated platforms, which run each process slowly, and under
  // the sanitizers every twentieth, and every third cut of the recovery.
  const bool sparse = Emulated() || Sanitized();
  // Killed at its first flushes (the journal made, its name made durable), the recovery is cut
  // further on: a name the killed run left unflushed must be durable before the recovery writes a block.
  for (std::uint64_t k = 1; k <= runFlushes; ++k) {
    if (k > 3 && k % (sparse ? 20 : 2) != 0) continue;
    for (std::uint64_t m = 1; m <= (k <= 3 ? 10u : 4u); m += sparse ? 3 : 1) {
      const std::uint64_t seed = k * 4 + m;
      SCOPED_TRACE("run killed at flush " + std::to_string(k) + " of " + std::to_string(runFlushes) +
                   ", recovery cut at " + std::to_string(m) + ", seed " + std::to_string(seed));
      Reset(c);
      const RunResult killed =
          Convert(c, UnderTest().faultsExe, flushes + "BYTETURN_POWERCUT=" + std::to_string(k) + ":1:kill");
      ASSERT_EQ(killed.status, 98) << killed.out << killed.err;
      ASSERT_NE(killed.err.find("killed\n"), std::string::npos) << killed.err;
      if (!Exists(c.journal)) {  // killed before its journal was made, or after it was removed
        FinishAndExpectTwin(c);
        break;
      }
      const RunResult cut = Recover(c, chain + "BYTETURN_POWERCUT=" + std::to_string(m) + ":" + std::to_string(seed));
      if (cut.status == 1 && cut.err.find("its conversion is complete") != std::string::npos) {
        EXPECT_TRUE(FilesEqual(c.files, c.twin)) << "killed after it took its mark off, every file complete";
        FinishAndExpectTwin(c);
        break;
      }
      ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
      EXPECT_FALSE(Exists(c.ledger)) << "a power cut empties the page cache";
      FinishAndExpectTwin(c);
      if (HasFailure()) return;
    }
  }
}

// A real process killed at moments spread over its run (SIGKILL), or interrupted as by Ctrl-C
// (SIGINT), then recovered. POSIX signals: not on the Windows build.
TEST(Journal, KilledAndInterruptedRunsAreFinished) {
  if (UnderTest().windows) GTEST_SKIP() << "POSIX signals";
  Scratch s;
  gendb::Params p = Rich();
  p.sizeCode = 2;
  p.lastBlock = SlowStage() ? 2500 : 12000;
  p.compressShare = 0.3;
  const Case c = Prepare(s, p);
  const auto started = std::chrono::steady_clock::now();
  ASSERT_EQ(Convert(c, UnderTest().exe, "").status, 0);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::mt19937_64 rng(5);
  const int rounds = Emulated() ? 3 : Sanitized() ? 4 : 8;  // the fourth one an interrupt
  for (int round = 0; round < rounds; ++round) {
    const char* signal = round % 4 == 3 ? "INT" : "KILL";
    const double at = seconds * (round + std::uniform_real_distribution<double>(0.1, 0.9)(rng)) / rounds;
    SCOPED_TRACE(std::string(signal) + " after " + std::to_string(at) + " s of " + std::to_string(seconds));
    Reset(c);
    // The environment words come first in the shell command: timeout runs the program, and waits
    // for it to be gone (in its own process group, a KILL would end timeout first).
    const std::string timeout = "timeout --foreground -s " + std::string(signal) + " " + std::to_string(at);
    const RunResult killed = Convert(c, UnderTest().exe, timeout);
    if (killed.status == 0) continue;  // it was quicker this time
    FinishAndExpectTwin(c);
    if (HasFailure()) return;
  }
}

namespace {

// A run of c cut by a power cut halfway, its journal left; returns the journal's bytes (those
// beside the main file: with environment naming another place, none).
std::vector<std::uint8_t> CutHalfway(const Case& c, const std::string& seed = "1", const std::string& environment = "",
                                      std::size_t later = 0) {
  Reset(c);
  const RunResult whole = Convert(c, UnderTest().faultsExe, environment + kSmallGroups + "BYTETURN_POWERCUT=1000000");
  Reset(c);
  const std::string n = std::to_string(OperationsOf(whole) / 2 + later);
  EXPECT_EQ(Convert(c, UnderTest().faultsExe, environment + kSmallGroups + "BYTETURN_POWERCUT=" + n + ":" + seed).status,
            99);
  EXPECT_TRUE(!environment.empty() || Exists(c.journal));
  return ReadBytes(c.journal);
}

// A journal's header, commit in effect and last record, as the recovery reads them.
bt::journal::Found FoundIn(const std::vector<std::uint8_t>& journal) {
  bt::journal::Found found;
  std::string why;
  const auto read = [&](std::uint64_t at, std::uint8_t* to, std::size_t n) {
    if (at > journal.size() || n > journal.size() - at) return false;
    std::copy_n(journal.begin() + static_cast<std::ptrdiff_t>(at), n, to);
    return true;
  };
  EXPECT_TRUE(bt::journal::ReadJournal(read, journal.size(), found, why)) << why;
  return found;
}

// The blocks, by volume and position, that the records of a journal's last commit name: their
// writes, the groups flushed before it as written and the sample. A block they name nowhere is the
// table's alone to check.
std::set<std::pair<std::uint32_t, std::uint64_t>> NamedByLastRecord(const bt::journal::Found& found, std::uint64_t size) {
  std::set<std::pair<std::uint32_t, std::uint64_t>> named;
  for (const auto* checks : {&found.Latest().sample, &found.Latest().landed})
    for (const bt::journal::Check& check : *checks) named.insert({check.volume, check.position});
  for (const bt::journal::Record& r : found.records)
    for (const bt::journal::Entry& e : r.head.entries)
      for (std::uint32_t k = 0; k < e.blocks; ++k) named.insert({e.volume, e.position + std::uint64_t{k} * size});
  return named;
}

struct Snapshot {
  std::vector<std::vector<std::uint8_t>> files;
  std::vector<std::uint8_t> journal;
};
Snapshot Take(const Case& c) {
  Snapshot s{{}, ReadBytes(c.journal)};
  for (const std::string& f : c.files) s.files.push_back(ReadBytes(f));
  return s;
}
void ExpectUnchanged(const Case& c, const Snapshot& before) {
  const Snapshot now = Take(c);
  for (std::size_t v = 0; v < now.files.size(); ++v) EXPECT_TRUE(now.files[v] == before.files[v]) << "volume " << v;
  EXPECT_TRUE(now.journal == before.journal) << "the journal";
}

// The last line of what a run printed.
std::string LastLine(const std::string& out) {
  const std::size_t end = out.find_last_not_of("\r\n");
  if (end == std::string::npos) return "";
  const std::size_t start = out.find_last_of('\n', end);
  return out.substr(start == std::string::npos ? 0 : start + 1, end + 1 - (start == std::string::npos ? 0 : start + 1));
}

}  // namespace

// A run that stopped on a failure of its own keeps its journal; the recovery stops the same way
// while the cause is there, keeping it too, and finishes the run once the cause is gone.
TEST(Journal, RunsThatStopAreFinishedOnceTheCauseIsGone) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  const std::uint32_t size = gendb::GeometryFor(Rich().sizeCode).blockSize;
  // A write the system ends part way inside a sector (of a block; of the label block): the
  // sector holds the first part of the write, and the rest as it was, until the run puts it back.
  for (const std::string& plan : {"read:ORVA.DAT:" + std::to_string(300 * size + 5) + ":EIO",
                                  "write:ORVA.DAT:" + std::to_string(450 * size + 9) + ":ENOSPC",
                                  "write:ORVA.DAT:" + std::to_string(450 * size + 1009) + ":short",
                                  std::string("write:ORVA.DAT:1037:short")}) {
    SCOPED_TRACE(plan);
    Reset(c);
    const RunResult stopped = Convert(c, UnderTest().faultsExe, "BYTETURN_FAULTS='" + plan + "'");
    ASSERT_EQ(stopped.status, 1) << stopped.out << stopped.err;
    ASSERT_TRUE(Exists(c.journal));
    fs::remove(c.lock);
    const RunResult again = Recover(c, "BYTETURN_FAULTS='" + plan + "'");
    EXPECT_EQ(again.status, 1) << again.out << again.err;
    EXPECT_EQ(LastLine(again.out), LastLine(stopped.out));
    EXPECT_NE(again.out.find("Resuming the interrupted conversion at block #"), std::string::npos) << again.out;
    EXPECT_TRUE(Exists(c.journal));
    FinishAndExpectTwin(c);
  }
  // A block the recovery must patch cannot be read: it stops there, with nothing changed, and
  // finishes once the block can be read.
  const bt::journal::Found found = FoundIn(CutHalfway(c));
  const Snapshot before = Take(c);
  ASSERT_FALSE(found.Latest().entries.empty());
  const bt::journal::Entry& first = found.Latest().entries.front();
  ASSERT_EQ(first.volume, 0u);
  ASSERT_GE(first.position, size);  // past the label block, which the recovery reads first
  fs::remove(c.lock);
  const RunResult unreadable = Recover(c, "BYTETURN_FAULTS='read:ORVA.DAT:" + std::to_string(first.position + 3) + ":EIO'");
  EXPECT_EQ(unreadable.status, 1) << unreadable.out << unreadable.err;
  EXPECT_NE((unreadable.out + unreadable.err).find("Error reading volume #0 at byte " + std::to_string(first.position) + ". "),
            std::string::npos)
      << unreadable.out << unreadable.err;
  ExpectUnchanged(c, before);
  FinishAndExpectTwin(c);
  // A put-back that the system ends part way inside a sector (the first, the second) leaves it
  // holding part of the block as it was and part as the run wrote it: the next recovery writes
  // the block again, whole, from the record its put-back was given.
  // A block of the last record that the files hold as written, its first sector changed before
  // byte 256 and after it (so that half of the sector as it was makes a torn write).
  const auto cutWithBlockWritten = [&] {
    const bt::journal::Found cut = FoundIn(CutHalfway(c));
    const std::vector<std::uint8_t> left = ReadBytes(c.files[0]), pristine = ReadBytes(c.pristine[0]);
    const auto changed = [&](std::uint64_t from, std::uint64_t to) {
      return !std::equal(left.begin() + from, left.begin() + to, pristine.begin() + from);
    };
    for (const bt::journal::Entry& e : cut.Latest().entries)
      for (std::uint32_t k = 0; k < e.blocks && e.volume == 0; ++k) {
        const std::uint64_t at = e.position + std::uint64_t{k} * size;
        if (at != 0 && changed(at, at + 256) && changed(at + 256, at + 512)) return at;
      }
    return std::uint64_t{0};
  };
  for (const std::uint64_t into : {std::uint64_t{9}, std::uint64_t{512 + 9}}) {
    SCOPED_TRACE(into);
    const std::uint64_t converted = cutWithBlockWritten();
    ASSERT_NE(converted, 0u);
    fs::remove(c.lock);
    const RunResult torn = Recover(c, "BYTETURN_FAULTS='write:ORVA.DAT:" + std::to_string(converted + into) + ":short'");
    EXPECT_EQ(torn.status, 1) << torn.out << torn.err;
    EXPECT_NE(torn.out.find("Error writing block " + std::to_string(converted / size + 1) + ". "), std::string::npos)
        << torn.out;
    FinishAndExpectTwin(c);
  }
  // A write of the run that the system ended part way inside a sector, which the run did not get
  // to put back: the recovery tells the block and changes nothing.
  const std::uint64_t written = cutWithBlockWritten();
  ASSERT_NE(written, 0u);
  fs::remove(c.lock);
  const std::vector<std::uint8_t> whole = ReadBytes(c.files[0]);
  std::vector<std::uint8_t> torn = whole;
  const std::vector<std::uint8_t> pristine = ReadBytes(c.pristine[0]);
  std::copy_n(pristine.begin() + static_cast<std::ptrdiff_t>(written + 256), size - 256,
              torn.begin() + static_cast<std::ptrdiff_t>(written + 256));
  WriteBytes(c.files[0], 0, torn);
  const Snapshot tornSnapshot = Take(c);
  const RunResult refused = Recover(c);
  EXPECT_EQ(refused.status, 1) << refused.out << refused.err;
  EXPECT_NE(refused.err.find("block #" + std::to_string(written / size + 1) + " of ORVA.DAT (at byte " +
                             std::to_string(written) + ") holds part of the interrupted run's write"),
            std::string::npos)
      << refused.err;
  ExpectUnchanged(c, tornSnapshot);
  WriteBytes(c.files[0], 0, whole);
  FinishAndExpectTwin(c);
}

// A journal that cannot be written or flushed ends the run with its message, whichever thread
// writes the records and commits, and the recovery finishes the run.
TEST(Journal, AJournalThatFailsEndsTheRunWhichTheRecoveryFinishes) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  bt::journal::Header header;  // the records begin after the table of written blocks
  header.tableBlocks = c.params.lastBlock + 1;
  const std::string inRecord = std::to_string(bt::journal::RecordsStart(header) + 3136);
  // A commit sector's write ended part way, past the commit's number (the journal's making wrote
  // the sector first): the other sector says so, and the recovery takes it.
  const std::string inCommit = std::to_string(bt::journal::kCommitOffset + bt::journal::kCommitBytes + 40) + "/2";
  for (const std::string& byRun : {std::string(), kRecordByRun})
    for (const auto& [plan, message] :
         {std::pair{"write:ORVA.DAT.journal:" + inRecord + ":EIO", "\r\nError writing journal "},
          std::pair{"write:ORVA.DAT.journal:" + inCommit + ":short", "\r\nError writing journal "},
          std::pair{std::string("sync:ORVA.DAT.journal:4:EIO"), "\r\nError flushing journal "}}) {
      SCOPED_TRACE(byRun + plan);
      Reset(c);
      const RunResult stopped = Convert(c, UnderTest().faultsExe, byRun + kSmallGroups + "BYTETURN_FAULTS='" + plan + "'");
      EXPECT_EQ(stopped.status, 1) << stopped.out << stopped.err;
      EXPECT_NE(stopped.out.find(message + c.journal.substr(c.journal.rfind('/') + 1)), std::string::npos) << stopped.out;
      ASSERT_TRUE(Exists(c.journal));
      fs::remove(c.lock);
      FinishAndExpectTwin(c);
    }
}

// A run whose mark cannot be made (the main file not opened again for it) ends before its first
// write, and takes away the journal it made for it, wherever the journal lies: nothing refuses
// the next run, which converts the database.
TEST(Journal, ARunThatCannotMarkItsFileLeavesNoJournal) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  for (const std::string& where : {std::string(), "BYTETURN_JOURNAL='" + Shown(s.Path("elsewhere")) + "' "}) {
    SCOPED_TRACE(where);
    bool marking = false;  // which of the main file's opens for writing is the mark's: the first that says so
    for (int n = 1; n <= 12 && !marking; ++n) {
      Reset(c);
      fs::remove_all(s.Path("elsewhere"));  // a journal an earlier failure left there
      fs::create_directories(s.Path("elsewhere"));
      const RunResult r =
          Convert(c, UnderTest().faultsExe, where + "BYTETURN_FAULTS='openrw:ORVA.DAT:" + std::to_string(n) + ":EACCES'");
      marking = r.out.find("\r\nError writing the mark of this run in ORVA.DAT. ") != std::string::npos;
      if (!marking) continue;
      EXPECT_EQ(r.status, 1) << r.out << r.err;
      EXPECT_TRUE(FilesEqual(c.files, c.pristine));
      EXPECT_FALSE(Exists(c.journal));
      EXPECT_TRUE(fs::is_empty(s.Path("elsewhere")));
      fs::remove(c.lock);
      FinishAndExpectTwin(c);
    }
    EXPECT_TRUE(marking) << "no open of the main file was the mark's";
  }
}

// Journals that are not whole, or not this run's or this database's, are refused before anything
// is written: status 1, the files and the journal as they were.
TEST(Journal, DamagedOrForeignJournalsAreRefused) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  const std::vector<std::uint8_t> good = CutHalfway(c);
  const Snapshot cut = Take(c);
  const bt::journal::Commit last = FoundIn(good).commit;  // names the record of the last commit
  ASSERT_GT(last.number, 0u);
  const std::vector<std::uint8_t> otherRun = CutHalfway(c, "2");
  const Snapshot otherCut = Take(c);
  Scratch t;
  const Case other = Prepare(t, Rich());
  const std::vector<std::uint8_t> otherDatabase = CutHalfway(other);

  auto flipped = [&](std::uint64_t at) {
    std::vector<std::uint8_t> bytes = good;
    bytes[at] ^= 0x10;
    return bytes;
  };
  std::vector<std::uint8_t> spliced = otherRun;
  std::copy(good.begin() + bt::journal::kCommitOffset, good.end(), spliced.begin() + bt::journal::kCommitOffset);
  spliced.resize(good.size());
  const std::vector<std::pair<std::string, std::vector<std::uint8_t>>> journals = {
      {"cut in its header", std::vector<std::uint8_t>(good.begin(), good.begin() + 20000)},
      {"cut in its last record", std::vector<std::uint8_t>(good.begin(), good.begin() + last.records[0].offset + last.records[0].size / 2)},
      {"zeroed", std::vector<std::uint8_t>(good.size(), 0)},
      {"a bit flipped in the header", flipped(700)},
      {"a bit flipped in commit sector 0", flipped(bt::journal::kCommitOffset + 21)},
      {"a bit flipped in commit sector 1", flipped(bt::journal::kCommitOffset + 512 + 9)},
      {"a bit flipped in the last record", flipped(last.records[0].offset + last.records[0].size / 2)},
      {"the header of another run", spliced},
      {"another database's", otherDatabase}};
  for (const auto& [name, bytes] : journals) {
    SCOPED_TRACE(name);
    // Written in place: the journal knows the files themselves, not their names.
    for (std::size_t v = 0; v < c.files.size(); ++v) WriteBytes(c.files[v], 0, cut.files[v]);
    fs::remove(c.journal);
    WriteBytes(c.journal, 0, bytes);
    const Snapshot before = Take(c);
    const RunResult r = Recover(c);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("byteturn-recover: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Nothing was changed."), std::string::npos) << r.err;
    // The other database was made from the same original: still, this file is not its copy.
    if (name == "another database's") {
      EXPECT_NE(r.err.find("is not the journal of the run that marked ORVA.DAT"), std::string::npos) << r.err;
    }
    ExpectUnchanged(c, before);
  }
  // The journal as it was: the recovery finishes the run. Put back once more beside the database
  // converted to its end (which no longer bears the mark), it would convert again what followed its
  // last record: refused, the database left as it is.
  fs::remove(c.journal);
  WriteBytes(c.journal, 0, good);
  FinishAndExpectTwin(c);
  WriteBytes(c.journal, 0, good);
  const Snapshot done = Take(c);
  const RunResult again = Recover(c);
  EXPECT_EQ(again.status, 1) << again.out << again.err;
  EXPECT_NE(again.err.find("or the journal is a copy from earlier put back beside files converted further since"),
            std::string::npos)
      << again.err;
  ExpectUnchanged(c, done);
  fs::remove(c.journal);
  // The other run's own journal, with its own files: that works too.
  for (std::size_t v = 0; v < c.files.size(); ++v) WriteBytes(c.files[v], 0, otherCut.files[v]);
  fs::remove(c.journal);
  WriteBytes(c.journal, 0, otherRun);
  FinishAndExpectTwin(c);
  // No journal at all: nothing to finish.
  Reset(c);
  const RunResult none = Recover(c);
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("no journal of ORVA.DAT was found (it looked for ORVA.DAT.journal), and ORVA.DAT bears no "
                          "mark of an interrupted conversion: there is nothing to finish."),
            std::string::npos)
      << none.err;
  EXPECT_TRUE(FilesEqual(c.files, c.pristine));
}

// A journal put back beside a database converted to its end since: one with a commit would convert
// again the blocks after its last record, one made before the first commit every block. Both are
// refused, and the database stays as it is.
TEST(Journal, AnOldJournalBesideADatabaseConvertedToItsEndIsRefused) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  std::vector<std::uint8_t> early;  // made, no commit yet
  for (int n = 1; n < 20 && early.empty(); ++n) {
    Reset(c);
    const RunResult cut = Convert(c, UnderTest().faultsExe, kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(n) + ":1");
    ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
    if (Exists(c.journal) && FoundIn(ReadBytes(c.journal)).commit.number == 0) early = ReadBytes(c.journal);
  }
  ASSERT_FALSE(early.empty());
  const std::vector<std::uint8_t> halfway = CutHalfway(c);
  ASSERT_GT(FoundIn(halfway).commit.number, 0u);
  for (const std::vector<std::uint8_t>& journal : {early, halfway}) {
    Reset(c);
    CopyFiles(c.twin, c.files);
    WriteBytes(c.journal, 0, journal);
    const Snapshot before = Take(c);
    const RunResult r = Recover(c);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("Nothing was changed."), std::string::npos) << r.err;
    ExpectUnchanged(c, before);
  }
}

// A mark cut off the main file of an interrupted run by hand (the file cut back to its blocks, or
// its blocks alone copied over it) is not taken for a run that completed, which says so in its last
// commit before it cuts the mark off. Nor is the file finished: without the mark nothing tells the
// part-converted file from files converted further since beside a copy of the journal put back,
// whether the run's own lock stands or not (a power cut between the mark's end and the lock's
// leaves it standing after a run that completed). The recovery refuses, naming both.
TEST(Journal, AMarkCutOffByHandIsNotTakenForACompleteRun) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  for (const bool lockStands : {true, false}) {
    SCOPED_TRACE(lockStands);
    CutHalfway(c);
    ASSERT_TRUE(Exists(c.lock));
    ASSERT_TRUE(Unmark(c.files[0]));
    if (!lockStands) fs::remove(c.lock);
    const Snapshot before = Take(c);
    const RunResult refused = Recover(c);
    EXPECT_EQ(refused.status, 1) << refused.out << refused.err;
    EXPECT_NE(refused.err.find("and the run did not complete: either the mark was cut off ORVA.DAT"), std::string::npos)
        << refused.err;
    EXPECT_EQ(refused.err.find("its conversion is complete"), std::string::npos) << refused.err;
    ExpectUnchanged(c, before);
  }
}

// A run killed late, a copy of its main file's blocks alone taken, a recovery that completed and
// was cut after it took the mark off, before it removed the journal, then the copy put back: the
// copy differs only in the blocks of the records still in effect, which a completed run's table
// names too. The recovery calls the files as the recovery left them complete, and refuses the copy
// as not as the run left it.
TEST(Journal, ACopyFromBeforeACompletedRecoveryIsNotTakenForComplete) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  const std::string flushes = kSmallGroups + "BYTETURN_POWERCUT_COUNTS=flushes ";
  Reset(c);
  const std::uint64_t runFlushes = OperationsOf(Convert(c, UnderTest().faultsExe, flushes + "BYTETURN_POWERCUT=1000000"));
  ASSERT_GT(runFlushes, 20u);
  const std::string killRun = flushes + "BYTETURN_POWERCUT=" + std::to_string(runFlushes - 8) + ":1:kill";
  Reset(c);
  ASSERT_EQ(Convert(c, UnderTest().faultsExe, killRun).status, 98);
  const std::uint64_t recoveryFlushes = OperationsOf(Recover(c, flushes + "BYTETURN_POWERCUT=1000000"));
  ASSERT_TRUE(FilesEqual(c.files, c.twin));
  const std::uintmax_t blocksOnly = fs::file_size(c.pristine[0]);
  bool met = false;
  for (std::uint64_t m = recoveryFlushes; m + 6 > recoveryFlushes && m > 0 && !met; --m) {
    Reset(c);
    ASSERT_EQ(Convert(c, UnderTest().faultsExe, killRun).status, 98);
    const std::vector<std::uint8_t> older = ReadBytes(c.files[0], 0, blocksOnly);
    const RunResult cut = Recover(c, flushes + "BYTETURN_POWERCUT=" + std::to_string(m) + ":1:kill");
    ASSERT_EQ(cut.status, 98) << cut.out << cut.err;
    if (!Exists(c.journal) || fs::file_size(c.files[0]) != blocksOnly) continue;
    SCOPED_TRACE("recovery killed at flush " + std::to_string(m) + " of " + std::to_string(recoveryFlushes));
    met = true;
    ASSERT_TRUE(FilesEqual(c.files, c.twin));
    const RunResult complete = Recover(c);
    EXPECT_EQ(complete.status, 1);
    EXPECT_NE(complete.err.find("its conversion is complete"), std::string::npos) << complete.err;
    ASSERT_NE(older, ReadBytes(c.files[0]));
    WriteBytes(c.files[0], 0, older);
    const Snapshot before = Take(c);
    const RunResult refused = Recover(c);
    EXPECT_EQ(refused.status, 1) << refused.out << refused.err;
    EXPECT_NE(refused.err.find("ORVA.DAT is not as the interrupted run left it"), std::string::npos) << refused.err;
    EXPECT_EQ(refused.err.find("its conversion is complete"), std::string::npos) << refused.err;
    ExpectUnchanged(c, before);
  }
  EXPECT_TRUE(met) << "no cut left the journal beside the main file without its mark";
}

// A node names, as a big vector block, the block just before its own, converted in its turn:
// byteturn reads that block again and tells its type byte. An encrypted database's group holds its
// blocks before their encryption for a while, and such a read must find the block as the disk will
// hold it: the files and the lines are those of the run without the journal, whether the writer
// or the run makes the records.
TEST(Journal, ABlockReadAgainInItsGroupIsFoundAsWritten) {
  gendb::Params p = Rich();
  p.freeShare = 0;
  p.databaseKey.assign(32, 0x3C);
  p.keyId = "one";
  gendb::Params clear = p;
  clear.databaseKey.clear();
  const std::uint32_t size = gendb::GeometryFor(p.sizeCode).blockSize;
  Scratch s;
  std::vector<std::uint32_t> early;
  const auto prepare = [&](const std::string& dir) {
    Generate(clear, s.Path("clear.DAT"));
    const std::vector<std::uint8_t> plain = ReadBytes(s.Path("clear.DAT"));
    const std::string file = dir + "/ORVA.DAT";
    for (std::uint32_t b = 100; (b + 1) * std::uint64_t{size} <= plain.size() && early.size() < 2; ++b) {
      const std::uint64_t at = std::uint64_t{b - 1} * size;
      if (plain[at + 4] != 8 || plain[at + size + 4] != 8) continue;  // two data blocks
      std::vector<std::uint8_t> block(plain.begin() + at, plain.begin() + at + size);
      gendb::EncryptBlock(p.databaseKey, block.data(), size, b);
      ASSERT_EQ(ReadBytes(file, at, size), block) << "the same blocks as the clear database, encrypted";
      for (const std::uint32_t n : {b, b + 1}) {
        std::vector<std::uint8_t> node = NodeNamingAsBigVector(size, b);
        gendb::EncryptBlock(p.databaseKey, node.data(), size, n);
        WriteBytes(file, std::uint64_t{n - 1} * size, node);
      }
      early.push_back(b);
      b += 200;
    }
  };
  const Case c = Prepare(s, p, prepare);
  ASSERT_EQ(early.size(), 2u);
  for (const std::uint32_t b : early) {
    const std::string told = "CvBigVec: Block " + std::to_string(b) + " does not have the expected big string block type (8).";
    const std::size_t first = c.out.find(told);
    EXPECT_NE(first, std::string::npos) << c.out;
    EXPECT_NE(c.out.find(told, first + 1), std::string::npos) << "read again after its turn\n" << c.out;
  }
  for (const std::string& way : {std::string("BYTETURN_JOURNAL=off "), kRecordByRun}) {
    SCOPED_TRACE(way);
    Reset(c);
    const RunResult r = Convert(c, UnderTest().exe, way);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(WithoutAddresses(r.out), c.out);
    ExpectTwin(c);
  }
}

// After a cut, an encrypted database's journal holds neither its key nor the password; the
// recovery asks for both again, and a wrong password, or a keyfile whose key of the same ID is
// another, changes nothing.
TEST(Journal, EncryptedDatabasesKeepTheirSecretsOutOfTheJournal) {
  for (const char* id : {"one", "two"}) {
    SCOPED_TRACE(id);
    Scratch s;
    gendb::Params p = Rich();
    p.keyId = id;
    p.databaseKey.clear();
    for (int i = 0; i < 32; ++i) p.databaseKey.push_back(static_cast<std::uint8_t>(0x91 + 7 * i));
    const Case c = Prepare(s, p);
    const std::vector<std::uint8_t> journal = CutHalfway(c);
    for (const std::vector<std::uint8_t>& secret :
         {p.databaseKey, std::vector<std::uint8_t>(p.databaseKey.begin(), p.databaseKey.begin() + 8),
          std::vector<std::uint8_t>(p.databaseKey.end() - 8, p.databaseKey.end()), std::vector<std::uint8_t>{'\n', 'p', 'w', '\n'}})
      EXPECT_EQ(std::search(journal.begin(), journal.end(), secret.begin(), secret.end()), journal.end());
    const Snapshot before = Take(c);
    const RunResult wrong = Recover(c, "", Shown(c.keyfile) + "\nadmin\nnot it\n");
    EXPECT_EQ(wrong.status, 1) << wrong.out << wrong.err;
    EXPECT_NE(wrong.err.find("Keyfile: Username: Password: "), std::string::npos) << wrong.err;
    ExpectUnchanged(c, before);
    std::vector<std::uint8_t> otherKey = p.databaseKey;
    otherKey[31] ^= 1;
    const std::string other = s.Path("other.key");
    ASSERT_EQ(gendb::WriteKeyfile(other, id == std::string("two") ? "2.0" : "1.0", id, "admin", "pw", otherKey), "");
    const RunResult another = Recover(c, "", Shown(other) + "\nadmin\npw\n");
    EXPECT_EQ(another.status, 1) << another.out << another.err;
    EXPECT_NE(another.err.find("byteturn-recover: the keyfile gives another key than the one the interrupted run "
                               "converted ORVA.DAT with, under the same key ID: give the keyfile that run was given. "
                               "Nothing was changed.\n"),
              std::string::npos)
        << another.err;
    ExpectUnchanged(c, before);
    FinishAndExpectTwin(c);
  }
}

// byteturn and byteturn-check refuse a database whose run was interrupted, whether or not its
// lock is still there, and name byteturn-recover; a locked one is told as locked first.
TEST(Journal, AnInterruptedRunIsNotStartedAgain) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  CutHalfway(c);
  const std::string line = "An interrupted conversion left its journal ORVA.DAT.journal: finish it with byteturn-recover ORVA.DAT.\n";
  ASSERT_TRUE(Exists(c.lock));
  const Snapshot before = Take(c);
  for (const bool locked : {true, false}) {
    if (!locked) fs::remove(c.lock);
    for (const std::string& exe : {UnderTest().exe, UnderTest().checkExe}) {
      SCOPED_TRACE(exe + (locked ? ", locked" : ""));
      const RunResult refused = Convert(c, exe, "");
      EXPECT_EQ(refused.status, 1);
      EXPECT_EQ(refused.err, (locked ? "ORVA.DAT is locked by Veltrano ORVA.\n" : "") + line);
      EXPECT_EQ(Exists(c.lock), locked);
      ExpectUnchanged(c, before);
    }
  }
  // Its label block is converted, its other blocks in part: asked for the order the run was
  // converting to, or for a report, byteturn refuses as above instead of answering about its order.
  for (const char* option : {"-l", "-r"}) {
    const RunResult asked = RunByteturn({option, "ORVA.DAT"}, "", c.dir, UnderTest().exe);
    EXPECT_EQ(asked.status, 1) << option;
    EXPECT_EQ(asked.err, line) << option;
  }
  const RunResult checked = RunByteturn({"-l", "ORVA.DAT"}, "", c.dir, UnderTest().checkExe);
  EXPECT_EQ(checked.status, 1);
  EXPECT_EQ(checked.err, line);
  ExpectUnchanged(c, before);
  // The database under another name still has its journal beside it under the old one.
  fs::rename(c.files[0], s.Path("db/RENAMED.DAT"));
  const RunResult renamed = RunByteturn({"RENAMED.DAT"}, "", c.dir, UnderTest().exe);
  fs::rename(s.Path("db/RENAMED.DAT"), c.files[0]);
  EXPECT_EQ(renamed.status, 1);
  EXPECT_NE(renamed.err.find("byteturn-recover"), std::string::npos) << renamed.err;
  ExpectUnchanged(c, before);
  FinishAndExpectTwin(c);
}

// BYTETURN_JOURNAL names the journal's directory, or turns it off; a refused run leaves none.
// The main file's mark leads a later command to the journal without the variable (a new shell).
TEST(Journal, TheVariableChoosesWhereTheJournalLies) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  fs::create_directories(s.Path("elsewhere"));
  const std::string elsewhere = "BYTETURN_JOURNAL='" + Shown(s.Path("elsewhere")) + "' ";
  CutHalfway(c, "4", elsewhere);
  EXPECT_FALSE(Exists(c.journal));
  std::vector<std::string> journals;
  for (const auto& entry : fs::directory_iterator(s.Path("elsewhere"))) journals.push_back(entry.path().filename().string());
  ASSERT_EQ(journals.size(), 1u);
  EXPECT_TRUE(journals[0].starts_with("ORVA.DAT.") && journals[0].ends_with(".journal")) << journals[0];
  for (const std::string& environment : {elsewhere, std::string()}) {
    const RunResult refused = Convert(c, UnderTest().exe, environment);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("An interrupted conversion left its journal " + Shown(s.Path("elsewhere/" + journals[0])) +
                               ": finish it with byteturn-recover ORVA.DAT."),
              std::string::npos)
        << refused.err;
  }
  const RunResult r = Recover(c);  // without the variable
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_FALSE(Exists(s.Path("elsewhere/" + journals[0])));
  ExpectTwin(c);

  // A journal whose full path is too long for the mark: the file is marked all the same, naming no
  // journal; without the variable byteturn sends the operator to the place beside the file, and
  // the recovery finds the journal where the variable says. (Windows paths do not reach that far.)
  if (!UnderTest().windows) {
    Reset(c);
    std::string deep = s.Path("elsewhere");
    while (deep.size() < 600) deep += Sep() + std::string(60, 'd');
    fs::create_directories(deep);
    const std::string far = "BYTETURN_JOURNAL='" + deep + "' ";
    CutHalfway(c, "5", far);
    EXPECT_EQ(fs::file_size(c.files[0]), fs::file_size(c.pristine[0]) + bt::journal::kMarkBytes) << "the mark";
    const RunResult refused = Convert(c, UnderTest().exe, "");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("An interrupted conversion left a journal whose path is too long for the mark of "
                               "ORVA.DAT: put the journal beside it as ORVA.DAT.journal, or name its directory in "
                               "BYTETURN_JOURNAL"),
              std::string::npos)
        << refused.err;
    const RunResult r = Recover(c, far);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    ExpectTwin(c);
    // A database moved with its journal to where the journal's path no longer fits in the mark:
    // the recovery marks on naming none, and cuts the mark off at its end.
    Reset(c);
    CutHalfway(c, "7");
    const std::string moved = deep + Sep() + "db";
    fs::rename(c.dir, moved);
    const RunResult m = RunByteturn({"ORVA.DAT"}, c.answers, moved, UnderTest().recoverExe);
    EXPECT_EQ(m.status, 0) << m.out << m.err;
    fs::rename(moved, c.dir);
    ExpectTwin(c);
  }

  // Off: no journal, the run as without the journal.
  Reset(c);
  ASSERT_EQ(Convert(c, UnderTest().faultsExe, "BYTETURN_JOURNAL=off " + kSmallGroups + "BYTETURN_POWERCUT=40:1").status, 99);
  EXPECT_FALSE(Exists(c.journal));
  EXPECT_FALSE(FilesEqual(c.files, c.pristine)) << "written without a journal";
  // A run refused before its first write (wrong order asked) leaves no journal.
  Reset(c);
  const RunResult wrongOrder = RunByteturn({"-b", "ORVA.DAT"}, "", c.dir, UnderTest().exe);
  EXPECT_EQ(wrongOrder.status, 1) << wrongOrder.out;
  EXPECT_FALSE(Exists(c.journal));
  EXPECT_TRUE(FilesEqual(c.files, c.pristine));
}

// A group's limit halves while its flushes cost little against the time the group took to
// gather (in memory), but never below its floor of 1 MiB: a run left to choose its limit makes no
// more writes and flushes than one whose groups are held at the floor (where flushes cost much,
// fewer). A limit let below its floor would make the groups ever smaller, each with its record and
// its three flushes. The scratch directory is in memory unless TMPDIR names another.
TEST(Journal, GroupsDoNotShrinkBelowTheirFloor) {
  Scratch s;
  gendb::Params p;
  p.seed = 23;
  p.lastBlock = 1500;  // 12 MiB of 8192-byte blocks: dozens of groups at the floor
  Generate(p, s.Path("pristine.dat"));
  fs::create_directories(s.Path("db"));
  std::uint64_t operations[2] = {};
  const std::string limits[] = {"", "BYTETURN_GROUP_BYTES=262144 "};
  for (int k = 0; k < 2; ++k) {
    fs::copy_file(s.Path("pristine.dat"), s.Path("db/ORVA.DAT"), fs::copy_options::overwrite_existing);
    const RunResult r =
        RunByteturn({"-t", "ORVA.DAT"}, "", s.Path("db"), UnderTest().faultsExe, limits[k] + "BYTETURN_POWERCUT=1000000");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    operations[k] = OperationsOf(r);
  }
  EXPECT_GT(operations[1], 0u);
  EXPECT_LE(operations[0], operations[1]) << "writes, flushes and renames: the run's own limit, then the floor held";
}

// A volume set's recovery opens its volumes where the run found them, without asking; a volume
// that is missing, or another file in its place, is named, and nothing changes.
TEST(Journal, AVolumeSetIsFinishedWhereItsVolumesAre) {
  Scratch s;
  const Case c = Prepare(s, SmallSet());
  CutHalfway(c);
  // A volume given instead of the main file has nothing to finish, and is told so.
  const RunResult given = RunByteturn({Shown(c.files[2])}, "", c.dir, UnderTest().recoverExe);
  EXPECT_EQ(given.status, 1);
  EXPECT_NE(given.err.find("ORVA-0002.VOL begins as a volume file does: to finish a database's run, give byteturn-recover "
                           "its main file."),
            std::string::npos)
      << given.err;
  // byteturn refuses it as interrupted, without asking about its volumes (in either order now).
  const RunResult again = Convert(c, UnderTest().exe, "");
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("finish it with byteturn-recover ORVA.DAT."), std::string::npos) << again.out << again.err;
  EXPECT_EQ(again.out.find("Are volumes in their expected locations?"), std::string::npos) << again.out;
  const std::string volume = c.files[1];  // in more/
  ASSERT_NE(volume.find("more"), std::string::npos);
  fs::rename(volume, s.Path("away.vol"));
  const Snapshot before = [&] {
    Snapshot b{{}, ReadBytes(c.journal)};
    for (const std::string& f : {c.files[0], c.files[2]}) b.files.push_back(ReadBytes(f));
    return b;
  }();
  const RunResult missing = Recover(c, "", "");
  EXPECT_EQ(missing.status, 1) << missing.out << missing.err;
  EXPECT_NE(missing.err.find("ORVA-0001.VOL"), std::string::npos) << missing.err;
  EXPECT_EQ(missing.out.find("Are volumes in their expected locations?"), std::string::npos) << missing.out;
  // The volume as it was before the run (a backup) in its place is refused; a copy of it as the
  // run left it (moved to another disk, say) is the volume.
  fs::copy_file(c.pristine[1], volume);
  const RunResult backup = Recover(c, "", "");
  EXPECT_EQ(backup.status, 1);
  EXPECT_NE(backup.err.find(Shown(volume) + " is not as the interrupted run left it: block #"), std::string::npos)
      << backup.err;
  EXPECT_TRUE(ReadBytes(c.files[0]) == before.files[0] && ReadBytes(c.files[2]) == before.files[1]);
  EXPECT_TRUE(ReadBytes(c.journal) == before.journal);
  fs::remove(volume);
  fs::copy_file(s.Path("away.vol"), volume);
  // The volume the run had not reached, converted since from its first block on (or swapped, or
  // another database's): its volume info block tells, and nothing is changed; as the run left it,
  // it is converted.
  const bt::journal::Found found = FoundIn(before.journal);
  ASSERT_LT(found.Earliest().resumeBlock, bt::LoadBE64(ReadBytes(c.pristine[2]).data() + 56)) << "the last volume reached";
  const std::vector<std::uint8_t> left = ReadBytes(c.files[2]);
  const std::vector<std::uint8_t> twin = ReadBytes(c.twin[2]);
  WriteBytes(c.files[2], 0, std::vector<std::uint8_t>(twin.begin(), twin.begin() + gendb::GeometryFor(c.params.sizeCode).blockSize));
  const RunResult ahead = Recover(c, "", "");
  EXPECT_EQ(ahead.status, 1);
  EXPECT_NE(ahead.err.find(Shown(c.files[2]) + " does not hold the volume info block of volume #2 of this database"),
            std::string::npos)
      << ahead.err;
  EXPECT_TRUE(ReadBytes(c.files[0]) == before.files[0] && ReadBytes(c.journal) == before.journal);
  WriteBytes(c.files[2], 0, left);
  // A volume cut short since (its last block, which the run may never read) is refused as it is.
  fs::resize_file(c.files[2], left.size() - gendb::GeometryFor(c.params.sizeCode).blockSize);
  const RunResult cut = Recover(c, "", "");
  EXPECT_EQ(cut.status, 1);
  EXPECT_NE(cut.err.find(Shown(c.files[2]) + " is not as the interrupted run left it: it holds " +
                         std::to_string(left.size() - gendb::GeometryFor(c.params.sizeCode).blockSize) +
                         " bytes, where the run found " + std::to_string(left.size())),
            std::string::npos)
      << cut.err;
  EXPECT_TRUE(ReadBytes(c.files[0]) == before.files[0] && ReadBytes(c.journal) == before.journal);
  WriteBytes(c.files[2], 0, left);
  // A volume that cannot be opened for writing is refused before anything is written.
  const RunResult readOnly = Recover(c, "BYTETURN_FAULTS='openrw:ORVA-0002.VOL:0:EACCES'", "");
  EXPECT_EQ(readOnly.status, 1);
  EXPECT_NE(readOnly.err.find("cannot open " + Shown(c.files[2])), std::string::npos) << readOnly.out << readOnly.err;
  EXPECT_TRUE(ReadBytes(c.files[0]) == before.files[0] && ReadBytes(c.files[1]) == ReadBytes(s.Path("away.vol")));
  const RunResult r = Recover(c, "", "");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  fs::remove(c.lock);
  ExpectTwin(c);

  // A volume put back from a time before its last blocks were written: the last block the run
  // wrote in each volume is checked, whatever the spread sample takes (the main file here, passed
  // long before the run was cut).
  Reset(c);
  const RunResult whole = Convert(c, UnderTest().faultsExe, kSmallGroups + "BYTETURN_POWERCUT=1000000");
  Reset(c);
  ASSERT_EQ(Convert(c, UnderTest().faultsExe,
                    kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(OperationsOf(whole) * 9 / 10) + ":1")
                .status,
            99);
  const std::size_t size = gendb::GeometryFor(c.params.sizeCode).blockSize;
  const std::vector<std::uint8_t> now = ReadBytes(c.files[0]), was = ReadBytes(c.pristine[0]);
  std::size_t last = 0;
  for (std::size_t i = 1; (i + 1) * size <= was.size(); ++i)
    if (!std::equal(was.begin() + i * size, was.begin() + (i + 1) * size, now.begin() + i * size)) last = i;
  ASSERT_NE(last, 0u);
  WriteBytes(c.files[0], last * size, std::vector<std::uint8_t>(was.begin() + last * size, was.begin() + (last + 1) * size));
  const RunResult behind = Recover(c, "", "");
  EXPECT_EQ(behind.status, 1);
  EXPECT_NE(behind.err.find("block #" + std::to_string(last + 1) + " holds other bytes"), std::string::npos) << behind.err;
  WriteBytes(c.files[0], last * size, std::vector<std::uint8_t>(now.begin() + last * size, now.begin() + (last + 1) * size));
  // A block as it was before the run amid converted ones, as in a file put back from a copy taken
  // while the run went on (read in turn, some blocks before the run reached them): every block the
  // run wrote is checked, not only those the journal's last record names.
  const bt::journal::Found nine = FoundIn(ReadBytes(c.journal));
  const std::set<std::pair<std::uint32_t, std::uint64_t>> named = NamedByLastRecord(nine, size);
  std::size_t band = 0;
  for (std::size_t i = 1; i < last && band == 0; ++i)
    if (!named.contains({0, i * size}) && !std::equal(was.begin() + i * size, was.begin() + (i + 1) * size, now.begin() + i * size))
      band = i;
  ASSERT_NE(band, 0u);
  WriteBytes(c.files[0], band * size, std::vector<std::uint8_t>(was.begin() + band * size, was.begin() + (band + 1) * size));
  const RunResult copied = Recover(c, "", "");
  EXPECT_EQ(copied.status, 1);
  EXPECT_NE(copied.err.find("byteturn-recover: ORVA.DAT is not as the interrupted run left it: block #" +
                            std::to_string(band + 1) + " holds other bytes than the run wrote there (the block at byte " +
                            std::to_string(band * size) + " of the file). Put back the files"),
            std::string::npos)
      << copied.err;
  // So is one changed in the top bits of two words 32 bytes apart (which a fingerprint of its
  // words merely added up could not tell).
  std::vector<std::uint8_t> flipped(now.begin() + band * size, now.begin() + (band + 1) * size);
  flipped[1024 + 7] ^= 0x80;
  flipped[1024 + 39] ^= 0x80;
  WriteBytes(c.files[0], band * size, flipped);
  const RunResult bits = Recover(c, "", "");
  EXPECT_EQ(bits.status, 1);
  EXPECT_NE(bits.err.find("block #" + std::to_string(band + 1) + " holds other bytes"), std::string::npos) << bits.err;
  WriteBytes(c.files[0], band * size, std::vector<std::uint8_t>(now.begin() + band * size, now.begin() + (band + 1) * size));
  // So is a block of which the copy took a sector in its middle as it was (read as the write was
  // half made), and, after a cut halfway, a block past the resume point that the run wrote out of turn
  // (a big string that a node before it named: the recovery's run passes it over).
  std::size_t split = 0, sector = 0;
  for (std::size_t i = 1; i < last && split == 0; ++i)
    for (std::size_t at = i * size + 1024; at + 512 < (i + 1) * size && split == 0; at += 512)
      if (!named.contains({0, i * size}) && !std::equal(was.begin() + at, was.begin() + at + 512, now.begin() + at))
        split = i, sector = at;
  ASSERT_NE(split, 0u);
  WriteBytes(c.files[0], sector, std::vector<std::uint8_t>(was.begin() + sector, was.begin() + sector + 512));
  const RunResult torn = Recover(c, "", "");
  EXPECT_EQ(torn.status, 1);
  EXPECT_NE(torn.err.find("block #" + std::to_string(split + 1) + " holds other bytes"), std::string::npos) << torn.err;
  WriteBytes(c.files[0], split * size, std::vector<std::uint8_t>(now.begin() + split * size, now.begin() + (split + 1) * size));
  const bt::journal::Found midway = FoundIn(CutHalfway(c));
  const std::set<std::pair<std::uint32_t, std::uint64_t>> recorded = NamedByLastRecord(midway, size);
  std::uint32_t outOfTurn = 0, aheadVolume = 0;
  std::uint64_t aheadAt = 0;
  for (std::uint32_t v = 0; v < c.files.size() && outOfTurn == 0; ++v) {
    const std::vector<std::uint8_t> left = ReadBytes(c.files[v]), before = ReadBytes(c.pristine[v]);
    const std::uint32_t first = v == 0 ? 1 : midway.header.volumes[v].firstBlock;
    for (std::uint64_t at = 0; at + size <= before.size() && outOfTurn == 0; at += size)
      if (first + at / size >= midway.Earliest().resumeBlock && !recorded.contains({v, at}) &&
          !std::equal(before.begin() + at, before.begin() + at + size, left.begin() + at))
        outOfTurn = first + static_cast<std::uint32_t>(at / size), aheadVolume = v, aheadAt = at;
  }
  ASSERT_NE(outOfTurn, 0u) << "a block written out of turn past the resume point";
  const std::vector<std::uint8_t> aheadLeft = ReadBytes(c.files[aheadVolume]), aheadWas = ReadBytes(c.pristine[aheadVolume]);
  WriteBytes(c.files[aheadVolume], aheadAt,
             std::vector<std::uint8_t>(aheadWas.begin() + aheadAt, aheadWas.begin() + aheadAt + size));
  const RunResult passedOver = Recover(c, "", "");
  EXPECT_EQ(passedOver.status, 1);
  EXPECT_NE(passedOver.err.find("block #" + std::to_string(outOfTurn) + " holds other bytes"), std::string::npos)
      << passedOver.err;
  WriteBytes(c.files[aheadVolume], 0, aheadLeft);
  FinishAndExpectTwin(c);

  // The table entries of the groups whose files were flushed before the last commit go to the
  // disk with that commit, and the power may take them: entries left from an earlier write of
  // those blocks do not stop the recovery, as the record names the blocks whole. (Not every commit
  // has files flushed before it: the cut is moved on until one does.)
  Scratch t;
  const Case one = Prepare(t, Rich());
  std::size_t stale = 0;
  for (std::size_t later = 0; later < 64 && stale == 0; later += 4) {
    const bt::journal::Found half = FoundIn(CutHalfway(one, "1", "", later));
    for (const bt::journal::Check& check : half.Latest().landed) {
      if (check.volume != 0) continue;
      WriteBytes(one.journal, bt::journal::kTableOffset + 2 * (check.position / size + 1), {0x5A, 0xA5});
      ++stale;
    }
  }
  ASSERT_NE(stale, 0u);
  FinishAndExpectTwin(one);
}

namespace {

RunResult RecoverAt(const Case& c, const std::string& cwd, const std::string& file, const std::string& environment = "") {
  return RunByteturn({file}, c.answers, cwd, environment.empty() ? UnderTest().recoverExe : UnderTest().recoverFaultsExe,
                     environment);
}

std::uint64_t RecoveryOperations(const Case& c) {
  const RunResult full = Recover(c, kSmallGroups + "BYTETURN_POWERCUT=1000000");
  EXPECT_EQ(full.status, 0) << full.out << full.err;
  return OperationsOf(full);
}

void Restore(const Case& c, const Snapshot& snapshot) {
  for (std::size_t v = 0; v < c.files.size(); ++v) {
    fs::remove(c.files[v]);
    WriteBytes(c.files[v], 0, snapshot.files[v]);
  }
  fs::remove(c.journal);
  WriteBytes(c.journal, 0, snapshot.journal);
}

}  // namespace

// A backup of the database from before the run copied over the main file (same file) or in as a
// new file: byteturn and byteturn-check refuse it while the journal is there, and the recovery
// refuses it with nothing changed, telling it as the database before the run; done as it says,
// byteturn converts it. Files and journal from two points of one run (a recovery cut further on):
// either way round, refused with nothing changed.
TEST(Journal, FilesOrAJournalPutBackFromAnotherTimeAreRefused) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  for (const bool newFile : {false, true}) {
    SCOPED_TRACE(newFile ? "the backup copied in as a new file" : "the backup copied over the file");
    CutHalfway(c);
    if (newFile) fs::remove(c.files[0]);
    CopyFiles(c.pristine, c.files);
    const Snapshot before = Take(c);
    for (const std::string& exe : {UnderTest().exe, UnderTest().checkExe}) {
      fs::remove(c.lock);
      const RunResult refused = Convert(c, exe, "");
      EXPECT_EQ(refused.status, 1);
      EXPECT_NE(refused.err.find("finish it with byteturn-recover ORVA.DAT."), std::string::npos) << refused.err;
    }
    WriteBytes(c.lock, 0, {'\t', 's', 'e', 'a', 'l', 't', 'u', 'r', 'n'});
    const RunResult r = Recover(c);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("byteturn-recover: ORVA.DAT is not as the interrupted run left it: block #"), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find(", the label block among them) holds what it held before the run, as in a database restored "
                         "from a backup taken before it: if that is what it is, remove the journal ORVA.DAT.journal and "
                         "the lock " + Shown(c.lock) + " and run byteturn again. If the database that run converted was "
                         "moved or copied elsewhere, it bears the run's mark: finish it there with byteturn-recover "
                         "before removing anything, as only this journal can. Nothing was changed."),
              std::string::npos)
        << r.err;
    ExpectUnchanged(c, before);
    fs::remove(c.journal);
    fs::remove(c.lock);
    const RunResult again = Convert(c, UnderTest().exe, "");
    EXPECT_EQ(again.status, 0) << again.out << again.err;
    ExpectTwin(c);
  }
  {
    // A volume set restored whole, cut in a later volume than the main file: the last block the
    // run wrote in the main file, settled before the cut, is told as it was before the run too.
    Scratch t;
    const Case set = Prepare(t, SmallSet());
    CutHalfway(set, "1", "", 200);
    CopyFiles(set.pristine, set.files);
    const RunResult r = Recover(set);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find(", the label block among them) holds what it held before the run"), std::string::npos) << r.err;
  }
  // One run: cut halfway (a), then its recovery cut three quarters on (b).
  CutHalfway(c);
  const Snapshot a = Take(c);
  const std::uint64_t operations = RecoveryOperations(c);
  Restore(c, a);
  const RunResult cut = Recover(c, kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(operations * 3 / 4) + ":5");
  ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
  const Snapshot b = Take(c);
  const auto mixed = [](const Snapshot& files, const Snapshot& journal) { return Snapshot{files.files, journal.journal}; };
  // The journal as it was before the run's first commit: its commit sectors name none.
  Snapshot uncommitted = a;
  const bt::journal::Commit none{FoundIn(a.journal).header.runId, 0, 1, {}};
  for (std::size_t k = 0; k < 2; ++k)
    bt::journal::EncodeCommit(none, uncommitted.journal.data() + bt::journal::kCommitOffset + k * bt::journal::kCommitBytes);
  const std::string older = "byteturn-recover: the journal ORVA.DAT.journal is older than ORVA.DAT: the run went on past it";
  for (const auto& [name, snapshot, told] :
       {std::tuple{"the files rolled back", mixed(a, b), std::string(" is not as the interrupted run left it")},
        std::tuple{"the journal rolled back", mixed(b, a), older},
        std::tuple{"the journal from before the first commit", uncommitted, older + " (its files hold group #"}}) {
    SCOPED_TRACE(name);
    Restore(c, snapshot);
    const RunResult r = Recover(c);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find(told), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Nothing was changed."), std::string::npos) << r.err;
    ExpectUnchanged(c, snapshot);
  }
  Restore(c, b);
  FinishAndExpectTwin(c);
}

// Two databases, both ORVA.DAT, journaled in one directory and cut at the same time: each has its
// own journal there, and each recovery gives its own twin. A run of one beside the other's
// journal goes on, and leaves that journal as it was.
TEST(Journal, DatabasesThatShareAJournalDirectoryKeepTheirOwn) {
  Scratch s, t;
  gendb::Params second = Rich();
  second.seed = 77;
  const Case a = Prepare(s, Rich()), b = Prepare(t, second);
  fs::create_directories(s.Path("journals"));
  const std::string shared = "BYTETURN_JOURNAL='" + Shown(s.Path("journals")) + "' ";
  std::uint64_t operations[2];
  for (int k = 0; k < 2; ++k) {
    const Case& c = k == 0 ? a : b;
    operations[k] = OperationsOf(Convert(c, UnderTest().faultsExe, shared + kSmallGroups + "BYTETURN_POWERCUT=1000000"));
    Reset(c);
  }
  auto cutA = std::async(std::launch::async, [&] {
    return Convert(a, UnderTest().faultsExe, shared + kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(operations[0] / 2) + ":1");
  });
  const RunResult cutB =
      Convert(b, UnderTest().faultsExe, shared + kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(operations[1] / 2) + ":2");
  ASSERT_EQ(cutA.get().status, 99);
  ASSERT_EQ(cutB.status, 99) << cutB.out << cutB.err;
  std::vector<std::string> journals;
  for (const auto& entry : fs::directory_iterator(s.Path("journals"))) journals.push_back(entry.path().string());
  ASSERT_EQ(journals.size(), 2u);
  std::sort(journals.begin(), journals.end());
  const std::vector<std::uint8_t> journalB[2] = {ReadBytes(journals[0]), ReadBytes(journals[1])};
  const RunResult r = Recover(a, shared);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  fs::remove(a.lock);
  ExpectTwin(a);
  const std::size_t left = Exists(journals[0]) ? 0 : 1;
  ASSERT_TRUE(Exists(journals[left]) && !Exists(journals[1 - left]));
  Reset(a);
  const RunResult again = Convert(a, UnderTest().exe, shared);  // beside b's journal
  EXPECT_EQ(again.status, 0) << again.out << again.err;
  ExpectTwin(a);
  EXPECT_TRUE(ReadBytes(journals[left]) == journalB[left]);
  const RunResult rb = Recover(b);  // found through b's mark
  EXPECT_EQ(rb.status, 0) << rb.out << rb.err;
  fs::remove(b.lock);
  ExpectTwin(b);
}

// A database moved with its directory (its lock with it), and another run interrupted since in the
// directory it left: the recovery of the moved one removes the lock beside it and leaves the
// other's, which still guards a half-converted database until its own recovery. Neither a main file
// renamed nor one moved in beside another run's lock changes which lock is whose.
TEST(Journal, ARecoveryRemovesTheLocksOfItsOwnRunOnly) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  CutHalfway(c);
  ASSERT_TRUE(Exists(c.lock));
  const std::vector<std::uint8_t> first = ReadBytes(c.files[0]);
  fs::rename(c.dir, s.Path("moved"));
  fs::create_directories(c.dir);
  CutHalfway(c, "2");
  ASSERT_TRUE(Exists(c.lock));
  ASSERT_FALSE(ReadBytes(c.files[0]) == first);
  const RunResult moved = RecoverAt(c, s.dir, std::string("moved") + Sep() + "ORVA.DAT");
  EXPECT_EQ(moved.status, 0) << moved.out << moved.err;
  EXPECT_TRUE(ReadBytes(s.Path("moved/ORVA.DAT")) == ReadBytes(c.twin[0]));
  EXPECT_FALSE(Exists(s.Path("moved/orva.lck"))) << "the lock that moved with the database";
  EXPECT_TRUE(Exists(c.lock)) << "the other run's lock";
  // The other run's database moved with its directory and renamed; a third run's main file moved
  // into that directory, renamed, without its lock: each recovery removes its own run's lock, in
  // whichever directory it is now, and leaves the other's.
  fs::rename(c.dir, s.Path("renamed"));
  fs::rename(s.Path("renamed/ORVA.DAT"), s.Path("renamed/Zdata.dat"));
  Scratch t;
  const Case x = Prepare(t, Rich());
  CutHalfway(x);
  ASSERT_TRUE(Exists(x.lock));
  fs::rename(x.files[0], s.Path("renamed/Data.dat"));
  const RunResult third = RecoverAt(x, s.dir, std::string("renamed") + Sep() + "Data.dat");
  EXPECT_EQ(third.status, 0) << third.out << third.err;
  EXPECT_TRUE(ReadBytes(s.Path("renamed/Data.dat")) == ReadBytes(x.twin[0]));
  EXPECT_FALSE(Exists(x.lock)) << "the lock the third run took";
  EXPECT_TRUE(Exists(s.Path("renamed/orva.lck"))) << "the other run's lock";
  EXPECT_NE(third.err.find(std::string("byteturn-recover: the lock renamed") + Sep() + "orva.lck stays: it is not the one the interrupted run took"),
            std::string::npos)
      << third.err;
  const RunResult other = RecoverAt(c, s.dir, std::string("renamed") + Sep() + "Zdata.dat");
  EXPECT_EQ(other.status, 0) << other.out << other.err;
  EXPECT_TRUE(ReadBytes(s.Path("renamed/Zdata.dat")) == ReadBytes(c.twin[0]));
  EXPECT_FALSE(Exists(s.Path("renamed/orva.lck"))) << "the lock that moved with the renamed database";
  EXPECT_EQ(other.err, "");

  // A lock file with the index the run's lock had, changed at another time: the system gives a
  // removed file's index to a later one, another run's lock say. It stays.
  Scratch u;
  const Case y = Prepare(u, Rich());
  CutHalfway(y);
  fs::last_write_time(y.lock, fs::last_write_time(y.lock) - std::chrono::hours(1));
  const RunResult reused = Recover(y);
  EXPECT_EQ(reused.status, 0) << reused.out << reused.err;
  EXPECT_TRUE(Exists(y.lock));
  EXPECT_NE(reused.err.find(" stays: it is not the one the interrupted run took (another run's, or a copy). Remove it once "
                            "nothing uses the database beside it.\n"),
            std::string::npos)
      << reused.err;
}

// The main file moved to another directory as a new file (as to another disk), and the commands
// typed in a new shell without BYTETURN_JOURNAL, from another directory: byteturn and
// byteturn-check refuse it, naming the journal; the recovery finds the journal and finishes, and
// removes the lock the run left beside the old place. A volume set's recovery from another
// directory finds its volumes.
TEST(Journal, AMovedDatabaseIsFinishedFromAnyDirectory) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  for (const char* dir : {"elsewhere", "moved", "copy"}) fs::create_directories(s.Path(dir));
  const std::string elsewhere = "BYTETURN_JOURNAL='" + Shown("../elsewhere") + "' ";  // from db/
  CutHalfway(c, "6", elsewhere);
  // A copy recovered first would take the original's journal: refused while the original is there.
  fs::copy_file(c.files[0], s.Path("copy/ORVA.DAT"));
  const Snapshot before = Take(c);
  const RunResult copy = RecoverAt(c, s.dir, std::string("copy") + Sep() + "ORVA.DAT");
  EXPECT_EQ(copy.status, 1) << copy.out << copy.err;
  EXPECT_NE(copy.err.find(std::string("copy") + Sep() + "ORVA.DAT is a copy of " + Shown(c.files[0]) + ", whose interrupted run the journal "),
            std::string::npos)
      << copy.err;
  ExpectUnchanged(c, before);
  EXPECT_TRUE(Exists(c.lock));
  EXPECT_FALSE(fs::is_empty(s.Path("elsewhere")));
  const std::string moved = s.Path("moved/ORVA.DAT");
  fs::copy_file(c.files[0], moved);
  fs::remove(c.files[0]);
  for (const std::string& exe : {UnderTest().exe, UnderTest().checkExe}) {
    const RunResult refused = RunByteturn({"ORVA.DAT"}, "", s.Path("moved"), exe);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("An interrupted conversion left its journal " + Shown(s.Path("elsewhere/ORVA.DAT."))),
              std::string::npos)
        << refused.err;
  }
  // A backup put where the database was: its recovery finds the journal under that place's name,
  // refuses, and says that a database moved elsewhere is to be finished first.
  fs::copy_file(c.pristine[0], c.files[0]);
  const RunResult backup = Recover(c, elsewhere);
  EXPECT_EQ(backup.status, 1);
  EXPECT_NE(backup.err.find("If the database that run converted was moved or copied elsewhere, it bears the run's "
                            "mark: finish it there with byteturn-recover before removing anything"),
            std::string::npos)
      << backup.err;
  fs::remove(c.files[0]);
  const RunResult r = RecoverAt(c, s.dir, std::string("moved") + Sep() + "ORVA.DAT");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_FALSE(Exists(c.lock)) << "the lock the run took";
  EXPECT_TRUE(fs::is_empty(s.Path("elsewhere")));
  fs::rename(moved, c.files[0]);
  ExpectTwin(c);

  Scratch t;
  const Case v = Prepare(t, SmallSet());
  CutHalfway(v);
  const RunResult rv = RecoverAt(v, t.dir, std::string("db") + Sep() + "ORVA.DAT");
  EXPECT_EQ(rv.status, 0) << rv.out << rv.err;
  ExpectTwin(v);
}

// A volume set whose further volume lies beside the main file's directory, not under it, moved with
// it once its run was cut: the recovery finds the volume where it lies beside the main file now,
// and refuses while a copy lies where the run found it too (the backup put back there).
TEST(Journal, AVolumeBesideTheMainDirectoryIsFoundWhereItMoved) {
  Scratch s;
  gendb::Params p = SmallSet();
  p.volumeSet.directories = p.volumeSet.storedList = {"../more/"};
  for (const char* copy : {"run", "backup", "twin"})
    for (const char* dir : {"/db", "/more"}) fs::create_directories(s.Path(std::string(copy) + dir));
  Generate(p, s.Path("run/db/ORVA.DAT"));
  Generate(p, s.Path("backup/db/ORVA.DAT"));
  Generate(TwinOf(p), s.Path("twin/db/ORVA.DAT"));
  const RunResult cut = RunByteturn({"ORVA.DAT"}, "yes\n", s.Path("run/db"), UnderTest().faultsExe,
                                    kSmallGroups + "BYTETURN_POWERCUT=40:1");
  ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
  fs::rename(s.Path("run"), s.Path("moved"));
  fs::create_directories(s.Path("run"));
  fs::copy(s.Path("backup/more"), s.Path("run/more"));
  const RunResult refused = RunByteturn({"ORVA.DAT"}, "", s.Path("moved/db"), UnderTest().recoverExe);
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("volumes in " + Shown(s.Path("run/more")) + Sep() + " are there and also in " +
                             Shown(s.Path("moved/more")) + Sep()),
            std::string::npos)
      << refused.err;
  fs::remove_all(s.Path("run"));
  // The main file's directory moved alone, beside the volume's: that volume must be the run's own
  // file, not a copy put in its place.
  fs::create_directories(s.Path("run"));
  fs::rename(s.Path("moved/db"), s.Path("run/db"));
  fs::rename(s.Path("moved/more"), s.Path("run/more"));
  fs::rename(s.Path("run/db"), s.Path("run/db2"));
  const std::string volume = s.Path("run/more/ORVA-0001.VOL");
  fs::rename(volume, s.Path("aside.vol"));
  fs::copy_file(s.Path("backup/more/ORVA-0001.VOL"), volume);
  const RunResult copy = RunByteturn({"ORVA.DAT"}, "", s.Path("run/db2"), UnderTest().recoverExe);
  EXPECT_EQ(copy.status, 1);
  EXPECT_NE(copy.err.find(Shown(volume) + " is not the file the interrupted run converted there"), std::string::npos)
      << copy.err;
  fs::remove(volume);
  fs::rename(s.Path("aside.vol"), volume);
  fs::rename(s.Path("run/db2"), s.Path("run/db"));
  fs::rename(s.Path("run"), s.Path("moved"));
  // A link left where the files were leads to the same files: not two places.
  if (!UnderTest().windows) fs::create_directory_symlink(s.Path("moved"), s.Path("run"));
  const RunResult r = RunByteturn({"ORVA.DAT"}, "", s.Path("moved/db"), UnderTest().recoverExe);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  const std::vector<std::string> files = gendb::DatabaseFiles(p, s.Path("moved/db/ORVA.DAT")),
                                  twin = gendb::DatabaseFiles(p, s.Path("twin/db/ORVA.DAT"));
  for (std::size_t v = 0; v < files.size(); ++v)
    EXPECT_EQ(gendb::CompareFiles(files[v], twin[v], gendb::GeometryFor(p.sizeCode).blockSize), "") << v;
}

// A main file shorter than a block the run converts: the run stops at its read, as without the
// journal, and bears the mark at the file's end. Its missing bytes put back in their places (over
// the mark), the recovery finishes it without the mark, as a run of an earlier version left such a
// file, instead of taking the missing mark for a run complete; appended after the mark, they are
// refused.
TEST(Journal, AShortMainFileGivenBackItsBlocksIsFinished) {
  Scratch s;
  gendb::Params p;
  p.seed = 7;
  p.lastBlock = 3000;
  p.freeShare = 0.6;
  Generate(p, s.Path("whole.dat"));
  Generate(TwinOf(p), s.Path("twin.dat"));
  const std::uint64_t size = 2998 * 8192 + 5000;
  fs::create_directories(s.Path("db"));
  fs::copy_file(s.Path("whole.dat"), s.Path("db/ORVA.DAT"));
  fs::resize_file(s.Path("db/ORVA.DAT"), size);
  // Its journal lies beside it, wherever BYTETURN_JOURNAL sends others: a repair of its missing
  // blocks writes over the mark, which then names it no more.
  fs::create_directories(s.Path("elsewhere"));
  const RunResult run = RunByteturn({"-t", "ORVA.DAT"}, "", s.Path("db"), "", "BYTETURN_JOURNAL=" + Shown(s.Path("elsewhere")));
  ASSERT_EQ(run.status, 1) << run.out << run.err;
  EXPECT_NE(run.out.find("Error read block #2999."), std::string::npos) << run.out;
  EXPECT_TRUE(Exists(s.Path("db/ORVA.DAT.journal")));
  EXPECT_TRUE(fs::is_empty(s.Path("elsewhere")));
  // The missing bytes appended after the mark, not put in their places: refused, nothing changed.
  const std::vector<std::uint8_t> missing = ReadBytes(s.Path("whole.dat"), size);
  WriteBytes(s.Path("db/ORVA.DAT"), size + 4096, missing);
  const RunResult appended = RunByteturn({"ORVA.DAT"}, "", s.Path("db"), UnderTest().recoverExe);
  EXPECT_EQ(appended.status, 1);
  EXPECT_NE(appended.err.find("ORVA.DAT bears the interrupted run's mark at byte " + std::to_string(size)),
            std::string::npos)
      << appended.err;
  EXPECT_EQ(fs::file_size(s.Path("db/ORVA.DAT")), size + 4096 + missing.size());
  fs::resize_file(s.Path("db/ORVA.DAT"), size + 4096);
  WriteBytes(s.Path("db/ORVA.DAT"), size, missing);
  const RunResult r = RunByteturn({"ORVA.DAT"}, "", s.Path("db"), UnderTest().recoverExe);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(gendb::CompareFiles(s.Path("db/ORVA.DAT"), s.Path("twin.dat"), 8192), "");
}

// A run cut while it made its journal leaves it under its temporary name, and its lock: the
// recovery removes both and says so, and byteturn then converts the database; a lock alone is
// left to the operator, and said so. A recovery under a new name of the main file removes the
// lock the run took under the old one. A second run on the file through another name (a link),
// while the first goes on, is refused before it writes anything.
TEST(Journal, WhatARunLeftIsRemovedByItsRecovery) {
  Scratch s;
  const Case c = Prepare(s, Rich());
  // Whether the lock and the journal being made stay depends on the seed (their names were not
  // flushed): cuts at the first writes with several seeds leave them now and then.
  bool removed = false;
  for (std::uint64_t n = 1; n <= 3; ++n)
    for (int seed = 0; seed < 3 && !(removed && Emulated()); ++seed) {  // emulated: until one left something
      SCOPED_TRACE("cut at " + std::to_string(n) + ", seed " + std::to_string(seed));
      Reset(c);
      ASSERT_EQ(Convert(c, UnderTest().faultsExe,
                        kSmallGroups + "BYTETURN_POWERCUT=" + std::to_string(n) + ":" + std::to_string(seed))
                    .status,
                99);
      if (Exists(c.journal)) {
        FinishAndExpectTwin(c);
        continue;
      }
      ASSERT_TRUE(FilesEqual(c.files, c.pristine));
      bool making = false;  // the journal being made: the run wrote nothing
      for (const auto& entry : fs::directory_iterator(c.dir)) making |= entry.path().string().ends_with(".new");
      const bool locked = Exists(c.lock);
      const RunResult r = Recover(c);
      EXPECT_EQ(r.status, making ? 0 : 1) << r.out << r.err;
      if (making) {
        EXPECT_NE(r.err.find("removed what it left: "), std::string::npos) << r.err;
        EXPECT_FALSE(Exists(c.lock));
        removed = true;
      } else if (locked) {  // a lock alone may guard a database whose journal lies elsewhere
        EXPECT_NE(r.err.find("The lock orva.lck stays"), std::string::npos) << r.err;
        EXPECT_TRUE(Exists(c.lock));
        fs::remove(c.lock);
      }
      for (const auto& entry : fs::directory_iterator(c.dir)) EXPECT_FALSE(entry.path().string().ends_with(".new"));
      const RunResult again = Convert(c, UnderTest().exe, "");
      EXPECT_EQ(again.status, 0) << again.out << again.err;
      ExpectTwin(c);
    }
  EXPECT_TRUE(removed) << "no cut left anything to remove";
  Reset(c);
  // The link in another directory: the refused run leaves no lock of its own there either.
  fs::create_directories(s.Path("link"));
  fs::create_hard_link(c.files[0], s.Path("link/ORVA.DAT"));
  auto first = std::async(std::launch::async, [&] {
    return Convert(c, UnderTest().faultsExe, "BYTETURN_FAULTS='write:ORVA.DAT:" + std::to_string(300 * 4096) + ":slow'");
  });
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const RunResult second = RunByteturn({"ORVA.DAT"}, "", s.Path("link"), UnderTest().exe);
  EXPECT_EQ(second.status, 1) << second.out << second.err;
  EXPECT_EQ(second.err, "ORVA.DAT is in use by another run of byteturn.\n");
  EXPECT_FALSE(Exists(s.Path("link/orva.lck")));
  // A report meanwhile tells the run going on, not an interrupted one.
  const RunResult report = RunByteturn({"-r", "ORVA.DAT"}, "", s.Path("link"), UnderTest().exe);
  EXPECT_EQ(report.status, 1);
  EXPECT_EQ(report.err, "ORVA.DAT is in use by another run of byteturn.\n");
  EXPECT_EQ(first.get().status, 0);
  fs::remove(s.Path("link/ORVA.DAT"));
  ExpectTwin(c);
  CutHalfway(c);
  fs::rename(c.files[0], s.Path("db/OTHER.DAT"));
  const RunResult r = RunByteturn({"OTHER.DAT"}, c.answers, c.dir, UnderTest().recoverExe);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_FALSE(Exists(c.lock));
  fs::rename(s.Path("db/OTHER.DAT"), c.files[0]);
  ExpectTwin(c);
}

// A main file shorter than its blocks (its last block free) bears the run's mark too: moved to
// another directory once the run was cut, byteturn and byteturn-check refuse it there as they
// refuse any other, and the recovery finishes it.
TEST(Journal, AShortMainFileBearsTheMarkToo) {
  Scratch s;
  gendb::Params p;
  p.seed = 3;
  p.freeShare = 0.5;
  p.mix = gendb::Mix{1, 0, 0, 0, 3, 0, 0};
  const std::uint64_t size = std::uint64_t{p.lastBlock - 1} * gendb::GeometryFor(p.sizeCode).blockSize;
  const Case c = Prepare(s, p, [&](const std::string& dir) { fs::resize_file(dir + "/ORVA.DAT", size); });
  CutHalfway(c);
  EXPECT_EQ(fs::file_size(c.files[0]), size + 4096);
  fs::create_directories(s.Path("moved"));
  fs::rename(c.files[0], s.Path("moved/ORVA.DAT"));
  for (const std::string& exe : {UnderTest().exe, UnderTest().checkExe}) {
    const RunResult refused = RunByteturn({"ORVA.DAT"}, "", s.Path("moved"), exe);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("An interrupted conversion left its journal"), std::string::npos) << refused.err;
  }
  fs::rename(s.Path("moved/ORVA.DAT"), c.files[0]);
  FinishAndExpectTwin(c);
  // A journal of version 11, whose run left such a file unmarked, is recovered as it was.
  CutHalfway(c);
  ASSERT_TRUE(Unmark(c.files[0]));
  std::vector<std::uint8_t> journal = ReadBytes(c.journal);
  bt::journal::Header header;
  std::string why;
  ASSERT_TRUE(bt::journal::DecodeHeader(journal.data(), journal.size(), header, why)) << why;
  const std::size_t sum = bt::journal::EncodeHeader(header).size() - 8;
  bt::StoreLE32(journal.data() + 8, 11);
  bt::StoreLE64(journal.data() + sum, bt::journal::ChecksumOf(journal.data(), sum));
  // Its table holds the fingerprints of its version, of the blocks the files hold.
  const std::uint32_t blockSize = gendb::GeometryFor(p.sizeCode).blockSize;
  const std::vector<std::uint8_t> held = ReadBytes(c.files[0]);
  for (std::uint64_t b = 1; b < header.tableBlocks && b * blockSize <= size; ++b) {
    std::uint8_t* entry = journal.data() + bt::journal::kTableOffset + 2 * b;
    if (bt::LoadLE16(entry) != 0) bt::StoreLE16(entry, bt::journal::Fingerprint(&held[(b - 1) * blockSize], blockSize, 11));
  }
  WriteBytes(c.journal, 0, journal);
  FinishAndExpectTwin(c);
  EXPECT_EQ(fs::file_size(c.files[0]), size);
}

// A run of c's database started from the directory above it, its writes to the main file slowed
// from byte slowFrom on, once it has marked its file (of size bytes before): its journal and its
// lock are taken, its writes not done.
std::future<RunResult> RunFromAboveAndAwaitMark(const Scratch& s, const Case& c, std::uintmax_t size,
                                                std::uint64_t slowFrom) {
  std::future<RunResult> run = std::async(std::launch::async, [&s, &c, slowFrom] {
    return RunByteturn({std::string("db") + Sep() + "ORVA.DAT"}, c.answers, s.dir, UnderTest().faultsExe,
                       "BYTETURN_FAULTS='write:ORVA.DAT:" + std::to_string(slowFrom) + ":slow'");
  });
  for (int wait = 0; wait < 3000 && fs::file_size(c.files[0]) == size; ++wait)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return run;
}

// A run whose database's directory is moved away while it goes on (the operator took it for dead
// and put the backup back in its place), started from the directory above, leaves the journal and the lock now under their names, another run's,
// as they are: its own went with the directory, where its database is converted and unmarked.
TEST(Journal, ARunMovedAwayLeavesWhatWasPutInItsPlace) {
  if (UnderTest().windows) GTEST_SKIP() << "a directory whose files are open cannot be moved";
  Scratch s;
  const Case c = Prepare(s, Rich());
  const std::uintmax_t size = fs::file_size(c.files[0]);
  const std::vector<std::uint8_t> journal{'n', 'e', 'w'}, lock{'l', 'o', 'c', 'k'};
  for (const bool put : {true, false}) {
    SCOPED_TRACE(put ? "another run's files put in its place" : "nothing put in its place");
    Reset(c);
    std::future<RunResult> run = RunFromAboveAndAwaitMark(s, c, size, 300 * 4096);
    fs::rename(c.dir, s.Path("moved"));
    fs::create_directories(c.dir);
    if (put) {
      CopyFiles(c.pristine, c.files);
      WriteBytes(c.journal, 0, journal);
      WriteBytes(c.lock, 0, lock);
    }
    const RunResult r = run.get();
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(Exists(c.journal) && ReadBytes(c.journal) == journal, put);
    EXPECT_EQ(Exists(c.lock) && ReadBytes(c.lock) == lock, put);
    const std::string moved = s.Path("moved/ORVA.DAT");
    EXPECT_EQ(gendb::CompareFiles(moved, c.twin[0], gendb::GeometryFor(c.params.sizeCode).blockSize), "");
    EXPECT_EQ(fs::file_size(moved), size);
    // Its own journal and lock went with the directory: removed there, as they would have been here.
    EXPECT_FALSE(Exists(s.Path("moved/ORVA.DAT.journal")));
    EXPECT_FALSE(Exists(s.Path("moved/orva.lck")));
    fs::remove_all(c.dir);
    fs::rename(s.Path("moved"), c.dir);
  }
}

// The same for a volume set, whose further volumes the run opens when it comes to them: the copy
// put in its place is not the run's, so the run ends before it reads or writes it, the copy as it
// was, and the recovery finishes the files the run began with, where they now lie.
TEST(Journal, ARunMovedAwayDoesNotGoOnInTheCopyPutInItsPlace) {
  if (UnderTest().windows) GTEST_SKIP() << "a directory whose files are open cannot be moved";
  Scratch s;
  gendb::Params p = SmallSet();  // every volume beside the main file
  p.volumeSet.directories.clear();
  p.volumeSet.storedList.clear();
  p.volumeSet.placement = {0, 0};
  const Case c = Prepare(s, p);
  const std::uintmax_t size = fs::file_size(c.files[0]);
  std::future<RunResult> run = RunFromAboveAndAwaitMark(s, c, size, 100 * 4096);
  fs::rename(c.dir, s.Path("moved"));
  for (const std::string& file : c.files) fs::create_directories(fs::path(file).parent_path());
  CopyFiles(c.pristine, c.files);
  const RunResult r = run.get();
  EXPECT_EQ(r.status, 1) << r.out << r.err;
  EXPECT_NE(r.out.find(std::string("is not the file this run began with: db") + Sep()), std::string::npos) << r.out;
  EXPECT_TRUE(FilesEqual(c.files, c.pristine));
  EXPECT_FALSE(Exists(c.journal));
  fs::remove_all(c.dir);
  fs::rename(s.Path("moved"), c.dir);
  FinishAndExpectTwin(c);
}

namespace {

// A volume set whose further volume is the main file itself. The volume set's check takes it only
// where the main file's first block, the label block, is also that volume's volume info block:
// the label's bytes 4 to 83 are none of its fields, and are given the type and the fields of the
// volume's own first block. Only one volume can be named there, so only one can be the main file.
// Other ways to reach one file by two names are refused before anything is written: two further
// volumes that are one file (its first block names one of them), a volume found in two listed
// directories (the primary one listed, or a link to it or to another listed one).
enum class Alias { kHardLink, kSymbolicLink, kMainFileNamedAsVolume };

struct AliasedSet {
  std::string dir, main;  // where the runs start, and the main file's name there
  std::string volume;     // the name of the volume that is the main file
  Alias alias;
  std::vector<std::pair<std::string, std::vector<std::uint8_t>>> files;  // by name: the main file first

  // The files as generated, and the volume made the main file again.
  void Restore() const {
    fs::remove_all(dir);
    for (const auto& [name, bytes] : files) {
      fs::create_directories(fs::path(dir + "/" + name).parent_path());
      WriteBytes(dir + "/" + name, 0, bytes);
    }
    if (alias == Alias::kHardLink) fs::create_hard_link(dir + "/" + main, dir + "/" + volume);
    if (alias == Alias::kSymbolicLink) fs::create_symlink(dir + "/" + main, dir + "/" + volume);
  }
  std::vector<std::vector<std::uint8_t>> Contents() const {
    std::vector<std::vector<std::uint8_t>> contents;
    for (const auto& entry : files) contents.push_back(ReadBytes(dir + "/" + entry.first));
    return contents;
  }
};

// Generates p into s's "db" and makes its volume v the main file.
AliasedSet MakeAliased(const Scratch& s, const gendb::Params& p, unsigned v, Alias alias) {
  AliasedSet a{s.Path("db"), "ORVA.DAT", "", alias, {}};
  for (const std::string& more : p.volumeSet.directories) fs::create_directories(a.dir + "/" + more);
  Generate(p, a.dir + "/ORVA.DAT");
  const std::vector<std::string> paths = gendb::DatabaseFiles(p, a.dir + "/ORVA.DAT");
  const auto name = [&](const std::string& path) { return path.substr(a.dir.size() + 1); };
  a.volume = name(paths[v]);
  std::vector<std::uint8_t> main = ReadBytes(paths[0]);
  const std::vector<std::uint8_t> info = ReadBytes(paths[v], 0, 84);
  std::copy(info.begin() + 4, info.end(), main.begin() + 4);
  if (alias == Alias::kMainFileNamedAsVolume) a.main = a.volume;
  a.files.emplace_back(a.main, main);
  for (std::size_t k = 1; k < paths.size(); ++k)
    if (k != v) a.files.emplace_back(name(paths[k]), ReadBytes(paths[k]));
  for (const std::string& more : p.volumeSet.directories)
    a.files.emplace_back(more + "orva.dbdir", ReadBytes(a.dir + "/" + more + "orva.dbdir"));
  return a;
}

struct AliasedRun {
  RunResult r;
  std::vector<std::vector<std::uint8_t>> contents;
};

// A run of byteturn (or exe) on a's files as generated, answering Yes to the volume question. A
// journaled run that stopped leaves its mark at the end of the main file: it is cut off.
AliasedRun RunAliased(const AliasedSet& a, const std::string& environment, const std::string& exe = "") {
  a.Restore();
  AliasedRun run{RunByteturn({a.main}, "yes\n", a.dir, exe.empty() ? UnderTest().exe : exe, environment), {}};
  Unmark(a.dir + "/" + a.main);
  run.contents = a.Contents();
  return run;
}

// A set of volumes + 1 parts of 300 blocks (the last one block more with longer), volume k in the
// directory placement[k - 1] names, whose volume 1 is to be the main file. No block is free and
// many are big strings: nodes name blocks of the main file both by their own number and by the
// number they have in volume 1, and these are rewritten out of order through both names, by
// conversions that differ (text or 16-bit characters, parts of a vector).
gendb::Params AliasedSetParams(std::uint64_t seed, unsigned volumes, std::vector<unsigned> placement,
                               bool longer = false) {
  gendb::Params p = Rich();
  p.seed = seed;
  p.lastBlock = 300 * (volumes + 1) + (longer ? 1 : 0);
  p.freeShare = 0;
  p.mix = gendb::Mix{6, 8, 0, 1, 0, 0, 1};
  p.volumeSet.volumes = volumes;
  p.volumeSet.directories = {"more/"};
  p.volumeSet.storedList = {"more/"};
  p.volumeSet.placement = std::move(placement);
  return p;
}

}  // namespace

// A set whose further volume is the main file (a hard or symbolic link, or the main file named as
// the volume): the journal's held writes and the reads laid over them go by file, so a run with
// the journal leaves the bytes, the output and the status of a run without it. Where that volume
// claims more blocks than the main file holds, the run stops at the first read past its end in
// both, as the mark at the end of the main file is no block of it.
TEST(Journal, AVolumeThatIsTheMainFileConvertsAsWithoutTheJournal) {
  struct Shape {
    std::string name;
    gendb::Params params;
    Alias alias;
  };
  const Shape shapes[] = {
      {"hard link in another directory", AliasedSetParams(3, 2, {1, 0}), Alias::kHardLink},
      {"symbolic link", AliasedSetParams(1, 1, {0}), Alias::kSymbolicLink},
      {"main file named as the volume", AliasedSetParams(2, 2, {0, 1}), Alias::kMainFileNamedAsVolume},
      {"volume longer than the main file", AliasedSetParams(1, 1, {0}, true), Alias::kHardLink},
  };
  for (const Shape& shape : shapes) {
    SCOPED_TRACE(shape.name);
    Scratch s;
    const AliasedSet a = MakeAliased(s, shape.params, 1, shape.alias);
    const AliasedRun journaled = RunAliased(a, "");
    const AliasedRun off = RunAliased(a, "BYTETURN_JOURNAL=off");
    EXPECT_NE(off.r.out.find("\r\nFound all volumes, proceeding with conversion.\r\n"), std::string::npos) << off.r.out;
    if (shape.params.lastBlock % 300 == 0) {
      EXPECT_EQ(off.r.status, 0) << off.r.out << off.r.err;
    } else {
      EXPECT_EQ(off.r.status, 1);
      EXPECT_NE(off.r.out.find(EndOfFileError()), std::string::npos) << off.r.out;
    }
    EXPECT_EQ(journaled.r.status, off.r.status);
    EXPECT_EQ(journaled.r.out, off.r.out);
    EXPECT_EQ(journaled.r.err, off.r.err);
    for (std::size_t k = 0; k < a.files.size(); ++k)
      EXPECT_TRUE(journaled.contents[k] == off.contents[k]) << a.files[k].first;
  }
}

// The power goes out at points spread over such a run, with small groups: byteturn-recover finishes
// it, with the bytes of the run without the journal, the main file's first block included (which
// the volume's pass converts again as its volume info block). While the link is a copy, the
// recovery is refused and changes nothing.
TEST(Journal, APowerCutInASetWhoseVolumeIsTheMainFileIsFinished) {
  Scratch s;
  const AliasedSet a = MakeAliased(s, AliasedSetParams(3, 2, {1, 0}), 1, Alias::kHardLink);
  const AliasedRun off = RunAliased(a, "BYTETURN_JOURNAL=off");
  ASSERT_EQ(off.r.status, 0) << off.r.out << off.r.err;
  const AliasedRun whole = RunAliased(a, kSmallGroups + "BYTETURN_POWERCUT=1000000", UnderTest().faultsExe);
  ASSERT_EQ(whole.r.status, 0) << whole.r.out << whole.r.err;
  EXPECT_TRUE(whole.contents == off.contents);
  const std::uint64_t operations = OperationsOf(whole.r), cuts = Emulated() ? 3 : 5;
  for (std::uint64_t k = 1; k <= cuts; ++k) {
    const std::uint64_t n = (2 * k - 1) * operations / (2 * cuts);
    SCOPED_TRACE("cut at " + std::to_string(n) + " of " + std::to_string(operations));
    a.Restore();
    const std::string cutAt = "BYTETURN_POWERCUT=" + std::to_string(n) + ":" + std::to_string(k);
    const RunResult cut = RunByteturn({a.main}, "yes\n", a.dir, UnderTest().faultsExe, kSmallGroups + cutAt);
    ASSERT_EQ(cut.status, 99) << cut.out << cut.err;
    if (k == 1) {
      const std::string link = a.dir + "/" + a.volume;
      fs::remove(link);
      fs::copy_file(a.dir + "/" + a.main, link);
      const std::vector<std::vector<std::uint8_t>> before = a.Contents();
      const RunResult refused = RunByteturn({a.main}, "", a.dir, UnderTest().recoverExe);
      EXPECT_EQ(refused.status, 1);
      EXPECT_NE(refused.err.find("are not linked to each other as they were"), std::string::npos) << refused.err;
      EXPECT_TRUE(a.Contents() == before);
      fs::remove(link);
      fs::create_hard_link(a.dir + "/" + a.main, link);
    }
    const RunResult recovered = RunByteturn({a.main}, "", a.dir, UnderTest().recoverExe);
    EXPECT_EQ(recovered.status, 0) << recovered.out << recovered.err;
    EXPECT_FALSE(Exists(a.dir + "/ORVA.DAT.journal"));
    EXPECT_TRUE(a.Contents() == off.contents);
  }
}
