// How a converter reaches a block other than the one it is given: the big string and vector
// blocks a data node names, the map block read ahead. The converters do no I/O of their own; the
// run gives them this, over its files (a read sees what the run wrote; a write is the block's
// rewrite out of its turn).
#pragma once

#include <cstdint>

namespace bt {

// kNoVolume: the volume holding the block cannot be opened; kFailed: the read or write failed.
// Either way the system's error is recorded for ErrorText.
enum class Reach { kDone, kNoVolume, kFailed };

class OtherBlocks {
 public:
  // Block b (whole, as the disk holds it for the run) into into.
  virtual Reach Read(std::uint32_t b, std::uint8_t* into) = 0;
  // bytes written as block b; failure is the run's message should the write fail later (a
  // journaled run's writes land after the call).
  virtual Reach Write(std::uint32_t b, const std::uint8_t* bytes, const char* failure) = 0;

 protected:
  ~OtherBlocks() = default;
};

}  // namespace bt
