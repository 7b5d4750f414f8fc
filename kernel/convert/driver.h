// The conversion run, from the command line to the final line.
#pragma once

#include <string>

#include "command_line.h"

namespace bt {

int ByteturnMain(int argc, const char* const* argv);

// The run's steps, for the companion commands that share them. PrepareRun: the command line, the
// label check and report, the volume set, the lock (its path is returned, "" for none); nothing is
// written. ConvertVolumes: every block of every volume in its turn, then the files rewritten out
// of order flushed.
std::string PrepareRun(int argc, const char* const* argv, CommandLine& commandLine);
void ConvertVolumes(bool verbose);

}  // namespace bt
