#include "volume_io.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "messages.h"
#include "database.h"
#include "store.h"
#include "volume_set.h"

namespace bt {

namespace {
// The identity of every database file handle, found at its open (a handle number may be reused).
std::vector<std::pair<platform::File, platform::FileIdentity>> openIdentities;
}  // namespace

std::string VolumePath(std::uint32_t volume) {
  if (volume == 0) return databaseFileName;
  char name[14] = {};
  if (!VolumeFileName(volume, name)) return "";
  std::uint16_t dir = volume <= kMaxVolumes ? volumeDirIndex[volume] : 0;
  const std::string& base = dir == 0 || dir > volumeDirectories.size() ? primaryDirectory : volumeDirectories[dir - 1];
  return base + name;
}

platform::File OpenDatabaseFile(const std::string& path) {
  const platform::File file = TheStore().Open(path);
  if (file == platform::kInvalidFile) return file;
  const platform::FileIdentity identity = platform::IdentityOf(file);
  for (auto& [handle, known] : openIdentities)
    if (handle == file) {
      known = identity;
      return file;
    }
  openIdentities.emplace_back(file, identity);
  return file;
}

platform::FileIdentity IdentityOfDatabaseFile(platform::File file) {
  for (const auto& [handle, identity] : openIdentities)
    if (handle == file) return identity;
  return platform::IdentityOf(file);
}

namespace {
platform::FileIdentity volumeIdentities[kMaxVolumes + 1];
std::uint64_t volumeSizes[kMaxVolumes + 1];
}

void NoteVolumeIdentity(std::uint32_t volume, platform::File file) {
  if (volume > kMaxVolumes) return;
  volumeIdentities[volume] = IdentityOfDatabaseFile(file);
  const std::int64_t size = platform::FileSize(file);
  volumeSizes[volume] = size < 0 ? 0 : static_cast<std::uint64_t>(size);
}

namespace {
std::vector<std::pair<platform::File, std::uint32_t>> volumeOfFile;  // by handle, as opened
}

void NoteVolumeOfFile(platform::File file, std::uint32_t volume) {
  for (auto& [handle, v] : volumeOfFile)
    if (handle == file) {
      v = volume;
      return;
    }
  volumeOfFile.emplace_back(file, volume);
}

std::uint32_t VolumeOfFile(platform::File file) {
  for (const auto& [handle, volume] : volumeOfFile)
    if (handle == file) return volume;
  return 0;
}

std::vector<std::uint32_t> FileKeys(const std::vector<platform::FileIdentity>& identities) {
  std::vector<std::uint32_t> keys(identities.size());
  for (std::uint32_t v = 0; v < identities.size(); ++v) {
    keys[v] = v;
    for (std::uint32_t u = 0; u < v && keys[v] == v; ++u)
      if (identities[u] == identities[v] && !(identities[v] == platform::FileIdentity{})) keys[v] = u;
  }
  return keys;
}

platform::FileIdentity VolumeIdentity(std::uint32_t volume) {
  return volume <= kMaxVolumes ? volumeIdentities[volume] : platform::FileIdentity{};
}
std::uint64_t VolumeSize(std::uint32_t volume) { return volume <= kMaxVolumes ? volumeSizes[volume] : 0; }

bool IsVolumeFound(std::uint32_t volume, platform::File file) {
  const platform::FileIdentity noted = VolumeIdentity(volume);
  return noted == platform::FileIdentity{} || platform::IdentityOf(file) == noted;
}

void FailVolumeReplaced(std::uint32_t volume) {
  const std::string path = VolumePath(volume);
  Fail("\r\nVolume #%d is not the file this run began with: %s was moved or replaced while the run went "
       "on.\r\n",
       static_cast<int>(volume), path.c_str());
}

platform::File OpenVolumeFile(std::uint32_t volume) {
  std::string path = VolumePath(volume);
  if (path.empty()) return platform::kInvalidFile;
  const platform::File file = OpenDatabaseFile(path);
  if (file == platform::kInvalidFile) return file;
  if (!IsVolumeFound(volume, file)) {
    platform::Close(file);
    FailVolumeReplaced(volume);
  }
  NoteVolumeOfFile(file, volume);
  return file;
}

std::uint32_t VolumeIndexOfBlock(std::uint32_t b, std::uint32_t* first, std::uint32_t* last) {
  std::uint32_t n = furtherVolumeCount;
  if (n == 0) {
    *first = 1;
    *last = lastBlock;
    return 0;
  }
  std::uint32_t lo = 0, hi = n;
  while (lo != hi) {
    std::uint32_t mid = lo + (hi - lo) / 2;
    if (b < volumeFirstBlock[mid + 1])
      hi = mid;
    else
      lo = mid + 1;
  }
  if (hi == 0) {
    *first = 1;
    *last = primaryVolumeLastBlock;
  } else {
    *first = volumeFirstBlock[hi];
    *last = hi == n ? lastBlock : volumeFirstBlock[hi + 1] - 1;
  }
  return hi;
}

// A file given up goes to the disk first where the store wrote through it: the run's final flush
// reaches only the files still cached.
void HandleCache::Evict(Slot& slot) {
  if (slot.file != platform::kInvalidFile) {
    platform::ClearLastError();
    if (!TheStore().Release(slot.file)) Fail("\r\nError flushing volume #%d. %s\r\n", slot.volume, ErrorText());
  }
  platform::Close(slot.file);
  slot = Slot{};
}

platform::File HandleCache::Of(std::uint32_t b, std::uint32_t* first, std::uint32_t* last) {
  int volume = static_cast<int>(VolumeIndexOfBlock(b, first, last));
  for (const Slot& slot : slots_)
    if (slot.volume == volume && slot.file != platform::kInvalidFile) return slot.file;

  Slot& target = slots_[next_];
  Evict(target);
  platform::File file = OpenVolumeFile(static_cast<std::uint32_t>(volume));
  // Short of file handles: give up cached files one by one before giving up.
  for (int i = (next_ + 1) % kHandleCacheSlots; file == platform::kInvalidFile && i != next_;
       i = (i + 1) % kHandleCacheSlots) {
    if (slots_[i].file == platform::kInvalidFile) continue;
    Evict(slots_[i]);
    file = OpenVolumeFile(static_cast<std::uint32_t>(volume));
  }
  next_ = (next_ + 1) % kHandleCacheSlots;
  if (file == platform::kInvalidFile) return file;
  target.volume = volume;
  target.file = file;
  return file;
}

void SyncVolumeOrFail(platform::File file, std::uint32_t volume) {
  if (!TheStore().Flush(file)) Fail("\r\nError flushing volume #%d. %s\r\n", static_cast<int>(volume), ErrorText());
}

// Blocks rewritten out of order (big strings) went through these handles.
void HandleCache::SyncAll() {
  for (const Slot& slot : slots_)
    if (slot.file != platform::kInvalidFile) SyncVolumeOrFail(slot.file, static_cast<std::uint32_t>(slot.volume));
}

void HandleCache::CloseAll() {
  for (Slot& slot : slots_) {
    platform::Close(slot.file);
    slot = Slot{};
  }
}

namespace {
// A short count with no system error still fails, with the cause recorded for the message.
bool Moved(std::int64_t n, std::uint32_t size, bool writing) {
  if (n == static_cast<std::int64_t>(size)) return true;
  if (n >= 0) platform::RecordShortTransfer(writing);
  return false;
}
}  // namespace

bool ReadThrough(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) {
  platform::ClearLastError();
  return Moved(platform::ReadAt(file, buffer, size, position), size, false);
}

bool WriteThrough(platform::File file, std::uint64_t position, const std::uint8_t* buffer, std::uint32_t size) {
  platform::ClearLastError();
  return Moved(platform::WriteAt(file, buffer, size, position), size, true);
}

bool ReadBlockAt(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) {
  return TheStore().Read(file, position, buffer, size);
}

bool WriteBlockAt(platform::File file, std::uint64_t position, const std::uint8_t* buffer, std::uint32_t size,
                  const char* failure, std::uint32_t block) {
  return TheStore().Write(file, position, buffer, size, failure, block);
}

}  // namespace bt
