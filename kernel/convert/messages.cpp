#include "messages.h"

#include <cstdarg>
#include <cstdlib>

namespace bt {

void Print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(stdout, format, args);
  va_end(args);
}

void PrintTo(std::FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(stream, format, args);
  va_end(args);
}

void EndRun(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
#ifdef BYTETURN_FUZZ
  throw RunEnded{status};
#else
  std::exit(status);
#endif
}

void Fail(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(stdout, format, args);
  va_end(args);
  EndRun(1);
}

void FailTo(std::FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(stream, format, args);
  va_end(args);
  EndRun(1);
}

}  // namespace bt
