// CvVolInfo and the primary volume's directory list on an arbitrary volume info block. Input:
// block size code, swap flag, volume number, then the block.
#include "fuzz_target.h"
#include "volume_info.h"
#include "volume_set.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  fuzz::ResetRun(data[0], data[1]);
  std::vector<std::uint8_t> block = fuzz::BlockOf(data, size, 3);
  std::vector<std::uint8_t> copy = block;
  fuzz::Guarded([&] { bt::CvVolInfo(bt::Bytes(block), data[2] % 4); });
  std::uint32_t checkpoint = 0;
  fuzz::Guarded([&] { bt::ReadVolumeDirectoryList(bt::Bytes(copy), &checkpoint); });
  if (bt::volumeDirectories.size() > bt::kMaxVolumeDirs) __builtin_trap();
  for (const std::string& dir : bt::volumeDirectories)
    if (dir.empty() || dir.size() > bt::kMaxDirLength) __builtin_trap();
  return 0;
}
