#include "pointer_block.h"

namespace bt {

void CvPointerBlock(Bytes, std::uint32_t, std::size_t) {}

}  // namespace bt
