// The label block (block 1): its layout and its conversion (label_check.h checks it before a run).
#pragma once

#include <cstdint>

#include "byteorder.h"

namespace bt {

namespace label {
inline constexpr std::size_t kEndianFlag = 1026;
inline constexpr std::size_t kOldVolumeCount = 1030;
inline constexpr std::size_t kFlagsWord = 1056;
inline constexpr std::size_t kMapCount = 1064;
inline constexpr std::size_t kBlockSizeCode = 1100;
inline constexpr std::size_t kLastBlock = 1112;
inline constexpr std::size_t kPrimaryVolumeLastBlock = 1116;
inline constexpr std::size_t kVolumeSetFieldA = 1128;
inline constexpr std::size_t kVolumeSetFieldB = 1132;
inline constexpr std::size_t kVolumeInfoBlock = 1144;
inline constexpr std::size_t kFurtherVolumeCount = 1148;
inline constexpr std::size_t kManagerDirLength = 1532;
inline constexpr std::size_t kManagerDir = 1534;
inline constexpr std::size_t kSecondTextLength = 1792;
inline constexpr std::size_t kSecondText = 1794;
inline constexpr std::size_t kKeyIdLength = 1920;
inline constexpr std::size_t kKeyId = 1922;
inline constexpr std::uint16_t kEncryptedFlag = 0x800;
inline constexpr std::uint32_t kMaxKeyIdLength = 64;
}  // namespace label

// Reverses every multi-byte field of the label block in place.
void ConvertLabelBlock(Bytes block);

}  // namespace bt
