#include "byteturn.h"

#include "direct_store.h"
#include "driver.h"
#include "journal.h"
#include "journaled_store.h"
#include "start_run.h"

namespace bt {

int ByteturnMain(int argc, const char* const* argv) {
  return RunCommand([&] {
    CommandLine commandLine;
    const std::string lockPath = StartRun(argc, argv, commandLine);
    // Nothing is read from the operator any more; losing the console must not stop a half-done run.
    platform::KeepRunningWithoutConsole();
    Pass pass;
    BeginJournal(commandLine.verbose, lockPath, pass.maps);  // none where BYTETURN_JOURNAL is "off"
    UseStore(JournalHoldsWrites() ? JournaledStore() : DirectStore());
    ConvertVolumes(pass, commandLine.verbose, 1);
    FinishRun(pass, lockPath);
  });
}

}  // namespace bt
