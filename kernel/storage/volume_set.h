// Volume sets: finding and verifying every further volume, with the operator's confirmation of
// the volume directories.
#pragma once

#include <cstdint>
#include <string>

#include "byteorder.h"

namespace bt {

// Fills the volume table and the directory list, or ends the process with status 1.
void DiscoverVolumeSet();
// Checks the primary volume info block (converted to this machine's order first when the
// database is big-endian) and takes its stored directory list (at most 20 entries) into effect;
// ends the process when the block is bad.
void ReadVolumeDirectoryList(Bytes block, std::uint32_t* checkpoint);
// Writes the 13 characters "ORVA-nnnn.VOL" (no terminator); 0 for a number outside 1..200.
int VolumeFileName(std::uint32_t volume, char* destination);
// Counted UTF-8 to 8-bit characters: bytes written (at most 227), 0 when empty, -1 on failure.
int Utf8ToLatin1(const std::uint8_t* source, int length, std::uint8_t* destination);
// The same checks, but the text is kept as UTF-8 (any character): bytes written, at most 227.
int CheckUtf8Path(const std::uint8_t* source, int length, std::uint8_t* destination);

}  // namespace bt
