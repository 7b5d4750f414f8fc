#include "data_block.h"

namespace bt {

void CvDataBlock(Bytes, std::uint32_t, std::size_t) {}

}  // namespace bt
