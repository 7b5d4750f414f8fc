// Batched block I/O of the volume being converted. Runs of consecutive blocks are read with one
// call into the batch buffer, converted there slot by slot in block order, and written back in
// runs of consecutive converted blocks with one call each. What the disk holds and what the
// console shows at every point where a run can end is what the block-at-a-time run leaves:
// - free blocks are never read: a read run stops before the first one, and before any block
//   whose governing map is not the current one;
// - converted blocks are written before anything that reads or writes the database out of order
//   (the map read ahead, big strings), before any step that may end the run, and in block order;
// - passed-over blocks are never written; a block rewritten out of order is read again before
//   its turn comes;
// - a read or write of a run that fails is redone block by block, so that the failing block is
//   the one reported;
// - messages are held back while a block converted before them waits for its write (shown as
//   soon as none does), and those of blocks after a block that cannot be written are never shown.
#pragma once

#include <cstdint>

#include "byteorder.h"
#include "map_block.h"
#include "platform.h"

namespace bt {

// Starts the volume whose blocks first..last are read through readFile and written through
// writeFile, the pass's maps telling which are free; its messages are held back from here on.
// The run may begin at a later block from (a recovered run).
void BeginVolumeBatch(const Maps& maps, std::uint32_t first, std::uint32_t last, std::uint32_t from,
                      platform::File readFile, platform::File writeFile);
// Block b (the next one in order) as it is on disk, read ahead with the blocks that follow it
// when it is not there already; an empty span when it cannot be read (the system error is
// recorded, and every converted block before b is on disk).
Bytes FetchBlock(std::uint32_t b);
// Block b, converted in its slot: write it back (encrypted first when it is to be) or pass over it;
// the messages that no block before them waits for are shown.
void KeepBlock(std::uint32_t b, bool write);
// Writes every converted block before the next one to the disk, in order; ends the run on a
// write failure, naming the block.
void WritePendingBlocks();
// Writes what is pending and shows every message held back: the volume's blocks are done.
void EndVolumeBatch();
// A block written out of order at position of file: the copy read ahead of the same bytes on disk,
// if any, is stale (it is read again; a check run takes the written bytes instead). The file is
// compared by identity, not by block number: two volumes of a set may be one file.
void NoteOutOfOrderWrite(platform::File file, std::uint64_t position, const std::uint8_t* written);

}  // namespace bt
