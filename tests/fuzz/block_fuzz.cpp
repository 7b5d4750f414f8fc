// Every block converter on an arbitrary block image: ordinary blocks by type (header, data, GDIR,
// pointer and unknown bodies), mirror info, map and label blocks. Input: block size code, swap
// flag, a type selector, then the block. Property: a pointer block converted twice is restored.
#include <cstring>

#include "block_header.h"
#include "fuzz_target.h"
#include "label_block.h"
#include "map_block.h"
#include "mirror_info.h"
#include "pointer_block.h"

namespace {
constexpr std::uint8_t kTypes[] = {2, 6, 8, 9, 66, 70, 17, 3, 24, 0x88, 0x82};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  fuzz::ResetRun(data[0], data[1]);
  std::vector<std::uint8_t> block = fuzz::BlockOf(data, size, 3);
  const std::uint8_t selector = data[2];
  const bt::Bytes span(block);
  fuzz::Guarded([&] {
    if (selector < sizeof kTypes) {
      block[bt::header::kType] = kTypes[selector];
      if (kTypes[selector] == bt::kTypeMirrorInfo)
        bt::CvMirInfo(span);
      else
        bt::ConvertOrdinaryBlock(fuzz::NoOtherBlocks(), span, 77, kTypes[selector] & 0x7F);
    } else if (selector < 0x80) {
      bt::Maps maps;
      bt::ConvertMapBlock(maps, span, 2 + selector % 16);
    } else if (selector < 0xC0) {
      bt::ConvertLabelBlock(span);
    } else {
      // A pointer block's body converted there and back is what it was.
      const std::size_t dataEnd = bt::LoadLE16(data + 1) % (block.size() + 1);
      const std::vector<std::uint8_t> before = block;
      bt::CvPointerBlock(span, 77, dataEnd);
      bt::swapFlag ^= 1;
      bt::CvPointerBlock(span, 77, dataEnd);
      if (block != before) __builtin_trap();
    }
  });
  return 0;
}
