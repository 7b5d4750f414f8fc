#include "pass.h"

#include "block_batch.h"
#include "compression.h"
#include "database.h"
#include "read_ahead.h"

namespace bt {

Reach FilesOfThePass::Read(std::uint32_t b, std::uint8_t* into) {
  // An access out of order sees the disk as the block-at-a-time run would have left it.
  WritePendingBlocks();
  std::uint32_t first = 0, last = 0;
  const platform::File file = handles_.Of(b, &first, &last);
  if (file == platform::kInvalidFile) return Reach::kNoVolume;
  return ReadBlockAt(file, BlockPosition(b, first, blockSize), into, blockSize) ? Reach::kDone : Reach::kFailed;
}

Reach FilesOfThePass::Write(std::uint32_t b, const std::uint8_t* bytes, const char* failure) {
  WritePendingBlocks();
  std::uint32_t first = 0, last = 0;
  const platform::File file = handles_.Of(b, &first, &last);
  if (file == platform::kInvalidFile) return Reach::kNoVolume;
  const std::uint64_t position = BlockPosition(b, first, blockSize);
  if (!WriteBlockAt(file, position, bytes, blockSize, failure, b)) return Reach::kFailed;
  NoteOutOfOrderWrite(file, position, bytes);
  return Reach::kDone;
}

// A library that failed to load is reported by each pass, as by the run it stands for.
Pass::Pass() { compression::ForgetLoadFailures(); }

Pass::~Pass() {
  if (read != platform::kInvalidFile) StopReadAhead();  // a run that ended part way through a volume
  platform::Close(read);
  platform::Close(write);
}

}  // namespace bt
