#include "start_run.h"

#include <cstdio>

#include "database.h"
#include "driver.h"
#include "journal.h"
#include "label_check.h"
#include "lock_file.h"
#include "messages.h"
#include "store.h"

namespace bt {

namespace {
std::string RecoverAdvice(const std::string& fileName) {
  const JournalFound journal = FindJournal(fileName);
  return journal.marked || !journal.path.empty() ? RecoverLine(journal, fileName) : std::string();
}

// Before this process holds the file: a run going on (the file held, through any name) is told as
// such, not as an interrupted one.
std::string AdviceBeforeHolding(const std::string& fileName) {
  const std::string recover = RecoverAdvice(fileName);
  if (recover.empty()) return recover;
  const std::string inUse = InUseLine(fileName);
  return inUse.empty() ? recover : inUse;
}
}  // namespace

std::string StartRun(int argc, const char* const* argv, CommandLine& commandLine) {
  SetLockedAdvice(AdviceBeforeHolding);
  SetInterruptedAdvice(AdviceBeforeHolding);
  const std::string lockPath = PrepareRun(argc, argv, commandLine);
  const JournalFound journal = FindJournal(databaseFileName);
  if (journal.marked || !journal.path.empty()) {
    TheStore().Unlock(lockPath);
    FailTo(stderr, "%s", RecoverLine(journal, databaseFileName).c_str());
  }
  return lockPath;
}

}  // namespace bt
