// A pass of the block loop: byteturn's run, each pass of byteturn-check, the run a recovery
// resumes. Everything it builds up as it goes lives in this value, which the command makes for
// the pass: a new pass starts from a new one, and whatever ends a pass, the files it opened are
// closed with it.
#pragma once

#include <cstdint>

#include "map_block.h"
#include "other_blocks.h"
#include "platform.h"
#include "volume_io.h"

namespace bt {

// How far the block loop got: the block whose turn it is, and of the blocks before it those
// written back and those passed over (free, big string, bad).
struct RunProgress {
  std::uint32_t turn = 0;
  std::uint64_t written = 0, passedOver = 0;
};

// The blocks converters reach out of turn, through the pass's handle cache.
class FilesOfThePass final : public OtherBlocks {
 public:
  explicit FilesOfThePass(HandleCache& handles) : handles_(handles) {}
  Reach Read(std::uint32_t b, std::uint8_t* into) override;
  Reach Write(std::uint32_t b, const std::uint8_t* bytes, const char* failure) override;

 private:
  HandleCache& handles_;
};

struct Pass {
  Pass();
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;
  ~Pass();

  RunProgress progress;
  Maps maps;
  HandleCache handles;               // volumes reached out of turn
  FilesOfThePass blocks{handles};
  platform::File read = platform::kInvalidFile, write = platform::kInvalidFile;  // the volume in turn
};

}  // namespace bt
