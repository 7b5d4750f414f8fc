#include "lock_file.h"

#include <cstdio>
#include <cstring>

#include "messages.h"
#include "platform.h"

namespace bt {

std::string LockPathFor(const std::string& fileName) {
  static const char kMain[] = "ORVA.DAT";
  const std::size_t n = sizeof kMain - 1;
  if (fileName.size() < n) return "";
  for (std::size_t i = 0; i < n; ++i)
    if ((fileName[fileName.size() - n + i] | 0x20) != (kMain[i] | 0x20)) return "";
  return fileName.substr(0, fileName.size() - n) + "orva.lck";
}

void TakeLock(const std::string& lockPath, const std::string& fileName) {
  if (std::FILE* existing = std::fopen(lockPath.c_str(), "r")) {
    std::fclose(existing);
    FailTo(stderr, "%s is locked by Veltrano ORVA.\n", fileName.c_str());
  }
  std::FILE* lock = std::fopen(lockPath.c_str(), "w");
  if (lock == nullptr) FailTo(stderr, "Error creating lockfile %s.\n", lockPath.c_str());
  static const char kText[] = "\tsealturn";
  if (std::fwrite(kText, 1, sizeof kText - 1, lock) < sizeof kText - 1 || std::fflush(lock) != 0) {
    std::fclose(lock);
    FailTo(stderr, "Error writing to lockfile %s.\n", lockPath.c_str());
  }
  std::fclose(lock);
}

void ReleaseLock(const std::string& lockPath) {
  if (!lockPath.empty()) platform::RemoveFile(lockPath);
}

}  // namespace bt
