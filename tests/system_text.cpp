// Prints the system's own text for an error code, as byteturn shows it: the tests of another
// platform's build compute their expected messages with it.
#include <cstdio>
#include <cstdlib>

#include "platform.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  platform::PrepareConsole();
  std::fputs(platform::SystemErrorText(std::atoi(argv[1])).c_str(), stdout);
  return 0;
}
