// Pointer blocks (types 2, 6, 66 and 70): the node walk and the stored block numbers.
#pragma once

#include <cstdint>

#include "byteorder.h"

namespace bt {

// Converts the nodes of the data area [28, dataEnd) of a pointer block in place.
void CvPointerBlock(Bytes block, std::uint32_t b, std::size_t dataEnd);

}  // namespace bt
