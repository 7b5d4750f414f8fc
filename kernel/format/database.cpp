#include "database.h"

#include "messages.h"

namespace bt {

int swapFlag = 0;
std::uint32_t blockSize = 0;
std::uint32_t blocksPerMap = 0;
std::uint32_t contiguousMaps = 0;
std::uint32_t maxSatBlks = 0;
std::uint32_t lastBlock = 0;
std::uint32_t primaryVolumeLastBlock = 0;
std::uint32_t volumeInfoBlockNumber = 0;
std::uint32_t furtherVolumeCount = 0;
std::uint32_t volumeSetFieldA = 0;
std::uint32_t volumeSetFieldB = 0;
bool databaseEncrypted = false;

crypto::AesKeySchedule encryptionKeySchedule{};
crypto::AesKeySchedule decryptionKeySchedule{};
bool databaseKeyLoaded = false;

std::uint8_t labelCopyAtStart[kLabelCopySize];
std::string databaseFileName;
std::string binDirectory;


std::string primaryDirectory;
std::vector<std::string> volumeDirectories;
std::uint32_t volumeFirstBlock[kMaxVolumes + 2];
std::uint16_t volumeDirIndex[kMaxVolumes + 2];

int DecompressBlock(std::uint8_t* block) {
  if (binDirectory.empty()) Fail("\n\rCould not determine bin directory to locate compression library\n\r");
  std::string report;  // shown as the run's other messages are
  const int done = compression::DecompressBlock(block, blockSize, swapFlag != 0, binDirectory, &report);
  if (!report.empty()) Print("%s", report.c_str());
  return done;
}

void SetGeometry(std::uint32_t code) {
  blockSize = kGeometry[code].size;
  blocksPerMap = kGeometry[code].perMap;
  contiguousMaps = kGeometry[code].contiguous;
  maxSatBlks = kGeometry[code].sat;
}

}  // namespace bt
