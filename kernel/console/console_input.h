// Lines that the operator types (or that come through a pipe). A line ends at "\n" or at "\r\n",
// as the console's text mode reads it; a lone "\r" elsewhere is part of the line.
#pragma once

#include <cstddef>

namespace bt {

// Reads one line into buffer (size bytes, terminated), like a line read of that size: at most
// size - 1 characters, the line end taking one of them. The line end is not stored; ended tells
// whether it was met. False at the end of input when nothing was read.
bool ReadConsoleLine(char* buffer, std::size_t size, bool* ended);
// Discards input up to and including the next line end, or to the end of input.
void DiscardRestOfLine();

}  // namespace bt
