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
  std::uint64_t calls = 0;  // matching opens or syncs seen so far
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
      Entry e{f[0], f[1], std::strtoull(f[2].c_str(), nullptr, 10), Fault::kNone, false, false, 0};
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

void NoteOpened(File file, const std::string& path) {
  const Held serial(SeamLock());
  Paths()[file] = path;
}
void NoteClosed(File file) {
  const Held serial(SeamLock());
  Paths().erase(file);
}

Fault BeforeTransfer(bool writing, File file, std::uint64_t position, std::size_t size, std::uint64_t* stop) {
  Held serial(SeamLock());
  const std::string path = PathOf(file);
  for (const Entry& e : Plan()) {
    if (!Matches(e, writing ? "write" : "read", path) || e.arg < position || e.arg >= position + size) continue;
    if (e.slow) {
      WaitSlowly(serial);
      continue;
    }
    *stop = e.arg;
    return e.fault;
  }
  return Fault::kNone;
}

// The simulated power cut.
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
  std::string from, to;
};
constexpr char kHeldSuffix[] = ".removal-held";

struct PowerCut {
  std::uint64_t at = 0, seed = 0, operations = 0;
  bool cutting = false;
  std::vector<PendingWrite> writes;
  std::vector<PendingName> names;
};

void TellOperations();

PowerCut& Cut() {
  static PowerCut cut = [] {
    PowerCut c;
    if (const char* text = std::getenv("BYTETURN_POWERCUT")) {
      const std::vector<std::string> f = Split(text, ':');
      c.at = std::strtoull(f[0].c_str(), nullptr, 10);
      if (f.size() > 1) c.seed = std::strtoull(f[1].c_str(), nullptr, 10);
      if (c.at != 0) std::atexit(TellOperations);
    }
    return c;
  }();
  return cut;
}

void TellOperations() { std::fprintf(stderr, "operations %llu\n", static_cast<unsigned long long>(Cut().operations)); }

bool Recording() { return Cut().at != 0 && !Cut().cutting; }

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
        platform::RenameFile(n->from + kHeldSuffix, n->from);
      else
        platform::RemoveFile(n->from + kHeldSuffix);
    }
  }
  std::fputs("power cut\n", stderr);
  std::fflush(stderr);
  std::_Exit(99);
}

// Counts an operation; true when the power goes at it.
bool CutsHere() { return Recording() && ++Cut().operations == Cut().at; }

void ForgetHeldRemovals() {
  PowerCut& cut = Cut();
  cut.cutting = true;
  for (const PendingName& n : cut.names)
    if (n.change == NameChange::kRemoved) platform::RemoveFile(n.from + kHeldSuffix);
  cut.cutting = false;
}
}  // namespace

Fault BeforeSync(File file) {
  const Held serial(SeamLock());
  if (CutsHere()) CutPower();
  if (Recording()) {
    const std::string path = PathOf(file);
    std::erase_if(Cut().writes, [&](const PendingWrite& w) { return w.path == path; });
  }
  return CountedFault("sync", PathOf(file));
}

void NoteCreated(File file, const std::string& path) {
  const Held serial(SeamLock());
  if (file != kInvalidFile) NoteOpened(file, path);
  if (Recording()) Cut().names.push_back({NameChange::kCreated, path, ""});
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
  if (CutsHere()) CutPower();
}

void NoteRenamed(const std::string& from, const std::string& to) {
  const Held serial(SeamLock());
  if (!Recording()) return;
  Cut().names.push_back({NameChange::kRenamed, from, to});
  for (PendingWrite& w : Cut().writes)
    if (w.path == from) w.path = to;
  if (CutsHere()) CutPower();
}

bool RemoveHeld(const std::string& path) {
  const Held serial(SeamLock());
  if (!Recording()) return false;
  Cut().cutting = true;
  const bool held = platform::RenameFile(path, path + kHeldSuffix);
  Cut().cutting = false;
  if (!held) return false;
  static const bool forgetAtExit = std::atexit(ForgetHeldRemovals) == 0;
  (void)forgetAtExit;
  Cut().names.push_back({NameChange::kRemoved, path, ""});
  return true;
}

void NoteDirectorySynced() {
  const Held serial(SeamLock());
  if (CutsHere()) CutPower();
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
