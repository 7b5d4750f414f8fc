// byteturn-check beside byteturn: on two copies of the same files, with the same arguments and
// answers, the check prints what byteturn prints (less its final line) and its verdict, ends with
// the status that tells whether byteturn completed, and leaves every file as it was.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "run.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

struct Side {
  RunResult result;
  std::vector<std::string> files;
};
struct Compared {
  Side check, run;
  std::vector<std::string> pristine;
};

// Generates params into three directories: "check" (byteturn-check runs there), "run" (byteturn
// runs there) and "pristine" (kept for comparison); prepare may change the files of the first two
// alike. The programs with the fault seam run when plan is given (the check's alone when only
// checkEnvironment, its own "NAME=value" words, is).
Compared CheckBesideRun(const Scratch& s, const gendb::Params& p, std::vector<std::string> args,
                        const std::string& answers, const std::function<void(const std::string&)>& prepare = {},
                        const std::string& plan = "", const std::string& checkEnvironment = "") {
  Compared c;
  for (const char* dir : {"check", "run", "pristine"}) {
    fs::create_directories(s.Path(dir));
    for (const std::string& more : p.volumeSet.directories) fs::create_directories(s.Path(dir) + "/" + more);
    Generate(p, s.Path(std::string(dir) + "/ORVA.DAT"));
    if (prepare) prepare(s.Path(dir));
  }
  c.check.files = gendb::DatabaseFiles(p, s.Path("check/ORVA.DAT"));
  c.run.files = gendb::DatabaseFiles(p, s.Path("run/ORVA.DAT"));
  c.pristine = gendb::DatabaseFiles(p, s.Path("pristine/ORVA.DAT"));
  args.push_back("ORVA.DAT");
  const std::string environment = plan.empty() ? "" : "BYTETURN_FAULTS='" + plan + "'";
  const bool seam = !plan.empty() || !checkEnvironment.empty();
  c.check.result = RunByteturn(args, answers, s.Path("check"), seam ? UnderTest().checkFaultsExe : UnderTest().checkExe,
                               environment + " " + checkEnvironment);
  c.run.result = RunByteturn(args, answers, s.Path("run"), plan.empty() ? UnderTest().exe : UnderTest().faultsExe,
                             environment);
  return c;
}

// The check printed byteturn's lines without its final one, then one verdict line beginning with
// verdict; every file of the check is as it was, and it left no lock.
void ExpectSameRunAndFilesKept(const Compared& c, const std::string& verdict, int status) {
  std::string expected = WithoutAddresses(c.run.result.out);
  const std::string out = WithoutAddresses(c.check.result.out);
  for (const char* done : {"\r\nDone converting to little-endian\r\n", "\r\nDone converting to big-endian\r\n"})
    if (expected.ends_with(done)) expected.resize(expected.size() - std::string(done).size());
  expected += "\r\nbyteturn-check: " + verdict;
  EXPECT_EQ(out.substr(0, expected.size()), expected);
  EXPECT_TRUE(out.ends_with("\r\n")) << out;
  EXPECT_EQ(out.find("\r\n", expected.size()), out.size() - 2) << "one verdict line";
  EXPECT_EQ(c.check.result.err, c.run.result.err);
  EXPECT_EQ(c.check.result.status, status) << c.check.result.out;
  EXPECT_EQ(c.run.result.status, status) << c.run.result.out;
  ASSERT_EQ(c.check.files.size(), c.pristine.size());
  for (std::size_t v = 0; v < c.pristine.size(); ++v) EXPECT_EQ(ReadBytes(c.check.files[v]), ReadBytes(c.pristine[v])) << v;
  EXPECT_FALSE(Exists(fs::path(c.check.files[0]).parent_path().string() + "/orva.lck"));
}

// A system error text on one line, as the verdict shows it (Windows texts end in a line end).
std::string OneLine(std::string text) {
  std::erase_if(text, [](char c) { return c == '\r' || c == '\n'; });
  return text;
}

// Of the blocks of c's files (in the main file, those before block end), how many byteturn wrote
// back: those it changed, and those of a map area and the volumes' first blocks, which it converts
// whatever they hold (their bytes may stay); and how many there are.
struct Written {
  std::uint64_t written = 0, blocks = 0;
};
Written BlocksWritten(const Compared& c, std::uint32_t size, std::uint64_t end = UINT64_MAX) {
  Written n;
  for (std::size_t v = 0; v < c.pristine.size(); ++v) {
    const auto before = ReadBytes(c.pristine[v]), after = ReadBytes(c.run.files[v]);
    for (std::uint64_t at = 0; at + size <= before.size(); at += size, ++n.blocks) {
      const std::uint64_t b = at / size + 1;
      if (v == 0 && b >= end) break;
      const bool always = v == 0 ? b == 2 || (b >= 5 && b <= 15) : at == 0;
      n.written += always || !std::equal(before.begin() + at, before.begin() + at + size, after.begin() + at);
    }
  }
  return n;
}

gendb::Params Rich() {
  gendb::Params p;
  p.seed = 31;
  p.lastBlock = 1500;
  p.mix = gendb::Mix{3, 8, 2, 4, 1, 1, 1};  // bad offsets, loose big strings, mirrors
  p.bigRefShare = 0.6;
  p.sharedBigShare = 0.4;  // big strings reached twice
  p.mirrorV1Share = 0.5;
  return p;
}

TEST(Check, EveryKindOfDatabaseCompletesAsByteturnDoes) {
  std::vector<std::pair<std::string, gendb::Params>> kinds;
  kinds.emplace_back("plain", Rich());
  gendb::Params compressed = Rich();
  compressed.compressShare = 0.5;
  compressed.methods = {1, 2, 3, 4, 5};
  kinds.emplace_back("compressed", compressed);
  gendb::Params little = Rich();
  little.bigEndian = false;
  kinds.emplace_back("little", little);
  gendb::Params set = compressed;
  set.sizeCode = 1;
  set.lastBlock = 3000;
  set.volumeSet.volumes = 3;
  set.volumeSet.directories = {"more/"};
  set.volumeSet.storedList = {"more/"};
  set.volumeSet.placement = {0, 1, 0};
  kinds.emplace_back("volume set", set);
  for (const auto& [name, p] : kinds) {
    SCOPED_TRACE(name);
    Scratch s;
    const Compared c = CheckBesideRun(s, p, {}, p.volumeSet.volumes != 0 ? "yes\n" : "", MalformedNode(p));
    ExpectSameRunAndFilesKept(c, "byteturn would complete the conversion to ", 0);
    EXPECT_NE(c.run.result.out.find("is zero length"), std::string::npos);
    // The counts are those of the blocks byteturn wrote.
    const auto [changed, blocks] = BlocksWritten(c, gendb::GeometryFor(p.sizeCode).blockSize);
    EXPECT_NE(c.check.result.out.find(": " + std::to_string(changed) + " blocks converted ("), std::string::npos)
        << changed << c.check.result.out;
    EXPECT_NE(c.check.result.out.find(", " + std::to_string(blocks - changed) + " left as they are."), std::string::npos);
  }
}

// A node of a late block names, as a big vector block, an early block that was stored compressed:
// byteturn reads it again after its turn, converted and written back plain, and tells its type
// byte. The check must see the same bytes (it holds that block on a second pass): in one file,
// and in a volume set whose marks go through the temporary file (one slot of memory).
TEST(Check, ABlockReadAgainAfterItsTurnIsSeenAsByteturnWroteIt) {
  gendb::Params p = Rich();
  p.freeShare = 0;
  p.compressShare = 0.5;
  p.methods = {1, 2, 3};
  gendb::Params set = p;
  set.lastBlock = 3000;
  set.volumeSet.volumes = 2;
  set.volumeSet.placement = {0, 0};
  for (const auto& [params, environment] : {std::pair{p, ""}, std::pair{set, "BYTETURN_CHECK_SLOTS=1"}}) {
    SCOPED_TRACE(environment);
    Scratch s;
    const std::uint32_t size = gendb::GeometryFor(params.sizeCode).blockSize;
    std::uint32_t early = 0;
    std::uint8_t earlyType = 0;
    const auto prepare = [&](const std::string& dir) {
      const auto files = gendb::DatabaseFiles(params, dir + "/ORVA.DAT");
      const auto main = ReadBytes(files.front()), last = ReadBytes(files.back());
      for (std::uint32_t b = 20; early == 0 && b * std::uint64_t{size} <= main.size(); ++b) {
        const std::uint8_t type = main[std::uint64_t{b - 1} * size + 4];
        if ((type & 0x80) && (type & 0x7F) != 24) early = b, earlyType = type & 0x7F;
      }
      std::uint64_t late = last.size() / size - 1;
      while (late > 0 && last[late * size + 4] != 8) --late;
      ASSERT_NE(early, 0u);
      ASSERT_GT(late, 0u);
      WriteBytes(files.back(), late * size, NodeNamingAsBigVector(size, early));
    };
    const Compared c = CheckBesideRun(s, params, {"-t"}, params.volumeSet.volumes != 0 ? "yes\n" : "", prepare, "", environment);
    ExpectSameRunAndFilesKept(c, "byteturn would complete the conversion to ", 0);
    EXPECT_NE(c.run.result.out.find("CvBigVec: Block " + std::to_string(early) +
                                    " does not have the expected big string block type (" + std::to_string(earlyType) + ")."),
              std::string::npos)
        << c.run.result.out;
  }
}

// With room in memory for one held block and one chunk of marks, what the check holds goes
// through its temporary files, and nothing that can be seen changes: a volume set whose big
// strings are reached across its files, and a block read again after its turn.
TEST(Check, HeldWritesThroughTemporaryFiles) {
  Scratch s;
  gendb::Params set = Rich();
  set.sizeCode = 1;
  set.lastBlock = 3000;
  set.compressShare = 0.3;
  set.volumeSet.volumes = 3;
  set.volumeSet.placement = {0, 0, 0};
  const Compared c = CheckBesideRun(s, set, {}, "yes\n", MalformedNode(set), "", "BYTETURN_CHECK_SLOTS=1");
  ExpectSameRunAndFilesKept(c, "byteturn would complete the conversion to little-endian", 0);
}

TEST(Check, EncryptedDatabasesAskAndComplete) {
  for (const char* version : {"1.0", "2.0"}) {
    SCOPED_TRACE(version);
    Scratch s;
    gendb::Params p = Rich();
    p.bigEndian = false;
    p.databaseKey.assign(32, 0x5A);
    p.keyId = "check";
    ASSERT_EQ(gendb::WriteKeyfile(s.Path("k.key"), version, p.keyId, "admin", "pw", p.databaseKey), "");
    const auto keyfile = ReadBytes(s.Path("k.key"));
    const Compared c = CheckBesideRun(s, p, {}, Shown(s.Path("k.key")) + "\nadmin\npw\n");
    ExpectSameRunAndFilesKept(c, "byteturn would complete the conversion to big-endian", 0);
    EXPECT_EQ(ReadBytes(s.Path("k.key")), keyfile);
    // A wrong password: refused before anything, as byteturn refuses it.
    Scratch w;
    const Compared wrong = CheckBesideRun(w, p, {"-t"}, Shown(s.Path("k.key")) + "\nadmin\nnot it\n");
    ExpectSameRunAndFilesKept(wrong, "byteturn would not start the conversion (", 1);
  }
}

TEST(Check, RunsThatStopAreToldWhereAndWhy) {
  gendb::Params p = Rich();
  const int io = UnderTest().windows ? 1117 : EIO;
  {
    SCOPED_TRACE("unreadable block");
    Scratch s;
    const Compared c = CheckBesideRun(s, p, {"-t"}, "", {}, "read:ORVA.DAT:" + std::to_string(900 * 8192 + 5) + ":EIO");
    ExpectSameRunAndFilesKept(c, "byteturn would stop at block #901 (Error read block #901. " + OneLine(ErrorShown(io)) + "), with ", 1);
  }
  {
    // byteturn never reads a free block: a bad place there stops neither it nor the check, which
    // reads through free blocks.
    SCOPED_TRACE("unreadable free block");
    Scratch s;
    gendb::Params sparse = p;
    sparse.sparse = true;  // free blocks are holes: all zero
    Generate(sparse, s.Path("probe.dat"));
    const auto bytes = ReadBytes(s.Path("probe.dat"));
    std::uint64_t free = 100 * 8192;
    while (std::any_of(bytes.begin() + free, bytes.begin() + free + 8192, [](std::uint8_t x) { return x != 0; })) free += 8192;
    const Compared c = CheckBesideRun(s, sparse, {"-t"}, "", {}, "read:ORVA.DAT:" + std::to_string(free + 5) + ":EIO");
    ExpectSameRunAndFilesKept(c, "byteturn would complete the conversion to little-endian", 0);
  }
  {
    // No big string is reached from a node: none past the cut, where the run would stop sooner,
    // and none is written out of its turn, so the blocks written back before the stop are those
    // written in their turn; the free, bad and loose big string blocks among them are passed
    // over, and not counted.
    SCOPED_TRACE("a block cut short");
    Scratch s;
    gendb::Params loose = p;
    loose.bigRefShare = 0;
    const Compared c = CheckBesideRun(s, loose, {"-t"}, "", [](const std::string& dir) {
      fs::resize_file(dir + "/ORVA.DAT", 1200 * 8192 + 100);
    });
    const auto [written, blocks] = BlocksWritten(c, 8192, 1201);
    EXPECT_EQ(blocks, 1200u);
    EXPECT_LT(written, blocks) << "blocks passed over before the stop";
    ExpectSameRunAndFilesKept(c, "byteturn would stop at block #1201 (Error read block #1201. " + OneLine(EndOfFileError()) +
                                     "), with " + std::to_string(written) +
                                     " blocks before it written back and the rest left as they are;",
                              1);
  }
  {
    SCOPED_TRACE("missing volume");
    Scratch s;
    gendb::Params set = p;
    set.sizeCode = 1;
    set.lastBlock = 3000;
    set.volumeSet.volumes = 2;
    set.volumeSet.placement = {0, 0};
    const Compared c = CheckBesideRun(s, set, {}, "yes\n", [](const std::string& dir) { fs::remove(dir + "/ORVA-0002.VOL"); });
    ExpectSameRunAndFilesKept(c, "byteturn would not start the conversion (Unable to find or open file ORVA-0002.VOL.)", 1);
  }
  {
    SCOPED_TRACE("report");
    Scratch s;
    const Compared c = CheckBesideRun(s, p, {"-r"}, "");
    ExpectSameRunAndFilesKept(c, "byteturn would report on the database and change nothing.", 0);
  }
}

// The files are opened for reading only (a read-only mount or snapshot): every open for writing
// fails here, and the check still completes; a locked database is refused and its lock kept.
TEST(Check, ReadOnlyFilesAndALockedDatabase) {
  Scratch s;
  fs::create_directories(s.Path("db"));
  Generate(Rich(), s.Path("db/ORVA.DAT"));
  fs::permissions(s.Path("db/ORVA.DAT"), fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  RunResult r = RunByteturn({"-t", "ORVA.DAT"}, "", s.Path("db"), UnderTest().checkFaultsExe, "BYTETURN_FAULTS='openrw::0:EACCES'");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("byteturn-check: byteturn would complete"), std::string::npos) << r.out;
  fs::permissions(s.Path("db/ORVA.DAT"), fs::perms::owner_write, fs::perm_options::add);

  const std::string lock = s.Path("db/orva.lck");
  WriteBytes(lock, 0, {'\t', 'o', 't', 'h', 'e', 'r'});
  r = RunByteturn({"ORVA.DAT"}, "", s.Path("db"), UnderTest().checkExe);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ORVA.DAT is locked by Veltrano ORVA.\n");
  EXPECT_TRUE(r.out.ends_with("\r\nbyteturn-check: byteturn would not start the conversion (ORVA.DAT is locked by "
                              "Veltrano ORVA.); nothing would be written.\r\n"))
      << r.out;
  EXPECT_EQ(ReadText(lock), "\tother");
}

}  // namespace
