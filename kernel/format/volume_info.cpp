#include "volume_info.h"

#include "messages.h"
#include "database.h"

namespace bt {

namespace {
struct VolumeInfoField {
  std::uint16_t offset, width;
};
constexpr VolumeInfoField kFixedFields[] = {{32, 4}, {36, 4}, {40, 4}, {44, 4}, {48, 4},
                                            {52, 4}, {56, 8}, {64, 8}, {72, 8}, {80, 4}};
}  // namespace

void CvVolInfo(Bytes block, std::int32_t volume) {
  for (VolumeInfoField f : kFixedFields) {
    if (f.width == 4)
      Rev32At(block, f.offset);
    else
      Rev64At(block, f.offset);
  }
  if (volume != 0 || !Fits(block, volinfo::kDirList, 0)) return;

  const std::uint32_t length = Take32(block.data() + volinfo::kDirListLength);
  if (volinfo::kDirList + std::uint64_t{length} > block.size())
    Fail("\r\nCvVolInfo: Volume directory list in primary volume has invalid length (%u bytes)\r\n", length);
  // Entries: a 16-bit header (0 ends the list), then 8-bit text padded to an even length, or,
  // with bit 15 set, that many 16-bit characters. An entry may reach past the list: it is
  // converted up to the block's end.
  const std::size_t end = volinfo::kDirList + length;
  for (std::size_t cursor = volinfo::kDirList; cursor < end && Fits(block, cursor, 2);) {
    const std::uint16_t h = Take16(block.data() + cursor);
    if (h == 0) break;
    if (h & 0x8000) {
      const std::size_t units = h & 0x7FFF;
      RevEach(block, cursor + 2, cursor + 2 + 2 * units, 2);
      cursor += 2 + 2 * units;
    } else {
      cursor += 2 + ((h + 1u) & ~1u);
    }
  }
}

}  // namespace bt
