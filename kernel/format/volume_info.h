// Volume info block (type 18): volume identity, block range and the volume directory list.
#pragma once

#include <cstdint>

#include "block_header.h"
#include "byteorder.h"

namespace bt {

namespace volinfo {
inline constexpr std::size_t kVolumeNumber = 36;
inline constexpr std::size_t kCheckpoint = 40;
inline constexpr std::size_t kSetFieldA = 48;
inline constexpr std::size_t kSetFieldB = 52;
inline constexpr std::size_t kStartingBlock = 56;
inline constexpr std::size_t kNextStartingBlock = 64;
inline constexpr std::size_t kDirListLength = 1024;
inline constexpr std::size_t kDirList = 1028;
}  // namespace volinfo

// Whether the block's type is that of a volume info block (in either byte order: a single byte).
inline bool IsVolumeInfoType(const std::uint8_t* block) { return block[header::kType] == kTypeVolumeInfo; }

// Converts the volume info block of volume number volume (0 = primary, with its directory list).
void CvVolInfo(Bytes block, std::int32_t volume);

}  // namespace bt
