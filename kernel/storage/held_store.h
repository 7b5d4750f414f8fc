// The held store of byteturn-check: the run that byteturn would perform, done in memory. The files
// are opened for reading only and no lock is taken; what byteturn would write is held instead of
// written, where a later read of the run may need it, so that every read sees the bytes byteturn's
// own would find on disk.
//
// Held writes stay in memory, the last 16 MiB of them, and older ones lie in temporary files laid
// out as the database files (a block at its own place, sparse); two bits a block tell which are
// held and which were written in their turn, kept in memory up to 2 MiB and in a temporary file
// beyond. So memory stays bounded whatever the database size, and the disk space taken is at most
// that of the blocks rewritten out of order (big strings). A block written in its turn is held
// only where a later read needs it: a read of a block written in its turn and not held makes the
// pass go astray (HeldPass), and the run is done again from its first block with that block held;
// a third pass holds every write.
#pragma once

#include <cstdint>
#include <string>

#include "store.h"

namespace bt {

Store& HeldStore();

// A temporary file could not be made, written or read: the check cannot go on.
struct CannotTell {
  std::string why;
};

// A pass of the block loop: it starts with nothing held; at its end, whether the next one holds
// every write.
void BeginHeldPass();
void EndHeldPass(bool holdAllNext);
struct HeldPass {
  bool astray;                       // it read a block written in its turn and not held
  std::uint64_t shownBeforeAstray;   // the bytes of output it had made then
  std::uint64_t rewritten;           // blocks written out of order, each counted once
};
HeldPass HeldPassOutcome();

}  // namespace bt
