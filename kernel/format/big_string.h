// Big string blocks (type 24), reached only through the data nodes that reference them.
#pragma once

#include <cstdint>

#include "byteorder.h"
#include "other_blocks.h"

namespace bt {

namespace bigstring {
inline constexpr std::uint8_t kOrdermarkBig = 0xAA;     // written in big-endian order
inline constexpr std::uint8_t kOrdermarkLittle = 0xBB;  // written in little-endian order
}  // namespace bigstring

// Converts big string block b (16-bit characters when unicode is 1), reached through blocks, once; 1 on success or when
// it was converted already, 0 when it is not a big string block that can be converted.
int CvBigUni(OtherBlocks& blocks, std::uint32_t b, int unicode);

// Converts the big vector referenced by the value [start, pntend) of a node in block: reads
// every block, converts the vector as a whole, then writes them all. 1 on success, 0 otherwise.
int CvBigVec(OtherBlocks& blocks, Bytes block, std::size_t start, std::size_t pntend);

}  // namespace bt
