// Volume files: paths, the 10-slot handle cache for out-of-order reads, block positions and the
// text of the last system error.
#pragma once

#include <cstdint>
#include <string>

#include "platform.h"

namespace bt {

inline constexpr int kHandleCacheSlots = 10;

std::string VolumePath(std::uint32_t volume);
// Opens a database, volume or marker file for reading and writing (only for reading in a check
// run), and notes the identity of the file behind the handle.
platform::File OpenDatabaseFile(const std::string& path);
// The identity of a file opened by OpenDatabaseFile (asked of the system for any other handle).
platform::FileIdentity IdentityOfDatabaseFile(platform::File file);
platform::File OpenVolumeFile(std::uint32_t volume);

// Index of the volume holding block b, with its first and last block numbers.
std::uint32_t VolumeIndexOfBlock(std::uint32_t b, std::uint32_t* first, std::uint32_t* last);
// Cached handle of the volume holding block b (invalid when it cannot be opened).
platform::File VolumeOfBlock(std::uint32_t b, std::uint32_t* first, std::uint32_t* last);
void EmptyHandleCache();
// Flushes every cached file to stable storage; ends the run on the first that fails.
void SyncHandleCache();
void CloseHandleCache();
// Flushes the file of volume to stable storage; ends the run when it fails.
void SyncVolumeOrFail(platform::File file, std::uint32_t volume);
// Slot contents, for inspection: the volume index held by a slot, -1 when empty.
int HandleCacheSlotVolume(int slot);

// Byte position of block b in a volume whose first block is first.
inline std::uint64_t BlockPosition(std::uint32_t b, std::uint32_t first, std::uint32_t size) {
  return std::uint64_t{b - first} * size;
}
// Reads or writes exactly size bytes at position; false on failure or a short transfer. In a check
// run a write is held instead (check_run.h), and a read sees what the run has written.
bool ReadBlockAt(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size);
bool WriteBlockAt(platform::File file, std::uint64_t position, const std::uint8_t* buffer, std::uint32_t size);

// "Error %d=(%s)" for the last system error; take it right after the failing call.
const char* ErrorText();

}  // namespace bt
