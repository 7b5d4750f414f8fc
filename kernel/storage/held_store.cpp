#include "held_store.h"

#include <algorithm>
#include <cstdint>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lock_file.h"
#include "messages.h"
#include "database.h"
#include "volume_io.h"

namespace bt {

namespace {

// The writes held for one database file: its blocks at their own places in one temporary file,
// and in another two bits a block: held, and written in its turn. Both stay sparse.
struct HeldFile {
  std::uint32_t key = 0;  // FileKeys: one file named as two volumes is held once
  platform::File blocks = platform::kInvalidFile, marks = platform::kInvalidFile;
};

// The marks in use are kept in memory, a chunk of 32768 blocks a slot, 2 MiB in all (a database of
// up to 8 Mi blocks keeps all of them); a chunk that loses its slot goes to its file's marks.
constexpr std::size_t kChunkBytes = 8192;
constexpr std::uint64_t kChunkBlocks = kChunkBytes * 4;
constexpr std::size_t kMarkSlots = 256;
constexpr unsigned kHeld = 1, kWrittenInTurn = 2;
struct MarkSlot {
  std::size_t file = SIZE_MAX;  // index of its HeldFile; SIZE_MAX: empty
  std::uint64_t chunk = 0;
  bool dirty = false;
  std::uint8_t bits[kChunkBytes];
};
MarkSlot markSlots[kMarkSlots];

// The blocks held last stay in memory, 16 MiB of them, so that a block held and read back soon
// (the loop reaching a big string block that a node rewrote) costs no system call; the oldest go
// to their temporary file when room is needed.
constexpr std::size_t kMemoryBytes = std::size_t{16} << 20;
struct MemoryBlock {
  std::size_t file = SIZE_MAX;  // SIZE_MAX: free
  std::uint64_t block = 0;
};
struct HeldInMemory {
  std::vector<std::uint8_t> bytes;  // slot k at k * blockSize
  std::vector<MemoryBlock> slots;
  std::size_t next = 0;                              // the slot to fill next (the oldest)
  std::unordered_map<std::uint64_t, std::size_t> slotOf;  // by file and block
} memory;

std::uint64_t MemoryKey(std::size_t f, std::uint64_t block) { return block << 8 | f; }  // at most 201 files

struct CheckState {
  std::vector<HeldFile> held;
  std::set<std::pair<std::uint32_t, std::uint64_t>> needed;    // blocks written in turn that are read again
  std::vector<std::uint32_t> keys;  // by volume
  bool holdAll = false;    // every write is held
  bool passing = false;    // a pass of the block loop is under way
  bool astray = false;     // this pass read a block written in its turn and not held
  std::uint64_t shownBeforeAstray = 0;
  std::uint64_t rewritten = 0;  // blocks written out of order, each counted once
} check;

[[noreturn]] void TemporaryFileFailed() { throw CannotTell{ErrorText()}; }

// A temporary file is made when something must first go there: a small database needs none.
platform::File Made(platform::File& file) {
  if (file == platform::kInvalidFile) file = platform::CreateTemporaryFile();
  if (file == platform::kInvalidFile) TemporaryFileFailed();
  return file;
}

// The slot holding chunk of the marks of held file f, loaded (or evicted to make room) as needed.
std::size_t markSlotCount = kMarkSlots;

MarkSlot& MarksOf(std::size_t f, std::uint64_t chunk) {
  MarkSlot& slot = markSlots[(chunk + 131 * f) % markSlotCount];
  if (slot.file == f && slot.chunk == chunk) return slot;
  if (slot.file != SIZE_MAX && slot.dirty &&
      platform::WriteAt(Made(check.held[slot.file].marks), slot.bits, kChunkBytes, slot.chunk * kChunkBytes) !=
          kChunkBytes)
    TemporaryFileFailed();
  const platform::File marks = check.held[f].marks;
  const std::int64_t got =
      marks == platform::kInvalidFile ? 0 : platform::ReadAt(marks, slot.bits, kChunkBytes, chunk * kChunkBytes);
  if (got < 0) TemporaryFileFailed();
  std::fill(slot.bits + got, slot.bits + kChunkBytes, std::uint8_t{0});  // past its end: no mark
  slot.file = f;
  slot.chunk = chunk;
  slot.dirty = false;
  return slot;
}

unsigned MarksOfBlock(std::size_t f, std::uint64_t block) {
  const MarkSlot& slot = MarksOf(f, block / kChunkBlocks);
  const std::uint64_t at = block % kChunkBlocks;
  return (slot.bits[at / 4] >> (2 * (at % 4))) & 3;
}

// Adds marks to a block's; returns the marks it had.
unsigned Mark(std::size_t f, std::uint64_t block, unsigned marks) {
  MarkSlot& slot = MarksOf(f, block / kChunkBlocks);
  const std::uint64_t at = block % kChunkBlocks;
  const unsigned had = (slot.bits[at / 4] >> (2 * (at % 4))) & 3;
  if ((had | marks) != had) {
    slot.bits[at / 4] = static_cast<std::uint8_t>(slot.bits[at / 4] | marks << (2 * (at % 4)));
    slot.dirty = true;
  }
  return had;
}

// The index of the held writes of a file, SIZE_MAX when there are none.
// The key of a database file the pass opened.
std::uint32_t KeyOfFile(platform::File file) {
  const std::uint32_t volume = VolumeOfFile(file);
  return volume < check.keys.size() ? check.keys[volume] : volume;
}

std::size_t FindHeld(std::uint32_t key) {
  for (std::size_t f = 0; f < check.held.size(); ++f)
    if (check.held[f].key == key) return f;
  return SIZE_MAX;
}

std::size_t HeldFor(std::uint32_t key) {
  if (const std::size_t f = FindHeld(key); f != SIZE_MAX) return f;
  HeldFile h;
  h.key = key;
  check.held.push_back(h);
  return check.held.size() - 1;
}

void ForgetHeldWrites() {
  for (HeldFile& h : check.held) {
    platform::Close(h.blocks);
    platform::Close(h.marks);
  }
  check.held.clear();
  for (MarkSlot& slot : markSlots) slot.file = SIZE_MAX;
  const std::size_t asked = platform::TestCheckSlots();
  markSlotCount = asked == 0 ? kMarkSlots : std::min(asked, kMarkSlots);
  memory.slotOf.clear();
  memory.slots.assign(asked == 0 ? kMemoryBytes / blockSize : std::min(asked, kMemoryBytes / blockSize), MemoryBlock{});
  memory.bytes.resize(kMemoryBytes);
  memory.next = 0;
  check.rewritten = 0;
}

void GoAstray(std::uint32_t key, std::uint64_t position) {
  check.needed.insert({key, position});
  if (check.astray) return;
  check.astray = true;
  check.shownBeforeAstray = OutputMade();
  MuteOutput();
}

}  // namespace

namespace {
void SeeWritesOfTheRun(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) {
  if (!check.passing || blockSize == 0) return;  // before the block loop nothing is written
  const std::size_t f = FindHeld(KeyOfFile(file));
  if (f == SIZE_MAX) return;  // nothing of this file was written
  for (std::uint32_t k = 0; k < size / blockSize; ++k) {
    const std::uint64_t at = position + std::uint64_t{k} * blockSize;
    const unsigned marks = MarksOfBlock(f, at / blockSize);
    if (marks & kHeld) {
      std::uint8_t* into = buffer + std::size_t{k} * blockSize;
      if (const auto it = memory.slotOf.find(MemoryKey(f, at / blockSize)); it != memory.slotOf.end())
        std::copy_n(memory.bytes.data() + it->second * blockSize, blockSize, into);
      else if (platform::ReadAt(check.held[f].blocks, into, blockSize, at) != blockSize)
        TemporaryFileFailed();
    } else if (marks & kWrittenInTurn) {
      GoAstray(check.held[f].key, at);  // the disk would hold what the run wrote there
    }
  }
}

void HoldWrite(platform::File file, std::uint64_t position, const std::uint8_t* buffer, std::uint32_t size) {
  const std::size_t f = HeldFor(KeyOfFile(file));
  for (std::uint32_t k = 0; k < size / blockSize; ++k) {
    const std::uint64_t block = position / blockSize + k;
    if (Mark(f, block, kHeld) == 0) ++check.rewritten;  // written out of order only
    std::size_t slot = 0;
    if (const auto it = memory.slotOf.find(MemoryKey(f, block)); it != memory.slotOf.end()) {
      slot = it->second;
    } else {
      slot = memory.next;
      memory.next = (memory.next + 1) % memory.slots.size();
      MemoryBlock& oldest = memory.slots[slot];
      if (oldest.file != SIZE_MAX) {
        if (platform::WriteAt(Made(check.held[oldest.file].blocks), memory.bytes.data() + slot * blockSize, blockSize,
                              oldest.block * blockSize) != blockSize)
          TemporaryFileFailed();
        memory.slotOf.erase(MemoryKey(oldest.file, oldest.block));
      }
      memory.slots[slot] = MemoryBlock{f, block};
      memory.slotOf.emplace(MemoryKey(f, block), slot);
    }
    std::copy_n(buffer + std::size_t{k} * blockSize, blockSize, memory.bytes.data() + slot * blockSize);
  }
}

bool NoteWriteInTurn(platform::File file, std::uint64_t position) {
  const std::uint32_t key = KeyOfFile(file);
  Mark(HeldFor(key), position / blockSize, kWrittenInTurn);
  return check.holdAll || (!check.needed.empty() && check.needed.count({key, position}) != 0);
}


class Held final : public Store {
 public:
  platform::File Open(const std::string& path) override { return platform::OpenReadOnly(path); }
  void Lock(const std::string& lockPath, const std::string& fileName) override {
    RefuseWhenLocked(lockPath, fileName);
    RefuseWhenInUse(fileName);
  }
  void Unlock(const std::string&) override {}
  bool Read(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) override {
    if (!ReadThrough(file, position, buffer, size)) return false;
    SeeWritesOfTheRun(file, position, buffer, size);
    return true;
  }
  bool Write(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size, const char*,
             std::uint32_t) override {
    HoldWrite(file, position, bytes, size);
    return true;
  }
  bool TakesInTurn(platform::File file, std::uint64_t position) override { return NoteWriteInTurn(file, position); }
  bool WriteInTurn(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size,
                   std::uint32_t) override {
    HoldWrite(file, position, bytes, size);
    return true;
  }
  bool ReadsThroughFreeBlocks() const override { return true; }
  bool CopiesRewrittenBlocks() const override { return true; }
  bool Flush(platform::File) override { return true; }  // nothing was written
} held;

}  // namespace

Store& HeldStore() { return held; }

void BeginHeldPass() {
  std::vector<platform::FileIdentity> identities;
  for (std::uint32_t v = 0; v <= furtherVolumeCount; ++v) identities.push_back(VolumeIdentity(v));
  check.keys = FileKeys(identities);
  check.astray = false;
  check.passing = true;
  ForgetHeldWrites();
}

void EndHeldPass(bool holdAllNext) {
  check.passing = false;
  check.holdAll = holdAllNext;
}

HeldPass HeldPassOutcome() { return HeldPass{check.astray, check.shownBeforeAstray, check.rewritten}; }

}  // namespace bt
