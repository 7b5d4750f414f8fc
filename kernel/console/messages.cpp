#include "messages.h"

#include <cstdarg>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform.h"

namespace bt {

namespace {
struct HeldMessage {
  std::uint64_t mark, number;
  std::string text;
};
bool holding = false;
std::uint64_t currentMark = 0;
std::vector<HeldMessage> held;
std::size_t firstHeld = 0;  // those before it are printed
std::uint64_t messagesMade = 0;
std::uint64_t cap = UINT64_MAX;  // held messages from this number on wait, whatever their mark
void (*failureHook)() = nullptr;

// A run done again (byteturn-check) counts the bytes of standard output it makes, shows none of
// the first skip of them (shown by the pass before) and, once muted, none at all.
struct OutputPass {
  bool counting = false, muted = false;
  std::uint64_t made = 0, skip = 0;
} pass;

void Emit(const char* text, std::size_t size) {
  if (!pass.counting) {
    std::fwrite(text, 1, size, stdout);
    return;
  }
  const std::uint64_t from = pass.made;
  pass.made += size;
  if (pass.muted || pass.made <= pass.skip) return;
  const std::size_t shown = from < pass.skip ? static_cast<std::size_t>(pass.skip - from) : 0;
  std::fwrite(text + shown, 1, size - shown, stdout);
}

std::string Format(const char* format, va_list args) {
  va_list count;
  va_copy(count, args);
  const int n = std::vsnprintf(nullptr, 0, format, count);
  va_end(count);
  if (n <= 0) return std::string();
  std::string text(static_cast<std::size_t>(n) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  return text;
}

std::string lastFailure;

void WriteTo(std::FILE* stream, const std::string& text) {
  if (stream == stdout)
    Emit(text.data(), text.size());
  else
    std::fwrite(text.data(), 1, text.size(), stream);
}

void PrintHeld(std::uint64_t mark) {
  const std::size_t from = firstHeld;
  while (firstHeld < held.size() && held[firstHeld].mark <= mark && held[firstHeld].number < cap) {
    Emit(held[firstHeld].text.data(), held[firstHeld].text.size());
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
  std::string text = Format(format, args);
  va_end(args);
  if (text.empty()) return;
  if (holding)
    held.push_back({currentMark, messagesMade++, std::move(text)});
  else
    Emit(text.data(), text.size());
}

void HoldOutput(bool hold) {
  if (!hold) PrintHeld(UINT64_MAX);
  holding = hold;
}

void SetOutputMark(std::uint64_t mark) { currentMark = mark; }
void ReleaseHeldOutput(std::uint64_t mark) { PrintHeld(mark); }

void CapHeldOutput(std::uint64_t number) { cap = number; }

std::uint64_t FirstHeldAfter(std::uint64_t mark) {
  for (std::size_t i = firstHeld; i < held.size(); ++i)
    if (held[i].mark > mark) return held[i].number;
  return messagesMade;
}

std::uint64_t MessagesMade() { return messagesMade; }
bool HeldOutputWaits() { return firstHeld < held.size(); }

void SetFailureHook(void (*hook)()) { failureHook = hook; }

void RunFailureHook() {
  void (*hook)() = failureHook;
  failureHook = nullptr;  // a failure inside it ends the run without it
  if (hook != nullptr) hook();
}

void DiscardHeldOutput() {
  held.clear();
  firstHeld = 0;
}

void PrintTo(std::FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = Format(format, args);
  va_end(args);
  WriteTo(stream, text);
}

void CountOutput(std::uint64_t alreadyShown) { pass = OutputPass{true, false, 0, alreadyShown}; }
void MuteOutput() { pass.muted = true; }
std::uint64_t OutputMade() { return pass.made; }
const std::string& LastFailure() { return lastFailure; }

const char* ErrorText() {
  static char text[320];
  const int code = platform::LastError();
  const std::string system = platform::SystemErrorText(code);
  if (system.empty())
    std::snprintf(text, sizeof text, "Error %d=(unknown error)", code);
  else
    std::snprintf(text, sizeof text, "Error %d=(%.200s)", code, system.c_str());
  return text;
}

void KeepOutputOfBlocksBefore(std::uint64_t b) {
  RunFailureHook();
  ReleaseHeldOutput(b);
  DiscardHeldOutput();
}

void FailWritingBlock(std::uint64_t b) {
  KeepOutputOfBlocksBefore(b);
  if (b == 1) Fail("\r\nWrite of label block failed. %s\r\n", ErrorText());
  Fail("\r\nError writing block %u. %s\r\n", static_cast<std::uint32_t>(b), ErrorText());
}

void EndRun(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
  throw RunEnded{status};
}

namespace {
// A failure ends the run with one message, written after what the run holds back is shown (the
// message's text is made after that: the hook may change what it shows).
void BeginFailure() {
  RunFailureHook();
  HoldOutput(false);
}
[[noreturn]] void EndFailure(std::FILE* stream) {
  WriteTo(stream, lastFailure);
  EndRun(1);
}
}  // namespace

void Fail(const char* format, ...) {
  BeginFailure();
  va_list args;
  va_start(args, format);
  lastFailure = Format(format, args);
  va_end(args);
  EndFailure(stdout);
}

void FailTo(std::FILE* stream, const char* format, ...) {
  BeginFailure();
  va_list args;
  va_start(args, format);
  lastFailure = Format(format, args);
  va_end(args);
  EndFailure(stream);
}

}  // namespace bt
