#include "lock_file.h"

#include <cstdio>

#include "messages.h"
#include "platform.h"

namespace bt {

namespace {
char FoldLetter(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
constexpr char kLockText[] = "\tsealturn";
// The lock taken, held open with a lock of the system's on it while the run lasts: byteturn-recover
// tells a lock left by a run that ended from the lock of a run still going.
platform::File heldLock = platform::kInvalidFile;
std::string takenLock;  // the lock this process created, while it stands
std::string (*lockedAdvice)(const std::string&) = nullptr;
}  // namespace

std::string LockPathFor(const std::string& fileName) {
  static const char kMain[] = "ORVA.DAT";
  const std::size_t n = sizeof kMain - 1;
  if (fileName.size() < n) return "";
  for (std::size_t i = 0; i < n; ++i)
    if (FoldLetter(fileName[fileName.size() - n + i]) != FoldLetter(kMain[i])) return "";
  return LockBeside(fileName);
}

std::string LockBeside(const std::string& fileName) {
  const std::size_t slash = fileName.find_last_of(std::string{'/', platform::kSeparator});
  return fileName.substr(0, slash == std::string::npos ? 0 : slash + 1) + "orva.lck";
}

void SetLockedAdvice(std::string (*advice)(const std::string& fileName)) { lockedAdvice = advice; }

void RefuseWhenLocked(const std::string& lockPath, const std::string& fileName) {
  if (lockPath.empty()) return;
  if (std::FILE* existing = std::fopen(lockPath.c_str(), "r")) {
    std::fclose(existing);
    const std::string advice = lockedAdvice == nullptr ? std::string() : lockedAdvice(fileName);
    FailTo(stderr, "%s is locked by Veltrano ORVA.\n%s", fileName.c_str(), advice.c_str());
  }
}

// The lock is created exclusively, so that of two runs started together only one gets it; the
// other finds the lock when it looks again and is told so, as it would be a moment later.
void TakeLock(const std::string& lockPath, const std::string& fileName) {
  RefuseWhenLocked(lockPath, fileName);
  std::FILE* lock = platform::CreateNewTextFile(lockPath);
  if (lock == nullptr) {
    RefuseWhenLocked(lockPath, fileName);
    FailTo(stderr, "Error creating lockfile %s.\n", lockPath.c_str());
  }
  // Only a short count is a failure: the text may still sit in the stream's buffer.
  if (std::fwrite(kLockText, 1, sizeof kLockText - 1, lock) < sizeof kLockText - 1) {
    std::fclose(lock);
    FailTo(stderr, "Error writing to lockfile %s.\n", lockPath.c_str());
  }
  // Its text reaches the file only as it is closed: a full disk shows here.
  if (!platform::CloseTextFile(lock, lockPath)) FailTo(stderr, "Error writing to lockfile %s.\n", lockPath.c_str());
  takenLock = lockPath;
  heldLock = platform::OpenReadWrite(lockPath);
  if (heldLock != platform::kInvalidFile && !platform::TryLockExclusive(heldLock)) {
    platform::Close(heldLock);
    heldLock = platform::kInvalidFile;
  }
}


bool RemoveLeftLock(const std::string& lockPath, const LockStamp* stamp) {
  if (lockPath.empty()) return false;
  const platform::File file = platform::OpenReadWrite(lockPath);
  if (file == platform::kInvalidFile) return false;
  char text[sizeof kLockText] = {};
  const bool ours = (stamp == nullptr || LockStamp{platform::IdentityOf(file), platform::ChangedTimeOf(file)} == *stamp) &&
                    platform::ReadAt(file, text, sizeof text, 0) == static_cast<std::int64_t>(sizeof kLockText - 1) &&
                    std::string(text) == kLockText && platform::TryLockExclusive(file);
  platform::Close(file);
  return ours && platform::RemoveFile(lockPath);
}

namespace {
std::string InUseText(const std::string& fileName) { return fileName + " is in use by another run of byteturn.\n"; }
}  // namespace

// Opens the main file and takes the system's lock on it, held while the process lasts; nothing
// where it cannot be opened (the run's own open tells why).
void HoldDatabaseFile(const std::string& fileName) {
  static platform::File held = platform::kInvalidFile;
  if (held != platform::kInvalidFile) return;
  held = platform::OpenReadWrite(fileName);
  if (held == platform::kInvalidFile || platform::TryLockExclusive(held)) return;
  platform::Close(held);
  held = platform::kInvalidFile;
  // The other run holds the file through another name: the lock just taken beside this one
  // guards nothing.
  if (!takenLock.empty()) ReleaseLock(std::string(takenLock));
  FailTo(stderr, "%s", InUseText(fileName).c_str());
}

std::string InUseLine(const std::string& fileName) {
  const platform::File file = platform::OpenReadOnly(fileName);
  if (file == platform::kInvalidFile) return "";
  const bool inUse = !platform::TryLockExclusive(file);
  platform::Close(file);
  return inUse ? InUseText(fileName) : "";
}

void RefuseWhenInUse(const std::string& fileName) {
  if (const std::string line = InUseLine(fileName); !line.empty()) FailTo(stderr, "%s", line.c_str());
}

LockStamp HeldLockStamp() {
  if (heldLock == platform::kInvalidFile) return {};
  return {platform::IdentityOf(heldLock), platform::ChangedTimeOf(heldLock)};
}

// A lock this process took is removed; any other only where a run of byteturn left it.
void ReleaseLock(const std::string& lockPath) {
  if (lockPath.empty()) return;
  if (heldLock == platform::kInvalidFile) {
    RemoveLeftLock(lockPath);
    return;
  }
  // Where its directory was moved away while the run went on, the lock is removed where it lies
  // now; a lock put under its old name since is another run's, and stays.
  const std::string path = platform::PathToRemove(lockPath, heldLock);
  platform::Close(heldLock);
  heldLock = platform::kInvalidFile;
  if (!path.empty()) platform::RemoveFile(path);
  takenLock.clear();
}

}  // namespace bt
