// Console output. Messages are written byte for byte as given (CR LF stays CR LF); a fatal
// failure prints what is held back, then its one message, and ends the process with status 1.
#pragma once

#include <cstdint>
#include <cstdio>

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
// Ends the process with status. A fuzzing build (BYTETURN_FUZZ) throws RunEnded instead, so that
// its targets can go on after a refusal.
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

// A pointer as the messages show it after "0x": 16 upper-case hexadecimal digits.
inline unsigned long long PointerValue(const void* p) {
  return static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p));
}
#define BT_PTR "%016llX"

}  // namespace bt
