#include "mirror_info.h"

#include <cstring>

#include "messages.h"
#include "database.h"

namespace bt {

namespace {
constexpr std::size_t kMibver = 32;
constexpr std::size_t kVersion1Start = 860, kVersion2Start = 864, kMovedBytes = 80;

struct MirrorField {
  std::uint16_t offset, width;
};
constexpr MirrorField kFields[] = {{32, 4},  {36, 4},  {40, 8},  {48, 8},  {820, 4}, {864, 8},
                                   {872, 4}, {876, 4}, {880, 8}, {888, 4}, {892, 4}, {896, 8}};

void PrintUpgrade(bool moved) {
  Print("%s", moved ? "The mirror info block has been converted from version 1 to version 2."
                    : "The 'mibver' of mirror info block has been updated from version 1 to version 2.");
  Print("\r\n");
}

// Little-endian version 1: the 80 bytes at 860 belong at 864 when the fields at their version 1
// places look like a version 1 block's.
bool LooksLikeVersion1Layout(const std::uint8_t* p) {
  const std::uint32_t n = LoadLE32(p + 888);
  const std::uint64_t x = LoadLE64(p + 892);
  const std::uint64_t v40 = LoadLE64(p + 40);
  const std::uint32_t v36 = LoadLE32(p + 36);
  return n != 0 && x != 0 && ((x == v40 && n >= v36) || x == v40 + 1);
}
}  // namespace

void CvMirInfo(Bytes block) {
  if (!Fits(block, 0, kVersion2Start + kMovedBytes)) return;
  std::uint8_t* p = block.data();
  if (swapFlag) {
    if (p[kMibver + 3] == 1) {  // no data is moved in this direction
      p[kMibver + 3] = 2;
      PrintUpgrade(false);
    }
  } else if (p[kMibver] == 1) {
    p[kMibver] = 2;
    const bool move = LooksLikeVersion1Layout(p);
    if (move) std::memmove(p + kVersion2Start, p + kVersion1Start, kMovedBytes);
    PrintUpgrade(move);
  }
  for (MirrorField f : kFields) {
    if (f.width == 4)
      Rev32At(block, f.offset);
    else
      Rev64At(block, f.offset);
  }
}

}  // namespace bt
