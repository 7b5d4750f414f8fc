// Console output. Messages are written byte for byte as given (CR LF stays CR LF); a fatal
// failure prints what is held back, then its one message, and ends the run with status 1.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// The formats are checked as C99 printf formats; on Windows the runtime's C99 printf is used.
#ifdef _WIN32
#define BT_PRINTF(f, a) __attribute__((format(gnu_printf, f, a)))
#else
#define BT_PRINTF(f, a) __attribute__((format(printf, f, a)))
#endif

namespace bt {

void Print(const char* format, ...) BT_PRINTF(1, 2);
void PrintTo(std::FILE* stream, const char* format, ...) BT_PRINTF(2, 3);
[[noreturn]] void Fail(const char* format, ...) BT_PRINTF(1, 2);
[[noreturn]] void FailTo(std::FILE* stream, const char* format, ...) BT_PRINTF(2, 3);
// Ends the run with status: the output is flushed and RunEnded thrown, which each command's front
// door catches (it closes what the run opened and returns the status); the check gives its
// verdict, a fuzz target goes on with its next input.
[[noreturn]] void EndRun(int status);
struct RunEnded {
  int status;
};

// Output held back. While blocks converted before a message are still on their way to the disk,
// the message is kept, marked with the number of the block whose turn it was, and printed once
// those blocks are written; a failure to write them drops what later blocks printed.
void HoldOutput(bool hold);
void SetOutputMark(std::uint64_t mark);
// Prints the kept messages marked up to mark, in order; DiscardHeldOutput forgets the rest.
void ReleaseHeldOutput(std::uint64_t mark);
void DiscardHeldOutput();
// Held messages are numbered as they are made. A journaled run holds its writes for a while: the
// messages made after the first of them wait (CapHeldOutput(number)) until they are written
// (CapHeldOutput(UINT64_MAX)). FirstHeldAfter: the number of the first held message marked after
// mark (MessagesMade() when there is none).
void CapHeldOutput(std::uint64_t number);
std::uint64_t FirstHeldAfter(std::uint64_t mark);
std::uint64_t MessagesMade();
bool HeldOutputWaits();
// Called once at the start of the first failure: a journaled run writes what it holds first.
void SetFailureHook(void (*hook)());
void RunFailureHook();

// A run that is done again from its first block (byteturn-check) counts the bytes of standard
// output it makes from here on and shows none of the first alreadyShown of them; MuteOutput
// shows nothing more of this pass.
void CountOutput(std::uint64_t alreadyShown);
void MuteOutput();
std::uint64_t OutputMade();
// The text of the last failure, as it was printed.
const std::string& LastFailure();

// Ends the run at a write of block b that failed (1: the label block): what the blocks before it
// printed is shown, what later ones printed is not, as when the blocks are written one at a time.
[[noreturn]] void FailWritingBlock(std::uint64_t b);
// The first step of such an end: what the blocks before b printed is shown, the rest dropped.
void KeepOutputOfBlocksBefore(std::uint64_t b);
// "Error %d=(%s)" for the last system error; take it right after the failing call.
const char* ErrorText();

// A pointer as the messages show it after "0x": 16 upper-case hexadecimal digits.
inline unsigned long long PointerValue(const void* p) {
  return static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p));
}
#define BT_PTR "%016llX"

}  // namespace bt
