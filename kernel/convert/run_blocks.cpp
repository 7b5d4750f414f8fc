#include "run_blocks.h"

#include "block_batch.h"
#include "state.h"
#include "volume_io.h"

namespace bt {

namespace {

class FilesOfTheRun final : public OtherBlocks {
 public:
  Reach Read(std::uint32_t b, std::uint8_t* into) override {
    // An access out of order sees the disk as the block-at-a-time run would have left it.
    WritePendingBlocks();
    std::uint32_t first = 0, last = 0;
    const platform::File file = VolumeOfBlock(b, &first, &last);
    if (file == platform::kInvalidFile) return Reach::kNoVolume;
    return ReadBlockAt(file, BlockPosition(b, first, blockSize), into, blockSize) ? Reach::kDone : Reach::kFailed;
  }
  Reach Write(std::uint32_t b, const std::uint8_t* bytes, const char* failure) override {
    WritePendingBlocks();
    std::uint32_t first = 0, last = 0;
    const platform::File file = VolumeOfBlock(b, &first, &last);
    if (file == platform::kInvalidFile) return Reach::kNoVolume;
    const std::uint64_t position = BlockPosition(b, first, blockSize);
    if (!WriteBlockAt(file, position, bytes, blockSize, failure, b)) return Reach::kFailed;
    NoteOutOfOrderWrite(file, position, bytes);
    return Reach::kDone;
  }
} filesOfTheRun;

}  // namespace

OtherBlocks& RunBlocks() { return filesOfTheRun; }

}  // namespace bt
