// The label block's check and report before a run.
#pragma once

#include <cstdint>

#include "command_line.h"

namespace bt {

// Decides the swap flag, refuses what cannot or need not be converted, prints the report, loads
// the database key of an encrypted database and publishes the label values. Ends the run on a
// refusal (status 1) and after a report (status 0).
void CheckLabel(const std::uint8_t* labelCopy, const CommandLine& commandLine);

}  // namespace bt
