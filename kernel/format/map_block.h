// Map blocks: where they lie, their layout and conversion, the current map and the list of maps
// already converted.
#pragma once

#include <cstdint>
#include <vector>

#include "byteorder.h"
#include "other_blocks.h"
#include "database.h"

namespace bt {

namespace map {
inline constexpr std::size_t kBitmapFlag = 28;
inline constexpr std::size_t kMapMark = 40;
inline constexpr std::uint8_t kMapMarkValue = 'm';
inline constexpr std::size_t kWordsStart = 132;
// Start of the bitmap for the run's block size.
std::size_t BitmapStart();
}  // namespace map

bool InMapArea(std::uint32_t b);
bool IsTrueMapBlock(std::uint32_t b);
// Block number of the map that governs block b.
std::uint32_t GoverningMap(std::uint32_t b);

// Reverses a map block's fields in place (also used for the other blocks of a map area).
void ReverseMapFields(Bytes block);
// The maps a pass knows: the current map (in this machine's order; its free bits tell which
// blocks to pass over) and the true maps converted in their turn before the blocks they govern,
// listed with a copy as read until those blocks come. A new pass starts from a new value.
struct Maps {
  struct Listed;
  Maps() = default;
  Maps(const Maps&) = delete;
  Maps& operator=(const Maps&) = delete;
  ~Maps();
  Listed* listHead = nullptr;
  Listed* listTail = nullptr;
  std::uint32_t currentNumber = 0;
  alignas(16) std::uint8_t current[kMaxBlockSize] = {};
};

// Converts map area block b in place and lists a copy of a true map.
void ConvertMapBlock(Maps& maps, Bytes block, std::uint32_t b);
// Reads map block m, reached through blocks, into the current map, in this machine's order.
void ReadCurMap(Maps& maps, OtherBlocks& blocks, std::uint32_t m, int swap);
// Makes map m the current map: read ahead, or taken from the head of the map list.
void FetchGoverningMap(Maps& maps, OtherBlocks& blocks, std::uint32_t b, std::uint32_t m);
// True when map m is the current map (its free bits are known).
bool IsCurrentMap(const Maps& maps, std::uint32_t m);
// True when the current map marks block b as free.
bool IsFreeBlock(const Maps& maps, std::uint32_t b);

// The maps a run knows at a point between two blocks: the current map and the maps listed. A run
// resumed at a block takes them again from the disk as it then is: a map before that block is
// converted there, a later one is not.
struct MapState {
  std::uint32_t current = 0;
  std::vector<std::uint32_t> listed;
};
MapState SaveMapState(const Maps& maps);
// Into maps as a pass starts them.
void RestoreMapState(Maps& maps, OtherBlocks& blocks, const MapState& state, std::uint32_t resumeBlock);

}  // namespace bt
