#include "console_input.h"

#include <cstdio>

namespace bt {

namespace {
// The next character, with "\r\n" read as one "\n".
int NextCharacter() {
  const int c = std::getchar();
  if (c != '\r') return c;
  const int next = std::getchar();
  if (next == '\n') return '\n';
  if (next != EOF) std::ungetc(next, stdin);
  return c;
}
}  // namespace

bool ReadConsoleLine(char* buffer, std::size_t size, bool* ended) {
  std::size_t n = 0;
  bool any = false;
  *ended = false;
  while (n + 1 < size) {
    const int c = NextCharacter();
    if (c == EOF) break;
    any = true;
    if (c == '\n') {
      *ended = true;
      break;
    }
    buffer[n++] = static_cast<char>(c);
  }
  if (size > 0) buffer[n] = '\0';
  return any;
}

void DiscardRestOfLine() {
  int c;
  while ((c = NextCharacter()) != EOF && c != '\n') {
  }
}

}  // namespace bt
