// DecompressBlock on arbitrary envelopes, with the real zlib, zstd and LZ4. Input: block size
// code, swap flag, then the block. The libraries are there, so every envelope gives 1; what a
// stream that fails leaves behind its envelope is not looked at.
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  fuzz::ResetRun(data[0], data[1]);
  std::vector<std::uint8_t> block = fuzz::BlockOf(data, size, 2);
  block[4] |= 0x80;
  if (bt::DecompressBlock(block.data()) != 1) __builtin_trap();
  return 0;
}
