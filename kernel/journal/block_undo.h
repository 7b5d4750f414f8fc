// The undo of one block written, as a record holds it: a kind byte, then
// - kind 6 (direct): the undo of the bytes written over the bytes they replace (undo_codec.h);
// - kind 7 (over the plaintext), for a block of an encrypted database, which a write changes
//   almost whole: a bit per 512-byte sector (bit s % 8 of byte s / 8), set where the ciphertext
//   written differs from the one it replaces; for each such sector, in order, its edges: where
//   its first differing byte lies (2 bytes) and that byte as it was, the same for its last; then
//   the marked turns of the block's plaintext (undo_codec.h); then, for the words they leave (a
//   field across two sectors, a word changed otherwise), the 16 bytes that end each sector with
//   such words, but the last, as written, and the 16-byte pieces of the ciphertext as it was
//   that hold such a word or come just before one, in order;
// - kinds 4 and 5: kinds 6 and 7 of the earlier format: its direct undo stores each sector's first
//   and last words named (undo_codec.h); its undo over the plaintext gives each sector written,
//   instead of edges, the index of its first differing word (a byte) and that word as it was, the
//   same for its last, and, past sector 0, the 16 bytes that end the sector before as written;
// - kinds 2 and 3: kinds 4 and 5 in the format before, whose undo and turns have codes of word
//   orders (undo_codec.h);
// - kinds 0 and 1: the same in the format before that, which stored each sector's first word only
//   (a block written again in its group still takes kind 0: its undo stores every word).
// A sector is written whole or not at all, or up to some byte, and its edges, or its first and last
// differing words, tell which (where they tell apart, the sector holds part of the write, which
// is told and not put back). Over the plaintext, the sectors are put back in order: a sector that
// holds the write is decrypted from the 16 bytes before it as written, its plaintext turned back,
// and encrypted again from the 16 bytes before it as they were; a sector that does not is
// decrypted from those, and its plaintext turned and encrypted as written, only to give the
// sector after it its 16 bytes as written (the earlier format kept them for every sector; kind 7
// keeps them where the sector has words the turns leave, whose bytes as written it cannot know).
// In a sector that holds the write, a word the turns leave is put back from its piece, decrypted
// from the piece before it (or the block's IV). Every sector is then as before the write. The
// recovery needs the key it asks for. The undo holds ciphertext the disk held and where the
// plaintext's reversed fields begin and end, never a byte of the plaintext; it takes the direct
// undo, of the ciphertext, where that is smaller (more than half the block over the plaintext),
// and where the words the turns leave are not looked for (effort kQuick); the earlier kinds 5, 3
// and 1 had no pieces and took it wherever a word changed otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

#include "undo_codec.h"

namespace bt::journal {

std::size_t MaxBlockUndoBytes(std::uint32_t blockSize);
// Writes the undo of the write of after over before, to block number b (the IV of its
// encryption), to undo (MaxBlockUndoBytes room); returns its size. whole: the block was written
// again since the undo before it, and each sector may hold either write: every word is named.
// Over the plaintext where the database is encrypted, its key is loaded and that is smaller.
// effort: of the direct undo (undo_codec.h).
std::size_t EncodeBlockUndo(const std::uint8_t* before, const std::uint8_t* after, std::uint32_t blockSize,
                            std::uint32_t b, bool whole, Effort effort, std::uint8_t* undo);
// The size of the block undo at undo, which has available bytes; 0 when it does not fit in them.
std::size_t BlockUndoSize(const std::uint8_t* undo, std::size_t available, std::uint32_t blockSize);
// Whether the undo can be put back without the database key.
bool NeedsKey(const std::uint8_t* undo);
// Puts the block (number b) back. An undo over the plaintext needs the database key loaded (an
// undo that cannot be put back without it finds the block as it was).
Undone ApplyBlockUndo(const std::uint8_t* undo, std::uint32_t blockSize, std::uint32_t b, std::uint8_t* block);

}  // namespace bt::journal
