#include "undo_spans.h"

#include <algorithm>

#include "byteorder.h"

namespace bt::journal {

namespace {

// The length of the span that starts at byte i of the sector: 1 to 8 where the byte is as it was
// (the bytes as they were from it on, up to 8), else the shortest of 2, 3, 4 and 8 bytes, within
// the sector, whose order the write reversed, or 0 where there is none. Byte k of a word loaded
// little-endian is bits 8k to 8k + 7; loaded big-endian, the bytes are in reverse, so the first n
// bytes reversed are that word shifted right by 8 (8 - n) bits.
unsigned SpanAt(const Sector& sector, unsigned i, bool& asItWas) {
  const std::uint8_t* was = sector.before + i;
  const std::uint8_t* now = sector.after + i;
  asItWas = was[0] == now[0];
  if (i + 8 <= kSectorBytes) {
    const std::uint64_t before = LoadLE64(was), after = LoadLE64(now);
    if (asItWas) return before == after ? 8 : static_cast<unsigned>(__builtin_ctzll(before ^ after)) / 8;
    const std::uint64_t reversed = LoadBE64(was);
    return ((after ^ reversed >> 48) & 0xFFFF) == 0       ? 2
           : ((after ^ reversed >> 40) & 0xFFFFFF) == 0   ? 3
           : ((after ^ reversed >> 32) & 0xFFFFFFFF) == 0 ? 4
           : after == reversed                            ? 8
                                                          : 0;
  }
  const unsigned room = kSectorBytes - i;
  if (asItWas) {
    unsigned n = 1;
    while (n < room && was[n] == now[n]) ++n;
    return n;
  }
  if (room >= 2 && now[0] == was[1] && now[1] == was[0]) return 2;
  if (room >= 3 && now[0] == was[2] && now[1] == was[1] && now[2] == was[0]) return 3;
  if (room >= 4 && LoadLE32(now) == LoadBE32(was)) return 4;
  return 0;
}

// The spans of a run of the sector's words [from, to) (FindSpansOfRuns).
void FindSpans(const Sector& sector, unsigned from, unsigned to, std::uint8_t* ends, std::uint64_t& stored) {
  std::fill(ends + from, ends + to, std::uint8_t{0});
  // Sets the end bits of bytes [first, first + count), count at most 8.
  const auto endAfter = [&](unsigned first, unsigned count) {
    const unsigned bits = ((1u << count) - 1) << first % 8;
    ends[first / 8] = static_cast<std::uint8_t>(ends[first / 8] | bits);
    if (bits >> 8 != 0) ends[first / 8 + 1] = static_cast<std::uint8_t>(ends[first / 8 + 1] | bits >> 8);
  };
  const unsigned end = 8 * to;
  unsigned edge = 8 * from;  // the last end on a word's edge
  for (unsigned i = 8 * from; i < end;) {
    bool asItWas = false;
    unsigned length = SpanAt(sector, i, asItWas);
    if (asItWas) {
      length = std::min(length, end - i);
      endAfter(i, length);  // every byte as it was ends a span
    } else if (length != 0 && i + length <= end) {
      endAfter(i + length - 1, 1);
    } else {
      for (unsigned w = edge / 8; w <= i / 8; ++w) {
        ends[w] = 0xFF;
        stored |= std::uint64_t{1} << w;
      }
      i = edge = 8 * (i / 8 + 1);
      continue;
    }
    const unsigned next = i + length;
    if (asItWas ? (next & ~7u) >= i : next % 8 == 0) edge = next & ~7u;
    i = next;
  }
}

}  // namespace

std::uint64_t FindSpansOfRuns(const Sector& sector, std::uint64_t words, std::uint8_t* ends) {
  std::uint64_t failed = 0;
  while (words != 0) {
    const auto from = static_cast<unsigned>(__builtin_ctzll(words));
    const std::uint64_t rest = ~(words >> from);
    const unsigned to = rest == 0 ? 64 : from + static_cast<unsigned>(__builtin_ctzll(rest));
    FindSpans(sector, from, to, ends, failed);
    words &= to == 64 ? 0 : ~std::uint64_t{0} << to;
  }
  return failed;
}

}  // namespace bt::journal
