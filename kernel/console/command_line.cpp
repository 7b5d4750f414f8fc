#include "command_line.h"

#include <cstring>

#include "messages.h"

namespace bt {

namespace {
bool EqualsIgnoringCase(const char* a, const char* b) {
  for (; *a != '\0' && *b != '\0'; ++a, ++b)
    if ((*a | 0x20) != (*b | 0x20)) return false;
  return *a == *b;
}
}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out) {
  out = CommandLine{};
  if (argc < 2) return false;
  if (std::strcmp(argv[1], "?") == 0) return false;
  if (argv[1][0] != '-') {
    out.fileName = argv[1];
    if (argc == 3 && (EqualsIgnoringCase(argv[2], "big") || EqualsIgnoringCase(argv[2], "little"))) {
      out.statedOrderCheck = true;
      out.orderWord = argv[2];
    }
    return true;
  }
  if (argc < 3) return false;
  bool terse = false;
  for (int i = 1; i < argc - 1; ++i) {
    const char* arg = argv[i];
    if (arg[0] != '-') return false;
    switch (arg[1] | 0x20) {
      case 'b': out.direction = kDirectionBig; break;
      case 'l': out.direction = kDirectionLittle; break;
      case 'r': out.direction = kDirectionReport; break;
      case 't':
        if (terse) return false;
        terse = true;
        break;
      default: return false;
    }
  }
  out.verbose = !terse;
  out.alreadyConvertedCheck = !(argc == 3 && terse);
  out.fileName = argv[argc - 1];
  return true;
}

void PrintUsageAndEnd() {
  Print("\r\nUsage:  byteturn [-option] file\r\n");
  Print("\r\n\t-option = -b[ig], -l[ittle], or -r[eport]\r\n");
  Print("\r\n\toptional option is -t[erse]\r\n");
  EndRun(1);
}

}  // namespace bt
