#include "block_batch.h"

#include <algorithm>

#include "block_cipher.h"
#include "map_block.h"
#include "messages.h"
#include "database.h"
#include "read_ahead.h"
#include "store.h"
#include "volume_io.h"

namespace bt {

namespace {

// One mebibyte per call: the benchmark's copy no longer gains past it, and it bounds the memory.
constexpr std::size_t kBatchBytes = std::size_t{1} << 20;
constexpr std::size_t kMaxSlots = kBatchBytes / 4096;
alignas(64) std::uint8_t batchBuffer[kBatchBytes];

// Block numbers are kept in 64 bits: the block after the last one may be 2^32.
constexpr std::uint64_t kNothingWaits = UINT64_MAX;
struct VolumeBatch {
  std::uint32_t first = 0, last = 0;
  platform::File readFile = platform::kInvalidFile, writeFile = platform::kInvalidFile;
  platform::FileIdentity identity;               // of the volume's file
  std::uint64_t windowFirst = 0, windowEnd = 0;  // blocks whose disk bytes are in the slots
  std::uint64_t pendingFirst = 0;                // converted blocks from here up to next await writing
  std::uint64_t firstWaiting = kNothingWaits;    // the first of them that is to be written
  std::uint64_t next = 0;                        // the block whose turn it is
  std::uint64_t slots = 0;                       // blocks per batch
  const Maps* maps = nullptr;                    // of the pass: which blocks are free
  bool write[kMaxSlots] = {};                    // by slot: kept to be written
} batch;

std::uint64_t SlotCount() {
  const std::uint64_t own = kBatchBytes / blockSize, asked = platform::TestBatchBlocks();
  return asked == 0 ? own : std::min(own, asked);
}

std::uint8_t* Slot(std::uint64_t b) { return batchBuffer + (b - batch.windowFirst) * blockSize; }
std::uint64_t Position(std::uint64_t b) { return (b - batch.first) * blockSize; }

// How many blocks from b one read may take: up to the batch size and the volume's end, stopping
// before a block whose free bit is not known yet (another map governs it), and unless throughFree
// before a free block.
std::uint64_t ReadExtent(std::uint64_t b, bool throughFree) {
  std::uint64_t n = 1;
  for (; n < batch.slots && b + n <= batch.last; ++n) {
    const std::uint32_t c = static_cast<std::uint32_t>(b + n);
    if (c == volumeInfoBlockNumber || InMapArea(c)) continue;  // read whatever the map says
    if (!IsCurrentMap(*batch.maps, GoverningMap(c)) || (!throughFree && IsFreeBlock(*batch.maps, c))) break;
  }
  return n;
}

// Ends the run at block b: what the blocks before it printed is shown, what later ones printed
// is not, as when the blocks are written one at a time.
[[noreturn]] void FailAtBlock(std::uint64_t b, bool encrypting) {
  if (!encrypting) FailWritingBlock(b);
  KeepOutputOfBlocksBefore(b);
  Fail("Error encrypting block\n");
}

// An encrypted database's blocks are encrypted again before they are written, all of a run
// together, unless the store encrypts them itself.
void EncryptRunOrFail(std::uint64_t from, std::uint64_t count) {
  if (!databaseEncrypted || TheStore().EncryptsInTurn()) return;
  std::uint8_t* blocks[kMaxSlots];
  std::uint32_t numbers[kMaxSlots];
  std::uint32_t n = 0;
  for (std::uint64_t b = from; b < from + count; ++b) {
    if (!StoredEncrypted(b, batch.first)) continue;
    blocks[n] = Slot(b);
    numbers[n++] = static_cast<std::uint32_t>(b);
  }
  if (n != 0 && !EncryptDataBlocks(blocks, numbers, n)) FailAtBlock(numbers[0], true);
}

// Writes a run of blocks in their turn, encrypted first, with one call.
void WriteTakenOrFail(std::uint64_t from, std::uint64_t count) {
  Store& store = TheStore();
  EncryptRunOrFail(from, count);
  if (store.WriteInTurn(batch.writeFile, Position(from), Slot(from), static_cast<std::uint32_t>(count * blockSize),
                        static_cast<std::uint32_t>(from)))
    return;
  // Which block failed: the run again, one block at a time (rewriting a block is harmless).
  for (std::uint64_t b = from; b < from + count; ++b)
    if (!store.WriteInTurn(batch.writeFile, Position(b), Slot(b), blockSize, static_cast<std::uint32_t>(b)))
      FailAtBlock(b, false);
}

// Writes the blocks of a run that the store takes (all of them, but for the held store), in runs
// of consecutive blocks.
void WriteRunOrFail(std::uint64_t from, std::uint64_t count) {
  std::uint64_t taken = from;
  for (std::uint64_t b = from; b < from + count; ++b) {
    if (TheStore().TakesInTurn(batch.writeFile, Position(b))) continue;
    if (taken < b) WriteTakenOrFail(taken, b - taken);
    taken = b + 1;
  }
  if (taken < from + count) WriteTakenOrFail(taken, from + count - taken);
}

// Reads the n blocks from b into the slots with one call; false when n is 1 or the read fails.
bool ReadRun(std::uint64_t b, std::uint64_t n) {
  if (n <= 1 || !ReadBlockAt(batch.readFile, Position(b), batchBuffer, static_cast<std::uint32_t>(n * blockSize)))
    return false;
  batch.windowEnd = b + n;
  return true;
}

}  // namespace

void BeginVolumeBatch(const Maps& maps, std::uint32_t first, std::uint32_t last, std::uint32_t from,
                      platform::File readFile, platform::File writeFile) {
  batch = VolumeBatch{};
  batch.maps = &maps;
  batch.first = first;
  batch.last = last;
  batch.readFile = readFile;
  batch.writeFile = writeFile;
  batch.identity = IdentityOfDatabaseFile(readFile);
  batch.slots = SlotCount();
  batch.windowFirst = batch.windowEnd = batch.pendingFirst = batch.next = from;
  TheStore().BeginInTurn(writeFile, Position(from));
  StartReadAhead(readFile, Position(std::uint64_t{last} + 1), Position(from));
  HoldOutput(true);
  SetOutputMark(from);
}

Bytes FetchBlock(std::uint32_t b) {
  if (b >= batch.windowFirst && b < batch.windowEnd) return Bytes(Slot(b), blockSize);
  WritePendingBlocks();  // their slots are about to be filled again
  TheStore().BeforeRead(b);
  ReadAheadOf(Position(b));
  batch.windowFirst = batch.windowEnd = b;
  // A store that writes nothing lets the batch read through free blocks, in longer reads; where
  // such a read fails, it reads as the conversion does.
  if (!(TheStore().ReadsThroughFreeBlocks() && ReadRun(b, ReadExtent(b, true))) && !ReadRun(b, ReadExtent(b, false))) {
    // One block alone: either the run could not be read (then the failing block is found this
    // way, and the message names it), or there is no run.
    if (!ReadBlockAt(batch.readFile, Position(b), batchBuffer, blockSize)) return Bytes();
    batch.windowEnd = b + std::uint64_t{1};
  }
  // The journal takes from the slots as read what the in-turn writes replace, instead of reading
  // it from the disk again.
  TheStore().KeepOriginals(batch.writeFile, Position(b), batchBuffer,
                           static_cast<std::uint32_t>((batch.windowEnd - b) * blockSize));
  return Bytes(Slot(b), blockSize);
}

void KeepBlock(std::uint32_t b, bool write) {
  if (b >= batch.windowFirst && b < batch.windowEnd) {
    batch.write[b - batch.windowFirst] = write;
    if (write && batch.firstWaiting == kNothingWaits) batch.firstWaiting = b;
  }
  batch.next = std::uint64_t{b} + 1;
  SetOutputMark(batch.next);
  // A line waits only for converted blocks before it that are not written yet: in a stretch of
  // blocks passed over, the progress shows as the stretch is read.
  ReleaseHeldOutput(std::min(batch.firstWaiting, batch.next));
}

void WritePendingBlocks() {
  const std::uint64_t end = std::min(batch.next, batch.windowEnd);
  for (std::uint64_t b = std::max(batch.pendingFirst, batch.windowFirst); b < end;) {
    if (!batch.write[b - batch.windowFirst]) {
      ++b;
      continue;
    }
    ReleaseHeldOutput(b);  // every block before b is written or passed over
    std::uint64_t runEnd = b;
    while (runEnd < end && batch.write[runEnd - batch.windowFirst]) ++runEnd;
    WriteRunOrFail(b, runEnd - b);
    b = runEnd;
  }
  batch.pendingFirst = batch.next;
  batch.firstWaiting = kNothingWaits;
  ReleaseHeldOutput(batch.next);  // the blocks before it are written
}

void EndVolumeBatch() {
  StopReadAhead();
  WritePendingBlocks();
  TheStore().EndVolume(batch.last + 1);
  HoldOutput(false);
  batch.readFile = platform::kInvalidFile;
}

void NoteOutOfOrderWrite(platform::File file, std::uint64_t position, const std::uint8_t* written) {
  if (batch.readFile == platform::kInvalidFile) return;
  if (file != batch.writeFile && file != batch.readFile && !(IdentityOfDatabaseFile(file) == batch.identity)) return;
  const std::uint64_t b = batch.first + position / blockSize;
  // The block whose turn it is keeps its slot: the block-at-a-time run writes it afterwards too.
  if (b <= batch.next || b >= batch.windowEnd) return;
  if (TheStore().CopiesRewrittenBlocks())
    std::copy_n(written, blockSize, Slot(b));  // what a read would now find
  else
    batch.windowEnd = b;
}

}  // namespace bt
