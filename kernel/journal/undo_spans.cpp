#include "undo_spans.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <cstring>

namespace bt::journal {

namespace {

// SectorSpans, byte by byte (before and after at the sector's start).
void FindSectorSpansByteByByte(const std::uint8_t* before, const std::uint8_t* after, SectorSpans& spans) {
  spans = {};
  for (unsigned i = 0; i < kSectorBytes; ++i) {
    if (before[i] == after[i]) {
      spans.length[i] = 1;
      spans.one[i / 64] |= std::uint64_t{1} << i % 64;
      continue;
    }
    for (const unsigned length : {2u, 3u, 4u, 8u}) {
      unsigned k = 0;
      while (i + length <= kSectorBytes && k < length && after[i + k] == before[i + length - 1 - k]) ++k;
      if (k != length) continue;
      spans.length[i] = static_cast<std::uint8_t>(length);
      break;
    }
  }
}

#if defined(__x86_64__)
#define BT_LINES_TARGET __attribute__((target("avx512f,avx512bw,avx512vl,popcnt")))

// FindSectorSpansByteByByte, a line at a time: the bytes of after against those of before d bytes
// on (the d that the lengths need), from a copy of before with room on both sides; then, for each
// length, the compares of its bytes ANDed, shifted to the span's first byte.
BT_LINES_TARGET void FindSectorSpansByLines(const std::uint8_t* before, const std::uint8_t* after, SectorSpans& spans) {
  constexpr int kRoom = 8;
  alignas(64) std::uint8_t was[kRoom + kSectorBytes + kRoom] = {};
  std::memcpy(was + kRoom, before, kSectorBytes);
  std::uint64_t on[15][8] = {};  // on[7 + d]: after's byte i is before's byte i + d, within the sector
  for (unsigned k = 0; k < 8; ++k) {
    const __m512i now = _mm512_loadu_si512(after + 64 * k);
    for (const int d : {-7, -5, -3, -2, -1, 0, 1, 2, 3, 5, 7}) {
      std::uint64_t within = ~std::uint64_t{0};
      if (k == 0 && d < 0) within <<= -d;
      if (k == 7 && d > 0) within >>= d;
      on[7 + d][k] = _mm512_mask_cmpeq_epi8_mask(within, now, _mm512_loadu_si512(was + kRoom + 64 * k + d));
    }
  }
  // The mask of distance d, from byte n on.
  const auto from = [&](int d, unsigned k, unsigned n) {
    const std::uint64_t* m = on[7 + d];
    return n == 0 ? m[k] : m[k] >> n | (k < 7 ? m[k + 1] << (64 - n) : 0);
  };
  for (unsigned k = 0; k < 8; ++k) {
    const std::uint64_t two = from(1, k, 0) & from(-1, k, 1);
    const std::uint64_t three = from(2, k, 0) & from(0, k, 1) & from(-2, k, 2);
    const std::uint64_t four = from(3, k, 0) & from(1, k, 1) & from(-1, k, 2) & from(-3, k, 3);
    const std::uint64_t eight = from(7, k, 0) & from(5, k, 1) & from(3, k, 2) & from(1, k, 3) & from(-1, k, 4) &
                                from(-3, k, 5) & from(-5, k, 6) & from(-7, k, 7);
    // The shortest laid last.
    __m512i length = _mm512_maskz_mov_epi8(eight, _mm512_set1_epi8(8));
    length = _mm512_mask_mov_epi8(length, four, _mm512_set1_epi8(4));
    length = _mm512_mask_mov_epi8(length, three, _mm512_set1_epi8(3));
    length = _mm512_mask_mov_epi8(length, two, _mm512_set1_epi8(2));
    length = _mm512_mask_mov_epi8(length, on[7][k], _mm512_set1_epi8(1));
    _mm512_storeu_si512(spans.length + 64 * k, length);
    spans.one[k] = on[7][k];
  }
}

#undef BT_LINES_TARGET

bool ByLines() {
  static const bool byLines = __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
  return byLines;
}
#endif

// The spans of a run of the sector's words [from, to) (FindSpansOfRuns); bytes as they were are
// taken a run of them at once.
void FindSpans(const SectorSpans& spans, unsigned from, unsigned to, std::uint8_t* ends, std::uint64_t& stored) {
  std::uint64_t endBits[8] = {};  // bit i % 64 of [i / 64] where a span ends at byte i
  const unsigned end = 8 * to;
  unsigned edge = 8 * from;  // the last end on a word's edge
  for (unsigned i = 8 * from; i < end;) {
    unsigned length = spans.length[i];
    const unsigned k = i / 64, b = i % 64;
    const bool asItWas = length == 1;
    if (asItWas) {
      const std::uint64_t changed = ~(spans.one[k] >> b);
      length = std::min({changed == 0 ? 64 - b : static_cast<unsigned>(__builtin_ctzll(changed)), 64 - b, end - i});
      endBits[k] |= (length == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << length) - 1) << b;
    } else if (length != 0 && i + length <= end) {
      endBits[(i + length - 1) / 64] |= std::uint64_t{1} << (i + length - 1) % 64;
    } else {
      for (unsigned w = edge / 8; w <= i / 8; ++w) {
        endBits[w / 8] |= std::uint64_t{0xFF} << 8 * (w % 8);
        stored |= std::uint64_t{1} << w;
      }
      i = edge = 8 * (i / 8 + 1);
      continue;
    }
    // Every byte of a run as it was ends a span; of a longer span, its last only.
    const unsigned next = i + length;
    if (asItWas ? (next & ~7u) >= i : next % 8 == 0) edge = next & ~7u;
    i = next;
  }
  for (unsigned w = from; w < to; ++w) ends[w] = static_cast<std::uint8_t>(endBits[w / 8] >> 8 * (w % 8));
}

}  // namespace

void FindSectorSpans(const std::uint8_t* before, const std::uint8_t* after, SectorSpans& spans) {
#if defined(__x86_64__)
  if (ByLines()) return FindSectorSpansByLines(before, after, spans);
#endif
  FindSectorSpansByteByByte(before, after, spans);
}

std::uint64_t FindSpansOfRuns(const SectorSpans& spans, std::uint64_t words, std::uint8_t* ends) {
  std::uint64_t failed = 0;
  while (words != 0) {
    const auto from = static_cast<unsigned>(__builtin_ctzll(words));
    const std::uint64_t rest = ~(words >> from);
    const unsigned to = rest == 0 ? 64 : from + static_cast<unsigned>(__builtin_ctzll(rest));
    FindSpans(spans, from, to, ends, failed);
    words &= to == 64 ? 0 : ~std::uint64_t{0} << to;
  }
  return failed;
}

}  // namespace bt::journal
