#include "label_block.h"

#include <cstdio>

#include "messages.h"
#include "database.h"

namespace bt {

namespace {
// Offsets and widths of the label's numeric fields.
struct LabelField {
  std::uint16_t offset, width;
};
constexpr LabelField kLabelFields[] = {
    {0, 4},    {1024, 2}, {1026, 2}, {1030, 2}, {1036, 4}, {1040, 4}, {1044, 4}, {1048, 4}, {1052, 4},
    {1056, 2}, {1058, 2}, {1064, 4}, {1068, 4}, {1080, 2}, {1096, 4}, {1100, 4}, {1108, 4}, {1112, 4},
    {1116, 4}, {1120, 4}, {1124, 4}, {1128, 4}, {1132, 4}, {1136, 4}, {1140, 4}, {1144, 4}, {1148, 2},
};

// A text of 16-bit units is reversed unit by unit; units past the block are not touched.
void ConvertUnits(Bytes block, std::size_t textOffset, std::size_t units) {
  RevEach(block, textOffset, textOffset + 2 * units, 2);
}
}  // namespace

void ConvertLabelBlock(Bytes block) {
  using namespace label;
  for (LabelField f : kLabelFields) {
    if (f.width == 2)
      Rev16At(block, f.offset);
    else
      Rev32At(block, f.offset);
  }
  if (!Fits(block, kKeyId, 0)) return;
  // The three lengths are the values the database stored: a long manager directory whose units
  // run over the later length fields does not change which runs are swapped.
  std::uint8_t* p = block.data();
  const std::uint16_t managerLength = DbLoad16(p + kManagerDirLength);
  const std::uint16_t secondLength = DbLoad16(p + kSecondTextLength);
  const std::uint16_t keyIdLength = DbLoad16(p + kKeyIdLength);
  Rev2(p + kManagerDirLength);
  if (managerLength > 255) ConvertUnits(block, kManagerDir, managerLength & 0xFF);
  Rev2(p + kSecondTextLength);
  if (secondLength & 0x8000) ConvertUnits(block, kSecondText, secondLength & 0x7FFF);
  Rev2(p + kKeyIdLength);
  if (keyIdLength & 0x8000) ConvertUnits(block, kKeyId, keyIdLength & 0x7FFF);
}

}  // namespace bt
