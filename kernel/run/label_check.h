// The label block's check and report before a run.
#pragma once

#include <cstdint>
#include <string>

#include "command_line.h"

namespace bt {

// Decides the swap flag, refuses what cannot or need not be converted, prints the report, loads
// the database key of an encrypted database and publishes the label values. Ends the run on a
// refusal (status 1) and after a report (status 0).
void CheckLabel(const std::uint8_t* labelCopy, const CommandLine& commandLine);

// Where an interrupted run left the database (advice, given the file's name, returns the line
// that names byteturn-recover, or "" where none did), its label block is converted and its other
// blocks only in part: CheckLabel then answers nothing about its order, and a report ends with
// that line (status 1).
void SetInterruptedAdvice(std::string (*advice)(const std::string& fileName));
// Whether the last CheckLabel found such a database: its volume set is not discovered either (its
// volumes are in either order), and the run goes on to its refusal.
bool LeftByInterruptedRun();

}  // namespace bt
