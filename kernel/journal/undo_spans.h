#pragma once

#include <cstdint>

#include "undo_codec.h"

namespace bt::journal {

// The spans a write reversed in a sector, as the undo names them (undo_codec.h).

// Where spans start in a sector: length[i] the length of the first span that starts at byte i: 1
// where the byte is as it was, else the first of 2, 3, 4 and 8 bytes whose order the write
// reversed (within the sector), 0 where there is none; bit i % 64 of one[i / 64] set where it is 1.
// The word-sized fields of a block are of these lengths.
struct SectorSpans {
  std::uint8_t length[kSectorBytes];
  std::uint64_t one[8];
};

// SectorSpans of the write of after over before (both at the sector's start).
void FindSectorSpans(const std::uint8_t* before, const std::uint8_t* after, SectorSpans& spans);

// The spans of the runs of words of a sector (bit w for word w), and their ends (undo_codec.h), in
// ends by word: a span is the first that starts where the one before ends, and must end within
// the run. Returns the words that no spans explain, whose ends are then 0xFF, with those of the
// words before them whose spans reach into them.
std::uint64_t FindSpansOfRuns(const SectorSpans& spans, std::uint64_t words, std::uint8_t* ends);

}  // namespace bt::journal
