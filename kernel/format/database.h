// The database's description, process-wide: what the label block says (order, geometry, last
// block, encryption and key), the volume set, the file names. Set once as a run starts, in the
// order of its checks, then only read: every converter reads it. What a pass of the block loop
// builds up as it goes is in its own value (pass.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "aes_core.h"
#include "byteorder.h"
#include "compression.h"

namespace bt {

inline constexpr std::uint32_t kMaxBlockSize = 65536;
inline constexpr std::uint32_t kLabelCopySize = 4096;
inline constexpr std::uint32_t kMaxVolumes = 200;
inline constexpr std::uint32_t kMaxVolumeDirs = 20;
inline constexpr std::size_t kMaxDirLength = 227;

// 1 when the database on disk is big-endian: every field must be reversed to be read here.
extern int swapFlag;
extern std::uint32_t blockSize;
extern std::uint32_t blocksPerMap;     // BPM
extern std::uint32_t contiguousMaps;   // CM, a power of two
extern std::uint32_t maxSatBlks;       // SAT
extern std::uint32_t lastBlock;
extern std::uint32_t primaryVolumeLastBlock;
extern std::uint32_t volumeInfoBlockNumber;
extern std::uint32_t furtherVolumeCount;
extern std::uint32_t volumeSetFieldA;
extern std::uint32_t volumeSetFieldB;
extern bool databaseEncrypted;

// The database key's AES schedules, built once by the keyfile dialogue.
extern crypto::AesKeySchedule encryptionKeySchedule;
extern crypto::AesKeySchedule decryptionKeySchedule;
extern bool databaseKeyLoaded;


// The first bytes of the main file as the run found them (the label block).
extern std::uint8_t labelCopyAtStart[kLabelCopySize];

extern std::string databaseFileName;
extern std::string binDirectory;

// Volume set: the primary directory, the additional directories in effect, and for every
// further volume v its first block and its directory (0 = primary, k = additional k-1).
extern std::string primaryDirectory;
extern std::vector<std::string> volumeDirectories;
extern std::uint32_t volumeFirstBlock[kMaxVolumes + 2];
extern std::uint16_t volumeDirIndex[kMaxVolumes + 2];

// Reads a field of the database as stored, in the database's order.
inline std::uint16_t DbLoad16(const std::uint8_t* p) { return Load16(p, swapFlag != 0); }
inline std::uint32_t DbLoad32(const std::uint8_t* p) { return Load32(p, swapFlag != 0); }
inline std::uint64_t DbLoad64(const std::uint8_t* p) { return Load64(p, swapFlag != 0); }
// Reverses a field in place and returns its value in this machine's order.
inline std::uint16_t Take16(std::uint8_t* p) {
  std::uint16_t v = DbLoad16(p);
  Rev2(p);
  return v;
}
inline std::uint32_t Take32(std::uint8_t* p) {
  std::uint32_t v = DbLoad32(p);
  Rev4(p);
  return v;
}

struct BlockGeometry {
  std::uint32_t size, perMap, contiguous, sat;
};
// Block size and map geometry for block size codes 0 to 5.
inline constexpr BlockGeometry kGeometry[6] = {
    {2048, 0, 0, 0},          {4096, 30720, 16, 5},    {8192, 62464, 8, 2},
    {16384, 125952, 4, 1},    {32768, 252928, 2, 1},   {65536, 506880, 1, 1},
};

// Decompresses a block of the run's block size in place (1 = done, 0 = library unusable). Without
// a bin directory no library can be found: that ends the run, whatever the method.
int DecompressBlock(std::uint8_t* block);

// Installs a block size code (0..5) as the run's geometry.
void SetGeometry(std::uint32_t code);

}  // namespace bt
