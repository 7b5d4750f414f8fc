#include "map_block.h"

#include <cstdlib>
#include <cstring>

#include "block_cipher.h"
#include "compression.h"
#include "messages.h"
#include "database.h"

namespace bt {

struct Maps::Listed {
  Listed* next;
  std::uint32_t blockNumber;
  std::uint8_t* copy;  // block size bytes, in the same allocation
};

Maps::~Maps() {
  while (listHead != nullptr) {
    Listed* next = listHead->next;
    std::free(listHead);
    listHead = next;
  }
}

namespace {
void AppendToMapList(Maps& maps, std::uint32_t b, const std::uint8_t* block) {
  void* memory = std::malloc(sizeof(Maps::Listed) + blockSize);
  if (memory == nullptr) Fail("\r\nCould not allocate maplist, out of memory");
  auto* entry = static_cast<Maps::Listed*>(memory);
  entry->next = nullptr;
  entry->blockNumber = b;
  entry->copy = static_cast<std::uint8_t*>(memory) + sizeof(Maps::Listed);
  std::memcpy(entry->copy, block, blockSize);
  if (maps.listTail != nullptr)
    maps.listTail->next = entry;
  else
    maps.listHead = entry;
  maps.listTail = entry;
}
}  // namespace

std::size_t map::BitmapStart() { return 128 + 128 * (blockSize / 4096); }

bool InMapArea(std::uint32_t b) {
  if (b == 2) return true;
  if (b == 3 || b == 4) return false;
  if (b >= 5 && b <= 15) return true;
  const std::uint32_t bpm = blocksPerMap, cm = contiguousMaps;
  if (b < bpm + 2) return false;
  if (b < bpm + 2 * (3 * (maxSatBlks + cm) - 5)) return true;
  const std::uint64_t group = std::uint64_t{cm} * bpm;
  const std::uint64_t k = (b - 2) / group;
  if (k == 0) return false;
  return b - (k * group + 2) < 6ull * cm;
}

bool IsTrueMapBlock(std::uint32_t b) {
  const std::uint32_t bpm = blocksPerMap, cm = contiguousMaps;
  if (b == 2) return true;
  if (b >= bpm + 2 && b <= bpm + cm) return true;
  const std::uint64_t group = std::uint64_t{cm} * bpm;
  if (b < 2) return false;
  const std::uint64_t k = (b - 2) / group;
  return k >= 1 && b - (k * group + 2) < cm;
}

std::uint32_t GoverningMap(std::uint32_t b) {
  const std::uint32_t bpm = blocksPerMap, cm = contiguousMaps;
  const std::uint32_t q = (b - 1) / bpm;
  if (q == 0) return 2;
  if (q < cm) return bpm + 1 + q;
  const std::uint32_t r = q & (cm - 1);
  return (q - r) * bpm + 2 + r;
}

void ReverseMapFields(Bytes block) {
  for (std::size_t off : {0, 28, 44, 48, 52, 56}) Rev32At(block, off);
  RevEach32(block, map::kWordsStart, block.size());
}

void ConvertMapBlock(Maps& maps, Bytes block, std::uint32_t b) {
  const bool listed = IsTrueMapBlock(b) && b != maps.currentNumber;
  if (listed && swapFlag == 0) AppendToMapList(maps, b, block.data());
  ReverseMapFields(block);
  if (listed && swapFlag == 1) AppendToMapList(maps, b, block.data());
}


namespace {
// Reads map block m as it is on disk, decrypted, decompressed, reversed when swap is 1.
void ReadMapInto(OtherBlocks& blocks, std::uint8_t* destination, std::uint32_t m, int swap) {
  if (m > lastBlock) Fail("\r\nReadCurMap block points to block (%u) that is not in the fileset.", m);
  const Reach read = blocks.Read(m, destination);
  if (read == Reach::kNoVolume)
    Fail("\r\nReadCurMap: failed to open database volume containing block #%u. %s", m, ErrorText());
  if (read != Reach::kDone) Fail("\r\nReadCurMap failed to read block #%u. %s", m, ErrorText());
  if (databaseEncrypted && !DecryptDataBlock(destination, destination, m))
    Fail("Error decrypting big ReadCurMap block\n");
  if ((destination[4] & 0x80) && DecompressBlock(destination) == 0)
    Fail("\r\nError uncompressing ReadCurMap block #%u\r\n", m);
  if (destination[map::kMapMark] != map::kMapMarkValue)
    Fail("\r\nReadCurMap read a bad map block, block #%u. type = %c.", m, destination[map::kMapMark]);
  if (swap == 1) ReverseMapFields(Bytes(destination, blockSize));
}
}  // namespace

void FetchGoverningMap(Maps& maps, OtherBlocks& blocks, std::uint32_t b, std::uint32_t m) {
  if (m == maps.currentNumber) return;
  if (b <= m) {
    ReadCurMap(maps, blocks, m, swapFlag);
  } else {
    if (maps.listHead == nullptr || maps.listHead->blockNumber != m)
      Fail("\r\nCould not find map block %u in map list. map=0x" BT_PTR, m, PointerValue(maps.listHead));
    Maps::Listed* entry = maps.listHead;
    maps.listHead = entry->next;
    if (maps.listHead == nullptr) maps.listTail = nullptr;
    std::memcpy(maps.current, entry->copy, blockSize);
    std::free(entry);
  }
  maps.currentNumber = m;
}

void ReadCurMap(Maps& maps, OtherBlocks& blocks, std::uint32_t m, int swap) {
  ReadMapInto(blocks, maps.current, m, swap);
}

MapState SaveMapState(const Maps& maps) {
  MapState state{maps.currentNumber, {}};
  for (const Maps::Listed* e = maps.listHead; e != nullptr; e = e->next) state.listed.push_back(e->blockNumber);
  return state;
}

void RestoreMapState(Maps& maps, OtherBlocks& blocks, const MapState& state, std::uint32_t resumeBlock) {
  const auto order = [&](std::uint32_t m) { return m < resumeBlock ? 1 - swapFlag : swapFlag; };
  alignas(16) static std::uint8_t map[kMaxBlockSize];
  for (std::uint32_t m : state.listed) {
    ReadMapInto(blocks, map, m, order(m));
    AppendToMapList(maps, m, map);
  }
  if (state.current != 0) ReadCurMap(maps, blocks, state.current, order(state.current));
  maps.currentNumber = state.current;
}

bool IsCurrentMap(const Maps& maps, std::uint32_t m) { return m == maps.currentNumber; }

bool IsFreeBlock(const Maps& maps, std::uint32_t b) {
  if (LoadLE32(maps.current + map::kBitmapFlag) == 0) return false;
  const std::uint32_t i = (b - 1) % blocksPerMap;
  const std::uint32_t word = LoadLE32(maps.current + map::BitmapStart() + 4 * (i / 32));
  return (word >> (i % 32)) & 1;
}

}  // namespace bt
