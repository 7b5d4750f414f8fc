#include "block_header.h"

#include "data_block.h"
#include "messages.h"
#include "pointer_block.h"
#include "database.h"

namespace bt {

void ReverseHeaderFields(Bytes block) {
  Rev16At(block, 6);
  Rev32At(block, 8);
  Rev32At(block, 12);
  Rev32At(block, 16);
  Rev16At(block, 20);
}

bool ConvertHeaderOffset(Bytes block, std::uint32_t b, std::size_t* dataEnd) {
  std::uint32_t offset = Take32(block.data() + header::kOffset);
  if (std::uint64_t{header::kSize} + offset > block.size()) {
    Print("\r\nSkip a bad block, block #%u, bad offset %d\r\n", b, static_cast<int>(offset));
    return false;
  }
  *dataEnd = header::kSize + offset;
  return true;
}

bool ConvertOrdinaryBlock(OtherBlocks& blocks, Bytes block, std::uint32_t b, std::uint8_t code) {
  std::size_t dataEnd = 0;
  if (!ConvertHeaderOffset(block, b, &dataEnd)) return false;
  ReverseHeaderFields(block);
  switch (code) {
    case kTypeData:
    case kTypeGdir: CvDataBlock(blocks, block, b, dataEnd); break;
    case kTypePointer:
    case kTypePointer6:
    case kTypePointer66:
    case kTypePointer70: CvPointerBlock(block, b, dataEnd); break;
    default: break;
  }
  return true;
}

}  // namespace bt
