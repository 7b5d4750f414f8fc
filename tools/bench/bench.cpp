// Benchmark: times byteturn -t on a generated database against in-place rewrites of the same
// file with no conversion (dd conv=notrunc,fsync: one block per call, and 1 MiB per call), both
// ending with the file on stable storage as byteturn does, and prints the times, their ratios,
// the conversion's peak resident memory and, on a disk, what each run wrote to it and how often
// it flushed it. With --other DIR it also times the programs of another build in the same
// rounds, before this build's in every other round, and prints this build's times against them. With --ceiling 1 it times, instead of the programs, what a journal's writes
// and flushes alone cost on this disk (Ceiling below); with --undo 1, the journal's undo encoder
// alone, over the database and its conversion (Undo below).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "gendb.h"
#include "platform.h"
#include "undo_codec.h"

namespace {

// AES-256-CBC encryption throughput of openssl speed on 8192-byte pieces, in MiB/s (0 if absent).
double OpensslSpeed() {
  std::FILE* pipe = popen("openssl speed -evp aes-256-cbc -bytes 8192 -seconds 3 2>/dev/null", "r");
  if (pipe == nullptr) return 0;
  char line[512];
  double kilobytes = 0;
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::string text = line;
    if (text.rfind("AES-256-CBC", 0) == 0 || text.rfind("aes-256-cbc", 0) == 0) {
      std::size_t end = text.find_last_not_of(" \n");
      std::size_t start = text.find_last_of(' ', end);
      kilobytes = std::strtod(text.c_str() + start + 1, nullptr);  // thousands of bytes per second
    }
  }
  pclose(pipe);
  return kilobytes * 1000.0 / (1024.0 * 1024.0);
}

// Writes dirty pages back and, for a cold run, empties the page cache so that every block comes
// from the disk, as it does for a database larger than memory (needs root).
void Settle(bool cold) {
  if (std::system("sync") != 0) std::fprintf(stderr, "bench: sync failed\n");
  if (!cold) return;
  std::FILE* f = std::fopen("/proc/sys/vm/drop_caches", "w");
  if (f == nullptr || std::fputs("3\n", f) < 0 || std::fclose(f) != 0) {
    std::fprintf(stderr, "bench: --cold 1 needs write access to /proc/sys/vm/drop_caches\n");
    std::exit(1);
  }
}

// What the disk that holds the database did: the sectors written and the flushes completed, as
// /proc/diskstats counts them (none where the file lies on no disk, as in memory). The device
// number is the system's (major and minor packed as glibc packs them).
struct DiskCounts {
  std::uint64_t sectors = 0, flushes = 0;
  bool known = false;
};
DiskCounts CountsOf(std::uint64_t device) {
  const std::uint64_t major = (device >> 8 & 0xFFF) | (device >> 32 & ~std::uint64_t{0xFFF});
  const std::uint64_t minor = (device & 0xFF) | (device >> 12 & ~std::uint64_t{0xFF});
  std::ifstream stats("/proc/diskstats");
  for (std::string line; std::getline(stats, line);) {
    std::istringstream in(line);
    std::uint64_t ma = 0, mi = 0, field[17] = {};
    std::string name;
    in >> ma >> mi >> name;
    if (ma != major || mi != minor) continue;
    for (std::uint64_t& f : field) in >> f;
    return {field[6], field[15], true};  // sectors written; flush requests completed
  }
  return {};
}
std::uint64_t diskDevice = 0;  // of the database, once it is made

// Times a command; disk, where given, adds up what the disk did meanwhile.
double TimeCommand(const std::string& command, bool cold, DiskCounts* disk = nullptr) {
  Settle(cold);
  const DiskCounts before = disk != nullptr ? CountsOf(diskDevice) : DiskCounts{};
  auto start = std::chrono::steady_clock::now();
  int status = std::system(command.c_str());
  auto end = std::chrono::steady_clock::now();
  if (status != 0) {
    std::fprintf(stderr, "bench: command failed (%d): %s\n", status, command.c_str());
    std::exit(1);
  }
  const DiskCounts after = before.known ? CountsOf(diskDevice) : DiskCounts{};
  if (after.known) {
    disk->sectors += after.sectors - before.sectors;
    disk->flushes += after.flushes - before.flushes;
    disk->known = true;
  }
  return std::chrono::duration<double>(end - start).count();
}

double Best(const std::vector<double>& times) { return *std::min_element(times.begin(), times.end()); }

double Median(std::vector<double> times) {
  std::sort(times.begin(), times.end());
  const std::size_t n = times.size();
  return n % 2 == 1 ? times[n / 2] : (times[n / 2 - 1] + times[n / 2]) / 2;
}

// What the disk allows a journal: the file rewritten in place 1 MiB at a time with each byte
// changed (inverted, as a conversion changes them), each piece sent on its way, and before every
// window of windowMiB a journal piece of journalShare of the window's bytes (taken from them, so
// that it is as compressible as an undo of them) written to a journal of two slots and flushed,
// the file flushed too (the window before must be on the disk before its record is replaced; with
// a share of 0, the flushes alone);
// the file and the journal flushed at the end. The pattern of a journal that writes its undo
// ahead of the writes it covers, without the conversion's own work. Two calls leave the file as
// it was. With a block every aloneKiB written and sent on its way first, alone, and the rest of
// each MiB around those blocks: the same bytes in the requests of a journaled run, whose blocks
// written out of turn reach the disk alone when their group is settled (a pattern that costs more
// here than those requests cost the run: doc/benchmark.md). Returns the seconds.
double Ceiling(const std::string& db, const std::string& journalPath, std::uint64_t windowMiB, double journalShare,
               std::uint64_t aloneKiB, std::uint32_t blockSize) {
  const platform::File file = platform::OpenReadWrite(db), journal = platform::CreateReadWrite(journalPath);
  if (file == platform::kInvalidFile || journal == platform::kInvalidFile) {
    std::fprintf(stderr, "bench: cannot open %s or %s\n", db.c_str(), journalPath.c_str());
    std::exit(1);
  }
  Settle(false);
  const std::uint64_t size = static_cast<std::uint64_t>(platform::FileSize(file)), piece = std::uint64_t{1} << 20;
  const std::uint64_t window = windowMiB * piece, journalBytes = static_cast<std::uint64_t>(journalShare * window);
  std::vector<std::uint8_t> bytes(piece), record(journalBytes + piece);
  std::uint64_t slot = 0;
  bool ok = true;
  const auto start = std::chrono::steady_clock::now();
  for (std::uint64_t at = 0; at < size && ok; at += piece) {
    const std::uint64_t n = std::min(piece, size - at);
    ok = platform::ReadAt(file, bytes.data(), n, at) == static_cast<std::int64_t>(n);
    if (window != 0 && at % window == 0) {
      for (std::uint64_t k = 0; k < journalBytes; k += n) std::memcpy(record.data() + k, bytes.data(), n);
      ok = ok && platform::WriteAt(journal, record.data(), journalBytes, slot * journalBytes) ==
                     static_cast<std::int64_t>(journalBytes) &&
           platform::Sync(journal) && platform::Sync(file);
      slot ^= 1;
    }
    for (std::uint64_t k = 0; k < n; ++k) bytes[k] = static_cast<std::uint8_t>(~bytes[k]);
    const std::uint64_t every = aloneKiB * 1024;
    std::uint64_t from = 0;
    for (std::uint64_t alone = every - blockSize; every != 0 && alone + blockSize <= n; alone += every) {
      ok = ok && platform::WriteAt(file, bytes.data() + alone, blockSize, at + alone) == std::int64_t{blockSize};
      platform::StartWriteBack(file, at + alone, blockSize);
    }
    for (std::uint64_t alone = every - blockSize; every != 0 && alone + blockSize <= n; alone += every) {
      ok = ok && platform::WriteAt(file, bytes.data() + from, alone - from, at + from) ==
                     static_cast<std::int64_t>(alone - from);
      from = alone + blockSize;
    }
    ok = ok && platform::WriteAt(file, bytes.data() + from, n - from, at + from) == static_cast<std::int64_t>(n - from);
    platform::StartWriteBack(file, at, n);
  }
  ok = ok && platform::Sync(file) && platform::Sync(journal);
  const auto end = std::chrono::steady_clock::now();
  platform::Close(file);
  platform::Close(journal);
  platform::RemoveFile(journalPath);
  if (!ok) {
    std::fprintf(stderr, "bench: the rewrite of %s failed\n", db.c_str());
    std::exit(1);
  }
  return std::chrono::duration<double>(end - start).count();
}

// The undo encoder alone: the blocks of the database (before) that its conversion (after)
// changed, taken 1 MiB at a time into memory as the run holds them (untimed), each block's undo
// made with the given effort (timed). Returns the seconds it took; bytes gets the undo's size.
double Undo(const std::string& before, const std::string& after, std::uint32_t blockSize, bt::journal::Effort effort,
            std::uint64_t& bytes) {
  const platform::File was = platform::OpenReadOnly(before), now = platform::OpenReadOnly(after);
  if (was == platform::kInvalidFile || now == platform::kInvalidFile) {
    std::fprintf(stderr, "bench: cannot open %s or %s\n", before.c_str(), after.c_str());
    std::exit(1);
  }
  const std::uint64_t size = static_cast<std::uint64_t>(platform::FileSize(was)), piece = std::uint64_t{1} << 20;
  std::vector<std::uint8_t> a(piece), b(piece), undo(piece / blockSize * bt::journal::MaxUndoBytes(blockSize));
  std::chrono::steady_clock::duration spent{};
  bytes = 0;
  for (std::uint64_t at = 0; at < size; at += piece) {
    const std::uint64_t n = std::min(piece, size - at);
    if (platform::ReadAt(was, a.data(), n, at) != static_cast<std::int64_t>(n) ||
        platform::ReadAt(now, b.data(), n, at) != static_cast<std::int64_t>(n)) {
      std::fprintf(stderr, "bench: cannot read %s or %s\n", before.c_str(), after.c_str());
      std::exit(1);
    }
    std::vector<std::uint64_t> changed;
    for (std::uint64_t k = 0; k + blockSize <= n; k += blockSize)
      if (std::memcmp(a.data() + k, b.data() + k, blockSize) != 0) changed.push_back(k);
    const auto start = std::chrono::steady_clock::now();
    std::size_t used = 0;
    for (const std::uint64_t k : changed)
      used += bt::journal::EncodeUndo(a.data() + k, b.data() + k, blockSize, effort, undo.data() + used);
    spent += std::chrono::steady_clock::now() - start;
    bytes += used;
  }
  platform::Close(was);
  platform::Close(now);
  return std::chrono::duration<double>(spent).count();
}

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t sizeMiB = 2048;
  gendb::Params p;
  p.sizeCode = 2;
  p.freeShare = 0.1;
  p.mix = gendb::Mix{1, 6, 1, 3, 0, 0, 0};
  std::string dir = "/tmp";
  int rounds = 2;
  bool encrypted = false;
  bool cold = false, ceiling = false, undo = false;
  std::string other;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string a = argv[i];
    const char* v = argv[i + 1];
    if (a == "--size-mib") sizeMiB = std::strtoull(v, nullptr, 10);
    else if (a == "--code") p.sizeCode = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
    else if (a == "--free") p.freeShare = std::strtod(v, nullptr);
    else if (a == "--dir") dir = v;
    else if (a == "--rounds") rounds = std::max(1, std::atoi(v));
    else if (a == "--mix-other-only" && std::strcmp(v, "1") == 0) p.mix = gendb::Mix{};
    else if (a == "--encrypted") encrypted = std::strcmp(v, "1") == 0;
    else if (a == "--cold") cold = std::strcmp(v, "1") == 0;
    else if (a == "--other") other = v;
    else if (a == "--ceiling") ceiling = std::strcmp(v, "1") == 0;
    else if (a == "--undo") undo = std::strcmp(v, "1") == 0;
    else {
      std::fprintf(stderr,
                   "usage: bench [--size-mib N] [--code N] [--free F] [--dir DIR] [--rounds N] "
                   "[--mix-other-only 1] [--encrypted 1] [--cold 1] [--other DIR] [--ceiling 1] [--undo 1]\n");
      return 2;
    }
  }
  const gendb::Geometry g = gendb::GeometryFor(p.sizeCode);
  p.lastBlock = static_cast<std::uint32_t>(sizeMiB * 1024 * 1024 / g.blockSize);
  const std::string db = dir + "/bench-" + std::to_string(p.sizeCode) + ".dat";
  const std::string exe = platform::ExecutablePath(4096);
  const std::string byteturn = exe.substr(0, exe.rfind('/') + 1) + "byteturn";
  const std::string byteturnCheck = byteturn + "-check";

  std::string answers;
  if (encrypted) {
    p.keyId = "bench-key";
    p.databaseKey.assign(32, 0);
    for (int k = 0; k < 32; ++k) p.databaseKey[k] = static_cast<std::uint8_t>(k * 7 + 1);
    const std::string keyfile = dir + "/bench.key";
    answers = dir + "/bench.answers";
    gendb::WriteKeyfile(keyfile, "1.0", p.keyId, "bench", "bench-password", p.databaseKey);
    std::FILE* f = std::fopen(answers.c_str(), "w");
    if (f == nullptr) {
      std::fprintf(stderr, "bench: cannot write %s\n", answers.c_str());
      return 2;
    }
    std::fprintf(f, "%s\nbench\nbench-password\n", keyfile.c_str());
    std::fclose(f);
  }
  std::printf("generating %llu MiB, %u-byte blocks, %.0f%% free ...\n", static_cast<unsigned long long>(sizeMiB),
              g.blockSize, p.freeShare * 100);
  std::fflush(stdout);
  std::string error = gendb::GenerateDatabase(p, db);
  if (!error.empty()) {
    std::fprintf(stderr, "bench: %s\n", error.c_str());
    return 1;
  }
  if (const platform::File made = platform::OpenReadOnly(db); made != platform::kInvalidFile) {
    diskDevice = platform::IdentityOf(made).device;
    platform::Close(made);
  }
  auto rewrite = [&](const std::string& bs) {
    return "dd if=" + db + " of=" + db + " bs=" + bs + " conv=notrunc,fsync status=none";
  };
  const std::string rewriteBlock = rewrite(std::to_string(g.blockSize)), rewriteLarge = rewrite("1M");
  if (ceiling) {
    // Six rewrites per round, the copy after the first (each inverts every byte: the same bytes
    // to write whichever form the file is in): alone; the file flushed every 8 MiB with no
    // journal; journals of today's undo (a tenth of the data-rich database) at today's groups,
    // as bytes in whole MiB and as a journaled run's requests (a big string's block in about
    // every 96 KiB of the data-rich database goes alone), and at windows of 64 MiB; and of 4% at
    // 64 MiB.
    struct Pattern {
      std::uint64_t windowMiB;
      double share;
      std::uint64_t aloneKiB;
      std::vector<double> times;
    };
    Pattern patterns[] = {{0, 0, 0, {}},    {8, 0, 0, {}},     {8, 0.10, 0, {}},
                          {8, 0.10, 96, {}}, {64, 0.10, 0, {}}, {64, 0.04, 0, {}}};
    std::vector<double> timesLarge;
    for (int r = 0; r < rounds; ++r) {
      std::printf("round %d:", r + 1);
      for (Pattern& pattern : patterns) {
        pattern.times.push_back(
            Ceiling(db, dir + "/bench.journal", pattern.windowMiB, pattern.share, pattern.aloneKiB, g.blockSize));
        std::printf(" %.3f s", pattern.times.back());
        if (&pattern == patterns) {
          timesLarge.push_back(TimeCommand(rewriteLarge, false));
          std::printf(" (dd bs=1M %.3f s)", timesLarge.back());
        }
        std::fflush(stdout);
      }
      std::printf("\n");
    }
    std::printf("dd conv=notrunc,fsync bs=1M: %.3f s (median %.3f s)\n", Best(timesLarge), Median(timesLarge));
    for (const Pattern& pattern : patterns) {
      if (pattern.windowMiB == 0)
        std::printf("rewritten, one flush at the end:          ");
      else if (pattern.share == 0)
        std::printf("no journal, the file flushed every %3llu MiB: ", static_cast<unsigned long long>(pattern.windowMiB));
      else if (pattern.aloneKiB != 0)
        std::printf("the same, a block every %llu KiB sent alone: ", static_cast<unsigned long long>(pattern.aloneKiB));
      else
        std::printf("journal of %2.0f%%, flushed every %3llu MiB:  ", pattern.share * 100,
                    static_cast<unsigned long long>(pattern.windowMiB));
      std::printf("%.3f s (median %.3f s), against dd %.2f (median of rounds: %.2f), against the rewrite alone %.2f "
                  "(%.2f)\n",
                  Best(pattern.times), Median(pattern.times), Best(pattern.times) / Best(timesLarge),
                  Median(pattern.times) / Median(timesLarge), Best(pattern.times) / Best(patterns[0].times),
                  Median(pattern.times) / Median(patterns[0].times));
    }
    platform::RemoveFile(db);
    return 0;
  }
  if (undo) {
    // The quick undo and the smallest, by turns, over the database and its conversion.
    const std::string twin = db + ".converted";
    if (std::system(("cp " + db + " " + twin + " && BYTETURN_JOURNAL=off " + byteturn + " -t " + twin + " > /dev/null" +
                     (encrypted ? " 2>/dev/null < " + answers : std::string()))
                        .c_str()) != 0) {
      std::fprintf(stderr, "bench: the conversion of %s failed\n", twin.c_str());
      return 1;
    }
    std::vector<double> quick, smallest;
    std::uint64_t quickBytes = 0, smallestBytes = 0;
    for (int r = 0; r < rounds; ++r) {
      quick.push_back(Undo(db, twin, g.blockSize, bt::journal::Effort::kQuick, quickBytes));
      smallest.push_back(Undo(db, twin, g.blockSize, bt::journal::Effort::kSmallest, smallestBytes));
      std::printf("round %d: quick %.3f s, smallest %.3f s\n", r + 1, quick.back(), smallest.back());
      std::fflush(stdout);
    }
    const double size = static_cast<double>(std::uint64_t{p.lastBlock} * g.blockSize);
    std::printf("quick undo:    %.3f s (median %.3f s), %.1f%% of the database\n", Best(quick), Median(quick),
                100.0 * static_cast<double>(quickBytes) / size);
    std::printf("smallest undo: %.3f s (median %.3f s), %.1f%% of the database\n", Best(smallest), Median(smallest),
                100.0 * static_cast<double>(smallestBytes) / size);
    platform::RemoveFile(twin);
    platform::RemoveFile(db);
    return 0;
  }
  // GNU time measures the conversion's own peak resident memory (its child's, from a small process).
  const std::string peakFile = dir + "/bench.peak";
  const std::string convert = "/usr/bin/time -f %M -o " + peakFile + " " + byteturn + " -t " + db + " > /dev/null" +
                              (encrypted ? " 2>/dev/null < " + answers : std::string());
  // The same run without a journal, as byteturn ran before it kept one.
  const std::string offPeakFile = dir + "/bench.off-peak";
  const std::string convertOff = "BYTETURN_JOURNAL=off /usr/bin/time -f %M -o " + offPeakFile + " " + byteturn + " -t " + db +
                                 " > /dev/null" + (encrypted ? " 2>/dev/null < " + answers : std::string());
  const std::string checkPeakFile = dir + "/bench.check-peak";
  const std::string check = "/usr/bin/time -f %M -o " + checkPeakFile + " " + byteturnCheck + " -t " + db + " > /dev/null" +
                            (encrypted ? " 2>/dev/null < " + answers : std::string());
  std::vector<double> timesBlock, timesLarge, timesConvert, timesOff, timesCheck;
  // The other build's conversion (journaled, then not: the file is left as it was) and check.
  const std::string input = " -t " + db + " > /dev/null" + (encrypted ? " 2>/dev/null < " + answers : std::string());
  const std::string otherConvert = other + "/byteturn" + input, otherOff = "BYTETURN_JOURNAL=off " + otherConvert,
                    otherCheck = other + "/byteturn-check" + input;
  std::vector<double> otherTimesConvert, otherTimesOff, otherTimesCheck;
  const auto runOther = [&] {
    if (other.empty()) return;
    otherTimesConvert.push_back(TimeCommand(otherConvert, cold));
    otherTimesCheck.push_back(TimeCommand(otherCheck, cold));
    otherTimesOff.push_back(TimeCommand(otherOff, cold));
  };
  std::int64_t peakKiB = 0, offPeakKiB = 0, checkPeakKiB = 0;
  DiskCounts diskConvert, diskOff, diskLarge;
  const auto peakOf = [](const std::string& file, std::int64_t& peak) {
    if (std::FILE* f = std::fopen(file.c_str(), "r")) {
      long long kib = 0;
      if (std::fscanf(f, "%lld", &kib) == 1) peak = std::max<std::int64_t>(peak, kib);
      std::fclose(f);
    }
  };
  // Each copy follows a conversion, so that it rewrites a file whose bytes have just changed, as
  // the conversion always does: on a virtual disk a copy right after another copy has been seen
  // to take a third of the time. Two conversions per round (the first journaled, the second not)
  // leave the file as it was.
  for (int r = 0; r < rounds; ++r) {
    if (r % 2 == 1) runOther();
    // The check reads what the conversion before it wrote, as the conversion does.
    const double tc = TimeCommand(convert, cold, &diskConvert), tk = TimeCommand(check, cold);
    const double tb = TimeCommand(rewriteBlock, cold);
    const double to = TimeCommand(convertOff, cold, &diskOff), tl = TimeCommand(rewriteLarge, cold, &diskLarge);
    timesConvert.push_back(tc);
    timesOff.push_back(to);
    timesCheck.push_back(tk);
    peakOf(peakFile, peakKiB);
    peakOf(offPeakFile, offPeakKiB);
    peakOf(checkPeakFile, checkPeakKiB);
    std::printf("round %d: byteturn %.3f s, byteturn-check %.3f s, dd bs=%u %.3f s, byteturn without journal %.3f s, "
                "dd bs=1M %.3f s\n",
                r + 1, tc, tk, g.blockSize, tb, to, tl);
    std::fflush(stdout);
    timesBlock.push_back(tb);
    timesLarge.push_back(tl);
    if (r % 2 == 0) runOther();
  }
  // The best round of each, and the middle one: on a shared machine, and from a disk whose host
  // may cache it, single rounds can be far off either way.
  const double bestBlock = Best(timesBlock), bestLarge = Best(timesLarge), bestConvert = Best(timesConvert);
  const double mib = static_cast<double>(std::uint64_t{p.lastBlock} * g.blockSize) / (1024.0 * 1024.0);
  std::printf("page cache:                        %s\n", cold ? "emptied before each command" : "warm");
  std::printf("dd conv=notrunc,fsync bs=%-6u    %.3f s, %.0f MiB/s\n", g.blockSize, bestBlock, mib / bestBlock);
  std::printf("dd conv=notrunc,fsync bs=1M        %.3f s, %.0f MiB/s\n", bestLarge, mib / bestLarge);
  std::printf("byteturn -t (journaled, flushed)   %.3f s, %.0f MiB/s\n", bestConvert, mib / bestConvert);
  std::printf("ratio byteturn / dd bs=%-6u      %.2f (median of rounds: %.2f)\n", g.blockSize, bestConvert / bestBlock,
              Median(timesConvert) / Median(timesBlock));
  std::printf("ratio byteturn / dd bs=1M          %.2f (median of rounds: %.2f)\n", bestConvert / bestLarge,
              Median(timesConvert) / Median(timesLarge));
  std::printf("peak resident memory of byteturn   %.1f MiB\n", static_cast<double>(peakKiB) / 1024.0);
  const double bestOff = Best(timesOff);
  std::printf("byteturn -t, BYTETURN_JOURNAL=off  %.3f s, %.0f MiB/s\n", bestOff, mib / bestOff);
  std::printf("ratio journaled / without journal  %.2f (median of rounds: %.2f)\n", bestConvert / bestOff,
              Median(timesConvert) / Median(timesOff));
  std::printf("peak resident memory without journal %.1f MiB\n", static_cast<double>(offPeakKiB) / 1024.0);
  const double bestCheck = Best(timesCheck);
  std::printf("byteturn-check -t (writes nothing) %.3f s, %.0f MiB/s\n", bestCheck, mib / bestCheck);
  std::printf("ratio byteturn-check / byteturn    %.2f (median of rounds: %.2f)\n", bestCheck / bestConvert,
              Median(timesCheck) / Median(timesConvert));
  std::printf("peak resident memory of the check  %.1f MiB\n", static_cast<double>(checkPeakKiB) / 1024.0);
  if (diskConvert.known) {
    // What each run wrote to the disk and how often it flushed it, a round's worth: the journal's
    // bytes and flushes are what it costs on a disk.
    const auto perRun = [&](const char* what, const DiskCounts& d) {
      const double flushes = static_cast<double>(d.flushes) / rounds;
      std::printf("%s %.0f MiB in %.0f %s", what, static_cast<double>(d.sectors) * 512 / (1024.0 * 1024.0) / rounds,
                  flushes, flushes == 1 ? "flush" : "flushes");
    };
    perRun("disk, a run's writes: byteturn", diskConvert);
    perRun(", without journal", diskOff);
    perRun(", dd bs=1M", diskLarge);
    std::printf("\n");
  }
  if (!other.empty()) {
    const auto against = [](const char* what, const std::vector<double>& mine, const std::vector<double>& theirs) {
      std::printf("%-10s this build %.3f s, other %.3f s: ratio %.3f (median of rounds: %.3f / %.3f = %.3f)\n", what,
                  Best(mine), Best(theirs), Best(mine) / Best(theirs), Median(mine), Median(theirs),
                  Median(mine) / Median(theirs));
    };
    std::printf("against the build in %s, the same rounds, alternating which goes first:\n", other.c_str());
    against("journaled", timesConvert, otherTimesConvert);
    against("off", timesOff, otherTimesOff);
    against("check", timesCheck, otherTimesCheck);
  }
  if (encrypted) {
    const double openssl = OpensslSpeed();
    std::printf("openssl speed -evp aes-256-cbc -bytes 8192 (encrypt): %.0f MiB/s\n", openssl);
    if (openssl > 0) std::printf("encrypted conversion / openssl encryption: %.2f\n", mib / bestConvert / openssl);
  }
  platform::RemoveFile(db);
  for (const std::string& file : {peakFile, offPeakFile, checkPeakFile, dir + "/bench.key", answers})
    if (!file.empty()) platform::RemoveFile(file);
  return 0;
}
