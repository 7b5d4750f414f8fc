#include "fault_seam.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace platform::faults {

namespace {

// The conversion's writer thread writes and flushes while the run opens and reads: every entry
// point below takes this lock, so the plan, the paths and the power cut see one call at a time.
std::recursive_mutex& SeamLock() {
  static std::recursive_mutex& lock = *new std::recursive_mutex;
  return lock;
}
using Held = std::unique_lock<std::recursive_mutex>;

// A slow transfer or creation: the other thread goes on meanwhile.
void WaitSlowly(Held& serial) {
  serial.unlock();
  std::this_thread::sleep_for(std::chrono::seconds(3));
  serial.lock();
}

struct Entry {
  std::string op, name;
  std::uint64_t arg = 0;
  Fault fault = Fault::kNone;
  bool slow = false, appears = false;
  std::uint64_t calls = 0;  // matching opens, syncs or transfers seen so far
  std::uint64_t from = 1;   // read, write: the first matching transfer that fails
};

std::vector<std::string> Split(const std::string& text, char by) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = text.find(by, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

std::vector<Entry>& Plan() {
  static std::vector<Entry> plan = [] {
    std::vector<Entry> entries;
    const char* text = std::getenv("BYTETURN_FAULTS");
    if (text == nullptr) return entries;
    for (const std::string& item : Split(text, ';')) {
      const std::vector<std::string> f = Split(item, ':');
      if (f.size() != 4) continue;
      Entry e{f[0], f[1], std::strtoull(f[2].c_str(), nullptr, 10), Fault::kNone, false, false, 0, 1};
      if (const std::size_t slash = f[2].find('/'); slash != std::string::npos)
        e.from = std::strtoull(f[2].c_str() + slash + 1, nullptr, 10);
      if (f[3] == "EIO") e.fault = Fault::kIo;
      if (f[3] == "ENOSPC") e.fault = Fault::kNoSpace;
      if (f[3] == "EACCES") e.fault = Fault::kAccess;
      if (f[3] == "short") e.fault = Fault::kShort;
      if (f[3] == "slow") e.slow = true;
      if (f[3] == "appears") e.appears = true;
      entries.push_back(e);
    }
    return entries;
  }();
  return plan;
}

std::map<File, std::string>& Paths() {
  static std::map<File, std::string> paths;
  return paths;
}

bool Matches(const Entry& e, const std::string& op, const std::string& path) {
  return e.op == op && path.size() >= e.name.size() && path.compare(path.size() - e.name.size(), e.name.size(), e.name) == 0;
}

// Paths are recorded whole: a later process, started in another directory, finds the same files.
std::string Absolute(const std::string& path) {
  const std::string full = platform::FullPathName(path, 4096);
  return full.empty() ? path : full;
}

std::string PathOf(File file) {
  const auto it = Paths().find(file);
  return it == Paths().end() ? std::string() : it->second;
}

// The fault of the first entry for op whose count of matching calls has reached its arg.
Fault CountedFault(const std::string& op, const std::string& path) {
  for (Entry& e : Plan())
    if (Matches(e, op, path) && (++e.calls == e.arg || e.arg == 0)) return e.fault;
  return Fault::kNone;
}

}  // namespace

Fault BeforeOpen(const std::string& path, bool writing) {
  const Held serial(SeamLock());
  const Fault fault = CountedFault("open", path);
  if (fault != Fault::kNone || !writing) return fault;
  return CountedFault("openrw", path);
}

Fault BeforeTextClose(const std::string& path) {
  const Held serial(SeamLock());
  return CountedFault("close", path);
}

void NoteOpened(File file, const std::string& path) {
  const Held serial(SeamLock());
  Paths()[file] = Absolute(path);
}
void NoteClosed(File file) {
  const Held serial(SeamLock());
  Paths().erase(file);
}

Fault BeforeTransfer(bool writing, File file, std::uint64_t position, std::size_t size, std::uint64_t* stop) {
  Held serial(SeamLock());
  const std::string path = PathOf(file);
  for (Entry& e : Plan()) {
    if (!Matches(e, writing ? "write" : "read", path) || e.arg < position || e.arg >= position + size) continue;
    if (++e.calls < e.from) continue;
    if (e.slow) {
      WaitSlowly(serial);
      continue;
    }
    *stop = e.arg;
    return e.fault;
  }
  return Fault::kNone;
}

// The simulated power cut and kill, and the page cache that processes hand on to the next.
namespace {
struct PendingWrite {
  std::string path;
  std::uint64_t position = 0;
  std::size_t size = 0;
  std::vector<unsigned char> old;  // the bytes there before it (fewer past the old end of the file)
};
enum class NameChange { kCreated, kRenamed, kRemoved };
struct PendingName {
  NameChange change;
  std::string from, to;  // a removal: to is the name the file is held under
};
constexpr char kHeldSuffix[] = ".removal-held";

struct PowerCut {
  std::uint64_t at = 0, seed = 0, operations = 0;
  bool kill = false;         // at the Nth operation the process is killed instead
  bool flushesOnly = false;  // only flushes are counted
  bool cutting = false;      // the seam's own file operations are not recorded
  bool ended = false;        // the process is ending: nothing more is recorded
  std::string ledger;        // where the pending writes and names pass to the next process
  std::vector<PendingWrite> writes;  // the oldest first, those of earlier processes before ours
  std::vector<PendingName> names;
};

void AtExit();
void LoadLedger(PowerCut& cut);

// Left alive at exit: the exit handler and the writer thread still use it.
PowerCut& Cut() {
  static PowerCut& cut = []() -> PowerCut& {
    PowerCut& c = *new PowerCut;
    if (const char* text = std::getenv("BYTETURN_POWERCUT")) {
      const std::vector<std::string> f = Split(text, ':');
      c.at = std::strtoull(f[0].c_str(), nullptr, 10);
      if (f.size() > 1) c.seed = std::strtoull(f[1].c_str(), nullptr, 10);
      c.kill = f.size() > 2 && f[2] == "kill";
    }
    if (const char* counts = std::getenv("BYTETURN_POWERCUT_COUNTS")) c.flushesOnly = std::string(counts) == "flushes";
    if (const char* ledger = std::getenv("BYTETURN_PAGECACHE")) c.ledger = ledger;
    if (!c.ledger.empty()) LoadLedger(c);
    if (c.at != 0 || !c.ledger.empty()) std::atexit(AtExit);
    return c;
  }();
  return cut;
}

bool Recording() { return (Cut().at != 0 || !Cut().ledger.empty()) && !Cut().cutting && !Cut().ended; }

// The ledger: per entry a line of words, then its strings' bytes.
//   write POSITION SIZE PATH-BYTES OLD-BYTES\n PATH OLD
//   name CHANGE FROM-BYTES TO-BYTES\n FROM TO          (CHANGE: 0 created, 1 renamed, 2 removed)
[[noreturn]] void LedgerUnreadable(const std::string& path) {
  std::fprintf(stderr, "the page cache ledger %s cannot be read\n", path.c_str());
  std::fflush(stderr);
  std::_Exit(97);
}

void LoadLedger(PowerCut& cut) {
  std::FILE* file = std::fopen(cut.ledger.c_str(), "rb");
  if (file == nullptr) return;  // none yet: nothing pending
  std::string text;
  char buffer[65536];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) != 0;) text.append(buffer, n);
  std::fclose(file);
  std::size_t at = 0;
  const auto number = [&] {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str() + at, &end, 10);
    if (end == text.c_str() + at) LedgerUnreadable(cut.ledger);
    at = static_cast<std::size_t>(end - text.c_str());
    return static_cast<std::uint64_t>(value);
  };
  const auto bytes = [&](std::uint64_t size) {
    if (size > text.size() - at) LedgerUnreadable(cut.ledger);
    const std::string taken = text.substr(at, static_cast<std::size_t>(size));
    at += static_cast<std::size_t>(size);
    return taken;
  };
  while (at < text.size()) {
    const std::size_t space = text.find(' ', at);
    if (space == std::string::npos) LedgerUnreadable(cut.ledger);
    const std::string kind = text.substr(at, space - at);
    at = space;
    if (kind == "write") {
      PendingWrite w;
      w.position = number();
      w.size = static_cast<std::size_t>(number());
      const std::uint64_t pathBytes = number(), oldBytes = number();
      if (bytes(1) != "\n") LedgerUnreadable(cut.ledger);
      w.path = bytes(pathBytes);
      const std::string old = bytes(oldBytes);
      w.old.assign(old.begin(), old.end());
      cut.writes.push_back(std::move(w));
    } else if (kind == "name") {
      const std::uint64_t change = number(), fromBytes = number(), toBytes = number();
      if (change > 2 || bytes(1) != "\n") LedgerUnreadable(cut.ledger);
      const std::string from = bytes(fromBytes);
      cut.names.push_back({static_cast<NameChange>(change), from, bytes(toBytes)});
    } else {
      LedgerUnreadable(cut.ledger);
    }
  }
}

// Writes the ledger afresh with what is pending now; none left, no ledger. A write to a file
// without a name (a temporary file) goes with the process.
void SaveLedger() {
  const PowerCut& cut = Cut();
  if (cut.writes.empty() && cut.names.empty()) {
    std::remove(cut.ledger.c_str());
    return;
  }
  std::FILE* file = std::fopen(cut.ledger.c_str(), "wb");
  if (file == nullptr) {
    std::fprintf(stderr, "the page cache ledger %s cannot be written\n", cut.ledger.c_str());
    return;
  }
  for (const PendingWrite& w : cut.writes) {
    if (w.path.empty()) continue;
    std::fprintf(file, "write %llu %llu %llu %llu\n", static_cast<unsigned long long>(w.position),
                 static_cast<unsigned long long>(w.size), static_cast<unsigned long long>(w.path.size()),
                 static_cast<unsigned long long>(w.old.size()));
    std::fwrite(w.path.data(), 1, w.path.size(), file);
    std::fwrite(w.old.data(), 1, w.old.size(), file);
  }
  for (const PendingName& n : cut.names) {
    std::fprintf(file, "name %d %llu %llu\n", static_cast<int>(n.change), static_cast<unsigned long long>(n.from.size()),
                 static_cast<unsigned long long>(n.to.size()));
    std::fwrite(n.from.data(), 1, n.from.size(), file);
    std::fwrite(n.to.data(), 1, n.to.size(), file);
  }
  std::fclose(file);
}

void Overwrite(File file, std::uint64_t from, const unsigned char* bytes, std::size_t size) {
  if (size != 0) platform::WriteAt(file, bytes, size, from);
}

// Puts back what the write replaced over [from, to), zeros where the file had nothing.
void Revert(File file, const PendingWrite& w, std::uint64_t from, std::uint64_t to) {
  std::vector<unsigned char> bytes(static_cast<std::size_t>(to - from), 0);
  for (std::uint64_t p = from; p < to; ++p)
    if (p - w.position < w.old.size()) bytes[static_cast<std::size_t>(p - from)] = w.old[static_cast<std::size_t>(p - w.position)];
  Overwrite(file, from, bytes.data(), bytes.size());
}

[[noreturn]] void CutPower() {
  PowerCut& cut = Cut();
  cut.cutting = true;
  std::mt19937_64 random(cut.seed * 1000003u + cut.at);
  for (auto w = cut.writes.rbegin(); w != cut.writes.rend(); ++w) {
    const auto fate = random() % 3;  // 0 kept, 1 lost, 2 torn
    if (fate == 0) continue;
    const File file = platform::OpenReadWrite(w->path);
    if (file == kInvalidFile) continue;
    const std::uint64_t end = w->position + w->size;
    for (std::uint64_t s = w->position; s < end;) {
      const std::uint64_t next = std::min<std::uint64_t>(end, (s / 512 + 1) * 512);
      if (fate == 1 || (random() & 1) != 0) Revert(file, *w, s, next);
      s = next;
    }
    platform::Close(file);
  }
  for (auto n = cut.names.rbegin(); n != cut.names.rend(); ++n) {
    const bool undone = (random() & 1) != 0;
    if (n->change == NameChange::kCreated && undone) platform::RemoveFile(n->from);
    if (n->change == NameChange::kRenamed && undone) platform::RenameFile(n->to, n->from);
    if (n->change == NameChange::kRemoved) {
      if (undone)
        platform::RenameFile(n->to, n->from);
      else
        platform::RemoveFile(n->to);
    }
  }
  if (!cut.ledger.empty()) std::remove(cut.ledger.c_str());  // the page cache is gone
  std::fputs("power cut\n", stderr);
  std::fflush(stderr);
  std::_Exit(99);
}

// The removals held since the last directory flush are made.
void ForgetHeldRemovals() {
  PowerCut& cut = Cut();
  cut.cutting = true;
  for (const PendingName& n : cut.names)
    if (n.change == NameChange::kRemoved) platform::RemoveFile(n.to);
  cut.cutting = false;
}

// The process ends without a power cut: what it did not flush stays in the page cache. With a
// ledger the next process takes it over, held removals still held, for a later cut to undo or
// make; without one nothing can lose it any more, and held removals are made, as a directory
// flush would. The seam's lock is kept from here on: another thread's write after the ledger is
// written would be missing from it.
void EndWithoutCut() {
  SeamLock().lock();
  PowerCut& cut = Cut();
  if (cut.ended) return;
  if (cut.ledger.empty())
    ForgetHeldRemovals();
  else
    SaveLedger();
  cut.ended = true;
}

void AtExit() {
  if (Cut().at != 0) std::fprintf(stderr, "operations %llu\n", static_cast<unsigned long long>(Cut().operations));
  EndWithoutCut();
}

// Counts an operation (a flush or not); true when the power goes at it. A planned kill ends the
// process here.
bool CutsHere(bool flush) {
  if (!Recording() || (Cut().flushesOnly && !flush) || ++Cut().operations != Cut().at) return false;
  if (!Cut().kill) return true;
  EndWithoutCut();
  std::fputs("killed\n", stderr);
  std::fflush(stderr);
  std::_Exit(98);
}
}  // namespace

Fault BeforeSync(File file) {
  const Held serial(SeamLock());
  if (CutsHere(true)) CutPower();
  if (Recording()) {
    const std::string path = PathOf(file);
    std::erase_if(Cut().writes, [&](const PendingWrite& w) { return w.path == path; });
  }
  return CountedFault("sync", PathOf(file));
}

void NoteCreated(File file, const std::string& path) {
  const Held serial(SeamLock());
  if (file != kInvalidFile) NoteOpened(file, path);
  if (Recording()) Cut().names.push_back({NameChange::kCreated, Absolute(path), ""});
}

void BeforeWrite(File file, std::uint64_t position, std::size_t size) {
  const Held serial(SeamLock());
  if (!Recording()) return;
  PendingWrite w{PathOf(file), position, size, std::vector<unsigned char>(size)};
  Cut().cutting = true;
  const std::int64_t n = platform::ReadAt(file, w.old.data(), size, position);
  Cut().cutting = false;
  w.old.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  Cut().writes.push_back(std::move(w));
}

void AfterWrite() {
  const Held serial(SeamLock());
  if (CutsHere(false)) CutPower();
}

void NoteRenamed(const std::string& from, const std::string& to) {
  const Held serial(SeamLock());
  if (!Recording()) return;
  const std::string whole = Absolute(from), wholeTo = Absolute(to);
  Cut().names.push_back({NameChange::kRenamed, whole, wholeTo});
  for (PendingWrite& w : Cut().writes)
    if (w.path == whole) w.path = wholeTo;
  if (CutsHere(false)) CutPower();
}

// The file is renamed aside, under a name no other held file has (a file removed in an earlier
// process may be held still).
bool RemoveHeld(const std::string& path) {
  const Held serial(SeamLock());
  if (!Recording()) return false;
  const std::string whole = Absolute(path);
  std::string held = whole + kHeldSuffix;
  for (int k = 2; platform::FileExists(held); ++k) held = whole + kHeldSuffix + std::to_string(k);
  Cut().cutting = true;
  const bool moved = platform::RenameFile(path, held);
  Cut().cutting = false;
  if (!moved) return false;
  Cut().names.push_back({NameChange::kRemoved, whole, held});
  return true;
}

void NoteDirectorySynced() {
  const Held serial(SeamLock());
  if (CutsHere(true)) CutPower();
  if (!Recording()) return;
  ForgetHeldRemovals();
  Cut().names.clear();
}

void BeforeCreate(const std::string& path) {
  const Held serial(SeamLock());
  for (const Entry& e : Plan()) {
    if (!e.appears || !Matches(e, "create", path)) continue;
    if (std::FILE* other = std::fopen(path.c_str(), "wb")) {
      std::fputs("another run", other);
      std::fclose(other);
    }
  }
}

namespace {
std::uint32_t Number(const char* name) {
  const char* text = std::getenv(name);
  return text == nullptr ? 0 : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}
}  // namespace

void AfterCreate(const std::string& path) {
  Held serial(SeamLock());
  for (const Entry& e : Plan())
    if (e.slow && Matches(e, "create", path)) WaitSlowly(serial);
}

std::uint32_t BatchBlocks() { return Number("BYTETURN_BATCH_BLOCKS"); }
std::uint32_t CheckSlots() { return Number("BYTETURN_CHECK_SLOTS"); }
std::uint32_t GroupBytes() { return Number("BYTETURN_GROUP_BYTES"); }
std::uint32_t WriterLag() { return Number("BYTETURN_WRITER_LAG"); }
std::uint32_t RecordByRun() { return Number("BYTETURN_RECORD_BY_RUN"); }

}  // namespace platform::faults
