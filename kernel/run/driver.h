// The conversion run, from the command line to the final line.
#pragma once

#include <string>

#include "command_line.h"
#include "messages.h"
#include "pass.h"

namespace bt {

// The run's steps, for the commands that share them. PrepareRun: the command line, the label check
// and report, the volume set, the lock (its path is returned, "" for none); nothing is written.
// ConvertVolumes: every block of every volume in its turn from block from, then the files
// rewritten out of order flushed and the journal, if any, removed. FinishRun: the final line, the
// lock released, status 0.
std::string PrepareRun(int argc, const char* const* argv, CommandLine& commandLine);
// Where the compression libraries are looked for: the directory of the running program.
std::string BinDirectoryOfThisProgram();
void ConvertVolumes(Pass& pass, bool verbose, std::uint32_t from);
[[noreturn]] void FinishRun(Pass& pass, const std::string& lockPath);

// A command's front door: runs body, which ends the run with EndRun (a failure included), and
// returns the status. What the run opened is closed as its values go.
template <typename Body>
int RunCommand(Body body) {
  try {
    body();
  } catch (const RunEnded& end) {
    return end.status;
  }
  return 0;
}

}  // namespace bt
