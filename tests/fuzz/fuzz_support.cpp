#include <cstdio>
#include <cstring>

#include "fuzz_target.h"
#include "map_block.h"
#include "volume_io.h"

namespace fuzz {

void ResetRun(std::uint32_t code, int swap) {
  bt::SetGeometry(1 + code % 5);
  bt::swapFlag = swap & 1;
  bt::lastBlock = 0;  // every big string reference lies outside: no file is read
  bt::furtherVolumeCount = 0;
  bt::databaseEncrypted = false;
  bt::databaseKeyLoaded = false;
  bt::volumeDirectories.clear();
  bt::binDirectory = "/nonexistent/";  // libraries from the system's search path
}

namespace {
class None final : public bt::OtherBlocks {
 public:
  bt::Reach Read(std::uint32_t, std::uint8_t*) override { return bt::Reach::kNoVolume; }
  bt::Reach Write(std::uint32_t, const std::uint8_t*, const char*) override { return bt::Reach::kNoVolume; }
} none;
}  // namespace

bt::OtherBlocks& NoOtherBlocks() { return none; }

std::vector<std::uint8_t> BlockOf(const std::uint8_t* data, std::size_t size, std::size_t skip) {
  std::vector<std::uint8_t> block(bt::blockSize, 0);
  if (size > skip) std::memcpy(block.data(), data + skip, std::min<std::size_t>(size - skip, block.size()));
  return block;
}

}  // namespace fuzz
