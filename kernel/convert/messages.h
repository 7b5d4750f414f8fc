// Console output. Messages are written byte for byte as given (CR LF stays CR LF); a fatal
// failure prints its one message and ends the process with status 1.
#pragma once

#include <cstdint>
#include <cstdio>

namespace bt {

void Print(const char* format, ...) __attribute__((format(printf, 1, 2)));
void PrintTo(std::FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));
[[noreturn]] void Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void FailTo(std::FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));
[[noreturn]] void EndRun(int status);

// A pointer as the messages show it after "0x": 16 upper-case hexadecimal digits.
inline unsigned long long PointerValue(const void* p) {
  return static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p));
}
#define BT_PTR "%016llX"

}  // namespace bt
