// The 28-byte header of ordinary blocks, the block type codes and the dispatch of a block's body
// to its type's converter.
#pragma once

#include <cstdint>

#include "byteorder.h"
#include "other_blocks.h"

namespace bt {

namespace header {
inline constexpr std::size_t kOffset = 0;
inline constexpr std::size_t kType = 4;
inline constexpr std::size_t kByte5 = 5;
inline constexpr std::size_t kOrdermark = 24;
inline constexpr std::size_t kSize = 28;
inline constexpr std::uint8_t kCompressed = 0x80;
}  // namespace header

enum BlockType : std::uint8_t {
  kTypePointer = 2,
  kTypePointer6 = 6,
  kTypeData = 8,
  kTypeGdir = 9,
  kTypeMirrorInfo = 17,
  kTypeVolumeInfo = 18,
  kTypeBigString = 24,
  kTypePointer66 = 66,
  kTypePointer70 = 70,
};

// Reverses the header fields after the offset: word6, long8, long12, long16 and word20.
void ReverseHeaderFields(Bytes block);

// Reverses the offset and checks it; true with dataEnd (bytes from the block start) when the
// data area lies inside the block. On false the block must not be written.
bool ConvertHeaderOffset(Bytes block, std::uint32_t b, std::size_t* dataEnd);

// Converts an ordinary block's header and then its body by type code. False when the block is to
// be passed over (bad offset).
bool ConvertOrdinaryBlock(OtherBlocks& blocks, Bytes block, std::uint32_t b, std::uint8_t code);

}  // namespace bt
