// Compressed blocks: the method table, run-time loading of the compression libraries and the
// decompression of a block in place.
#pragma once

#include <cstdint>
#include <string>

namespace compression {

// Decompresses the block in place when its envelope is valid and its stream yields exactly one
// block. 1 = done (decompressed, or left compressed), 0 = the method's library is unusable.
// Ends the process when binDirectory is empty.
int DecompressBlock(std::uint8_t* block, std::uint32_t blockSize, bool bigEndian, const std::string& binDirectory);

}  // namespace compression
