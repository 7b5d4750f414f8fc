#include "journal_undo.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "block_cipher.h"
#include "block_undo.h"
#include "journal_commit.h"
#include "journal_files.h"
#include "journal_writer.h"
#include "messages.h"
#include "database.h"
#include "volume_io.h"

namespace bt {

namespace journaling {

namespace {

JournalState& state = TheJournalState();
Journal& j = state.journal;

// Makes room in the group's undo for blocks more.
void ReserveUndo(Group& g, std::size_t blocks) {
  const std::size_t room = g.undoSize + blocks * journal::MaxBlockUndoBytes(blockSize);
  if (g.undo.size() < room) g.undo.resize(std::max(room, g.undo.size() + kRecordPieceBytes));
}

// The key of the block at position of volume (BlockKey): one file named twice has one key.
std::uint64_t KeyOf(std::uint32_t volume, std::uint64_t position) {
  return BlockKey(j.fileKey[volume], position / blockSize);
}

// Lays the writes of group g over bytes just read from position of volume.
void LayOver(const Group& g, std::uint32_t volume, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) {
  if (g.latest.empty()) return;
  for (std::uint64_t block = position / blockSize; block * blockSize < position + size; ++block) {
    const auto it = g.latest.find(KeyOf(volume, block * blockSize));
    if (it == g.latest.end()) continue;
    const std::uint64_t from = std::max(position, block * blockSize), to = std::min(position + size, (block + 1) * blockSize);
    std::memcpy(buffer + (from - position), g.arena.data() + it->second + (from - block * blockSize), to - from);
  }
}

// Whether group g holds, from offset from on in its arena, a write over any of size bytes at
// position of volume.
bool HoldsFrom(const Group& g, std::size_t from, std::uint32_t volume, std::uint64_t position, std::uint32_t size) {
  for (std::uint64_t block = position / blockSize; block * blockSize < position + size; ++block)
    if (const auto it = g.latest.find(KeyOf(volume, block * blockSize)); it != g.latest.end() && it->second >= from)
      return true;
  return false;
}

// Notes the bytes of block number block, at position of its volume, for EncryptNoted, where the
// block is stored encrypted.
void NoteToEncrypt(std::uint8_t* bytes, std::uint32_t block, std::uint64_t position) {
  if (!StoredEncrypted(block, block - position / blockSize)) return;
  state.sealBlocks.push_back(bytes);
  state.sealNumbers.push_back(block);
}
// Encrypts the blocks noted, together. Writes come before their encryption only where the key is
// loaded: this cannot fail.
void EncryptNoted() {
  std::vector<std::uint8_t*>& blocks = state.sealBlocks;
  std::vector<std::uint32_t>& numbers = state.sealNumbers;
  EncryptDataBlocks(blocks.data(), numbers.data(), static_cast<std::uint32_t>(blocks.size()));
  blocks.clear();
  numbers.clear();
}

// Lays the writes of the groups on their way over bytes just read, the oldest first.
void LayOverFlights(std::uint32_t volume, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) {
  for (std::uint64_t n = j.oldestBusy; n < j.nextNumber; ++n)
    if (const Flight& f = FlightOf(n); f.busy) LayOver(f.group, volume, position, buffer, size);
}

// The bytes block b's write replaces, as the disk holds them once the group on its way is
// written: constant within a group, whose writes are all held.
const std::uint8_t* ReadReplacedBlock(std::uint32_t volume, std::uint64_t position, std::uint32_t b) {
  std::vector<std::uint8_t>& replaced = state.replaced;
  if (!OpenVolumeHandle(volume)) FailOpeningVolume(volume);
  if (!ReadThrough(j.files[volume].handle, position, replaced.data(), blockSize))
    Fail("\r\nError read block #%u. %s\r\n", b, ErrorText());
  LayOverFlights(volume, position, replaced.data(), blockSize);
  return replaced.data();
}

void KeepReadAside(std::uint32_t volume, std::uint64_t position, const std::uint8_t* buffer) {
  ReadAside& r = state.readAside[state.nextAside++ % std::size(state.readAside)];
  r.group = j.nextNumber;
  r.key = KeyOf(volume, position);
  r.bytes.assign(buffer, buffer + blockSize);
}

const std::uint8_t* ReadAsideFor(std::uint32_t volume, std::uint64_t position) {
  for (const ReadAside& r : state.readAside)
    if (r.group == j.nextNumber && r.key == KeyOf(volume, position)) return r.bytes.data();
  return nullptr;
}

// A group's undo is made by the writer or as it goes from the group's start to its end.
// The group being gathered; a group the recovery's put-back starts takes its undo as it goes (the
// bytes it writes, whole), without a copy of them for the writer.
Group& GatheringGroup(bool putBack = false) {
  Group& g = j.group;
  if (g.held.empty() && g.befores.empty()) g.byWriter = !putBack && RecordByWriter();
  return g;
}

// The run makes a group's undo where flushes cost (RecordByWriter): it then waits for the disk,
// whose bytes cost more than the processor's time, and its undo looks for spans across words,
// which makes it smaller. The writer's undo, where the processor is what the run waits for, does
// not.
constexpr journal::Effort kRunsEffort = journal::Effort::kSmallest;

// Whether the checksum of block k of a write of blocks as it was is wanted: for the sample, and for
// the volume's tail, which the last block of a write in the volume's order moves to if any does.
bool Summed(std::uint32_t volume, std::uint64_t position, std::uint32_t k, std::uint32_t blocks) {
  return k + 1 == blocks || Sampled(KeyOf(volume, position + std::uint64_t{k} * blockSize), j.sampleModulus);
}

// Appends the undo of the write of size bytes at position of volume, or where the writer is to
// make it the bytes the write replaces (beforeAt tells where they begin among the befores): those
// the batch read or a read of the block alone kept, unless a write held earlier in the group lies
// over them; then the undo names every word, for each sector may hold either write (true is
// returned). A put-back (file invalid) takes for its undo the bytes it writes, every word named:
// the record then writes them again over whatever the disk holds. beforeSums takes the checksum
// of the first sector as it was of each block that the sample or the volume's tail may take (Summed).
bool HoldUndo(platform::File file, std::uint32_t volume, std::uint64_t position, const std::uint8_t* bytes,
              std::uint32_t size, std::uint32_t block, std::size_t& beforeAt, std::uint64_t* beforeSums) {
  Group& g = j.group;
  const std::uint32_t blocks = size / blockSize;
  const bool putBack = file == platform::kInvalidFile;
  bool overlaid = putBack;
  for (std::uint32_t k = 0; k < blocks && !overlaid; ++k)
    overlaid = g.latest.contains(KeyOf(volume, position + std::uint64_t{k} * blockSize));
  const BatchOriginals& o = state.originals;
  const bool batched = !overlaid && o.group == j.nextNumber && file == o.file && position % blockSize == 0 &&
                       position >= o.position && position + size <= o.position + o.size;
  if (batched && o.inBefores) {  // the writer finds them where the batch left them
    beforeAt = o.offset + (position - o.position);
    for (std::uint32_t k = 0; k < blocks; ++k)
      beforeSums[k] = Summed(volume, position, k, blocks)
                          ? journal::ChecksumOf(g.befores.data() + beforeAt + std::size_t{k} * blockSize, journal::kCheckedBytes)
                          : 0;
    return false;
  }
  beforeAt = g.befores.size();
  if (!g.byWriter) ReserveUndo(g, blocks);
  // The group's undo grows only once the write's is whole; befores of a write that failed half
  // way lie past those of the writes held, which are all the writer reads.
  std::size_t end = g.undoSize;
  for (std::uint32_t k = 0; k < blocks; ++k) {
    const std::size_t at = std::size_t{k} * blockSize;
    const std::uint8_t* before = batched    ? o.bytes.data() + (position - o.position) + at
                                 : putBack  ? bytes + at
                                 : overlaid ? nullptr
                                            : ReadAsideFor(volume, position + at);
    if (before == nullptr) before = ReadReplacedBlock(volume, position + at, block + k);
    beforeSums[k] = Summed(volume, position, k, blocks) ? journal::ChecksumOf(before, journal::kCheckedBytes) : 0;
    if (g.byWriter)
      g.befores.insert(g.befores.end(), before, before + blockSize);
    else
      end += journal::EncodeBlockUndo(before, bytes + at, blockSize, block + k, overlaid, kRunsEffort, g.undo.data() + end);
  }
  g.undoSize = end;
  return overlaid;
}

}  // namespace

void SealGroup(Group& g) {
  if (g.unsealed.empty()) return;
  for (const Group::Unsealed& u : g.unsealed) NoteToEncrypt(g.arena.data() + u.offset, u.block, u.position);
  EncryptNoted();
  for (const Group::Unsealed& u : g.unsealed)
    if (const std::uint64_t key = KeyOf(u.volume, u.position); Sampled(key, j.sampleModulus))
      SampleWrite(key, u.volume, u.position, u.beforeSum, g.arena.data() + u.offset);
  g.unsealed.clear();
}

// How many blocks the group's writes hold.
std::size_t HeldBlocks(const Group& g) {
  std::size_t blocks = 0;
  for (const HeldWrite& w : g.held) blocks += w.size / blockSize;
  return blocks;
}

// The undo of each block a group of byWriter writes, from the bytes it replaces.
void MakeUndo(Group& g) {
  ReserveUndo(g, HeldBlocks(g));
  for (const HeldWrite& w : g.held)
    for (std::uint32_t at = 0; at < w.size; at += blockSize) {
      const std::uint8_t* before = g.befores.data() + w.before + at;
      std::uint8_t* undo = g.undo.data() + g.undoSize;
      g.undoSize += journal::EncodeBlockUndo(before, g.arena.data() + w.offset + at, blockSize, w.block + at / blockSize,
                                             w.whole, journal::Effort::kQuick, undo);
    }
}

}  // namespace journaling

using namespace journaling;

namespace {

// Blocks held before their encryption are encrypted this many at a time: as many chains as the
// widest AES path takes at once, while the processor's cache still holds them.
constexpr std::size_t kSealBlocks = 32;

// plain: a write in turn of an encrypted database, before its encryption. The writer's groups
// hold it so until they are sealed; the others encrypt it at once. Its bytes go to the arena
// first: a write that fails while its undo is made lies past those of the writes held.
void HoldWrite(platform::File file, std::uint32_t volume, std::uint64_t position, const std::uint8_t* given,
               std::uint32_t size, const char* failure, std::uint32_t block, std::uint64_t cap, bool plain) {
  Group& g = GatheringGroup(file == platform::kInvalidFile);
  if (!plain) SealGroup(g);
  const std::size_t offset = g.arena.size();
  g.arena.insert(g.arena.end(), given, given + size);
  const std::uint8_t* bytes = g.arena.data() + offset;
  if (plain && !g.byWriter) {
    for (std::uint32_t k = 0; k < size / blockSize; ++k)
      NoteToEncrypt(g.arena.data() + offset + std::size_t{k} * blockSize, block + k, position + std::uint64_t{k} * blockSize);
    EncryptNoted();
    plain = false;
  }
  std::size_t before = 0;
  std::vector<std::uint64_t>& beforeSums = state.beforeSums;
  beforeSums.resize(size / blockSize);
  const bool whole = HoldUndo(file, volume, position, bytes, size, block, before, beforeSums.data());
  if (g.held.empty()) {
    g.cap = cap;
    CapOutput();
  }
  g.held.push_back({volume, size, block, position, offset, cap, failure, whole, before});
  for (std::uint32_t k = 0; k < size / blockSize; ++k) {
    const std::uint64_t at = position + std::uint64_t{k} * blockSize, key = KeyOf(volume, at);
    g.latest[key] = offset + std::size_t{k} * blockSize;
    if (plain)
      g.unsealed.push_back({offset + std::size_t{k} * blockSize, block + k, volume, at, beforeSums[k]});
    else if (Sampled(key, j.sampleModulus))
      SampleWrite(key, volume, at, beforeSums[k], bytes + std::size_t{k} * blockSize);
    Journal::Tail& t = j.tails[volume];
    if (t.set && at < t.check.position) continue;
    if (!t.set || at > t.check.position) t.check = journal::Check{j.fileKey[volume], at, beforeSums[k], 0};
    t.set = t.pending = true;
    t.offset = offset + std::size_t{k} * blockSize;
  }
  if (g.unsealed.size() >= kSealBlocks) SealGroup(g);
}

}  // namespace

void HoldJournaledWrite(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size,
                        const char* failure, std::uint32_t block) {
  const bool inTurn = failure == nullptr;
  HoldWrite(file, VolumeOfFile(file), position, bytes, size, failure, block,
            inTurn ? FirstHeldAfter(block) : MessagesMade(), inTurn && JournalEncryptsInTurn());
}

bool JournalEncryptsInTurn() { return databaseEncrypted && databaseKeyLoaded; }

void HoldPutBack(std::uint32_t volume, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t block) {
  HoldWrite(platform::kInvalidFile, volume, position, bytes, blockSize, nullptr, block, MessagesMade(), false);
}

void KeepBatchOriginals(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size) {
  Group& g = GatheringGroup();
  BatchOriginals& o = state.originals;
  o.file = file;
  o.position = position;
  o.size = size;
  o.group = j.nextNumber;
  o.inBefores = g.byWriter;
  if (g.byWriter) {
    o.offset = g.befores.size();
    g.befores.insert(g.befores.end(), bytes, bytes + size);
  } else {
    o.bytes.assign(bytes, bytes + size);
  }
}

void SeeJournaledWrites(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) {
  if (blockSize == 0) return;
  const std::uint32_t volume = VolumeOfFile(file);
  LayOverFlights(volume, position, buffer, size);
  if (!j.group.unsealed.empty() && HoldsFrom(j.group, j.group.unsealed.front().offset, volume, position, size)) SealGroup(j.group);
  LayOver(j.group, volume, position, buffer, size);
  if (size == blockSize && position % blockSize == 0) KeepReadAside(volume, position, buffer);
}

bool ReadReachesMark(platform::File file, std::uint64_t position, std::uint32_t size) {
  return j.marking && j.fileKey[VolumeOfFile(file)] == j.fileKey[0] && position + size > j.header.mainFileSize;
}

}  // namespace bt
