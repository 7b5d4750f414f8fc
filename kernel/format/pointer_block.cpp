#include "pointer_block.h"

#include "block_header.h"
#include "messages.h"
#include "database.h"

namespace bt {

void CvPointerBlock(Bytes block, std::uint32_t b, std::size_t dataEnd) {
  const unsigned long long bbuf = PointerValue(block.data());
  const bool big = swapFlag != 0;
  int node = 0;
  for (std::size_t p4 = header::kSize; p4 < dataEnd && Fits(block, p4, 4);) {
    ++node;
    const std::uint32_t word = Load32(block.data() + p4, big);  // the node word, then reversed
    Rev4(block.data() + p4);
    std::size_t length, keyLength;
    if (word & 0x80000000u) {  // Type 1
      length = word & 0x3FC;
      keyLength = (word >> 22) & 0x1FF;
      if (length == 0) {
        Print("\r\nIn Pointer block #%u, node #%d (Type 1) at offset %zu is zero length.\r\n", b, node, p4);
        return;
      }
    } else {  // Type 2
      length = word & 0x3C;
      keyLength = (word >> 12) & 0x3F;
      if (length == 0) {
        Print("\r\nIn Pointer block #%u, node #%d (Type 2) at offset %zu is zero length.\r\n", b, node, p4);
        return;
      }
    }
    const std::size_t pad = word & 0x3;
    const std::size_t p = p4 + 4 + keyLength + pad;
    if (p > dataEnd) {
      Print("\r\nIn Pointer block #%u, 1 bad data format p=0x" BT_PTR ", bbuf=0x" BT_PTR ", dataend=0x" BT_PTR "\r\n", b,
            bbuf + p, bbuf, bbuf + dataEnd);
      return;
    }
    // The value is the block number in the node's last bytes; 2, 3 or 4 of them are converted.
    const long long valueLength = static_cast<long long>(length) - static_cast<long long>(pad + keyLength + 4);
    if (valueLength == 2)
      Rev16At(block, p);
    else if (valueLength == 3 && Fits(block, p, 3))
      Rev3(block.data() + p);
    else if (valueLength == 4)
      Rev32At(block, p);
    p4 += length;
  }
}

}  // namespace bt
