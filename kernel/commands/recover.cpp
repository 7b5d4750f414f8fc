#include "recover.h"
#include "pass.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "driver.h"
#include "block_cipher.h"
#include "block_undo.h"
#include "journal.h"
#include "journal_files.h"
#include "journal_format.h"
#include "journaled_store.h"
#include "label_block.h"
#include "label_check.h"
#include "lock_file.h"
#include "map_block.h"
#include "messages.h"
#include "database.h"
#include "volume_info.h"
#include "volume_io.h"
#include "volume_set.h"

namespace bt {

namespace {

[[noreturn]] void Refuse(const std::string& text) {
  std::fflush(stdout);  // the label's lines before the refusal, where both go to one place
  FailTo(stderr, "byteturn-recover: %s\n", text.c_str());
}

// Whether the file begins as a further volume does (a volume info block of a volume past the first),
// where a main file has its label block: a volume given instead of its main file.
bool BeginsAsAVolume(const std::string& path) {
  std::uint8_t head[volinfo::kVolumeNumber + 4] = {};
  const platform::File file = platform::OpenReadOnly(path);
  const bool read = file != platform::kInvalidFile && ReadThrough(file, 0, head, sizeof head);
  platform::Close(file);
  return read && IsVolumeInfoType(head) && LoadLE32(head + volinfo::kVolumeNumber) != 0;
}

// No journal where the file's names or mark lead. A run interrupted while it made its journal
// leaves it under its temporary name, and its lock: both are removed, and said so.
[[noreturn]] void NoJournal(const JournalFound& where) {
  if (where.marked)
    Refuse(databaseFileName + " bears the mark of an interrupted conversion, whose journal " + where.path +
           " is not there, nor under another name beside it or beside " + databaseFileName +
           ". Put the journal back there (or its directory in BYTETURN_JOURNAL), then run byteturn-recover " +
           databaseFileName + " again. Nothing was changed.");
  std::vector<std::string> names{databaseFileName + ".journal"};
  if (const std::string elsewhere = JournalPathFor(databaseFileName); !elsewhere.empty() && elsewhere != names[0])
    names.push_back(elsewhere);
  std::string removed;
  for (const std::string& name : names)
    for (const std::string& left : TemporaryJournalsOf(name))
      if (platform::RemoveFile(left)) removed += (removed.empty() ? "" : ", ") + left;
  // The journal a run was making tells that it stopped before its first write: its lock goes too.
  // A lock alone may guard a database whose journal is elsewhere: the operator decides.
  const std::string lock = LockPathFor(databaseFileName);
  if (!removed.empty() && RemoveLeftLock(lock)) removed += ", " + lock;
  const std::string looked = names[0] + (names.size() > 1 ? " and " + names[1] : std::string());
  const std::string text = "no journal of " + databaseFileName + " was found (it looked for " + looked + "), and " +
                           databaseFileName + " bears no mark of an interrupted conversion: there is nothing to finish." +
                           (BeginsAsAVolume(databaseFileName)
                                ? " " + databaseFileName + " begins as a volume file does: to finish a database's run, give "
                                  "byteturn-recover its main file."
                                : std::string());
  if (removed.empty() && !lock.empty() && platform::FileExists(lock))
    Refuse(text + " The lock " + lock + " stays: where the run that left it had not written yet, or had finished, "
           "remove it; where its journal lies elsewhere, name its directory in BYTETURN_JOURNAL; where it ran with "
           "BYTETURN_JOURNAL=off and was interrupted, the database is part converted, and only a backup taken "
           "before that run gives it back.");
  if (removed.empty()) Refuse(text);
  PrintTo(stderr, "byteturn-recover: %s The run before stopped while it made its journal, before it wrote anything; "
          "removed what it left: %s.\n", text.c_str(), removed.c_str());
  EndRun(0);
}

// The journal, opened and locked: a run that still keeps it holds the lock.
platform::File OpenJournal(const std::string& path) {
  platform::ClearLastError();
  const platform::File file = platform::OpenReadWrite(path);
  if (file == platform::kInvalidFile) Refuse("cannot open the journal " + path + ". " + ErrorText());
  if (!platform::TryLockExclusive(file))
    Refuse("the journal " + path + " is in use: the run that keeps it has not ended. Nothing was changed.");
  return file;
}

journal::Found ReadJournalOrRefuse(platform::File file, const std::string& path) {
  journal::Found found;
  std::string why;
  const std::int64_t size = platform::FileSize(file);
  const auto read = [&](std::uint64_t position, std::uint8_t* buffer, std::size_t n) {
    return ReadThrough(file, position, buffer, static_cast<std::uint32_t>(n));
  };
  if (size < 0 || !journal::ReadJournal(read, static_cast<std::uint64_t>(size), found, why))
    Refuse("the journal " + path + " cannot be used: " + why + ". Nothing was changed.");
  // What was read may be what a killed run left unflushed (its last commit, the journal's very
  // name): it is made durable before the recovery writes a record beside it or a block.
  platform::ClearLastError();
  if (!platform::Sync(file) || !platform::SyncDirectory(DirectoryOf(path)))
    Refuse("cannot flush the journal " + path + ". " + ErrorText() + " Nothing was changed.");
  return found;
}

// A directory the run named by its full path, where the main file's directory is now.
std::string Rebased(const std::string& dir, const journal::Header& h) {
  if (!dir.starts_with(h.mainDirectory)) return dir;
  return FullPath(DirectoryOf(databaseFileName) + platform::kSeparator) + dir.substr(h.mainDirectory.size());
}

// dir (a full path) from base (a full directory path), as ".." up to where they part and on.
std::string RelativeTo(const std::string& dir, const std::string& base) {
  std::size_t common = 0;
  for (std::size_t i = 0; i < std::min(dir.size(), base.size()) && dir[i] == base[i]; ++i)
    if (dir[i] == platform::kSeparator) common = i + 1;
  std::string up;
  for (std::size_t i = common; i < base.size(); ++i)
    if (base[i] == platform::kSeparator) up += std::string("..") + platform::kSeparator;
  return up + dir.substr(common);
}

// The identity of the file at path; {} where none opens there.
platform::FileIdentity IdentityAt(const std::string& path) {
  const platform::File file = platform::OpenReadOnly(path);
  if (file == platform::kInvalidFile) return {};
  const platform::FileIdentity identity = platform::IdentityOf(file);
  platform::Close(file);
  return identity;
}

// The directory of the volumes of index (0: the primary one) that the run found in dir, where the
// main file's directory is now (Rebased). For one outside the main file's directory, where the main
// file lies in another directory now: the same place relative to it where the volumes are there
// (the database's files moved together), else dir, whose volumes must then be the run's own files
// (not a backup put back, or a copy, where the run found them). Other volumes in both places (a
// tree copied, or moved and a backup put back where it was) are refused: which are the run's
// cannot be told.
std::string Relocated(const std::string& dir, std::uint16_t index, const journal::Header& h) {
  if (dir.starts_with(h.mainDirectory)) return Rebased(dir, h);
  const std::string mainDirectory = FullPath(DirectoryOf(databaseFileName) + platform::kSeparator);
  if (mainDirectory == h.mainDirectory) return dir;
  const std::string there = FullPath(mainDirectory + RelativeTo(dir, h.mainDirectory));
  constexpr platform::FileIdentity kNone{};
  bool moved = false, other = false, notTheRuns = false;
  std::string notTheRunsPath;
  for (std::uint32_t v = 1; v <= furtherVolumeCount; ++v) {
    char name[14] = {};
    if (volumeDirIndex[v] != index || !VolumeFileName(v, name)) continue;
    const platform::FileIdentity here = IdentityAt(dir + name);
    const platform::FileIdentity beside = there == dir ? kNone : IdentityAt(there + name);
    moved = moved || beside != kNone;
    other = other || (here != kNone && beside != kNone && here != beside);  // not one file through a link
    if (here != kNone && here != h.volumes[v].identity && h.volumes[v].identity != kNone && !notTheRuns) {
      notTheRuns = true;
      notTheRunsPath = dir + name;
    }
  }
  if (other)
    Refuse("the interrupted run's volumes in " + dir + " are there and also in " + there + ", placed beside " +
           databaseFileName + " as they were beside the run's main file: which are the run's cannot be told. Move " +
           "away those that are not, and run byteturn-recover again. Nothing was changed.");
  if (moved) return there;
  if (notTheRuns)
    Refuse(notTheRunsPath + " is not the file the interrupted run converted there (one put back or copied there " +
           "since), and " + databaseFileName + " lies elsewhere than the run's main file: which files are the run's " +
           "cannot be told. Put back the run's files where it left them, or " + databaseFileName +
           " where the run's main file was. Nothing was changed.");
  return dir;
}

std::vector<std::uint32_t> KeysOfVolumes(const journal::Header& h) {
  std::vector<platform::FileIdentity> identities;
  for (const journal::VolumeRecord& v : h.volumes) identities.push_back(v.identity);
  return FileKeys(identities);
}

// The block number of position in volume v.
std::uint32_t BlockAt(std::uint32_t v, std::uint64_t position, std::uint32_t size) {
  return (v == 0 ? 1 : volumeFirstBlock[v]) + static_cast<std::uint32_t>(position / size);
}

// The blocks the records of the commit in effect write, by key (BlockKey), sorted; none before
// the first commit.
std::vector<std::uint64_t> WrittenByOpenRecords(const journal::Found& found, const std::vector<std::uint32_t>& keys) {
  std::vector<std::uint64_t> written;
  for (const journal::Record& r : found.records)
    for (const journal::Entry& e : r.head.entries)
      for (std::uint32_t k = 0; k < e.blocks && e.volume < keys.size(); ++k)
        written.push_back(BlockKey(keys[e.volume], e.position / r.head.blockSize + k));
  std::sort(written.begin(), written.end());
  return written;
}

// Refuses the files: block at position of volume holds other bytes than the run wrote there. Where
// every block the journal sampled (sampled of them, SIZE_MAX: not known) holds what it held before
// the run, the database looks restored from a backup taken before it.
[[noreturn]] void RefuseChangedBlock(const journal::Found& found, const std::string& path, std::uint32_t volume,
                                     std::uint64_t position, std::size_t sampledAsBefore, const std::string& caution) {
  const std::string file = VolumePath(volume);
  std::string text = file + " is not as the interrupted run left it: block #" +
                     std::to_string(BlockAt(volume, position, found.Latest().blockSize)) +
                     " holds other bytes than the run wrote there (the block at byte " + std::to_string(position) +
                     " of the file).";
  const std::string& lock = found.header.lockPath;
  const std::string remove = "remove the journal " + path +
                             (!lock.empty() && platform::FileExists(lock) ? " and the lock " + lock : std::string());
  if (sampledAsBefore != SIZE_MAX) {
    text += " Every block the journal sampled (" + std::to_string(sampledAsBefore) +
            ", the label block among them) holds what it held before the run, as in a database restored from a "
            "backup taken before it: if that is what it is, " + remove + " and run byteturn again.";
  } else {
    text += " Put back the files as the run left them; or restore the whole database from a backup taken before "
            "the run, " + remove + " and run byteturn again.";
  }
  Refuse(text + caution + " Nothing was changed.");
}

// Every block the last record names outside the writes of the records in effect must hold what
// the run last wrote there: otherwise a file was put back from a backup, rolled back, or replaced since. Where every
// sampled block holds what it held before the run, the database looks as it was before it.
void CheckContentsOrRefuse(const journal::Found& found, const std::string& path, const std::vector<std::uint32_t>& keys,
                           const std::string& caution) {
  if (found.commit.number == 0) return;
  const journal::RecordHead& latest = found.Latest();
  const std::uint32_t size = latest.blockSize;
  const std::vector<std::uint64_t> written = WrittenByOpenRecords(found, keys);
  std::vector<platform::File> files(keys.size(), platform::kInvalidFile);
  std::uint8_t sector[journal::kCheckedBytes];
  const journal::Check* differs = nullptr;
  std::size_t sampled = 0, asBefore = 0;
  for (const std::vector<journal::Check>* checks : {&latest.landed, &latest.sample})
    for (const journal::Check& c : *checks) {
      if (c.volume >= keys.size()) Refuse("the journal " + path + " names a volume the database does not have.");
      if (std::binary_search(written.begin(), written.end(), BlockKey(keys[c.volume], c.position / size))) continue;
      platform::File& file = files[c.volume];
      if (file == platform::kInvalidFile) file = platform::OpenReadOnly(VolumePath(c.volume));
      const bool read = ReadThrough(file, c.position, sector, sizeof sector);
      const std::uint64_t sum = read ? journal::ChecksumOf(sector, sizeof sector) : ~c.after;
      if (sum != c.after && differs == nullptr) differs = &c;
      if (checks == &latest.sample) ++sampled, asBefore += sum == c.before;
    }
  for (const platform::File file : files) platform::Close(file);
  if (differs == nullptr) return;
  RefuseChangedBlock(found, path, differs->volume, differs->position, asBefore == sampled ? sampled : SIZE_MAX, caution);
}

// The table of written blocks: every block the run wrote must still hold what the run wrote
// there, before its resume point as well as after it (blocks written out of turn, such as big
// strings that a node before the resume point named: the recovery's run passes them over). A file
// put back from a copy taken while the run went on (its blocks read in turn, some before the run
// reached them, one maybe as a write was half made) holds blocks or parts of blocks as they were
// before the run, which the sample may miss. Left out: the writes of the records in effect (put
// back), and the blocks their records name as landed: those of the groups flushed before the last
// commit, whose entries were written with it and may be lost with it where the power went (the
// last record names them, checked whole), and those a recovery's put-back left, whose entries
// settle with the first group after it. A volume that is another's file too is left to the checks
// of links: its blocks are written through both names.
void CheckWrittenBlocksOrRefuse(const journal::Found& found, platform::File journalFile, const std::string& path,
                                const std::vector<std::uint32_t>& keys, const std::string& caution) {
  const journal::Header& h = found.header;
  if (found.commit.number == 0 || h.tableBlocks == 0) return;
  const std::uint32_t size = found.Latest().blockSize;
  // A run that completed had every file flushed and the table name every block it wrote before
  // its last commit said so: each block then holds what the table says, those of the records in
  // effect too. Otherwise a sector of theirs may hold either write, and their entries wait.
  std::vector<std::uint64_t> written;
  if (!(found.commit.complete && h.version >= journal::kWholeTableVersion)) {
    written = WrittenByOpenRecords(found, keys);
    for (const journal::Record& r : found.records)
      for (const journal::Check& c : r.head.landed) written.push_back(BlockKey(c.volume, c.position / size));
    std::sort(written.begin(), written.end());
  }
  constexpr std::uint32_t kRun = 128;
  std::vector<std::uint8_t> entries(2 * kRun), blocks(std::size_t{kRun} * size);
  for (std::uint32_t v = 0; v <= furtherVolumeCount; ++v) {
    if (std::count(keys.begin(), keys.end(), keys[v]) != 1) continue;
    const std::uint64_t first = v == 0 ? 1 : volumeFirstBlock[v];
    const std::uint64_t last = std::min<std::uint64_t>(
        v == furtherVolumeCount ? lastBlock : volumeFirstBlock[v + 1] - std::uint64_t{1}, h.tableBlocks - std::uint64_t{1});
    platform::File file = platform::kInvalidFile;
    for (std::uint64_t b = first; b <= last; b += kRun) {
      const std::uint32_t n = static_cast<std::uint32_t>(std::min<std::uint64_t>(kRun, last - b + 1));
      std::fill(entries.begin(), entries.end(), 0);
      if (platform::ReadAt(journalFile, entries.data(), std::size_t{2} * n, journal::kTableOffset + 2 * b) <= 0) continue;
      bool any = false;
      for (std::uint32_t k = 0; k < n && !any; ++k) any = LoadLE16(entries.data() + 2 * k) != 0;
      if (!any) continue;
      if (file == platform::kInvalidFile) file = platform::OpenReadOnly(VolumePath(v));
      const std::uint64_t position = (b - first) * size;
      // Where the run of blocks cannot be read (a bad place of the disk, say), each block checked
      // is read alone: one that cannot be is told as the put-back tells it.
      const bool read = ReadThrough(file, position, blocks.data(), n * size);
      for (std::uint32_t k = 0; k < n; ++k) {
        const std::uint16_t entry = LoadLE16(entries.data() + 2 * k);
        const std::uint64_t at = position + std::uint64_t{k} * size;
        std::uint8_t* block = blocks.data() + std::size_t{k} * size;
        if (entry == 0 || std::binary_search(written.begin(), written.end(), BlockKey(keys[v], at / size))) continue;
        if (!read && !ReadThrough(file, at, block, size))
          Fail("\r\nError reading volume #%d at byte %llu. %s\r\n", static_cast<int>(v),
               static_cast<unsigned long long>(at), ErrorText());
        if (journal::Fingerprint(block, size, found.header.version) == entry) continue;
        platform::Close(file);
        RefuseChangedBlock(found, path, v, at, SIZE_MAX, caution);
      }
    }
    platform::Close(file);
  }
}


// The order in which the run left block b at position of the file of key: converted where the
// run had passed it, as it was where it had not; either where a record in effect writes it (the
// put-back settles it).
enum class Left { kAsFound, kConverted, kEither };
Left LeftAs(const journal::Found& found, const std::vector<std::uint64_t>& written, std::uint32_t key,
            std::uint64_t position, std::uint32_t b) {
  if (std::binary_search(written.begin(), written.end(), BlockKey(key, position / blockSize))) return Left::kEither;
  return found.commit.number != 0 && b < found.Earliest().resumeBlock ? Left::kConverted : Left::kAsFound;
}

// The checkpoint of the primary volume info block, where it was read.
struct Checkpoint {
  bool known = false;
  std::uint32_t value = 0;
};

// Whether p, read in the order big, is the volume info block of volume v (0: the primary, which
// gives the checkpoint) of this database, starting at block start, at the primary's checkpoint.
bool IsVolumeInfo(const std::uint8_t* p, bool big, std::uint32_t v, std::uint64_t start, Checkpoint& checkpoint) {
  if (!IsVolumeInfoType(p) || Load32(p + volinfo::kVolumeNumber, big) != v ||
      Load64(p + volinfo::kStartingBlock, big) != start)
    return false;
  if (v == 0) {
    checkpoint = {true, Load32(p + volinfo::kCheckpoint, big)};
    return true;
  }
  return Load32(p + volinfo::kSetFieldA, big) == volumeSetFieldA &&
         Load32(p + volinfo::kSetFieldB, big) == volumeSetFieldB &&
         (!checkpoint.known || Load32(p + volinfo::kCheckpoint, big) == checkpoint.value);
}

// Every volume's info block must be this database's, for that volume, in the order the run left
// it: a volume the run had not reached is converted from there on, and one swapped for another,
// taken from another database or time, or converted further since (a snapshot of part of the
// files rolled back) would be converted wrongly, or again. A volume linked to another file of the
// set is left to the checks of links.
void CheckVolumeInfoOrRefuse(const journal::Found& found, const std::vector<std::uint32_t>& keys) {
  const std::vector<std::uint64_t> written = WrittenByOpenRecords(found, keys);
  const bool asFoundBig = swapFlag != 0;
  Checkpoint checkpoint;
  std::vector<std::uint8_t> block(blockSize);
  for (std::uint32_t v = 0; v <= furtherVolumeCount; ++v) {
    if (std::count(keys.begin(), keys.end(), keys[v]) != 1) continue;
    const std::uint32_t b = v == 0 ? volumeInfoBlockNumber : volumeFirstBlock[v];
    const std::uint64_t position = v == 0 ? (std::uint64_t{b} - 1) * block.size() : 0;
    const std::string path = VolumePath(v);
    const platform::File file = platform::OpenReadOnly(path);
    const bool read = file != platform::kInvalidFile &&
                      ReadThrough(file, position, block.data(), static_cast<std::uint32_t>(block.size()));
    platform::Close(file);
    const Left left = LeftAs(found, written, keys[v], position, b);
    const std::uint64_t start = v == 0 ? 1 : volumeFirstBlock[v];
    const bool fits = read && ((left != Left::kConverted && IsVolumeInfo(block.data(), asFoundBig, v, start, checkpoint)) ||
                               (left != Left::kAsFound && IsVolumeInfo(block.data(), !asFoundBig, v, start, checkpoint)));
    if (!fits)
      Refuse(path + " does not hold the volume info block of volume #" + std::to_string(v) +
             " of this database as the interrupted run left it (" +
             (left == Left::kAsFound ? "not converted yet" : left == Left::kConverted ? "converted" : "either order") +
             "): a volume swapped for another, from another database or time, or converted further since. Put back "
             "the volumes as the run left them. Nothing was changed.");
  }
}

// Whether label (the main file's first bytes) is the label block as the run found it or left it:
// converted, and where a further volume is the main file (a link), converted again as that
// volume's first block. Where a record in effect writes that block, through any name, it may be
// torn and is put back.
bool BeginsWithLabel(const std::uint8_t* label, const journal::Found& found, const std::vector<std::uint32_t>& keys) {
  constexpr std::size_t n = journal::kLabelCopyBytes;
  if (std::memcmp(label, found.header.label, n) == 0) return true;
  if (found.commit.number == 0) return false;  // nothing is written before the first commit
  for (const journal::Record& r : found.records)
    for (const journal::Entry& e : r.head.entries)
      if (e.volume < keys.size() && keys[e.volume] == keys[0] && e.position == 0) return true;
  std::uint8_t converted[n];
  std::memcpy(converted, found.header.label, n);
  ConvertLabelBlock(Bytes(converted, n));
  if (std::memcmp(label, converted, n) == 0) return true;
  for (std::uint32_t v = 1; v < keys.size(); ++v) {
    if (keys[v] != keys[0]) continue;
    CvVolInfo(Bytes(converted, n), static_cast<std::int32_t>(v));
    if (std::memcmp(label, converted, n) == 0) return true;
  }
  return false;
}

// The files of the database must be those the interrupted run converted, wherever they are now:
// linked to each other as they were, the main file beginning with its label block as the run found
// it or converts it, and every block the journal names as the run left it.
void CheckFilesOrRefuse(const journal::Found& found, platform::File journalFile, const std::string& journalPath) {
  const journal::Header& h = found.header;
  if (h.volumes.size() != std::size_t{furtherVolumeCount} + 1)
    Refuse("the journal does not describe the volume set of " + databaseFileName + ". Nothing was changed.");
  const std::vector<std::uint32_t> keys = KeysOfVolumes(h);
  volumeFirstBlock[0] = furtherVolumeCount;
  for (std::uint32_t v = 1; v <= furtherVolumeCount; ++v) {
    volumeDirIndex[v] = h.volumes[v].directory;
    volumeFirstBlock[v] = h.volumes[v].firstBlock;
  }
  primaryDirectory = Relocated(h.primaryDirectory, 0, h);
  volumeDirectories.clear();
  for (std::size_t d = 0; d < h.directories.size(); ++d)
    volumeDirectories.push_back(Relocated(h.directories[d], static_cast<std::uint16_t>(d + 1), h));
  // A run marks its main file before its first commit: where this one bears no mark of it, the
  // run's database may be another file, moved or copied elsewhere with the mark, which only this
  // journal can finish. Every refusal that could lead to the journal's removal says so.
  journal::Mark mark;
  const bool marked = ReadMarkOf(databaseFileName, mark);
  if (!marked && journaling::MarkInside(h))
    Refuse(databaseFileName + " bears the interrupted run's mark at byte " + std::to_string(h.mainFileSize) +
           ", where the file ended then, with bytes added after it since: the recovery would take the mark for " +
           "blocks. Cut " + databaseFileName + " back to " + std::to_string(h.mainFileSize + journal::kMarkBytes) +
           " bytes, then put its missing blocks back at their places, over the mark. Nothing was changed.");
  // A file its own run marked is not another's copy, whatever the journal beside it; and the mark
  // tells a journal older than the files, whose label block it would otherwise find converted.
  if (marked && mark.runId != h.runId)
    Refuse("the journal " + journalPath + " is not the journal of the run that marked " + databaseFileName +
           " (another database's, or an earlier run's). Nothing was changed.");
  if (marked && mark.group > found.commit.number)
    Refuse("the journal " + journalPath + " is older than " + databaseFileName + ": the run went on past it (its files "
           "hold group #" + std::to_string(mark.group) + ", the journal ends at group #" +
           std::to_string(found.commit.number) + "). Put back the journal as the run left it. Nothing was changed.");
  const std::string caution = !marked && found.commit.number != 0 && journaling::MarkExpected(h)
                                  ? " If the database that run converted was moved or copied elsewhere, it bears the "
                                    "run's mark: finish it there with byteturn-recover before removing anything, as "
                                    "only this journal can."
                                  : "";
  std::vector<platform::FileIdentity> identities;
  for (std::uint32_t v = 0; v <= furtherVolumeCount; ++v) {
    const std::string path = VolumePath(v);
    platform::ClearLastError();
    // Opened for writing, as the run writes every volume: one that cannot be is refused before
    // anything is written, not where the run comes to it.
    const platform::File file = platform::OpenReadWrite(path);
    if (file == platform::kInvalidFile) Refuse("cannot open " + path + ". " + ErrorText() + " Nothing was changed.");
    // Flushed before it is read: a killed run or recovery may have left writes in the system's
    // cache, which the checks and the put-back read as the disk's, and a power cut must not take
    // them back once the put-back relies on them.
    platform::ClearLastError();
    if (!platform::Sync(file)) {
      platform::Close(file);
      Refuse("cannot flush " + path + ". " + ErrorText() + " Nothing was changed.");
    }
    identities.push_back(platform::IdentityOf(file));
    // A further volume holds as many bytes as when the run began (one that is the main file bears
    // its mark, and is the main file's to check).
    const std::uint64_t was = v == 0 || keys[v] == keys[0] ? 0 : h.volumes[v].size;
    const std::int64_t size = platform::FileSize(file);
    if (was != 0 && size >= 0 && static_cast<std::uint64_t>(size) != was) {
      platform::Close(file);
      Refuse(path + " is not as the interrupted run left it: it holds " + std::to_string(size) +
             " bytes, where the run found " + std::to_string(was) +
             " (cut short or added to since). Put back the files as the run left them. Nothing was changed.");
    }
    std::uint8_t label[journal::kLabelCopyBytes] = {};
    const bool labelRead = v != 0 || ReadThrough(file, 0, label, sizeof label);
    platform::Close(file);
    if (v == 0 && !(labelRead && BeginsWithLabel(label, found, keys)))
      Refuse(path + " does not begin with the label block of the database the journal was written for." + caution +
             " Nothing was changed.");
  }
  // A volume that was a link to another must still be one, and only then: the writes through
  // either name went to one file.
  if (FileKeys(identities) != keys)
    Refuse("the files of " + databaseFileName +
           " are not linked to each other as they were when the run was interrupted. Nothing was changed.");
  // A copy of the main file, its original still there and marked by the same run: finishing the
  // copy would take the original's journal.
  if (FullPath(databaseFileName) != h.mainFile && platform::FileExists(h.mainFile)) {
    journal::Mark original;
    const platform::File file = platform::OpenReadOnly(h.mainFile);
    const bool other = file != platform::kInvalidFile && !(platform::IdentityOf(file) == identities[0]);
    platform::Close(file);
    if (other && ReadMarkOf(h.mainFile, original) && original.runId == h.runId)
      Refuse(databaseFileName + " is a copy of " + h.mainFile + ", whose interrupted run the journal " + journalPath +
             " belongs to: finish that file's run (byteturn-recover " + h.mainFile + ") and copy it then, or move it "
             "away first. Nothing was changed.");
  }
  CheckContentsOrRefuse(found, journalPath, keys, caution);
  if (furtherVolumeCount != 0) CheckVolumeInfoOrRefuse(found, keys);
  CheckWrittenBlocksOrRefuse(found, journalFile, journalPath, keys, caution);
  // The run marks the main file before its first commit and cuts the mark off only once every file
  // is complete, its last commit saying so first: a file that takes the mark and bears none, where
  // the journal has a commit, was converted to its end where that commit says the run completed (a
  // cut before the journal was removed, or a journal put back since), and where the journal is of
  // a version before it could say so. Its last record would convert again the blocks that followed
  // it. Where the run did not complete, the mark was cut off otherwise, and the file is part
  // converted; or the journal is a copy from earlier put back, beside files converted further since
  // (to their end, even), which without the mark nothing tells: refused either way, naming both.
  std::uint8_t sector[journal::kSectorBytes];
  if (!marked && found.commit.number != 0 && journaling::MarkExpected(h) &&
      journal::EncodeMark({h.runId, h.mainFileSize, 0, FullPath(journalPath)}, sector)) {
    const std::string lock = h.lockPath.empty() ? LockPathFor(databaseFileName) : h.lockPath;
    const std::string andLock = !lock.empty() && platform::FileExists(lock) ? " and the lock " + lock : std::string();
    const std::string unmarked = databaseFileName + " bears no mark of the run that left the journal " + journalPath;
    if (h.version < journal::kCompletionVersion || found.commit.complete)
      Refuse(unmarked + ", which cuts the mark off only once its files are complete: if " + databaseFileName +
             " is the database that run converted, its conversion is complete; remove the journal" + andLock + "." +
             caution + " Nothing was changed.");
    Refuse(unmarked + ", and the run did not complete: either the mark was cut off " + databaseFileName +
           " (by a copy of its blocks alone, or the file cut back to them), and it is part converted (put it back "
           "as the run left it, mark and all, or restore the database from a backup taken before the run), or the "
           "journal is a copy from earlier put back beside files converted further since (put back the journal as "
           "the run left it, or remove it" + andLock + " if the conversion completed)." + caution +
           " Nothing was changed.");
  }
  // The files were flushed after the writes of every group before those of the records in effect,
  // and the mark with them.
  if (marked && mark.group + found.commit.open < found.commit.number)
    Refuse(databaseFileName + " is older than the journal " + journalPath + " (its files hold group #" +
           std::to_string(mark.group) + ", the journal ends at group #" + std::to_string(found.commit.number) +
           "). Put back the files as the run left them. Nothing was changed.");
}

// Refuses a block of the last record that holds, in a sector, part of the run's write and part of
// what was there before: a write the system ended part way inside the sector, which no power cut
// or kill leaves (each sector is written whole or not at all), and which the run's own put-back did
// not undo before it stopped. The undo cannot tell which words of the sector hold the write.
[[noreturn]] void RefuseTornBlock(const journal::Found& found, const std::string& path, std::uint32_t volume,
                                  std::uint64_t position) {
  const std::string& lock = found.header.lockPath;
  Refuse("block #" + std::to_string(BlockAt(volume, position, found.Latest().blockSize)) + " of " + VolumePath(volume) +
         " (at byte " + std::to_string(position) + ") holds part of the interrupted run's write and part of what "
         "it held before within one 512-byte sector (a write the system ended part way), which the journal cannot "
         "put back. Restore the whole database from a backup taken before the run, remove the journal " + path +
         (!lock.empty() && platform::FileExists(lock) ? " and the lock " + lock : std::string()) +
         ", and run byteturn again. Nothing was changed.");
}

// The blocks of the records in effect as their undos put them back, the latest record's first:
// those that change, and each block's first 512 bytes as it leaves them (for the journal's next
// record), with the blocks those records name as landed. A block that still holds what it held is
// left alone, its entry in the table of written blocks taken as it is: the write that failed on a
// bad place of the disk is not tried again here, but where the run meets it, with the run's own
// message.
struct PutBacks {
  struct Block {
    std::uint32_t volume, block;
    std::uint64_t position;
    std::vector<std::uint8_t> bytes;
  };
  std::vector<Block> blocks;
  std::vector<journal::Check> landed;
  std::vector<KeptBlock> kept;  // the blocks of landed left as the disk holds them
};
PutBacks ReadPutBacksOrFail(const journal::Found& found, const std::string& path) {
  PutBacks out;
  if (found.commit.number == 0) return out;
  const std::uint32_t blockBytes = found.Latest().blockSize;
  const std::vector<std::uint32_t> keys = KeysOfVolumes(found.header);
  std::vector<platform::File> files(std::size_t{furtherVolumeCount} + 1, platform::kInvalidFile);
  // By key: each block of the records read so far, and its bytes where their undos changed it. The
  // run never writes a block in two groups that one commit names, but an earlier record's undo
  // would then apply to what the later one's left.
  struct Left {
    std::uint32_t volume;
    std::uint64_t position, sum;
    std::uint16_t fingerprint;
    std::vector<std::uint8_t> bytes;  // none: as the disk holds it
  };
  std::map<std::uint64_t, Left> done;
  std::vector<std::uint8_t> current(blockBytes);
  // Reads the block at position of volume into current; a file that cannot be opened or read ends
  // the recovery with the system's reason.
  const auto readBlock = [&](std::uint32_t volume, std::uint64_t position) {
    platform::File& file = files[volume];
    if (file == platform::kInvalidFile) file = platform::OpenReadOnly(VolumePath(volume));
    if (file == platform::kInvalidFile)
      Fail("\r\nError opening volume #%d for reading. %s\r\n", static_cast<int>(volume), ErrorText());
    if (!ReadThrough(file, position, current.data(), blockBytes))
      Fail("\r\nError reading volume #%d at byte %llu. %s\r\n", static_cast<int>(volume),
           static_cast<unsigned long long>(position), ErrorText());
  };
  for (const journal::Record& r : found.records) {
    std::map<std::uint64_t, Left> now;
    std::map<std::uint64_t, std::pair<std::uint32_t, std::uint64_t>> torn;  // by key: volume, position
    std::size_t at = r.undoOffset;
    for (const journal::Entry& e : r.head.entries) {
      if (e.volume > furtherVolumeCount) Refuse("the journal names a volume the database does not have.");
      for (std::uint32_t k = 0; k < e.blocks; ++k) {
        const std::uint64_t position = e.position + std::uint64_t{k} * blockBytes;
        const std::uint8_t* undo = r.bytes.data() + at;
        at += journal::BlockUndoSize(undo, r.bytes.size() - at, blockBytes);
        const std::uint64_t key = BlockKey(keys[e.volume], position / blockBytes);
        const auto later = done.find(key);
        if (later != done.end() && !later->second.bytes.empty())
          current = later->second.bytes;
        else
          readBlock(e.volume, position);
        const std::uint32_t b = BlockAt(e.volume, position, blockBytes);
        const journal::Undone undone = journal::ApplyBlockUndo(undo, blockBytes, b, current.data());
        // A block the record writes again is put back by its later undo, whatever this one found.
        if (undone == journal::Undone::kTorn) torn.try_emplace(key, e.volume, position);
        else torn.erase(key);
        Left left{e.volume, position, journal::ChecksumOf(current.data(), journal::kCheckedBytes),
                  journal::Fingerprint(current.data(), blockBytes, found.header.version), {}};
        if (undone == journal::Undone::kPutBack || (later != done.end() && !later->second.bytes.empty()))
          left.bytes = current;
        now[key] = std::move(left);
      }
    }
    if (!torn.empty()) RefuseTornBlock(found, path, torn.begin()->second.first, torn.begin()->second.second);
    for (auto& [key, left] : now) done[key] = std::move(left);
  }
  // The blocks the records name as landed go on into the next record as the disk holds them: the
  // table may give another write of them than the disk holds (lost with the commit that wrote
  // their entries, or undone by an earlier recovery's put-back), which the next recovery must
  // leave out of its check as this one did.
  for (const journal::Record& r : found.records)
    for (const journal::Check& c : r.head.landed) {
      if (c.volume > furtherVolumeCount) Refuse("the journal names a volume the database does not have.");
      const std::uint64_t key = BlockKey(keys[c.volume], c.position / blockBytes);
      if (done.contains(key)) continue;
      readBlock(c.volume, c.position);
      done[key] = Left{c.volume, c.position, journal::ChecksumOf(current.data(), journal::kCheckedBytes),
                       journal::Fingerprint(current.data(), blockBytes, found.header.version), {}};
    }
  for (const platform::File file : files) platform::Close(file);
  for (auto& [key, left] : done) {
    out.landed.push_back({keys[left.volume], left.position, 0, left.sum});
    const std::uint32_t b = BlockAt(left.volume, left.position, blockBytes);
    if (left.bytes.empty())
      out.kept.push_back({b, left.fingerprint, out.landed.back()});
    else
      out.blocks.push_back({left.volume, b, left.position, std::move(left.bytes)});
  }
  return out;
}

// The blocks that change are written through the journal, whose next record names each with the
// bytes put back, whole: a recovery stopped while it writes them, or whose write the system ended
// part way inside a sector, is finished by the next one from that record, whatever the disk then
// holds. Each block's bytes are let go once held.
void PutBack(PutBacks& p) {
  NoteResumedBlocks(p.landed, p.kept);
  for (PutBacks::Block& b : p.blocks) {
    HoldPutBack(b.volume, b.position, b.bytes.data(), b.block);
    std::vector<std::uint8_t>().swap(b.bytes);
  }
}

// Whether the lock the run took for mainFile guards this file still: the file there is this one,
// or none is there now (it was moved). A database that has come to that place since, another
// run's say, keeps its lock.
bool LockGuardsThisFile(const std::string& mainFile) {
  if (FullPath(databaseFileName) == mainFile) return true;
  const platform::File there = platform::OpenReadOnly(mainFile);
  if (there == platform::kInvalidFile) return !platform::FileExists(mainFile);
  const platform::File here = platform::OpenReadOnly(databaseFileName);
  const bool same = here != platform::kInvalidFile && platform::IdentityOf(here) == platform::IdentityOf(there);
  platform::Close(here);
  platform::Close(there);
  return same;
}

}  // namespace

namespace {
void Recover(int argc, const char* const* argv) {
  platform::PrepareConsole();
  if (argc != 2 || argv[1][0] == '\0') {
    PrintTo(stderr, "usage: byteturn-recover FILE\n");
    EndRun(1);
  }
  databaseFileName = argv[1];
  binDirectory = BinDirectoryOfThisProgram();
  HoldDatabaseFile(databaseFileName);
  const JournalFound where = FindJournal(databaseFileName);
  if (where.path.empty() || !platform::FileExists(where.path)) NoJournal(where);
  const std::string& path = where.path;
  const platform::File file = OpenJournal(path);
  journal::Found found = ReadJournalOrRefuse(file, path);

  CommandLine commandLine;
  commandLine.verbose = found.header.verbose;
  commandLine.fileName = databaseFileName;
  CheckLabel(found.header.label, commandLine);  // asks for the keyfile again where there is one
  // Another key of the same key ID (a keyfile of another database, or of before the key was
  // changed) would take every block from here on for garbage and pass it over, or write it so.
  if (found.header.keyChecked && KeyCheck(found.header.runId) != found.header.keyCheck)
    Refuse("the keyfile gives another key than the one the interrupted run converted " + databaseFileName +
           " with, under the same key ID: give the keyfile that run was given. Nothing was changed.");
  if (found.commit.number != 0 && found.Latest().blockSize != blockSize)
    Refuse("the journal " + path + " cannot be used: its last record is damaged. Nothing was changed.");
  CheckFilesOrRefuse(found, file, path);
  PutBacks putBacks = ReadPutBacksOrFail(found, path);
  for (journal::Record& r : found.records) std::vector<std::uint8_t>().swap(r.bytes);  // their undos are read

  const std::uint32_t resume = found.commit.number == 0 ? 1 : found.Earliest().resumeBlock;
  Print("\r\nResuming the interrupted conversion at block #%u.\r\n", resume);
  std::fflush(stdout);
  platform::KeepRunningWithoutConsole();
  Pass pass;
  ContinueJournal({file, path, &found, resume, &pass.maps});
  UseStore(JournaledStore());
  if (found.commit.number != 0) PutBack(putBacks);
  RestoreMapState(pass.maps, pass.blocks, found.commit.number == 0 ? MapState{} : found.Earliest().maps, resume);
  TheStore().Settle(resume, 0);
  ConvertVolumes(pass, found.header.verbose, resume);
  for (const std::string& left : TemporaryJournalsOf(path)) platform::RemoveFile(left);
  // The lock the run left: where the run took it, and beside the file now where it went with the
  // directory (whatever the file is named now). The journal knows the lock by its identity and
  // when it last changed, so that another lock in either place stays, and is told; a journal of
  // an earlier version knows it by its place alone.
  const journal::Header& h = found.header;
  const std::string here = LockPathFor(databaseFileName);
  if (h.lockPath.empty()) {
    FinishRun(pass, here);
  } else if (h.lockIdentity != platform::FileIdentity{}) {
    const LockStamp stamp{h.lockIdentity, h.lockChanged};
    std::vector<std::string> places = {h.lockPath};
    if (const std::string beside = LockBeside(databaseFileName); FullPath(beside) != h.lockPath) places.push_back(beside);
    for (const std::string& lock : places)
      if (!RemoveLeftLock(lock, &stamp) && platform::FileExists(lock))
        PrintTo(stderr,
                "byteturn-recover: the lock %s stays: it is not the one the interrupted run took (another run's, "
                "or a copy). Remove it once nothing uses the database beside it.\n",
                lock.c_str());
    FinishRun(pass, std::string());
  } else {
    if (!here.empty() && FullPath(here) != h.lockPath) RemoveLeftLock(here);
    FinishRun(pass, LockGuardsThisFile(h.mainFile) ? h.lockPath : std::string());
  }
}
}  // namespace

int RecoverMain(int argc, const char* const* argv) {
  return RunCommand([&] { Recover(argc, argv); });
}

}  // namespace bt
