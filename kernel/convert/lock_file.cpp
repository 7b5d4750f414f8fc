#include "lock_file.h"

#include <cstdio>

#include "journal.h"
#include "messages.h"
#include "platform.h"
#include "state.h"

namespace bt {

namespace {
char FoldLetter(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
}  // namespace

std::string LockPathFor(const std::string& fileName) {
  static const char kMain[] = "ORVA.DAT";
  const std::size_t n = sizeof kMain - 1;
  if (fileName.size() < n) return "";
  for (std::size_t i = 0; i < n; ++i)
    if (FoldLetter(fileName[fileName.size() - n + i]) != FoldLetter(kMain[i])) return "";
  return fileName.substr(0, fileName.size() - n) + "orva.lck";
}

namespace {
void RefuseWhenLocked(const std::string& lockPath, const std::string& fileName) {
  if (std::FILE* existing = std::fopen(lockPath.c_str(), "r")) {
    std::fclose(existing);
    const std::string journal = ExistingJournal(fileName);
    FailTo(stderr, "%s is locked by Veltrano ORVA.\n%s", fileName.c_str(),
           journal.empty() ? "" : RecoverLine(journal, fileName).c_str());
  }
}
}  // namespace

// The lock is created exclusively, so that of two runs started together only one gets it; the
// other finds the lock when it looks again and is told so, as it would be a moment later.
void TakeLock(const std::string& lockPath, const std::string& fileName) {
  RefuseWhenLocked(lockPath, fileName);
  if (checkRun) return;  // a check writes nothing, a lock neither
  std::FILE* lock = platform::CreateNewTextFile(lockPath);
  if (lock == nullptr) {
    RefuseWhenLocked(lockPath, fileName);
    FailTo(stderr, "Error creating lockfile %s.\n", lockPath.c_str());
  }
  // Only a short count is a failure: the text may still sit in the stream's buffer.
  static const char kText[] = "\tsealturn";
  if (std::fwrite(kText, 1, sizeof kText - 1, lock) < sizeof kText - 1) {
    std::fclose(lock);
    FailTo(stderr, "Error writing to lockfile %s.\n", lockPath.c_str());
  }
  std::fclose(lock);
}

void ReleaseLock(const std::string& lockPath) {
  if (!lockPath.empty() && !checkRun) platform::RemoveFile(lockPath);
}

}  // namespace bt
