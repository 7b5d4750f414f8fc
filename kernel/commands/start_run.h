// The start that byteturn and byteturn-check share.
#pragma once

#include <string>

#include "command_line.h"

namespace bt {

// PrepareRun (driver.h) with the journal's part: a refusal for the lock names byteturn-recover
// where an interrupted run left its journal, and a database that such a run left (the main file
// bears its mark, or a journal lies where this run's would go) is refused, the lock released:
// only byteturn-recover may go on with it, or tell what it is. Its order is not judged from its
// label block (converted first): an order asked for goes on to that refusal, and a report ends
// with its line (label_check.h). Returns the lock's path.
std::string StartRun(int argc, const char* const* argv, CommandLine& commandLine);

}  // namespace bt
