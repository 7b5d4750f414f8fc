// The lock file orva.lck beside a main database file named ORVA.DAT (any letter case).
#pragma once

#include <string>

#include "platform.h"

namespace bt {

// Lock path for a database file name, "" when the name takes no lock.
std::string LockPathFor(const std::string& fileName);
// The lock a main file in the directory of fileName takes, whatever fileName's own name.
std::string LockBeside(const std::string& fileName);
// Takes the lock; ends the run with status 1 when it is held or cannot be written.
void TakeLock(const std::string& lockPath, const std::string& fileName);
// Ends the run when the lock is there (a store that writes nothing only looks). The refusal names
// what the operator may do, as the advice function set here tells for the file (none: nothing).
void RefuseWhenLocked(const std::string& lockPath, const std::string& fileName);
void SetLockedAdvice(std::string (*advice)(const std::string& fileName));
// Holds a lock of the system's on the main file itself while the process lasts, whatever names
// it has (links): a second run on the same file through another name is refused with "%s is in
// use by another run of byteturn." before it writes anything. RefuseWhenInUse only looks.
void HoldDatabaseFile(const std::string& fileName);
void RefuseWhenInUse(const std::string& fileName);
// The refusal's line where another process holds the file so (a run going on), else "". Not for
// a process that holds it itself.
std::string InUseLine(const std::string& fileName);
// Removes the lock this process took, or else one a run of byteturn left.
void ReleaseLock(const std::string& lockPath);
// What tells the lock a run took from any other file, one given its index after it was removed
// included: its identity and when it last changed.
struct LockStamp {
  platform::FileIdentity identity;
  std::uint64_t changed = 0;
  friend bool operator==(const LockStamp&, const LockStamp&) = default;
};
// Removes a lock that a run of byteturn left (its text, and no run holding it), and where a stamp
// is given, only the file of that stamp; true when removed.
bool RemoveLeftLock(const std::string& lockPath, const LockStamp* stamp = nullptr);
// The stamp of the lock this process took and holds ({} where it holds none).
LockStamp HeldLockStamp();

}  // namespace bt
