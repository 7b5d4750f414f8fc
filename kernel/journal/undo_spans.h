#pragma once

#include <cstdint>

#include "undo_codec.h"

namespace bt::journal {

// The spans a write reversed in a sector, as the undo names them (undo_codec.h).

// A sector's bytes before and after the write.
struct Sector {
  const std::uint8_t* before;
  const std::uint8_t* after;
};

// The spans of the runs of words of a sector (bit w for word w), and their ends (undo_codec.h), in
// ends by word. From a run's first byte on, a byte as it was is a span of its own, and any other
// begins the shortest span of 2, 3, 4 or 8 bytes whose order the write reversed (the word-sized
// fields of a block are of these lengths), within the sector, which must end within the run.
// Returns the words that no spans explain, whose ends are then 0xFF, with those of the words
// before them whose spans reach into them.
std::uint64_t FindSpansOfRuns(const Sector& sector, std::uint64_t words, std::uint8_t* ends);

}  // namespace bt::journal
