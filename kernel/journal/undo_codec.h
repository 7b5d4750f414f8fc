#pragma once

#include <cstddef>
#include <cstdint>

namespace bt::journal {

// The undo of one block written, which puts the block back as it was over whatever a write lost,
// kept or torn at any byte left:
// - a bitmap with a bit per 8-byte word of the block (bit k % 8 of byte k / 8 for word k), set
//   for each word the undo names: those the write changes;
// - for each word named, in order, its span ends: bit k set where a span ends after the word's
//   byte k. The bytes of each run of words named in a sector are cut into spans after those
//   bytes (and after the run's last byte), and the write reversed the order of each span: a
//   field of the block whose byte order the conversion turned, within a word or across words;
//   a byte the write left is a span of its own. A word the write changed otherwise is stored, and
//   takes 0xFF (every byte its own span), which a word that changed can have for no other reason;
// - for each sector with words named, in order, its edges: where its first and its last changed
//   bytes lie in its first and its last words named (a byte: the first's index in the low nibble,
//   the last's in the high), then each of those two bytes as it was;
// - the words stored, as they were, in order.
// A sector is written whole or not at all, or up to some byte where the system ended the write
// part way (a short write): the sector holds the write where its first changed byte differs from
// the one the undo keeps, and where only one of the two edges does, it holds part of the write,
// which cannot be put back, and that is told. So a write ended at any byte is told or harmless:
// before the first changed byte it changed nothing, after the last it changed every byte it was
// to. Stored words are put back whatever the sector holds, spans reversed again only where it
// holds the write. The undos of a record are put back in the order of its writes. Block sizes
// are multiples of 512.
//
// Undos of the earlier format (kSpans) store each sector's first and last words named instead of
// its edges, whatever their spans, and no span crosses the end of the first or the start of the
// last. Those of the formats before name the words the same way, with a code byte each instead of
// its spans: 0 for a word stored, else the byte order that turns the word written back into the
// one it replaced (0xFF the whole word reversed, else a nibble for bytes 0..3 (low) and one for
// bytes 4..7 (high), each 0 kept, 1 reversed, 2 both byte pairs swapped, 3 the first pair only, 4
// the second only); they store each sector's first and last word named, or its first only, and
// in the latter tell no sector that holds part of a write.
enum class UndoFormat { kSpansAndEdges, kSpans, kFirstAndLastWord, kFirstWord };
inline constexpr std::uint32_t kSectorBytes = 512, kSectorWords = kSectorBytes / 8;
inline constexpr std::size_t kEdgeBytes = 3;  // a sector's edges
inline std::size_t UndoBitmapBytes(std::uint32_t blockSize) { return blockSize / 64; }
inline std::size_t MaxUndoBytes(std::uint32_t blockSize) {
  return UndoBitmapBytes(blockSize) + blockSize / 8 * 9 + blockSize / kSectorBytes * kEdgeBytes;
}
// How hard the encoder looks: the words that no order within a word turns back are stored
// (quick), or spans across words are looked for in them (smallest: where the run waits for the
// disk, whose bytes cost more than the processor's time).
enum class Effort { kQuick, kSmallest };
// Writes the undo of the write of after over before to undo (MaxUndoBytes room), of the format
// kSpansAndEdges; returns its size.
std::size_t EncodeUndo(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize, Effort effort,
                       std::uint8_t* undo);
// The same, a word at a time whatever the processor: the encoders that use its vectors give the
// same bytes.
std::size_t EncodeUndoWordByWord(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                                 Effort effort, std::uint8_t* undo);
// The same for a block written again in its group, whose sectors may each hold any of its writes:
// it names every word, stored as it was, so that put back after the others it gives the block.
// It is of the format kFirstWord (whose codes are all 0: every word stored).
std::size_t EncodeWholeUndo(const std::uint8_t* before, std::uint32_t blockSize, std::uint8_t* undo);
// The size of the undo at undo, which has available bytes; 0 when it does not fit in them.
std::size_t UndoSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize, UndoFormat format);
// What putting an undo back found: the block as it was already, put back, or a sector holding
// part of the write, which cannot be put back (the block is then left part put back).
enum class Undone { kAsItWas, kPutBack, kTorn };
// Puts back into block the words the undo names (it fits, as UndoSize tells).
Undone ApplyUndo(const std::uint8_t* undo, std::uint32_t blockSize, UndoFormat format, std::uint8_t* block);

// Turns: for a block whose written sectors are known otherwise, the bitmap and each word's span
// ends, none stored (every word named is turned, the first of a sector like the others). Encoded
// only where spans explain every word that changed (0 otherwise); put back into every word named,
// whatever it holds. Turns of the earlier formats have a code byte for each word instead (none 0).
std::size_t EncodeTurns(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                        std::uint8_t* undo);
// Marked turns: the same where spans explain every word that changed; each word they do not
// explain is marked (0xFF, every byte its own span: turning leaves it as it is) and not stored.
std::size_t EncodeMarkedTurns(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                              std::uint8_t* undo);
// Of each sector s of the block, in one walk over the turns: where the span ends of its words
// begin (codes[s]), and the words that marked turns leave as they are (unturned[s], bit w for its
// word w). Either may be null.
void WalkSectorTurns(const std::uint8_t* undo, std::uint32_t blockSize, const std::uint8_t** codes,
                     std::uint64_t* unturned);
std::size_t TurnsSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize, UndoFormat format);
void ApplyTurns(const std::uint8_t* undo, std::uint32_t blockSize, UndoFormat format, std::uint8_t* block);
// The same for sector s of the block alone (at sector), for turns of spans, whose span ends begin
// at codes (WalkSectorTurns): a span never crosses a sector, and turning a sector's spans again
// gives it back, so this turns a sector either way.
void ApplySectorTurns(const std::uint8_t* undo, const std::uint8_t* codes, std::uint32_t s, std::uint8_t* sector);

}  // namespace bt::journal
