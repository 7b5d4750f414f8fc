#include "undo_codec.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cstring>

#include "byteorder.h"
#include "database.h"

namespace bt::journal {

namespace {

// The byte orders a code names, each its own inverse. A half of a word (its bytes 0..3, or 4..7)
// is kept (0), reversed (1), has both byte pairs swapped (2), or only its first (3) or its second (4).
constexpr std::uint8_t kWholeWordReversed = 0xFF;
constexpr unsigned kNoKind = 5;

std::uint32_t TurnHalf(std::uint32_t x, unsigned kind) {
  switch (kind) {
    case 1: return __builtin_bswap32(x);
    case 2: return (x & 0xFF00FF00u) >> 8 | (x & 0x00FF00FFu) << 8;
    case 3: return (x & 0xFFFF0000u) | (x & 0xFF00u) >> 8 | (x & 0xFFu) << 8;
    case 4: return (x & 0xFFFFu) | (x & 0xFF000000u) >> 8 | (x & 0x00FF0000u) << 8;
    default: return x;
  }
}

bool ValidCode(std::uint8_t code) { return code == kWholeWordReversed || ((code & 15u) < kNoKind && code >> 4 < kNoKind); }

// The word (its bytes 0..7 taken little-endian) in the order code names.
std::uint64_t Turn(std::uint64_t word, std::uint8_t code) {
  if (code == kWholeWordReversed) return __builtin_bswap64(word);
  return TurnHalf(static_cast<std::uint32_t>(word), code & 15u) |
         std::uint64_t{TurnHalf(static_cast<std::uint32_t>(word >> 32), code >> 4u)} << 32;
}

// The code of an order that turns after into before (the first that does, in the order above),
// or 0 where none does.
std::uint8_t CodeOf(std::uint64_t before, std::uint64_t after) {
  if (__builtin_bswap64(after) == before) return kWholeWordReversed;
  unsigned kinds[2] = {kNoKind, kNoKind};
  for (unsigned h = 0; h < 2; ++h) {
    const auto a = static_cast<std::uint32_t>(after >> 32 * h), b = static_cast<std::uint32_t>(before >> 32 * h);
    for (unsigned kind = 0; kind < kNoKind && kinds[h] == kNoKind; ++kind)
      if (TurnHalf(a, kind) == b) kinds[h] = kind;
  }
  return kinds[0] < kNoKind && kinds[1] < kNoKind ? static_cast<std::uint8_t>(kinds[0] | kinds[1] << 4) : 0;
}

bool Named(const std::uint8_t* undo, std::uint32_t word) { return (undo[word / 8] >> word % 8 & 1) != 0; }

// How many words the bitmap names.
std::size_t NamedCount(const std::uint8_t* undo, std::uint32_t blockSize) {
  std::size_t named = 0;
  for (std::size_t i = 0; i < UndoBitmapBytes(blockSize); ++i) named += static_cast<std::size_t>(__builtin_popcount(undo[i]));
  return named;
}

// The bitmap, and how many words it names.
std::size_t MarkChanged(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                        std::uint8_t* undo) {
  std::size_t named = 0;
  for (std::size_t line = 0; line < UndoBitmapBytes(blockSize); ++line) {
    unsigned bits = 0;
    for (unsigned k = 0; k < 8; ++k)
      bits |= unsigned{LoadLE64(before + 64 * line + 8 * k) != LoadLE64(after + 64 * line + 8 * k)} << k;
    undo[line] = static_cast<std::uint8_t>(bits);
    named += static_cast<std::size_t>(__builtin_popcount(bits));
  }
  return named;
}

// The bitmap's bits of sector s: bit w for its word w.
std::uint64_t NamedInSector(const std::uint8_t* undo, std::uint32_t s) { return LoadLE64(undo + 8 * s); }

// The words of a sector whose bits are named that are stored whatever the write: the first and the last.
std::uint64_t KeptInSector(std::uint64_t named) {
  return named == 0 ? 0 : (named & (~named + 1)) | std::uint64_t{1} << (63 - __builtin_clzll(named));
}

std::size_t EncodeUndoWordByWord(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                                 std::uint8_t* undo) {
  std::uint8_t* codes = undo + UndoBitmapBytes(blockSize);
  std::uint8_t* words = codes + MarkChanged(before, after, blockSize, undo);
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    const std::uint64_t named = NamedInSector(undo, s), kept = KeptInSector(named);
    for (std::uint64_t rest = named; rest != 0; rest &= rest - 1) {
      const auto w = static_cast<std::uint32_t>(__builtin_ctzll(rest));
      const std::uint32_t word = s * kSectorWords + w;
      const std::uint64_t was = LoadLE64(before + 8 * word);
      *codes = (kept >> w & 1) != 0 ? 0 : CodeOf(was, LoadLE64(after + 8 * word));
      if (*codes++ == 0) StoreLE64(words, was), words += 8;
    }
  }
  return static_cast<std::size_t>(words - undo);
}

#if defined(__x86_64__)
#define BT_LINES_TARGET __attribute__((target("avx512f,avx512bw,avx512vl,popcnt")))

// The orders of kinds 1 to 4 on both halves of every word, and the whole word reversed, as byte
// shuffles of each 16 bytes.
constexpr auto kLineOrders = [] {
  constexpr std::uint8_t lanes[5][8] = {{3, 2, 1, 0, 7, 6, 5, 4}, {1, 0, 3, 2, 5, 4, 7, 6}, {1, 0, 2, 3, 5, 4, 6, 7},
                                        {0, 1, 3, 2, 4, 5, 7, 6}, {7, 6, 5, 4, 3, 2, 1, 0}};
  std::array<std::array<std::uint8_t, 64>, 5> all{};
  for (std::size_t k = 0; k < 5; ++k)
    for (std::size_t i = 0; i < 64; ++i) all[k][i] = static_cast<std::uint8_t>(i % 16 / 8 * 8 + lanes[k][i % 8]);
  return all;
}();

// Every order tried on a line of eight words at once: the code of each word (CodeOf), in the low
// byte of its lane.
struct LineCoder {
  __m512i halfOrders[4], wordOrder;

  BT_LINES_TARGET LineCoder() {
    for (std::size_t k = 0; k < 4; ++k) halfOrders[k] = _mm512_loadu_si512(kLineOrders[k].data());
    wordOrder = _mm512_loadu_si512(kLineOrders[4].data());
  }

  BT_LINES_TARGET __m512i Codes(__m512i was, __m512i now) const {
    const __m512i low = _mm512_set1_epi64(0x0F), high = _mm512_set1_epi64(0xF0);
    // Each half's kind, the first that fits laid last; then the word's code from its two halves.
    __m512i kinds = _mm512_set1_epi32(kNoKind);
    for (int kind = 4; kind >= 1; --kind)
      kinds = _mm512_mask_mov_epi32(kinds, _mm512_cmpeq_epi32_mask(was, _mm512_shuffle_epi8(now, halfOrders[kind - 1])),
                                    _mm512_set1_epi32(kind));
    kinds = _mm512_mask_mov_epi32(kinds, _mm512_cmpeq_epi32_mask(was, now), _mm512_setzero_si512());
    __m512i code = _mm512_or_si512(_mm512_and_si512(kinds, low), _mm512_maskz_srli_epi64(0xFF, kinds, 28));
    const __mmask8 none = _mm512_cmpeq_epi64_mask(_mm512_and_si512(code, low), _mm512_set1_epi64(kNoKind)) |
                          _mm512_cmpeq_epi64_mask(_mm512_and_si512(code, high), _mm512_set1_epi64(kNoKind << 4));
    code = _mm512_mask_mov_epi64(code, none, _mm512_setzero_si512());
    return _mm512_mask_mov_epi64(code, _mm512_cmpeq_epi64_mask(was, _mm512_shuffle_epi8(now, wordOrder)),
                                 _mm512_set1_epi64(kWholeWordReversed));
  }
};

// Writes the codes of the words changed (a bit each of changed) at codes; returns how many.
BT_LINES_TARGET unsigned PutCodes(std::uint8_t* codes, __mmask8 changed, __m512i code) {
  const auto named = static_cast<unsigned>(__builtin_popcount(changed));
  _mm_mask_storeu_epi8(codes, static_cast<__mmask16>((1u << named) - 1),
                       _mm512_maskz_cvtepi64_epi8(0xFF, _mm512_maskz_compress_epi64(changed, code)));
  return named;
}

// EncodeUndoWordByWord, a line of eight words at a time, a sector at a time: its bitmap first,
// which tells its first and last word named; each line's codes and stored words are then written
// together (the words first aside, as their place follows the last code).
BT_LINES_TARGET std::size_t EncodeUndoByLines(const std::uint8_t* before, const std::uint8_t* after,
                                              std::uint32_t blockSize, std::uint8_t* undo) {
  thread_local std::array<std::uint8_t, kMaxBlockSize> aside;
  constexpr std::uint32_t kLines = kSectorWords / 8;
  const LineCoder coder;
  std::uint8_t* codes = undo + UndoBitmapBytes(blockSize);
  std::uint8_t* words = aside.data();
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    __m512i was[kLines], now[kLines];
    for (std::uint32_t k = 0; k < kLines; ++k) {
      was[k] = _mm512_loadu_si512(before + kSectorBytes * s + 64 * k);
      now[k] = _mm512_loadu_si512(after + kSectorBytes * s + 64 * k);
      undo[kLines * s + k] = _mm512_cmpneq_epi64_mask(was[k], now[k]);
    }
    const std::uint64_t kept = KeptInSector(NamedInSector(undo, s));
    for (std::uint32_t k = 0; k < kLines; ++k) {
      const __mmask8 changed = undo[kLines * s + k];
      if (changed == 0) continue;
      const __m512i code = _mm512_mask_mov_epi64(coder.Codes(was[k], now[k]), static_cast<__mmask8>(kept >> 8 * k),
                                                 _mm512_setzero_si512());
      codes += PutCodes(codes, changed, code);
      const __mmask8 stored = changed & _mm512_cmpeq_epi64_mask(code, _mm512_setzero_si512());
      _mm512_mask_compressstoreu_epi64(words, stored, was[k]);
      words += 8 * __builtin_popcount(stored);
    }
  }
  std::memcpy(codes, aside.data(), static_cast<std::size_t>(words - aside.data()));
  return static_cast<std::size_t>(codes - undo) + static_cast<std::size_t>(words - aside.data());
}

// EncodeTurns, a line of eight words at a time.
BT_LINES_TARGET std::size_t EncodeTurnsByLines(const std::uint8_t* before, const std::uint8_t* after,
                                               std::uint32_t blockSize, std::uint8_t* undo) {
  const LineCoder coder;
  std::uint8_t* codes = undo + UndoBitmapBytes(blockSize);
  for (std::size_t line = 0; line < UndoBitmapBytes(blockSize); ++line) {
    const __m512i was = _mm512_loadu_si512(before + 64 * line), now = _mm512_loadu_si512(after + 64 * line);
    const __mmask8 changed = _mm512_cmpneq_epi64_mask(was, now);
    undo[line] = changed;
    if (changed == 0) continue;
    const __m512i code = coder.Codes(was, now);
    if ((changed & _mm512_cmpeq_epi64_mask(code, _mm512_setzero_si512())) != 0) return 0;
    codes += PutCodes(codes, changed, code);
  }
  return static_cast<std::size_t>(codes - undo);
}

#undef BT_LINES_TARGET

bool ByLines() {
  static const bool byLines = __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
  return byLines;
}
#endif

}  // namespace

std::size_t EncodeUndo(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                       std::uint8_t* undo) {
#if defined(__x86_64__)
  if (ByLines()) return EncodeUndoByLines(before, after, blockSize, undo);
#endif
  return EncodeUndoWordByWord(before, after, blockSize, undo);
}

std::size_t EncodeWholeUndo(const std::uint8_t* before, std::uint32_t blockSize, std::uint8_t* undo) {
  std::uint8_t* codes = undo + UndoBitmapBytes(blockSize);
  std::fill(undo, codes, std::uint8_t{0xFF});
  std::fill(codes, codes + blockSize / 8, std::uint8_t{0});
  std::memcpy(codes + blockSize / 8, before, blockSize);
  return UndoBitmapBytes(blockSize) + blockSize / 8 + blockSize;
}

std::size_t UndoSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize, bool lastStored) {
  const std::size_t bitmap = UndoBitmapBytes(blockSize);
  if (available < bitmap) return 0;
  const std::size_t named = NamedCount(undo, blockSize);
  std::size_t stored = 0;
  if (available - bitmap < named) return 0;
  const std::uint8_t* code = undo + bitmap;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    const std::uint64_t inSector = NamedInSector(undo, s);
    const std::uint64_t kept = lastStored ? KeptInSector(inSector) : inSector & (~inSector + 1);
    for (std::uint64_t rest = inSector; rest != 0; rest &= rest - 1) {
      // The words kept whatever the write are stored as they were.
      if (!ValidCode(*code) || ((kept & rest & (~rest + 1)) != 0 && *code != 0)) return 0;
      stored += *code++ == 0;
    }
  }
  const std::size_t size = bitmap + named + 8 * stored;
  return size <= available ? size : 0;
}

Undone ApplyUndo(const std::uint8_t* undo, std::uint32_t blockSize, bool lastStored, std::uint8_t* block) {
  const std::uint8_t* code = undo + UndoBitmapBytes(blockSize);
  const std::uint8_t* stored = code + NamedCount(undo, blockSize);
  bool differed = false;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    const std::uint64_t named = NamedInSector(undo, s);
    if (named == 0) continue;
    const unsigned first = static_cast<unsigned>(__builtin_ctzll(named)), last = 63u - static_cast<unsigned>(__builtin_clzll(named));
    bool holdsWrite = false;
    for (std::uint64_t rest = named; rest != 0; rest &= rest - 1) {
      const auto w = static_cast<unsigned>(__builtin_ctzll(rest));
      std::uint8_t* at = block + kSectorBytes * s + 8 * w;
      const std::uint64_t now = LoadLE64(at);
      std::uint64_t was = now;
      if (*code == 0) {
        was = LoadLE64(stored);
        stored += 8;
      }
      // A stored word is put back whatever the sector holds. The sector's first, which the write
      // changed, tells whether the sector holds the write: only then are the others turned back.
      // Its last, where stored, must tell the same.
      if (w == first) holdsWrite = now != was;
      else if (lastStored && w == last && holdsWrite != (now != was)) return Undone::kTorn;
      else if (*code != 0 && holdsWrite) was = Turn(now, *code);
      ++code;
      if (was == now) continue;
      StoreLE64(at, was);
      differed = true;
    }
  }
  return differed ? Undone::kPutBack : Undone::kAsItWas;
}

std::size_t EncodeTurns(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                        std::uint8_t* undo) {
#if defined(__x86_64__)
  if (ByLines()) return EncodeTurnsByLines(before, after, blockSize, undo);
#endif
  std::uint8_t* code = undo + UndoBitmapBytes(blockSize);
  MarkChanged(before, after, blockSize, undo);
  for (std::uint32_t word = 0; word < blockSize / 8; ++word) {
    if (!Named(undo, word)) continue;
    *code = CodeOf(LoadLE64(before + 8 * word), LoadLE64(after + 8 * word));
    if (*code++ == 0) return 0;
  }
  return static_cast<std::size_t>(code - undo);
}

std::size_t TurnsSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize) {
  const std::size_t bitmap = UndoBitmapBytes(blockSize);
  if (available < bitmap) return 0;
  const std::size_t named = NamedCount(undo, blockSize);
  if (available - bitmap < named) return 0;
  for (std::size_t i = 0; i < named; ++i)
    if (undo[bitmap + i] == 0 || !ValidCode(undo[bitmap + i])) return 0;
  return bitmap + named;
}

void ApplyTurns(const std::uint8_t* undo, std::uint32_t blockSize, std::uint8_t* block) {
  const std::uint8_t* code = undo + UndoBitmapBytes(blockSize);
  for (std::uint32_t word = 0; word < blockSize / 8; ++word)
    if (Named(undo, word)) StoreLE64(block + 8 * word, Turn(LoadLE64(block + 8 * word), *code++));
}

}  // namespace bt::journal
