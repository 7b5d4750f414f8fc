#include "fault_seam.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>
#include <vector>

namespace platform::faults {

namespace {

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
  const Fault fault = CountedFault("open", path);
  if (fault != Fault::kNone || !writing) return fault;
  return CountedFault("openrw", path);
}

void NoteOpened(File file, const std::string& path) { Paths()[file] = path; }
void NoteClosed(File file) { Paths().erase(file); }

Fault BeforeTransfer(bool writing, File file, std::uint64_t position, std::size_t size, std::uint64_t* stop) {
  const std::string path = PathOf(file);
  for (const Entry& e : Plan()) {
    if (!Matches(e, writing ? "write" : "read", path) || e.arg < position || e.arg >= position + size) continue;
    if (e.slow) {
      std::this_thread::sleep_for(std::chrono::seconds(3));
      continue;
    }
    *stop = e.arg;
    return e.fault;
  }
  return Fault::kNone;
}

Fault BeforeSync(File file) { return CountedFault("sync", PathOf(file)); }

void BeforeCreate(const std::string& path) {
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
  for (const Entry& e : Plan())
    if (e.slow && Matches(e, "create", path)) std::this_thread::sleep_for(std::chrono::seconds(3));
}

std::uint32_t BatchBlocks() { return Number("BYTETURN_BATCH_BLOCKS"); }
std::uint32_t CheckSlots() { return Number("BYTETURN_CHECK_SLOTS"); }

}  // namespace platform::faults
