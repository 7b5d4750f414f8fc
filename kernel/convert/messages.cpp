#include "messages.h"

#include <cstdarg>
#include <cstdlib>
#include <string>
#include <vector>

namespace bt {

namespace {
struct HeldMessage {
  std::uint64_t mark;
  std::string text;
};
bool holding = false;
std::uint64_t currentMark = 0;
std::vector<HeldMessage> held;
std::size_t firstHeld = 0;  // those before it are printed

void PrintHeld(std::uint64_t mark) {
  const std::size_t from = firstHeld;
  while (firstHeld < held.size() && held[firstHeld].mark <= mark) {
    std::fwrite(held[firstHeld].text.data(), 1, held[firstHeld].text.size(), stdout);
    ++firstHeld;
  }
  if (firstHeld == from) return;
  std::fflush(stdout);  // a terminal shows the lines while the run goes on
  if (firstHeld == held.size()) {
    held.clear();
    firstHeld = 0;
  }
}
}  // namespace

void Print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (holding) {
    va_list count;
    va_copy(count, args);
    const int n = std::vsnprintf(nullptr, 0, format, count);
    va_end(count);
    if (n > 0) {
      std::string text(static_cast<std::size_t>(n) + 1, '\0');
      std::vsnprintf(text.data(), text.size(), format, args);
      text.pop_back();
      held.push_back({currentMark, std::move(text)});
    }
  } else {
    std::vfprintf(stdout, format, args);
  }
  va_end(args);
}

void HoldOutput(bool hold) {
  if (!hold) PrintHeld(UINT64_MAX);
  holding = hold;
}

void SetOutputMark(std::uint64_t mark) { currentMark = mark; }
void ReleaseHeldOutput(std::uint64_t mark) { PrintHeld(mark); }

void DiscardHeldOutput() {
  held.clear();
  firstHeld = 0;
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
  HoldOutput(false);
  va_list args;
  va_start(args, format);
  std::vfprintf(stdout, format, args);
  va_end(args);
  EndRun(1);
}

void FailTo(std::FILE* stream, const char* format, ...) {
  HoldOutput(false);
  va_list args;
  va_start(args, format);
  std::vfprintf(stream, format, args);
  va_end(args);
  EndRun(1);
}

}  // namespace bt
