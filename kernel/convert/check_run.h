// byteturn-check: the run that byteturn would perform on the same files with the same answers,
// done in memory. Every block is read, decrypted, decompressed and converted as byteturn would;
// what byteturn would write is held instead of written, where a later read of the run may need
// it, so that every read sees the bytes byteturn's own would find on disk. The files are opened
// for reading only and no lock is taken. It prints what byteturn would print, without its final
// line, then a verdict of its own; status 0 when byteturn would complete, 1 otherwise.
//
// Held writes stay in memory, the last 16 MiB of them, and older ones lie in temporary files laid
// out as the database files (a block at its own place, sparse); two bits a block tell which are
// held and which were written in their turn, kept in memory up to 2 MiB and in a temporary file
// beyond. So memory stays bounded whatever the database size, and the disk space taken is at most
// that of the blocks rewritten out of order (big strings). A block written in its turn is held
// only where a later read needs it: a read of a block written in its turn and not held makes the
// pass go astray, and the run is done again from its first block with that block held (without
// showing again what it showed); a third pass holds every write.
#pragma once

#include <cstdint>

#include "platform.h"

namespace bt {

int CheckMain(int argc, const char* const* argv);

// The hooks of volume file access in a check run.
// Lays the writes held for the bytes read over them.
void SeeWritesOfTheRun(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size);
// Holds a write of whole blocks at position of file.
bool HoldWrite(platform::File file, std::uint64_t position, const std::uint8_t* buffer, std::uint32_t size);
// Notes that the block at position of file is written in its turn; true when it is to be held.
bool NoteWriteInTurn(platform::File file, std::uint64_t position);

}  // namespace bt
