// The undo of the writes held, taken from the bytes they replace (as a batch read them, as a block
// read alone returned, or from the disk), and what reads see of the writes held.
#pragma once

#include <cstddef>

#include "journal_state.h"

namespace bt::journaling {

// How many blocks the group's writes hold.
std::size_t HeldBlocks(const Group& g);
// Encrypts the blocks the group holds before their encryption, and takes their sample.
void SealGroup(Group& g);
// The writer's side: the undo of each block of a group of byWriter, from the bytes it replaces.
void MakeUndo(Group& g);

}  // namespace bt::journaling
