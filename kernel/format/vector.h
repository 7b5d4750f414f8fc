// Vectors: a header with a chunk directory, list and full chunks of elements, and a tail. A
// vector carries its own order: byte 1 is the vector mark 0x8B when it is in this machine's order.
#pragma once

#include <cstddef>

#include "byteorder.h"

namespace bt {

namespace vec {
inline constexpr std::uint8_t kVectorMark = 0x8B;
inline constexpr std::size_t kTailOffset = 12;
inline constexpr std::size_t kTailPresent = 16;
inline constexpr std::size_t kDirectory = 64;
inline constexpr int kDirectoryEntries = 64;
inline constexpr std::size_t kHeaderEnd = 192;
inline constexpr std::size_t kFullChunkElements = 1024;
}  // namespace vec

// Converts the vector that starts at offset v of buffer (a block, or the data of a big vector's
// blocks gathered in one). Its chunks and its tail may lie before v (chunk number 0 names the bytes
// 64 before it) or anywhere after it: whatever lies inside buffer is converted, nothing outside is
// read or written.
void CvVector(Bytes buffer, std::size_t v);

// Converts the vector tail at offset t of buffer; asRead tells that the vector was in machine
// order. Its offset table is read back from the tail area's end, as far as the buffer goes.
void CvVectorTail(Bytes buffer, std::size_t t, bool asRead);

}  // namespace bt
