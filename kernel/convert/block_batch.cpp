#include "block_batch.h"

#include <algorithm>

#include "block_cipher.h"
#include "check_run.h"
#include "journal.h"
#include "map_block.h"
#include "messages.h"
#include "state.h"
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
  std::uint64_t writeBackFrom = 0;               // written blocks from here are not yet on their way to disk
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
    if (!IsCurrentMap(GoverningMap(c)) || (!throughFree && IsFreeBlock(c))) break;
  }
  return n;
}

// Every so many written bytes the disk is set to work on them, so that the flush at the end of
// the volume waits for little more than the last of them. Two batches: the benchmark's runs took
// a quarter less time than with 8 MiB, whose larger pieces keep the writer waiting on the disk.
constexpr std::uint64_t kWriteBackBytes = std::uint64_t{2} << 20;

void StartWriteBackUpTo(std::uint64_t end) {
  if ((end - batch.writeBackFrom) * blockSize < kWriteBackBytes) return;
  platform::StartWriteBack(batch.writeFile, Position(batch.writeBackFrom), (end - batch.writeBackFrom) * blockSize);
  batch.writeBackFrom = end;
}

// Ends the run at block b: what the blocks before it printed is shown, what later ones printed
// is not, as when the blocks are written one at a time.
[[noreturn]] void FailAtBlock(std::uint64_t b, bool encrypting) {
  RunFailureHook();
  ReleaseHeldOutput(b);
  DiscardHeldOutput();
  if (encrypting) Fail("Error encrypting block\n");
  if (b == 1) Fail("\r\nWrite of label block failed. %s\r\n", ErrorText());
  Fail("\r\nError writing block %u. %s\r\n", static_cast<std::uint32_t>(b), ErrorText());
}

// An encrypted database's blocks are encrypted again before they are written, all of a run
// together; its volume info blocks and the first block of each volume are not encrypted.
void EncryptRunOrFail(std::uint64_t from, std::uint64_t count) {
  if (!databaseEncrypted) return;
  std::uint8_t* blocks[kMaxSlots];
  std::uint32_t numbers[kMaxSlots];
  std::uint32_t n = 0;
  for (std::uint64_t b = from; b < from + count; ++b) {
    if (b == volumeInfoBlockNumber || b == batch.first) continue;
    blocks[n] = Slot(b);
    numbers[n++] = static_cast<std::uint32_t>(b);
  }
  if (n != 0 && !EncryptDataBlocks(blocks, numbers, n)) FailAtBlock(numbers[0], true);
}

// A check run notes the blocks written in their turn, and holds one only where a later read may
// need it.
void HoldRunInTurn(std::uint64_t from, std::uint64_t count) {
  for (std::uint64_t b = from; b < from + count; ++b) {
    if (!NoteWriteInTurn(batch.writeFile, Position(b))) continue;
    std::uint8_t* block = Slot(b);
    std::uint32_t number = static_cast<std::uint32_t>(b);
    if (databaseEncrypted && b != volumeInfoBlockNumber && b != batch.first && !EncryptDataBlocks(&block, &number, 1))
      FailAtBlock(b, true);
    HoldWrite(batch.writeFile, Position(b), block, blockSize);
  }
}

void WriteRunOrFail(std::uint64_t from, std::uint64_t count) {
  if (checkRun) return HoldRunInTurn(from, count);
  EncryptRunOrFail(from, count);
  const auto size = static_cast<std::uint32_t>(count * blockSize);
  if (WriteBlockAt(batch.writeFile, Position(from), Slot(from), size, nullptr, static_cast<std::uint32_t>(from))) {
    if (!JournalHoldsWrites()) StartWriteBackUpTo(from + count);
    return;
  }
  // Which block failed: the run again, one block at a time (rewriting a block is harmless).
  for (std::uint64_t b = from; b < from + count; ++b)
    if (!WriteBlockAt(batch.writeFile, Position(b), Slot(b), blockSize)) FailAtBlock(b, false);
}

// Reads the n blocks from b into the slots with one call; false when n is 1 or the read fails.
bool ReadRun(std::uint64_t b, std::uint64_t n) {
  if (n <= 1 || !ReadBlockAt(batch.readFile, Position(b), batchBuffer, static_cast<std::uint32_t>(n * blockSize)))
    return false;
  batch.windowEnd = b + n;
  return true;
}

}  // namespace

void FailWritingBlock(std::uint64_t b) { FailAtBlock(b, false); }

void BeginVolumeBatch(std::uint32_t first, std::uint32_t last, std::uint32_t from, platform::File readFile,
                      platform::File writeFile) {
  batch = VolumeBatch{};
  batch.first = first;
  batch.last = last;
  batch.readFile = readFile;
  batch.writeFile = writeFile;
  batch.identity = IdentityOfDatabaseFile(readFile);
  batch.slots = SlotCount();
  batch.windowFirst = batch.windowEnd = batch.pendingFirst = batch.next = batch.writeBackFrom = from;
  HoldOutput(true);
  SetOutputMark(from);
}

Bytes FetchBlock(std::uint32_t b) {
  if (b >= batch.windowFirst && b < batch.windowEnd) return Bytes(Slot(b), blockSize);
  WritePendingBlocks();  // their slots are about to be filled again
  if (JournalGroupWaits()) CommitJournalGroup(b, b);
  batch.windowFirst = batch.windowEnd = b;
  // A check run, which writes nothing, reads through free blocks, in longer reads; where such a
  // read fails, it reads as the conversion does.
  if (!(checkRun && ReadRun(b, ReadExtent(b, true))) && !ReadRun(b, ReadExtent(b, false))) {
    // One block alone: either the run could not be read (then the failing block is found this
    // way, and the message names it), or there is no run.
    if (!ReadBlockAt(batch.readFile, Position(b), batchBuffer, blockSize)) return Bytes();
    batch.windowEnd = b + std::uint64_t{1};
  }
  // The journal takes from the slots as read what the in-turn writes replace, instead of reading
  // it from the disk again.
  if (JournalHoldsWrites())
    KeepBatchOriginals(batch.writeFile, Position(b), batchBuffer, static_cast<std::uint32_t>((batch.windowEnd - b) * blockSize));
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
  WritePendingBlocks();
  CommitJournalGroup(batch.last + 1, UINT64_MAX);
  AwaitJournalWrites();
  HoldOutput(false);
  batch.readFile = platform::kInvalidFile;
}

void NoteOutOfOrderWrite(platform::File file, std::uint64_t position, const std::uint8_t* written) {
  if (batch.readFile == platform::kInvalidFile) return;
  if (file != batch.writeFile && file != batch.readFile && !(IdentityOfDatabaseFile(file) == batch.identity)) return;
  const std::uint64_t b = batch.first + position / blockSize;
  // The block whose turn it is keeps its slot: the block-at-a-time run writes it afterwards too.
  if (b <= batch.next || b >= batch.windowEnd) return;
  if (checkRun)
    std::copy_n(written, blockSize, Slot(b));  // what a read would now find
  else
    batch.windowEnd = b;
}

}  // namespace bt
