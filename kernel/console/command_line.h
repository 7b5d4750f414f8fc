// The command line: byteturn [-b|-l|-r] [-t] file, or byteturn file [big|little].
#pragma once

#include <string>

namespace bt {

enum Direction { kDirectionReport = -1, kDirectionLittle = 0, kDirectionBig = 1 };

struct CommandLine {
  int direction = kDirectionLittle;
  bool alreadyConvertedCheck = false;
  bool statedOrderCheck = false;
  bool verbose = true;
  std::string fileName;
  std::string orderWord;  // second argument of the two-argument form
};

// Fills the command line; false means a usage error.
bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out);
[[noreturn]] void PrintUsageAndEnd();

}  // namespace bt
