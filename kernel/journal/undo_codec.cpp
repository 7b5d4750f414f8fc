#include "undo_codec.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cstring>

#include "byteorder.h"
#include "database.h"
#include "undo_spans.h"

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

// Whether undos of the format name spans (turns of either format are alike: they have no edges).
bool OfSpans(UndoFormat format) { return format == UndoFormat::kSpansAndEdges || format == UndoFormat::kSpans; }

bool Named(const std::uint8_t* undo, std::uint32_t word) { return (undo[word / 8] >> word % 8 & 1) != 0; }

// How many words the bitmap names.
std::size_t NamedCount(const std::uint8_t* undo, std::uint32_t blockSize) {
  std::size_t named = 0;
  for (std::size_t i = 0; i < UndoBitmapBytes(blockSize); ++i) named += static_cast<std::size_t>(__builtin_popcount(undo[i]));
  return named;
}

// The bitmap's bits of sector s: bit w for its word w.
std::uint64_t NamedInSector(const std::uint8_t* undo, std::uint32_t s) { return LoadLE64(undo + 8 * s); }

// The words of a sector whose bits are named that an undo of the earlier format stores whatever the
// write: the first and the last.
std::uint64_t KeptInSector(std::uint64_t named) {
  return named == 0 ? 0 : (named & (~named + 1)) | std::uint64_t{1} << (63 - __builtin_clzll(named));
}

// Span ends: bit k set where a span ends after byte k of a word (undo_codec.h).
constexpr std::uint8_t kStoredWord = 0xFF;
// The ends of each half's order (kept, reversed, both pairs swapped, the first pair only, the
// second only), and of the whole word reversed.
constexpr std::uint8_t kHalfEnds[kNoKind] = {0x0F, 0x08, 0x0A, 0x0E, 0x0B};
constexpr std::uint8_t kWholeWordEnds = 0x80;

// The ends of a code's order (a code of a word that changed: not 0).
std::uint8_t EndsOf(std::uint8_t code) {
  if (code == kWholeWordReversed) return kWholeWordEnds;
  return static_cast<std::uint8_t>(kHalfEnds[code & 15u] | kHalfEnds[code >> 4u] << 4);
}

// The words of a sector stored, once each named word has its ends from its order within the word
// and the words with none (spanned) are left: stored too, or, given the sector's bytes, their
// spans found.
std::uint64_t StoredInSector(const Sector* sector, std::uint64_t spanned, std::uint8_t* ends) {
  if (sector == nullptr) {
    for (std::uint64_t rest = spanned; rest != 0; rest &= rest - 1) ends[__builtin_ctzll(rest)] = kStoredWord;
    return spanned;
  }
  std::uint64_t stored = FindSpansOfRuns(*sector, spanned, ends);
  // A word whose every byte ends a span (a span from the word before ends in its first byte, the
  // others are as they were) is stored: its ends tell a word stored.
  for (std::uint64_t rest = spanned & ~stored; rest != 0; rest &= rest - 1)
    if (ends[__builtin_ctzll(rest)] == kStoredWord) stored |= rest & (~rest + 1);
  return stored;
}

// The bitmap of sector s, and the ends of each word named that an order within the word turns
// back; returns the words named with none. Word by word.
std::uint64_t SectorEndsWordByWord(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t s,
                                   std::uint8_t* undo, std::uint8_t* ends) {
  std::uint64_t named = 0, spanned = 0;
  for (unsigned w = 0; w < kSectorWords; ++w) {
    const std::uint64_t was = LoadLE64(before + kSectorBytes * s + 8 * w), now = LoadLE64(after + kSectorBytes * s + 8 * w);
    if (was == now) continue;
    named |= std::uint64_t{1} << w;
    const std::uint8_t code = CodeOf(was, now);
    if (code == 0) spanned |= std::uint64_t{1} << w;
    else ends[w] = EndsOf(code);
  }
  StoreLE64(undo + 8 * s, named);
  return spanned;
}

// What becomes of the words named that no order within the word turns back: stored, their spans
// looked for (those that none explain stored), or, in turns, their spans, which must explain
// them all, or, in marked turns, their spans, those that none explain marked (0xFF) and not
// stored. Only undos have edges.
enum class Unordered { kStored, kSpannedOrStored, kSpanned, kMarked };
bool WithEdges(Unordered unordered) { return unordered == Unordered::kStored || unordered == Unordered::kSpannedOrStored; }
constexpr std::uint64_t kNotTurned = ~std::uint64_t{0};

// The words of a sector stored, given each named word's ends from its order within the word and
// the words with none (spanned), whose spans are looked for in the sector's bytes where they are
// not simply stored; in turns none, or kNotTurned where spans do not explain every word.
std::uint64_t SectorStored(Unordered unordered, const Sector& sector, std::uint64_t spanned, std::uint8_t* ends) {
  if (unordered != Unordered::kSpanned) return StoredInSector(unordered == Unordered::kStored ? nullptr : &sector, spanned, ends);
  return spanned != 0 && FindSpansOfRuns(sector, spanned, ends) != 0 ? kNotTurned : 0;
}

// Writes the edges of sector s (undo_codec.h), whose words named are named, at edges; returns
// where the next go.
std::uint8_t* PutEdges(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t s, std::uint64_t named,
                       std::uint8_t* edges) {
  const std::uint8_t* was = before + kSectorBytes * s;
  const std::uint8_t* now = after + kSectorBytes * s;
  const auto first = static_cast<unsigned>(__builtin_ctzll(named)), last = 63u - static_cast<unsigned>(__builtin_clzll(named));
  // Byte k of a word is its bits 8k to 8k + 7 (LoadLE64).
  const unsigned f = 8 * first + static_cast<unsigned>(__builtin_ctzll(LoadLE64(was + 8 * first) ^ LoadLE64(now + 8 * first))) / 8;
  const unsigned l =
      8 * last + (63u - static_cast<unsigned>(__builtin_clzll(LoadLE64(was + 8 * last) ^ LoadLE64(now + 8 * last)))) / 8;
  edges[0] = static_cast<std::uint8_t>(f % 8 | l % 8 << 4);
  edges[1] = was[f];
  edges[2] = was[l];
  return edges + kEdgeBytes;
}

// What an encoder puts aside while it writes the bitmap and the ends, as their place follows the
// last ends: the edges and the words stored.
struct Aside {
  std::uint8_t* edges;
  std::uint8_t* words;
  Aside() {
    thread_local std::array<std::uint8_t, kMaxBlockSize / kSectorBytes * kEdgeBytes> edgesAside;
    // (room for a quad's words stored past the last: EncodeStoredByQuads stores all four)
    thread_local std::array<std::uint8_t, kMaxBlockSize + 32> wordsAside;
    edges = edgesAside.data();
    words = wordsAside.data();
  }
};

// Lays the edges and the words put aside after the ends (which end at codes); returns the undo's size.
std::size_t Gathered(const std::uint8_t* undo, std::uint8_t* codes, const Aside& start, const Aside& end) {
  const auto edges = static_cast<std::size_t>(end.edges - start.edges), words = static_cast<std::size_t>(end.words - start.words);
  std::memcpy(codes, start.edges, edges);
  std::memcpy(codes + edges, start.words, words);
  return static_cast<std::size_t>(codes - undo) + edges + words;
}

#if defined(__x86_64__)
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

#define BT_QUADS_TARGET __attribute__((target("avx2,popcnt")))

BT_QUADS_TARGET inline __m256i LoadQuad(const std::uint8_t* at) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at)); }

// Bytes 0..3 of a 16-byte shuffle that packs the bytes of a mask's set bits (of four) first.
constexpr auto kPackBytes = [] {
  std::array<std::array<std::uint8_t, 16>, 16> all{};
  for (unsigned m = 0; m < 16; ++m) {
    unsigned n = 0;
    for (unsigned i = 0; i < 4; ++i)
      if ((m >> i & 1) != 0) all[m][n++] = static_cast<std::uint8_t>(i);
    for (; n < 16; ++n) all[m][n] = 0x80;
  }
  return all;
}();
// The 32-bit lanes that pack the words (of four) of a mask's set bits first.
constexpr auto kPackWords = [] {
  std::array<std::array<std::uint32_t, 8>, 16> all{};
  for (unsigned m = 0; m < 16; ++m) {
    unsigned n = 0;
    for (unsigned i = 0; i < 4; ++i)
      if ((m >> i & 1) != 0) all[m][n++] = 2 * i, all[m][n++] = 2 * i + 1;
  }
  return all;
}();

// Every order tried on four words at once (CodeOf), giving each word's ends.
struct QuadCoder {
  __m256i halfOrders[4], wordOrder, kindEnds;

  BT_QUADS_TARGET QuadCoder() {
    for (std::size_t k = 0; k < 4; ++k) halfOrders[k] = LoadQuad(kLineOrders[k].data());
    wordOrder = LoadQuad(kLineOrders[4].data());
    // A half's ends by its kind, in each 16 bytes; no kind (and bytes past a kind) give nothing.
    kindEnds = _mm256_setr_epi8(0x0F, 0x08, 0x0A, 0x0E, 0x0B, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0F, 0x08, 0x0A, 0x0E,
                                0x0B, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  }

  // The ends of the order that turns each word of now back into was, in the low byte of its lane
  // (words unchanged: any; words of no order: kStoredWord where stored, else any); the words of no
  // order (a bit each) in unordered.
  BT_QUADS_TARGET __m256i Ends(__m256i was, __m256i now, unsigned& unordered, bool stored = false) const {
    const __m256i none = _mm256_set1_epi32(kNoKind);
    // Each half's kind, the first that fits laid last.
    __m256i kinds = none;
    for (int kind = 4; kind >= 1; --kind)
      kinds = _mm256_blendv_epi8(kinds, _mm256_set1_epi32(kind),
                                 _mm256_cmpeq_epi32(was, _mm256_shuffle_epi8(now, halfOrders[kind - 1])));
    kinds = _mm256_andnot_si256(_mm256_cmpeq_epi32(was, now), kinds);
    const __m256i whole = _mm256_cmpeq_epi64(was, _mm256_shuffle_epi8(now, wordOrder));
    // The low half's ends, and the high half's shifted in above them.
    __m256i ends = _mm256_and_si256(_mm256_shuffle_epi8(kindEnds, kinds), _mm256_set1_epi32(0xFF));
    ends = _mm256_or_si256(ends, _mm256_srli_epi64(ends, 28));
    ends = _mm256_blendv_epi8(ends, _mm256_set1_epi64x(kWholeWordEnds), whole);
    // A word either of whose halves has no kind, and not reversed whole, has no order.
    __m256i noKind = _mm256_cmpeq_epi32(kinds, none);
    noKind = _mm256_andnot_si256(whole, _mm256_or_si256(noKind, _mm256_shuffle_epi32(noKind, 0xB1)));
    unordered = static_cast<unsigned>(_mm256_movemask_pd(_mm256_castsi256_pd(noKind)));
    return stored ? _mm256_blendv_epi8(ends, _mm256_set1_epi64x(kStoredWord), noKind) : ends;
  }
};

// The low bytes of a quad's four words, packed.
BT_QUADS_TARGET inline __m128i LowBytes(__m256i quad) {
  const __m256i pick = _mm256_setr_epi8(0, 8, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 8, -1, -1, -1,
                                        -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m256i picked = _mm256_shuffle_epi8(quad, pick);
  return _mm_unpacklo_epi16(_mm256_castsi256_si128(picked), _mm256_extracti128_si256(picked, 1));
}

// The bits of the four words of a quad that changed.
BT_QUADS_TARGET inline unsigned ChangedIn(__m256i was, __m256i now) {
  return ~static_cast<unsigned>(_mm256_movemask_pd(_mm256_castsi256_pd(_mm256_cmpeq_epi64(was, now)))) & 15u;
}

// SectorEndsWordByWord, four words at a time.
BT_QUADS_TARGET std::uint64_t SectorEndsByQuads(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t s,
                                                std::uint8_t* undo, std::uint8_t* ends) {
  const QuadCoder coder;
  const std::uint8_t* was = before + kSectorBytes * s;
  const std::uint8_t* now = after + kSectorBytes * s;
  std::uint64_t named = 0, spanned = 0;
  for (unsigned q = 0; q < kSectorWords / 4; ++q) {
    const __m256i b = LoadQuad(was + 32 * q), a = LoadQuad(now + 32 * q);
    const unsigned changed = ChangedIn(b, a);
    if (changed == 0) continue;
    unsigned unordered = 0;
    _mm_storeu_si32(ends + 4 * q, LowBytes(coder.Ends(b, a, unordered)));
    named |= std::uint64_t{changed} << 4 * q;
    spanned |= std::uint64_t{unordered & changed} << 4 * q;
  }
  StoreLE64(undo + 8 * s, named);
  return spanned;
}

// The quick undo (EncodeWordByWord, the words of no order stored), four words at a time: each
// sector's bitmap and edges, then each quad's ends and stored words, packed.
BT_QUADS_TARGET std::size_t EncodeStoredByQuads(const std::uint8_t* before, const std::uint8_t* after,
                                                std::uint32_t blockSize, std::uint8_t* undo) {
  const QuadCoder coder;
  std::uint8_t* codes = undo + UndoBitmapBytes(blockSize);
  const Aside start;
  Aside at = start;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    const std::uint8_t* was = before + kSectorBytes * s;
    const std::uint8_t* now = after + kSectorBytes * s;
    std::uint64_t named = 0;
    for (unsigned q = 0; q < kSectorWords / 4; ++q)
      named |= std::uint64_t{ChangedIn(LoadQuad(was + 32 * q), LoadQuad(now + 32 * q))} << 4 * q;
    StoreLE64(undo + 8 * s, named);
    if (named == 0) continue;
    at.edges = PutEdges(before, after, s, named, at.edges);
    for (unsigned q = 0; q < kSectorWords / 4; ++q) {
      const auto changed = static_cast<unsigned>(named >> 4 * q & 15u);
      if (changed == 0) continue;
      const __m256i b = LoadQuad(was + 32 * q), a = LoadQuad(now + 32 * q);
      unsigned unordered = 0;
      const __m256i ends = coder.Ends(b, a, unordered, true);
      const unsigned stored = unordered & changed;
      const __m128i pack = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kPackBytes[changed].data()));
      // (four bytes stored whatever the count: the undo's room holds the words stored after the codes)
      _mm_storeu_si32(codes, _mm_shuffle_epi8(LowBytes(ends), pack));
      codes += __builtin_popcount(changed);
      // (all four words stored whatever the count, without a branch that the data would mispredict)
      const __m256i words = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kPackWords[stored].data()));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(at.words), _mm256_permutevar8x32_epi32(b, words));
      at.words += 8 * __builtin_popcount(stored);
    }
  }
  return Gathered(undo, codes, start, at);
}

#undef BT_QUADS_TARGET
#endif

// The ends of each word of a sector (SectorEndsWordByWord), by the processor's vectors where it has them.
using SectorEndsFinder = std::uint64_t (*)(const std::uint8_t*, const std::uint8_t*, std::uint32_t, std::uint8_t*,
                                           std::uint8_t*);
#if defined(__x86_64__)
bool ByQuads() {
  static const bool quads = __builtin_cpu_supports("avx2");
  return quads;
}
#endif
SectorEndsFinder FastestSectorEnds() {
#if defined(__x86_64__)
  if (ByQuads()) return SectorEndsByQuads;
#endif
  return SectorEndsWordByWord;
}

// The undo (or turns) of the write of after over before, a sector at a time: its bitmap and each
// word's ends, the spans of the words with no order, then the sector's ends and stored words
// (the words aside, as their place follows the last ends); 0 for turns that spans do not explain.
std::size_t EncodeWordByWord(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                             Unordered unordered, std::uint8_t* undo, SectorEndsFinder sectorEnds = FastestSectorEnds()) {
  std::uint8_t* codes = undo + UndoBitmapBytes(blockSize);
  const Aside start;
  Aside at = start;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    std::uint8_t ends[kSectorWords];
    const std::uint64_t spanned = sectorEnds(before, after, s, undo, ends), named = NamedInSector(undo, s);
    std::uint64_t stored = SectorStored(unordered, {before + kSectorBytes * s, after + kSectorBytes * s}, spanned, ends);
    if (unordered == Unordered::kSpanned && stored == kNotTurned) return 0;
    if (unordered == Unordered::kMarked) stored = 0;
    if (WithEdges(unordered) && named != 0) at.edges = PutEdges(before, after, s, named, at.edges);
    for (std::uint64_t rest = named; rest != 0; rest &= rest - 1) {
      const auto w = static_cast<unsigned>(__builtin_ctzll(rest));
      *codes++ = ends[w];
      if ((stored >> w & 1) != 0) std::memcpy(at.words, before + kSectorBytes * s + 8 * w, 8), at.words += 8;
    }
  }
  return Gathered(undo, codes, start, at);
}

#if defined(__x86_64__)
#define BT_LINES_TARGET __attribute__((target("avx512f,avx512bw,avx512vl,popcnt")))

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

// The ends of the order of each lane's code (Codes), in the low byte of its lane: those of its
// low nibble's and its high nibble's, looked up by byte shuffles (a word reversed whole has both
// nibbles 15).
struct LineEnds {
  __m512i low, high;

  BT_LINES_TARGET LineEnds() {
    std::array<std::uint8_t, 64> lowEnds{}, highEnds{};  // each 16 bytes alike
    for (std::size_t i = 0; i < 64; ++i) {
      const std::size_t kind = i % 16;
      lowEnds[i] = kind < kNoKind ? kHalfEnds[kind] : kind == 15 ? kWholeWordEnds : 0;
      highEnds[i] = kind < kNoKind ? static_cast<std::uint8_t>(kHalfEnds[kind] << 4) : 0;
    }
    low = _mm512_loadu_si512(lowEnds.data());
    high = _mm512_loadu_si512(highEnds.data());
  }

  BT_LINES_TARGET __m512i Of(__m512i code) const {
    const __m512i nibble = _mm512_set1_epi64(0x0F);
    return _mm512_or_si512(_mm512_shuffle_epi8(low, _mm512_and_si512(code, nibble)),
                           _mm512_shuffle_epi8(high, _mm512_and_si512(_mm512_maskz_srli_epi64(0xFF, code, 4), nibble)));
  }
};

// EncodeWordByWord, a line of eight words at a time, a sector at a time: its bitmap, which tells
// its first and last word named; where words with no order are stored, each line's ends and
// stored words at once; else the ends of every line first, then the spans of the words with no
// order, then each line's ends and stored words. (The words go aside, as their place follows the
// last ends.)
BT_LINES_TARGET std::size_t EncodeByLines(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                                          Unordered unordered, std::uint8_t* undo) {
  constexpr std::uint32_t kLines = kSectorWords / 8;
  const LineCoder coder;
  const LineEnds lineEnds;
  std::uint8_t* codes = undo + UndoBitmapBytes(blockSize);
  const Aside start;
  Aside at = start;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    __m512i was[kLines], now[kLines];
    for (std::uint32_t k = 0; k < kLines; ++k) {
      was[k] = _mm512_loadu_si512(before + kSectorBytes * s + 64 * k);
      now[k] = _mm512_loadu_si512(after + kSectorBytes * s + 64 * k);
      undo[kLines * s + k] = _mm512_cmpneq_epi64_mask(was[k], now[k]);
    }
    const std::uint64_t named = NamedInSector(undo, s);
    if (WithEdges(unordered) && named != 0) at.edges = PutEdges(before, after, s, named, at.edges);
    if (unordered == Unordered::kStored) {
      for (std::uint32_t k = 0; k < kLines; ++k) {
        const __mmask8 changed = undo[kLines * s + k];
        if (changed == 0) continue;
        const __m512i code = coder.Codes(was[k], now[k]);
        const __mmask8 none = changed & _mm512_cmpeq_epi64_mask(code, _mm512_setzero_si512());
        codes += PutCodes(codes, changed, _mm512_mask_mov_epi64(lineEnds.Of(code), none, _mm512_set1_epi64(kStoredWord)));
        _mm512_mask_compressstoreu_epi64(at.words, none, was[k]);
        at.words += 8 * __builtin_popcount(none);
      }
      continue;
    }
    std::uint8_t ends[kSectorWords] = {};
    std::uint64_t spanned = 0;
    for (std::uint32_t k = 0; k < kLines; ++k) {
      const __mmask8 changed = undo[kLines * s + k];
      if (changed == 0) continue;
      const __m512i code = coder.Codes(was[k], now[k]);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(ends + 8 * k), _mm512_maskz_cvtepi64_epi8(0xFF, lineEnds.Of(code)));
      spanned |= std::uint64_t{static_cast<__mmask8>(changed & _mm512_cmpeq_epi64_mask(code, _mm512_setzero_si512()))}
                 << 8 * k;
    }
    std::uint64_t stored = SectorStored(unordered, {before + kSectorBytes * s, after + kSectorBytes * s}, spanned, ends);
    if (unordered == Unordered::kSpanned && stored == kNotTurned) return 0;
    if (unordered == Unordered::kMarked) stored = 0;
    for (std::uint32_t k = 0; k < kLines; ++k) {
      const __mmask8 changed = undo[kLines * s + k];
      if (changed == 0) continue;
      codes += PutCodes(codes, changed,
                        _mm512_maskz_cvtepu8_epi64(0xFF, _mm_loadl_epi64(reinterpret_cast<const __m128i*>(ends + 8 * k))));
      const auto inLine = static_cast<__mmask8>(stored >> 8 * k);
      _mm512_mask_compressstoreu_epi64(at.words, inLine, was[k]);
      at.words += 8 * __builtin_popcount(inLine);
    }
  }
  return Gathered(undo, codes, start, at);
}

#undef BT_LINES_TARGET

bool ByLines() {
  static const bool byLines = __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
  return byLines;
}
#endif

// The undo (or turns) of the write of after over before.
std::size_t Encode(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize, Unordered unordered,
                   std::uint8_t* undo) {
#if defined(__x86_64__)
  if (ByLines()) return EncodeByLines(before, after, blockSize, unordered, undo);
  if (unordered == Unordered::kStored && ByQuads()) return EncodeStoredByQuads(before, after, blockSize, undo);
#endif
  return EncodeWordByWord(before, after, blockSize, unordered, undo);
}

}  // namespace

std::size_t EncodeUndo(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize, Effort effort,
                       std::uint8_t* undo) {
  return Encode(before, after, blockSize, effort == Effort::kQuick ? Unordered::kStored : Unordered::kSpannedOrStored, undo);
}

std::size_t EncodeUndoWordByWord(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                                 Effort effort, std::uint8_t* undo) {
  return EncodeWordByWord(before, after, blockSize, effort == Effort::kQuick ? Unordered::kStored : Unordered::kSpannedOrStored,
                          undo, SectorEndsWordByWord);
}

std::size_t EncodeWholeUndo(const std::uint8_t* before, std::uint32_t blockSize, std::uint8_t* undo) {
  std::uint8_t* codes = undo + UndoBitmapBytes(blockSize);
  std::fill(undo, codes, std::uint8_t{0xFF});
  std::fill(codes, codes + blockSize / 8, std::uint8_t{0});
  std::memcpy(codes + blockSize / 8, before, blockSize);
  return UndoBitmapBytes(blockSize) + blockSize / 8 + blockSize;
}

namespace {

// The size and the put-back of an undo of the earlier formats.
std::size_t WordCodesSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize, bool lastStored) {
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

Undone ApplyWordCodes(const std::uint8_t* undo, std::uint32_t blockSize, bool lastStored, std::uint8_t* block) {
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

// Whether each run of words named in a sector ends a span (in an undo, so do the sector's first word
// named and the word before its last).
bool SpansEndRuns(const std::uint8_t* undo, std::uint32_t blockSize, bool kept) {
  const std::uint8_t* ends = undo + UndoBitmapBytes(blockSize);
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    const std::uint64_t named = NamedInSector(undo, s), first = kept ? KeptInSector(named) : 0;
    const std::uint64_t runEnds = (named & ~(named >> 1)) | (named & (first | first >> 1));
    for (std::uint64_t rest = named; rest != 0; rest &= rest - 1, ++ends)
      if ((runEnds & rest & (~rest + 1)) != 0 && (*ends & 0x80) == 0) return false;
  }
  return true;
}

// How many sectors have words named.
std::size_t NamedSectors(const std::uint8_t* undo, std::uint32_t blockSize) {
  std::size_t sectors = 0;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) sectors += NamedInSector(undo, s) != 0;
  return sectors;
}

// The size of an undo of spans: with each sector's edges (byEdges), or of the earlier format, with
// its first and last words named stored.
std::size_t SpansSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize, bool byEdges) {
  const std::size_t bitmap = UndoBitmapBytes(blockSize);
  if (available < bitmap) return 0;
  const std::size_t named = NamedCount(undo, blockSize);
  if (available - bitmap < named || !SpansEndRuns(undo, blockSize, !byEdges)) return 0;
  std::size_t stored = 0;
  const std::uint8_t* ends = undo + bitmap;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    const std::uint64_t inSector = NamedInSector(undo, s), kept = byEdges ? 0 : KeptInSector(inSector);
    for (std::uint64_t rest = inSector; rest != 0; rest &= rest - 1, ++ends)
      stored += (kept & rest & (~rest + 1)) != 0 || *ends == kStoredWord;
  }
  const std::size_t edges = byEdges ? kEdgeBytes * NamedSectors(undo, blockSize) : 0;
  const std::size_t size = bitmap + named + edges + 8 * stored;
  if (size > available) return 0;
  // Each edge lies in a word: its index is 0 to 7.
  for (std::size_t e = 0; e < edges; e += kEdgeBytes)
    if ((undo[bitmap + named + e] & 0x88) != 0) return 0;
  return size;
}

// Reverses again into was each span of the words named in a sector (endsOf: each word's ends, by
// index), from the sector as it holds the write; the last byte of each run of them ends a span.
void ReverseSpans(const std::uint8_t* sector, std::uint64_t named, const std::uint8_t* endsOf, std::uint8_t* was) {
  unsigned start = 0;
  for (unsigned i = 0; i < kSectorBytes; ++i) {
    const unsigned w = i / 8;
    if ((named >> w & 1) == 0) {
      start = i + 1;
      continue;
    }
    if ((endsOf[w] >> i % 8 & 1) == 0 && !(i % 8 == 7 && (w == kSectorWords - 1 || (named >> (w + 1) & 1) == 0)))
      continue;
    for (unsigned k = start; k <= i; ++k) was[k] = sector[start + i - k];
    start = i + 1;
  }
}

Undone ApplySpans(const std::uint8_t* undo, std::uint32_t blockSize, bool byEdges, std::uint8_t* block) {
  const std::uint8_t* ends = undo + UndoBitmapBytes(blockSize);
  const std::uint8_t* edges = ends + NamedCount(undo, blockSize);
  const std::uint8_t* stored = edges + (byEdges ? kEdgeBytes * NamedSectors(undo, blockSize) : 0);
  bool differed = false;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    const std::uint64_t named = NamedInSector(undo, s), kept = byEdges ? 0 : KeptInSector(named);
    if (named == 0) continue;
    std::uint8_t* sector = block + kSectorBytes * s;
    std::uint8_t endsOf[kSectorWords] = {};
    const std::uint8_t* storedOf[kSectorWords] = {};
    for (std::uint64_t rest = named; rest != 0; rest &= rest - 1) {
      const auto w = static_cast<unsigned>(__builtin_ctzll(rest));
      endsOf[w] = *ends++;
      if ((kept >> w & 1) != 0 || endsOf[w] == kStoredWord) storedOf[w] = stored, stored += 8;
    }
    // The sector's first changed byte (of the earlier format: its first word named) tells whether
    // it holds the write; its last must tell the same.
    const auto first = static_cast<unsigned>(__builtin_ctzll(named)), last = 63u - static_cast<unsigned>(__builtin_clzll(named));
    bool holdsWrite = false, lastHolds = false;
    if (byEdges) {
      holdsWrite = sector[8 * first + (edges[0] & 7u)] != edges[1];
      lastHolds = sector[8 * last + (edges[0] >> 4 & 7u)] != edges[2];
      edges += kEdgeBytes;
    } else {
      holdsWrite = LoadLE64(sector + 8 * first) != LoadLE64(storedOf[first]);
      lastHolds = LoadLE64(sector + 8 * last) != LoadLE64(storedOf[last]);
    }
    if (lastHolds != holdsWrite) return Undone::kTorn;
    std::uint8_t was[kSectorBytes];
    std::memcpy(was, sector, kSectorBytes);
    if (holdsWrite) ReverseSpans(sector, named, endsOf, was);
    for (unsigned w = 0; w < kSectorWords; ++w)
      if (storedOf[w] != nullptr) std::memcpy(was + 8 * w, storedOf[w], 8);
    if (std::memcmp(was, sector, kSectorBytes) == 0) continue;
    std::memcpy(sector, was, kSectorBytes);
    differed = true;
  }
  return differed ? Undone::kPutBack : Undone::kAsItWas;
}

}  // namespace

std::size_t UndoSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize, UndoFormat format) {
  if (OfSpans(format)) return SpansSize(undo, available, blockSize, format == UndoFormat::kSpansAndEdges);
  return WordCodesSize(undo, available, blockSize, format == UndoFormat::kFirstAndLastWord);
}

Undone ApplyUndo(const std::uint8_t* undo, std::uint32_t blockSize, UndoFormat format, std::uint8_t* block) {
  if (OfSpans(format)) return ApplySpans(undo, blockSize, format == UndoFormat::kSpansAndEdges, block);
  return ApplyWordCodes(undo, blockSize, format == UndoFormat::kFirstAndLastWord, block);
}

std::size_t EncodeTurns(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                        std::uint8_t* undo) {
  return Encode(before, after, blockSize, Unordered::kSpanned, undo);
}

std::size_t EncodeMarkedTurns(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                              std::uint8_t* undo) {
  return Encode(before, after, blockSize, Unordered::kMarked, undo);
}

void WalkSectorTurns(const std::uint8_t* undo, std::uint32_t blockSize, const std::uint8_t** codes,
                     std::uint64_t* unturned) {
  const std::uint8_t* code = undo + UndoBitmapBytes(blockSize);
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    if (codes != nullptr) codes[s] = code;
    std::uint64_t left = 0;
    for (std::uint64_t rest = NamedInSector(undo, s); rest != 0; rest &= rest - 1)
      if (*code++ == kStoredWord) left |= rest & (~rest + 1);
    if (unturned != nullptr) unturned[s] = left;
  }
}

std::size_t TurnsSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize, UndoFormat format) {
  const std::size_t bitmap = UndoBitmapBytes(blockSize);
  if (available < bitmap) return 0;
  const std::size_t named = NamedCount(undo, blockSize);
  if (available - bitmap < named) return 0;
  if (OfSpans(format)) return SpansEndRuns(undo, blockSize, false) ? bitmap + named : 0;
  for (std::size_t i = 0; i < named; ++i)
    if (undo[bitmap + i] == 0 || !ValidCode(undo[bitmap + i])) return 0;
  return bitmap + named;
}

namespace {

// Turns the words of a sector named (named) back by their spans, whose ends begin at code;
// returns where those of the next sector begin.
const std::uint8_t* TurnSector(const std::uint8_t* code, std::uint64_t named, std::uint8_t* sector) {
  if (named == 0) return code;
  std::uint8_t endsOf[kSectorWords] = {};
  for (std::uint64_t rest = named; rest != 0; rest &= rest - 1) endsOf[__builtin_ctzll(rest)] = *code++;
  std::uint8_t was[kSectorBytes];
  std::memcpy(was, sector, kSectorBytes);
  ReverseSpans(sector, named, endsOf, was);
  std::memcpy(sector, was, kSectorBytes);
  return code;
}

}  // namespace

void ApplyTurns(const std::uint8_t* undo, std::uint32_t blockSize, UndoFormat format, std::uint8_t* block) {
  const std::uint8_t* code = undo + UndoBitmapBytes(blockSize);
  if (!OfSpans(format)) {
    for (std::uint32_t word = 0; word < blockSize / 8; ++word)
      if (Named(undo, word)) StoreLE64(block + 8 * word, Turn(LoadLE64(block + 8 * word), *code++));
    return;
  }
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s)
    code = TurnSector(code, NamedInSector(undo, s), block + kSectorBytes * s);
}

void ApplySectorTurns(const std::uint8_t* undo, const std::uint8_t* codes, std::uint32_t s, std::uint8_t* sector) {
  TurnSector(codes, NamedInSector(undo, s), sector);
}

}  // namespace bt::journal
