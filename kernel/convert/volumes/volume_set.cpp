#include "volume_set.h"

#include "messages.h"
#include "state.h"

namespace bt {

void DiscoverVolumeSet() { Fail("\r\nThis database is a volume set, which this build cannot convert.\r\n"); }

int VolumeFileName(std::uint32_t volume, char* destination) {
  if (volume < 1 || volume > kMaxVolumes) return 0;
  const char digits[4] = {static_cast<char>('0' + volume / 1000), static_cast<char>('0' + volume % 1000 / 100),
                          static_cast<char>('0' + volume % 100 / 10), static_cast<char>('0' + volume % 10)};
  const char* prefix = "ORVA-";
  for (int i = 0; i < 5; ++i) destination[i] = prefix[i];
  for (int i = 0; i < 4; ++i) destination[5 + i] = digits[i];
  const char* suffix = ".VOL";
  for (int i = 0; i < 4; ++i) destination[9 + i] = suffix[i];
  return 1;
}

int Utf8ToLatin1(const std::uint8_t*, int, std::uint8_t*) { return -1; }

}  // namespace bt
