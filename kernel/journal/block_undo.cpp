#include "block_undo.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "block_cipher.h"
#include "byteorder.h"
#include "database.h"
#include "undo_codec.h"

namespace bt::journal {

namespace {

// The kinds (block_undo.h).
constexpr std::uint8_t kFirstWordDirect = 0, kFirstWordOverPlaintext = 1, kWordCodesDirect = 2,
                       kWordCodesOverPlaintext = 3, kWordsDirect = 4, kWordsOverPlaintext = 5, kDirect = 6,
                       kOverPlaintext = 7;
constexpr std::size_t kTailBytes = 16;

bool Direct(std::uint8_t kind) {
  return kind == kDirect || kind == kWordsDirect || kind == kWordCodesDirect || kind == kFirstWordDirect;
}
bool OverPlaintext(std::uint8_t kind) {
  return kind == kOverPlaintext || kind == kWordsOverPlaintext || kind == kWordCodesOverPlaintext ||
         kind == kFirstWordOverPlaintext;
}
bool LastStored(std::uint8_t kind) { return kind != kFirstWordDirect && kind != kFirstWordOverPlaintext; }
UndoFormat FormatOf(std::uint8_t kind) {
  return kind == kDirect ? UndoFormat::kSpansAndEdges
         : kind == kWordsDirect || kind == kWordsOverPlaintext || kind == kOverPlaintext ? UndoFormat::kSpans
         : LastStored(kind)                         ? UndoFormat::kFirstAndLastWord
                                                    : UndoFormat::kFirstWord;
}

std::size_t SectorBitmapBytes(std::uint32_t blockSize) { return (blockSize / kSectorBytes + 7) / 8; }
bool Bit(const std::uint8_t* bits, std::uint32_t s) { return (bits[s / 8] >> s % 8 & 1) != 0; }

// The indexes of the first and the last word of sector s that differ between a and b (there is one).
std::uint8_t FirstDiffering(const std::uint8_t* a, const std::uint8_t* b, std::uint32_t s) {
  std::uint32_t w = 0;
  while (LoadLE64(a + kSectorBytes * s + 8 * w) == LoadLE64(b + kSectorBytes * s + 8 * w)) ++w;
  return static_cast<std::uint8_t>(w);
}
std::uint8_t LastDiffering(const std::uint8_t* a, const std::uint8_t* b, std::uint32_t s) {
  std::uint32_t w = kSectorWords - 1;
  while (LoadLE64(a + kSectorBytes * s + 8 * w) == LoadLE64(b + kSectorBytes * s + 8 * w)) --w;
  return static_cast<std::uint8_t>(w);
}

// The bytes an undo over the plaintext of the earlier kinds gives sector s ahead of the turns.
std::size_t SectorEntryBytes(std::uint32_t s, bool lastStored) { return 9 + (lastStored ? 9 : 0) + (s != 0 ? kTailBytes : 0); }

// An undo over the plaintext (kind 7) gives each sector written its edges: where its first and its
// last differing bytes lie (2 bytes each) and each as it was.
constexpr std::size_t kEdgesEntryBytes = 6;

// The words of the plaintext whose change no spans explain (unturned), by sector, and the 16-byte
// pieces of the ciphertext that give them as they were: a word's own piece (its plaintext is that
// piece decrypted, XORed with the piece before) and the piece before it.
constexpr std::size_t kPieceBytes = 16;
struct Unturned {
  std::uint64_t inSector[kMaxBlockSize / kSectorBytes] = {};
  bool Own(std::uint32_t p) const { return (inSector[p / 32] >> (2 * (p % 32)) & 3) != 0; }
  bool Kept(std::uint32_t p) const { return Own(p) || (p + 1 < kMaxBlockSize / kPieceBytes && Own(p + 1)); }
  // Calls f with each piece kept, in order (only the sectors with words unturned, or whose next
  // sector's first piece has one, have any).
  template <typename F>
  void ForEachKept(std::uint32_t blockSize, F f) const {
    constexpr std::uint32_t kSectorPieces = kSectorBytes / kPieceBytes;
    for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s)
      if (inSector[s] != 0 || (s + 1 < blockSize / kSectorBytes && (inSector[s + 1] & 3) != 0))
        for (std::uint32_t p = kSectorPieces * s; p < kSectorPieces * (s + 1); ++p)
          if (Kept(p)) f(p);
  }
};
Unturned UnturnedOf(const std::uint8_t* turns, std::uint32_t blockSize) {
  Unturned u;
  WalkSectorTurns(turns, blockSize, nullptr, u.inSector);
  return u;
}
// The bytes kind 7 keeps past its turns: the 16 bytes that end each sector with words unturned
// (but the last) as written, then the pieces, in order.
std::size_t UnturnedBytes(const Unturned& u, std::uint32_t blockSize) {
  std::size_t n = 0;
  for (std::uint32_t s = 0; s + 1 < blockSize / kSectorBytes; ++s) n += u.inSector[s] != 0 ? kTailBytes : 0;
  u.ForEachKept(blockSize, [&](std::uint32_t) { n += kPieceBytes; });
  return n;
}
std::size_t EntryBytes(std::uint8_t kind, std::uint32_t s) {
  return kind == kOverPlaintext ? kEdgesEntryBytes : SectorEntryBytes(s, LastStored(kind));
}

// Where in sector s of a and b their first and last differing bytes lie (there is one).
unsigned FirstDifferingByte(const std::uint8_t* a, const std::uint8_t* b, std::uint32_t s) {
  const unsigned w = FirstDiffering(a, b, s);
  const std::uint64_t x = LoadLE64(a + kSectorBytes * s + 8 * w) ^ LoadLE64(b + kSectorBytes * s + 8 * w);
  return 8 * w + static_cast<unsigned>(__builtin_ctzll(x)) / 8;
}
unsigned LastDifferingByte(const std::uint8_t* a, const std::uint8_t* b, std::uint32_t s) {
  const unsigned w = LastDiffering(a, b, s);
  const std::uint64_t x = LoadLE64(a + kSectorBytes * s + 8 * w) ^ LoadLE64(b + kSectorBytes * s + 8 * w);
  return 8 * w + (63u - static_cast<unsigned>(__builtin_clzll(x))) / 8;
}

// Over the plaintext, where the run waits for the disk (effort kSmallest), the words the spans do
// not explain are marked and kept as pieces of ciphertext; where the processor is what the run
// waits for, that is not looked for (0 where spans do not explain every word: the block then takes
// the direct undo, a quick one).
std::size_t EncodeOverPlaintext(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                                std::uint32_t b, Effort effort, std::uint8_t* undo) {
  thread_local std::array<std::uint8_t, kMaxBlockSize> plainBefore, plainAfter;
  std::uint8_t iv[16];
  BlockIv(b, iv);
  DecryptFrom(before, plainBefore.data(), blockSize, iv);
  DecryptFrom(after, plainAfter.data(), blockSize, iv);
  undo[0] = kOverPlaintext;
  std::uint8_t* bits = undo + 1;
  std::memset(bits, 0, SectorBitmapBytes(blockSize));
  std::uint8_t* at = bits + SectorBitmapBytes(blockSize);
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    if (std::memcmp(before + kSectorBytes * s, after + kSectorBytes * s, kSectorBytes) == 0) continue;
    bits[s / 8] = static_cast<std::uint8_t>(bits[s / 8] | 1u << s % 8);
    for (const unsigned i : {FirstDifferingByte(before, after, s), LastDifferingByte(before, after, s)}) {
      StoreLE16(at, static_cast<std::uint16_t>(i));
      at[2] = before[kSectorBytes * s + i];
      at += 3;
    }
  }
  const std::uint8_t* turns = at;
  const std::size_t turnsSize = effort == Effort::kQuick ? EncodeTurns(plainBefore.data(), plainAfter.data(), blockSize, at)
                                                         : EncodeMarkedTurns(plainBefore.data(), plainAfter.data(), blockSize, at);
  if (turnsSize == 0) return 0;
  at += turnsSize;
  // The words the turns leave: the 16 bytes that end their sector as written, and the ciphertext
  // that gives each as it was.
  const Unturned unturned = UnturnedOf(turns, blockSize);
  for (std::uint32_t s = 0; s + 1 < blockSize / kSectorBytes; ++s)
    if (unturned.inSector[s] != 0) std::memcpy(at, after + kSectorBytes * (s + 1) - kTailBytes, kTailBytes), at += kTailBytes;
  unturned.ForEachKept(blockSize, [&](std::uint32_t p) {
    std::memcpy(at, before + kPieceBytes * p, kPieceBytes);
    at += kPieceBytes;
  });
  return static_cast<std::size_t>(at - undo);
}

// The part of an undo over the plaintext before its plaintext undo: its size, or 0 where it does
// not fit in available bytes.
std::size_t SectorPartSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize) {
  const std::uint8_t kind = undo[0];
  const std::size_t bitmap = SectorBitmapBytes(blockSize);
  if (available < 1 + bitmap) return 0;
  std::size_t size = 1 + bitmap;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s)
    if (Bit(undo + 1, s)) size += EntryBytes(kind, s);
  if (size > available) return 0;
  // The word and byte indexes lie within their sector, the first edge not past the last.
  const std::uint8_t* at = undo + 1 + bitmap;
  for (std::uint32_t s = 0; s < blockSize / kSectorBytes; ++s) {
    if (!Bit(undo + 1, s)) continue;
    if (kind == kOverPlaintext ? LoadLE16(at + 3) >= kSectorBytes || LoadLE16(at) > LoadLE16(at + 3)
                               : at[0] >= kSectorWords || (LastStored(kind) && at[9] >= kSectorWords))
      return 0;
    at += EntryBytes(kind, s);
  }
  return size;
}

Undone ApplyOverPlaintext(const std::uint8_t* undo, std::uint32_t blockSize, std::uint32_t b, bool lastStored,
                          std::uint8_t* block) {
  const std::uint8_t* bits = undo + 1;
  const std::uint32_t sectors = blockSize / kSectorBytes;
  // Which sectors hold the write, and from which 16 bytes each was encrypted.
  bool written[kMaxBlockSize / kSectorBytes] = {};
  const std::uint8_t* tail[kMaxBlockSize / kSectorBytes] = {};
  const std::uint8_t* entry[kMaxBlockSize / kSectorBytes] = {};
  bool any = false;
  const std::uint8_t* at = bits + SectorBitmapBytes(blockSize);
  const auto differs = [&](std::uint32_t s, const std::uint8_t* entry) {
    return LoadLE64(block + kSectorBytes * s + 8 * entry[0]) != LoadLE64(entry + 1);
  };
  for (std::uint32_t s = 0; s < sectors; ++s) {
    if (!Bit(bits, s)) continue;
    entry[s] = at;
    written[s] = differs(s, at);
    if (lastStored && differs(s, at + 9) != written[s]) return Undone::kTorn;
    any = any || written[s];
    if (s != 0) tail[s] = at + SectorEntryBytes(s, lastStored) - kTailBytes;
    at += SectorEntryBytes(s, lastStored);
  }
  if (!any) return Undone::kAsItWas;
  std::uint8_t blockIv[16];
  BlockIv(b, blockIv);
  // The plaintext of the sectors written (the others are left as they are: the undo's turns
  // there are never used).
  thread_local std::array<std::uint8_t, kMaxBlockSize> plain;
  std::memcpy(plain.data(), block, blockSize);
  for (std::uint32_t s = 0; s < sectors; ++s) {
    if (!written[s]) continue;
    const std::uint8_t* iv = s == 0 ? blockIv : tail[s] != nullptr ? tail[s] : block + kSectorBytes * s - kTailBytes;
    DecryptFrom(block + kSectorBytes * s, plain.data() + kSectorBytes * s, kSectorBytes, iv);
  }
  ApplyTurns(at, blockSize, FormatOf(undo[0]), plain.data());
  // Encrypted again in order: the 16 bytes before each sector are then as they were.
  for (std::uint32_t s = 0; s < sectors; ++s) {
    if (!written[s]) continue;
    const std::uint8_t* iv = s == 0 ? blockIv : block + kSectorBytes * s - kTailBytes;
    EncryptFrom(plain.data() + kSectorBytes * s, block + kSectorBytes * s, kSectorBytes, iv);
  }
  // A write ended part way inside the sector's first or last differing word leaves that word
  // differing too, and the sector's 16 bytes around it decrypt to nothing it held: put back, the
  // words differ from those the undo stores, and the sector is told.
  for (std::uint32_t s = 0; s < sectors; ++s)
    if (written[s] && (differs(s, entry[s]) || (lastStored && differs(s, entry[s] + 9)))) return Undone::kTorn;
  return Undone::kPutBack;
}

// Kind 7. Each sector, in order, holds the block as it was or as written (its edges tell which),
// and the other state follows from it by its turns; each state of a sector is encrypted from the
// 16 bytes that end the sector before in the same state, so both are carried from sector to
// sector, and a sector that holds the write is decrypted in the written state and encrypted
// again in the other.
Undone ApplyOverPlaintextByEdges(const std::uint8_t* undo, std::uint32_t blockSize, std::uint32_t b,
                                 std::uint8_t* block) {
  const std::uint8_t* bits = undo + 1;
  const std::uint32_t sectors = blockSize / kSectorBytes;
  bool written[kMaxBlockSize / kSectorBytes] = {};
  const std::uint8_t* entry[kMaxBlockSize / kSectorBytes] = {};
  const std::uint8_t* at = bits + SectorBitmapBytes(blockSize);
  const auto differs = [&](std::uint32_t s, const std::uint8_t* edge) {
    return block[kSectorBytes * s + LoadLE16(edge) % kSectorBytes] != edge[2];
  };
  std::uint32_t end = 0;  // past the last sector written
  for (std::uint32_t s = 0; s < sectors; ++s) {
    if (!Bit(bits, s)) continue;
    entry[s] = at;
    written[s] = differs(s, at);
    if (differs(s, at + 3) != written[s]) return Undone::kTorn;
    if (written[s]) end = s + 1;
    at += kEdgesEntryBytes;
  }
  if (end == 0) return Undone::kAsItWas;
  // The words the turns leave: where the 16 bytes that end their sector as written are, and the
  // pieces of the ciphertext as it was.
  const std::uint8_t* turns = at;
  Unturned unturned;
  const std::uint8_t* codesOf[kMaxBlockSize / kSectorBytes];
  WalkSectorTurns(turns, blockSize, codesOf, unturned.inSector);
  const std::uint8_t* kept = turns + TurnsSize(turns, SIZE_MAX, blockSize, UndoFormat::kSpans);
  const std::uint8_t* tailOf[kMaxBlockSize / kSectorBytes] = {};
  for (std::uint32_t s = 0; s + 1 < sectors; ++s)
    if (unturned.inSector[s] != 0) tailOf[s] = kept, kept += kTailBytes;
  thread_local std::array<const std::uint8_t*, kMaxBlockSize / kPieceBytes> pieceOf;
  unturned.ForEachKept(blockSize, [&](std::uint32_t p) {
    pieceOf[p] = kept;
    kept += kPieceBytes;
  });
  std::uint8_t blockIv[16], was[16], now[16];  // the 16 bytes before the sector, as it was and as written
  BlockIv(b, blockIv);
  std::memcpy(was, blockIv, 16);
  std::memcpy(now, blockIv, 16);
  for (std::uint32_t s = 0; s < end; ++s) {
    std::uint8_t* sector = block + kSectorBytes * s;
    std::uint8_t plain[kSectorBytes], other[kSectorBytes], nextWas[16], nextNow[16];
    std::memcpy(written[s] ? nextNow : nextWas, sector + kSectorBytes - 16, 16);
    if (written[s] || unturned.inSector[s] == 0) {
      DecryptFrom(sector, plain, kSectorBytes, written[s] ? now : was);
      ApplySectorTurns(turns, codesOf[s], s, plain);
    }
    if (written[s]) {
      // Each word unturned as it was: its piece decrypted, from the piece before it.
      for (std::uint64_t rest = unturned.inSector[s]; rest != 0; rest &= rest - 1) {
        const std::uint32_t word = kSectorWords * s + static_cast<std::uint32_t>(__builtin_ctzll(rest)), p = word / 2;
        std::uint8_t piece[kPieceBytes];
        DecryptFrom(pieceOf[p], piece, kPieceBytes, p == 0 ? blockIv : pieceOf[p - 1]);
        std::memcpy(plain + 8 * (word % kSectorWords), piece + 8 * (word % 2), 8);
      }
      EncryptFrom(plain, sector, kSectorBytes, was);
      std::memcpy(nextWas, sector + kSectorBytes - 16, 16);
    } else if (unturned.inSector[s] != 0) {
      // Its words unturned as written are not known: the 16 bytes that end it as written are kept.
      if (tailOf[s] == nullptr) return Undone::kTorn;
      std::memcpy(nextNow, tailOf[s], 16);
    } else {
      EncryptFrom(plain, other, kSectorBytes, now);
      std::memcpy(nextNow, other + kSectorBytes - 16, 16);
    }
    std::memcpy(was, nextWas, 16);
    std::memcpy(now, nextNow, 16);
  }
  // Put back, a sector's edges are as they were: else the key, or a sector before it, was not as
  // the undo has it.
  for (std::uint32_t s = 0; s < end; ++s)
    if (written[s] && (differs(s, entry[s]) || differs(s, entry[s] + 3))) return Undone::kTorn;
  return Undone::kPutBack;
}

}  // namespace

std::size_t MaxBlockUndoBytes(std::uint32_t blockSize) {
  return 1 + SectorBitmapBytes(blockSize) + blockSize / kSectorBytes * SectorEntryBytes(1, true) + MaxUndoBytes(blockSize);
}

std::size_t EncodeBlockUndo(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                            std::uint32_t b, bool whole, Effort effort, std::uint8_t* undo) {
  if (whole) {
    undo[0] = kFirstWordDirect;  // every word stored: the first of each sector too
    return 1 + EncodeWholeUndo(before, blockSize, undo + 1);
  }
  // Over the plaintext where that holds no plaintext and is smaller than the direct undo, which a
  // block the database keeps unencrypted (its label, its volume info blocks) takes.
  if (databaseEncrypted && databaseKeyLoaded && blockSize % 16 == 0) {
    const std::size_t size = EncodeOverPlaintext(before, after, blockSize, b, effort, undo);
    if (size != 0 && size <= blockSize / 2) return size;
  }
  undo[0] = kDirect;
  return 1 + EncodeUndo(before, after, blockSize, effort, undo + 1);
}

std::size_t BlockUndoSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize) {
  if (available < 1 || !(Direct(undo[0]) || OverPlaintext(undo[0]))) return 0;
  if (Direct(undo[0])) {
    const std::size_t n = UndoSize(undo + 1, available - 1, blockSize, FormatOf(undo[0]));
    return n == 0 ? 0 : 1 + n;
  }
  if (blockSize % kSectorBytes != 0) return 0;
  const std::size_t part = SectorPartSize(undo, available, blockSize);
  if (part == 0) return 0;
  const std::size_t n = TurnsSize(undo + part, available - part, blockSize, FormatOf(undo[0]));
  if (n == 0 || undo[0] != kOverPlaintext) return n == 0 ? 0 : part + n;
  const std::size_t size = part + n + UnturnedBytes(UnturnedOf(undo + part, blockSize), blockSize);
  return size <= available ? size : 0;
}

bool NeedsKey(const std::uint8_t* undo) { return !Direct(undo[0]); }

Undone ApplyBlockUndo(const std::uint8_t* undo, std::uint32_t blockSize, std::uint32_t b, std::uint8_t* block) {
  if (Direct(undo[0])) return ApplyUndo(undo + 1, blockSize, FormatOf(undo[0]), block);
  if (!databaseKeyLoaded) return Undone::kAsItWas;
  if (undo[0] == kOverPlaintext) return ApplyOverPlaintextByEdges(undo, blockSize, b, block);
  return ApplyOverPlaintext(undo, blockSize, b, LastStored(undo[0]), block);
}

}  // namespace bt::journal
