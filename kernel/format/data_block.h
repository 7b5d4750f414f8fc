// Data blocks (type 8) and global directory blocks (type 9): the node walk and typed values.
#pragma once

#include <cstdint>

#include "byteorder.h"
#include "other_blocks.h"

namespace bt {

// Converts the nodes of the data area [28, dataEnd) of a data or GDIR block in place.
void CvDataBlock(OtherBlocks& blocks, Bytes block, std::uint32_t b, std::size_t dataEnd);

}  // namespace bt
