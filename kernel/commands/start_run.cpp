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
}  // namespace

std::string StartRun(int argc, const char* const* argv, CommandLine& commandLine) {
  SetLockedAdvice(RecoverAdvice);
  SetInterruptedAdvice(RecoverAdvice);
  const std::string lockPath = PrepareRun(argc, argv, commandLine);
  const JournalFound journal = FindJournal(databaseFileName);
  if (journal.marked || !journal.path.empty()) {
    TheStore().Unlock(lockPath);
    FailTo(stderr, "%s", RecoverLine(journal, databaseFileName).c_str());
  }
  return lockPath;
}

}  // namespace bt
