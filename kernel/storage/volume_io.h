// Volume files: paths, the 10-slot handle cache for out-of-order reads, block positions and the
// text of the last system error.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform.h"

namespace bt {

inline constexpr int kHandleCacheSlots = 10;

std::string VolumePath(std::uint32_t volume);
// Opens a database, volume or marker file as the store in use does, and notes the identity of the
// file behind the handle.
platform::File OpenDatabaseFile(const std::string& path);
// The identity of a file opened by OpenDatabaseFile (asked of the system for any other handle).
platform::FileIdentity IdentityOfDatabaseFile(platform::File file);
// Opens volume's file by its path; a file there that is not the one the run found when it began
// (the files were moved away, or another put in their place, while the run went on) ends the run
// (FailVolumeReplaced), before the run reads or writes it.
platform::File OpenVolumeFile(std::uint32_t volume);
// Whether file, opened by volume's path, is the file noted for it when the run began (true where
// none was noted); the message that ends the run where it is not.
bool IsVolumeFound(std::uint32_t volume, platform::File file);
[[noreturn]] void FailVolumeReplaced(std::uint32_t volume);
// The identity and size of volume's file as its check before the run found them (the main file is
// volume 0; size 0 where it could not be told).
void NoteVolumeIdentity(std::uint32_t volume, platform::File file);
platform::FileIdentity VolumeIdentity(std::uint32_t volume);
std::uint64_t VolumeSize(std::uint32_t volume);

// Which volume a handle opened by OpenVolumeFile is (the main file is volume 0; 0 for another).
void NoteVolumeOfFile(platform::File file, std::uint32_t volume);
std::uint32_t VolumeOfFile(platform::File file);
// The key of a block of a database file, for the writes a store holds and the reads laid over
// them: volumes that are one file (links) share their keys. FileKeys(identities)[v] is the first
// volume that is the same file as volume v.
std::vector<std::uint32_t> FileKeys(const std::vector<platform::FileIdentity>& identities);
inline std::uint64_t BlockKey(std::uint32_t fileKey, std::uint64_t blockOfFile) {
  return std::uint64_t{fileKey} << 40 | blockOfFile;
}

// Index of the volume holding block b, with its first and last block numbers.
std::uint32_t VolumeIndexOfBlock(std::uint32_t b, std::uint32_t* first, std::uint32_t* last);
// The volume files a pass opens for its reads and writes out of turn, up to kHandleCacheSlots of
// them, each replacing the oldest; they are closed with the cache.
class HandleCache {
 public:
  HandleCache() = default;
  HandleCache(const HandleCache&) = delete;
  HandleCache& operator=(const HandleCache&) = delete;
  ~HandleCache() { CloseAll(); }
  // The handle of the volume holding block b (invalid when it cannot be opened).
  platform::File Of(std::uint32_t b, std::uint32_t* first, std::uint32_t* last);
  // Flushes every file to stable storage; ends the run on the first that fails.
  void SyncAll();
  void CloseAll();
  // The volume index held by a slot, -1 when empty (for inspection).
  int SlotVolume(int slot) const { return slots_[slot].volume; }

 private:
  struct Slot {
    int volume = -1;
    platform::File file = platform::kInvalidFile;
  };
  void Evict(Slot& slot);
  Slot slots_[kHandleCacheSlots];
  int next_ = 0;
};
// Flushes the file of volume to stable storage; ends the run when it fails.
void SyncVolumeOrFail(platform::File file, std::uint32_t volume);

// Byte position of block b in a volume whose first block is first.
inline std::uint64_t BlockPosition(std::uint32_t b, std::uint32_t first, std::uint32_t size) {
  return std::uint64_t{b - first} * size;
}
// Reads or writes exactly size bytes at position through the store in use (store.h); false on
// failure or a short transfer. A read sees what the run has written; failure is the run's message
// for a write that fails later, with the block number.
bool ReadBlockAt(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size);
bool WriteBlockAt(platform::File file, std::uint64_t position, const std::uint8_t* buffer, std::uint32_t size,
                  const char* failure = nullptr, std::uint32_t block = 0);
// The same, on the disk at once, whatever the store: the stores' own transfers.
bool ReadThrough(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size);
bool WriteThrough(platform::File file, std::uint64_t position, const std::uint8_t* buffer, std::uint32_t size);

}  // namespace bt
