#include "data_block.h"

#include "big_string.h"
#include "block_header.h"
#include "messages.h"
#include "database.h"
#include "vector.h"

namespace bt {

namespace {

enum DataType : std::uint8_t {
  GNode1DataInteger = 0,
  GNode1DataSmallDouble = 1,
  GNode1DataUnicode = 2,
  GNode1DataNone = 3,
  GNode1DataCompactBigStr = 4,
  GNode1DataBigUnicode = 5,
  GNode1DataBigString = 6,
  GNode1DataCompactStr = 7,
  GNode1DataFloat = 8,
  GNode1DataVector = 13,
  GNode1DataVectorBig = 14,
};

constexpr std::uint32_t kType2Record = 0x80000000u;

// A big reference: one carried u32, then the block numbers of big string blocks.
void ConvertBigReference(OtherBlocks& blocks, Bytes block, std::uint32_t b, int node, std::size_t p, std::size_t pntend, int unicode) {
  if (p + 1 >= pntend) return;
  Rev32At(block, p + 1);
  for (std::size_t x = p + 5; x < pntend && Fits(block, x, 4); x += 4) {
    std::uint32_t bigBlock = Take32(block.data() + x);
    if (!CvBigUni(blocks, bigBlock, unicode))
      Print("\r\nCvBigUni() failed in block %u, datablock %u, node %d. Ignored to convert.", bigBlock, b, node);
  }
}

// Converts a typed value; false when its data type is invalid and the walk must stop.
bool ConvertValue(OtherBlocks& blocks, Bytes block, std::uint32_t b, int node, std::size_t p, std::size_t pntend) {
  switch (block[p]) {
    case GNode1DataInteger: RevEach(block, p + 1, pntend + 3, 4); break;  // the last group may pass pntend
    case GNode1DataSmallDouble: Rev64At(block, p + 2); break;
    case GNode1DataUnicode: RevEach(block, p + 1, pntend + 1, 2); break;
    case GNode1DataNone:
    case GNode1DataCompactStr: break;
    case GNode1DataCompactBigStr:
    case GNode1DataBigString: ConvertBigReference(blocks, block, b, node, p, pntend, 0); break;
    case GNode1DataBigUnicode: ConvertBigReference(blocks, block, b, node, p, pntend, 1); break;
    case GNode1DataFloat: Rev64At(block, p + 1); break;
    case GNode1DataVector: CvVector(block, p + 1); break;
    case GNode1DataVectorBig: CvBigVec(blocks, block, p + 1, pntend); break;
    default:
      Print("\r\nInvalid data type (%d) in block #%u.\r\n", block[p], b);
      return false;
  }
  return true;
}

}  // namespace

void CvDataBlock(OtherBlocks& blocks, Bytes block, std::uint32_t b, std::size_t dataEnd) {
  const unsigned long long bbuf = PointerValue(block.data());
  const bool gdir = block[header::kType] == kTypeGdir;
  const bool big = swapFlag != 0;
  int node = 0;
  for (std::size_t p4 = header::kSize; p4 < dataEnd && Fits(block, p4, 4);) {
    ++node;
    const std::uint32_t word = Load32(block.data() + p4, big);  // the node word, then reversed
    Rev4(block.data() + p4);
    if ((word & kType2Record) && gdir) {
      Print("\r\nIn block #%u (GDIR), at offset %zu, a GDATA node is a type 2 record.\r\n", b, p4);
      return;
    }
    const std::uint32_t length = word & 0x1FFC;
    if (length == 0) {
      Print("\r\nIn Data block #%u, node #%d at offset %zu is zero length.\r\n", b, node, p4);
      return;
    }
    const std::size_t keyLength = (word >> 22) & 0x1FF, pad = word & 0x3;
    const std::size_t pntend = p4 + length;
    if (gdir) {
      const std::size_t q = p4 + 4 + keyLength + 3 + pad;
      if (q > dataEnd) {
        Print("\r\nIn Data block #%u, 1 bad data format p=0x" BT_PTR ", bbuf=0x" BT_PTR ", dataend=0x" BT_PTR "\r\n", b,
              bbuf + q, bbuf, bbuf + dataEnd);
        return;
      }
      Rev32At(block, q);  // q equal to the data end passes, as it always has
      Rev32At(block, q + 4);
    } else if (word & kType2Record) {
      const std::size_t p = p4 + 4 + keyLength + pad;
      // A data type byte outside the block cannot be read: treated like one past the data end.
      if (p > dataEnd || p >= block.size()) {
        Print("\r\nIn Data block #%u, 2 bad data format p=0x" BT_PTR ", bbuf=0x" BT_PTR ", dataend=0x" BT_PTR "\r\n", b,
              bbuf + p, bbuf, bbuf + dataEnd);
        return;
      }
      if (pntend > dataEnd) {
        Print("\r\nIn Data block #%u, 3 bad data format pntend=0x" BT_PTR ", bbuf=0x" BT_PTR ", dataend=0x" BT_PTR "\r\n",
              b, bbuf + pntend, bbuf, bbuf + dataEnd);
        return;
      }
      if (!ConvertValue(blocks, block, b, node, p, pntend)) return;
    }
    p4 = pntend;
  }
}

}  // namespace bt
