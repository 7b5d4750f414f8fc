#include "journal.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <unordered_map>
#include <vector>

#include "block_batch.h"
#include "journal_format.h"
#include "messages.h"
#include "state.h"
#include "volume_io.h"

namespace bt {

namespace {

struct HeldWrite {
  std::uint32_t volume, size, block;
  std::uint64_t position;
  std::size_t offset;  // in the arena
  std::uint64_t cap;   // held messages from this number on were made after it
  const char* failure;
};

// A database file as the journal writes it: through a handle of its own, which no cache closes.
struct JournalFile {
  platform::File handle = platform::kInvalidFile;
  bool unflushed = false;  // written since its last flush
  std::uint64_t writtenFrom = 0, writtenTo = 0;  // the bytes written since, from the first to the last,
                                                 // less those sent on their way to the disk
};

struct Journal {
  bool active = false, created = false;
  std::string path;
  platform::File file = platform::kInvalidFile;
  journal::Header header;
  std::uint64_t nextNumber = 1, lastOffset = 0, lastSize = 0;  // the record the last commit names
  // The group: its point of the run, and its writes.
  std::uint32_t groupBlock = 1;
  MapState groupMaps;
  std::size_t groupLimit = kMinGroupBytes;  // grows where flushes cost (AdaptGroupLimit)
  std::size_t writeBackDue = 0;  // the group's size at which the next piece of the last group's writes is sent
  std::chrono::steady_clock::time_point groupStart = std::chrono::steady_clock::now();
  std::vector<std::uint8_t> arena;
  std::vector<std::uint8_t> undo;  // of the group's blocks, in the order of its writes: undoSize bytes
  std::size_t undoSize = 0;
  std::vector<HeldWrite> held;
  std::unordered_map<std::uint64_t, std::size_t> latest;  // by volume and block: arena offset
  std::vector<JournalFile> files;                         // by volume
} j;
std::vector<std::pair<platform::File, std::uint32_t>> volumeOf;  // the run's handles of database files

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind(platform::kSeparator);
  if (slash == std::string::npos) return std::string(".");
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
  const std::size_t slash = path.rfind(platform::kSeparator);
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

[[noreturn]] void JournalFailed(const char* what) {
  Fail("\r\nError %s journal %s. %s\r\n", what, j.path.c_str(), ErrorText());
}

void WriteJournalOrFail(const std::uint8_t* bytes, std::size_t size, std::uint64_t position) {
  if (!WriteThrough(j.file, position, bytes, static_cast<std::uint32_t>(size))) JournalFailed("writing");
}

void SyncJournalOrFail() {
  platform::ClearLastError();
  if (!platform::Sync(j.file)) JournalFailed("flushing");
}

std::uint64_t NewRunId() {
  std::random_device device;
  const auto now = std::chrono::system_clock::now().time_since_epoch().count();
  return (std::uint64_t{device()} << 32 ^ device()) ^ static_cast<std::uint64_t>(now) * 0x9E3779B97F4A7C15ull;
}

// Made under another name, flushed, then given its own and the directory flushed: a journal
// under its name is always whole.
void CreateJournal() {
  const std::vector<std::uint8_t> header = journal::EncodeHeader(j.header);
  if (header.size() > journal::kHeaderBytes) Fail("\r\nThe journal cannot hold the names of this volume set.\r\n");
  std::vector<std::uint8_t> start(journal::kRecordsOffset, 0);
  std::copy(header.begin(), header.end(), start.begin());
  const journal::Commit none{j.header.runId, 0, 0, 0, 0};
  journal::EncodeCommit(none, start.data() + journal::kCommitOffset);
  journal::EncodeCommit(none, start.data() + journal::kCommitOffset + journal::kCommitBytes);

  const std::string fresh = j.path + "-new";
  platform::ClearLastError();
  j.file = platform::CreateReadWrite(fresh);
  if (j.file == platform::kInvalidFile) JournalFailed("creating");
  WriteJournalOrFail(start.data(), start.size(), 0);
  SyncJournalOrFail();
  platform::Close(j.file);
  platform::ClearLastError();
  if (!platform::RenameFile(fresh, j.path) || !platform::SyncDirectory(DirectoryOf(j.path))) JournalFailed("creating");
  j.file = platform::OpenReadWrite(j.path);
  if (j.file == platform::kInvalidFile || !platform::TryLockExclusive(j.file)) JournalFailed("opening");
  j.created = true;
}

platform::File VolumeHandle(std::uint32_t v) {
  if (j.files.size() <= v) j.files.resize(v + 1);
  JournalFile& f = j.files[v];
  if (f.handle == platform::kInvalidFile) {
    platform::ClearLastError();
    f.handle = platform::OpenReadWrite(VolumePath(v));
    if (f.handle == platform::kInvalidFile)
      Fail("\r\nError opening volume #%d for writing. %s\r\n", static_cast<int>(v), ErrorText());
  }
  return f.handle;
}

void SyncWrittenFilesOrFail() {
  for (std::size_t v = 0; v < j.files.size(); ++v) {
    if (!j.files[v].unflushed) continue;
    platform::ClearLastError();
    if (!platform::Sync(j.files[v].handle)) Fail("\r\nError flushing volume #%d. %s\r\n", static_cast<int>(v), ErrorText());
    j.files[v].unflushed = false;
  }
}

// The record goes where it overlaps nothing of the record the last commit names.
std::uint64_t PlaceRecord(std::uint64_t size) {
  if (j.lastSize == 0 || journal::kRecordsOffset + size <= j.lastOffset) return journal::kRecordsOffset;
  const std::uint64_t end = j.lastOffset + j.lastSize;
  return (end + journal::kRecordAlignment - 1) / journal::kRecordAlignment * journal::kRecordAlignment;
}

// The record: its head, then the undo of the group's blocks, in pieces that are each sent on
// their way to the disk while the next is written.
void WriteRecord(std::uint64_t offset, const std::vector<std::uint8_t>& head, journal::Checksum& sum) {
  sum.Add(head.data(), head.size());
  WriteJournalOrFail(head.data(), head.size(), offset);
  for (std::size_t done = 0; done < j.undoSize;) {
    const std::size_t piece = std::min(j.undoSize - done, kRecordPieceBytes);
    const std::uint64_t at = offset + head.size() + done;
    sum.Add(j.undo.data() + done, piece);
    WriteJournalOrFail(j.undo.data() + done, piece, at);
    platform::StartWriteBack(j.file, at, piece);
    done += piece;
  }
}

// A write of the group failed: the messages made before it are shown, then the run's message.
[[noreturn]] void WriteFailed(const HeldWrite& w, platform::File file) {
  if (w.failure == nullptr) {
    CapHeldOutput(UINT64_MAX);
    for (std::uint32_t k = 0; k < w.size / blockSize; ++k) {
      const std::uint64_t position = w.position + std::uint64_t{k} * blockSize;
      if (!WriteThrough(file, position, j.arena.data() + w.offset + std::size_t{k} * blockSize, blockSize))
        FailWritingBlock(w.block + k);
    }
    FailWritingBlock(w.block);
  }
  const std::string text = ErrorText();
  CapHeldOutput(w.cap);
  ReleaseHeldOutput(UINT64_MAX);
  DiscardHeldOutput();
  CapHeldOutput(UINT64_MAX);
  Fail(w.failure, w.block, text.c_str());
}

// The writes in the run's order; the messages made before each are shown before it is made.
// They are sent on their way to the disk while the next group is gathered (SendWriteBackPiece).
void ApplyGroup() {
  for (const HeldWrite& w : j.held) {
    CapHeldOutput(w.cap);
    ReleaseHeldOutput(UINT64_MAX);
    const platform::File file = VolumeHandle(w.volume);
    if (!WriteThrough(file, w.position, j.arena.data() + w.offset, w.size)) WriteFailed(w, file);
    JournalFile& f = j.files[w.volume];
    f.writtenFrom = f.unflushed ? std::min(f.writtenFrom, w.position) : w.position;
    f.writtenTo = f.unflushed ? std::max(f.writtenTo, w.position + w.size) : w.position + w.size;
    f.unflushed = true;
  }
}

// The writes of the group before go to the disk a piece at a time, one each time this group has
// grown by half a piece: sent all at once, they would keep the run waiting on the disk's queue, and
// the next commit's flush finds them written.
void SendWriteBackPiece() {
  if (j.arena.size() < j.writeBackDue) return;
  j.writeBackDue = j.arena.size() + kWriteBackPieceBytes / 2;
  for (JournalFile& f : j.files) {
    if (!f.unflushed || f.writtenFrom >= f.writtenTo) continue;
    const std::uint64_t piece = std::min<std::uint64_t>(f.writtenTo - f.writtenFrom, kWriteBackPieceBytes);
    platform::StartWriteBack(f.handle, f.writtenFrom, piece);
    f.writtenFrom += piece;
    return;
  }
}

void ClearGroup() {
  j.arena.clear();
  j.undoSize = 0;
  j.writeBackDue = 0;
  j.held.clear();
  j.latest.clear();
  CapHeldOutput(UINT64_MAX);
}

void CommitBeforeFailure();

// A group is as large as its flushes make worth it: a small one is still in the processor's
// cache when its writes are made, a large one spreads the flushes' cost (which a disk makes high
// and memory nearly nil). The limit doubles while the flushes took more than an eighth of the
// group's own time and halves while they took less than a 64th, between kMinGroupBytes and
// kGroupBytes.
void AdaptGroupLimit(std::chrono::steady_clock::duration flushing, std::chrono::steady_clock::time_point flushStart) {
  if (platform::TestGroupBytes() != 0) return;
  const auto working = flushStart - j.groupStart;
  if (flushing * 8 > working)
    j.groupLimit = std::min(j.groupLimit * 2, kGroupBytes);
  else if (flushing * 64 < working)
    j.groupLimit = std::max(j.groupLimit / 2, kMinGroupBytes);
}

void Commit() {
  SetFailureHook(nullptr);  // a failure in here ends the run as it is
  if (!j.created) CreateJournal();
  journal::RecordHead head{j.header.runId, j.nextNumber, blockSize, j.groupBlock, j.groupMaps, {}};
  for (const HeldWrite& w : j.held) head.entries.push_back({w.volume, w.size / blockSize, w.position});
  const std::vector<std::uint8_t> encoded = journal::EncodeRecordHead(head);
  const std::uint64_t size = encoded.size() + j.undoSize;
  const std::uint64_t offset = PlaceRecord(size);
  journal::Checksum sum;
  WriteRecord(offset, encoded, sum);
  const auto start = std::chrono::steady_clock::now();
  SyncJournalOrFail();
  SyncWrittenFilesOrFail();  // the group before is on disk before a commit names this one

  std::uint8_t sector[journal::kCommitBytes];
  journal::EncodeCommit({j.header.runId, j.nextNumber, offset, size, sum.Value()}, sector);
  WriteJournalOrFail(sector, sizeof sector, journal::kCommitOffset + journal::kCommitBytes * (j.nextNumber % 2));
  SyncJournalOrFail();
  AdaptGroupLimit(std::chrono::steady_clock::now() - start, start);
  j.lastOffset = offset;
  j.lastSize = size;
  ++j.nextNumber;
  ApplyGroup();
  j.groupStart = std::chrono::steady_clock::now();
  SetFailureHook(CommitBeforeFailure);
}

// A failure ends the run: what it wrote before the failure goes to the disk, as without a journal.
void CommitBeforeFailure() {
  if (!j.held.empty()) Commit();
  ClearGroup();
}

// From here on the run's writes are held in groups (of the size the tests ask for, if they do).
void StartGroups() {
  if (platform::TestGroupBytes() != 0) j.groupLimit = platform::TestGroupBytes();
  j.arena.reserve(kGroupBytes + kMaxBlockSize);
  SetFailureHook(CommitBeforeFailure);
}

// The bytes the group holds: its writes and their undo.
std::size_t GroupBytes() { return j.arena.size() + j.undoSize; }

std::uint32_t VolumeOfHandle(platform::File file) {
  for (const auto& [handle, volume] : volumeOf)
    if (handle == file) return volume;
  return 0;
}

}  // namespace

std::string JournalPathFor(const std::string& fileName) {
  const char* place = std::getenv("BYTETURN_JOURNAL");
  if (place == nullptr || *place == '\0') return fileName + ".journal";
  const std::string dir = place;
  if (dir == "off") return "";
  const bool separated = dir.back() == platform::kSeparator || dir.back() == '/';
  return dir + (separated ? "" : std::string(1, platform::kSeparator)) + BaseName(fileName) + ".journal";
}

namespace {

// A journal whose header names this very file as the main file of its run: found under another
// name where the main file was renamed after the run.
std::string JournalNamingThisFile(const std::string& fileName, const std::string& elsewhere) {
  const platform::File main = platform::OpenReadOnly(fileName);
  if (main == platform::kInvalidFile) return std::string();
  const platform::FileIdentity identity = platform::IdentityOf(main);
  platform::Close(main);
  std::vector<std::string> prefixes{fileName.rfind(platform::kSeparator) == std::string::npos
                                        ? std::string()
                                        : DirectoryOf(fileName) + platform::kSeparator};
  if (!elsewhere.empty() && elsewhere.rfind(platform::kSeparator) != std::string::npos)
    prefixes.push_back(DirectoryOf(elsewhere) + platform::kSeparator);
  std::vector<std::uint8_t> bytes(journal::kHeaderBytes);
  for (const std::string& prefix : prefixes) {
    for (const std::string& name : platform::DirectoryEntries(prefix.empty() ? "." : prefix)) {
      if (!name.ends_with(".journal")) continue;
      const platform::File file = platform::OpenReadOnly(prefix + name);
      if (file == platform::kInvalidFile) continue;
      const auto n = static_cast<std::uint32_t>(
          std::clamp<std::int64_t>(platform::FileSize(file), 0, static_cast<std::int64_t>(journal::kHeaderBytes)));
      journal::Header header;
      std::string why;
      const bool named = ReadThrough(file, 0, bytes.data(), n) && journal::DecodeHeader(bytes.data(), n, header, why) &&
                         !header.volumes.empty() && header.volumes[0].identity == identity;
      platform::Close(file);
      if (named) return prefix + name;
    }
  }
  return std::string();
}

}  // namespace

std::string ExistingJournal(const std::string& fileName) {
  if (platform::FileExists(fileName + ".journal")) return fileName + ".journal";
  const std::string elsewhere = JournalPathFor(fileName);
  if (!elsewhere.empty() && platform::FileExists(elsewhere)) return elsewhere;
  return JournalNamingThisFile(fileName, elsewhere);
}

std::string RecoverLine(const std::string& journalPath, const std::string& fileName) {
  return "An interrupted conversion left its journal " + journalPath + ": finish it with byteturn-recover " +
         fileName + ".\n";
}

void BeginJournal(bool verbose) {
  j = Journal{};
  j.path = checkRun ? std::string() : JournalPathFor(databaseFileName);
  if (j.path.empty()) return;
  j.active = true;
  j.header.runId = NewRunId();
  j.header.verbose = verbose;
  std::memcpy(j.header.label, labelCopyAtStart, journal::kLabelCopyBytes);
  j.header.mainFile = databaseFileName;
  j.header.primaryDirectory = primaryDirectory;
  j.header.directories = volumeDirectories;
  for (std::uint32_t v = 0; v <= furtherVolumeCount; ++v)
    j.header.volumes.push_back({v == 0 ? std::uint16_t{0} : volumeDirIndex[v], v == 0 ? 1 : volumeFirstBlock[v],
                                VolumeIdentity(v)});
  j.groupBlock = 1;
  j.groupMaps = MapState{};
  StartGroups();
}

void ContinueJournal(const JournalResume& resume) {
  j = Journal{};
  j.active = j.created = true;
  j.file = resume.file;
  j.path = resume.path;
  j.header.runId = resume.runId;
  j.nextNumber = resume.nextNumber;
  j.lastOffset = resume.lastOffset;
  j.lastSize = resume.lastSize;
  j.groupBlock = resume.resumeBlock;
  j.groupMaps = resume.maps;
  StartGroups();
}

bool JournalHoldsWrites() { return j.active; }

void NoteVolumeOfFile(platform::File file, std::uint32_t volume) {
  for (auto& [handle, v] : volumeOf)
    if (handle == file) {
      v = volume;
      return;
    }
  volumeOf.emplace_back(file, volume);
}

std::uint64_t JournalGroupsWritten() { return j.nextNumber; }

namespace {

// The bytes block b's write replaces, as the disk holds them: constant within a group, whose writes
// are all held.
const std::uint8_t* ReadReplacedBlock(std::uint32_t volume, std::uint64_t position, std::uint32_t b) {
  static std::vector<std::uint8_t> replaced(kMaxBlockSize);
  const platform::File file = VolumeHandle(volume);
  if (!ReadThrough(file, position, replaced.data(), blockSize)) Fail("\r\nError read block #%u. %s\r\n", b, ErrorText());
  return replaced.data();
}

// Appends the undo of the write of size bytes at position of volume: the bytes it replaces are
// those the batch read, unless a write held earlier in the group lies over them.
void HoldUndo(platform::File file, std::uint32_t volume, std::uint64_t position, const std::uint8_t* bytes,
              std::uint32_t size, std::uint32_t block) {
  const std::uint32_t blocks = size / blockSize;
  bool overlaid = false;
  for (std::uint32_t k = 0; k < blocks && !overlaid; ++k)
    overlaid = j.latest.contains(std::uint64_t{volume} << 32 | (position / blockSize + k));
  const std::uint8_t* original = overlaid ? nullptr : BatchOriginal(file, position, size);
  const std::size_t room = j.undoSize + blocks * journal::MaxUndoBytes(blockSize);
  if (j.undo.size() < room) j.undo.resize(std::max(room, j.undo.size() + kRecordPieceBytes));
  std::size_t end = j.undoSize;  // the group's undo grows only once the write's is whole
  for (std::uint32_t k = 0; k < blocks; ++k) {
    const std::size_t at = std::size_t{k} * blockSize;
    const std::uint8_t* before =
        original != nullptr ? original + at : ReadReplacedBlock(volume, position + at, block + k);
    end += journal::EncodeUndo(before, bytes + at, blockSize, j.undo.data() + end);
  }
  j.undoSize = end;
}

}  // namespace

void HoldJournaledWrite(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size,
                        const char* failure, std::uint32_t block) {
  const std::uint64_t cap = failure == nullptr ? FirstHeldAfter(block) : MessagesMade();
  const std::uint32_t volume = VolumeOfHandle(file);
  HoldUndo(file, volume, position, bytes, size, block);
  if (j.held.empty()) CapHeldOutput(cap);
  const std::size_t offset = j.arena.size();
  j.arena.insert(j.arena.end(), bytes, bytes + size);
  j.held.push_back({volume, size, block, position, offset, cap, failure});
  for (std::uint32_t k = 0; k < size / blockSize; ++k)
    j.latest[std::uint64_t{volume} << 32 | (position / blockSize + k)] = offset + std::size_t{k} * blockSize;
  SendWriteBackPiece();
}

void SeeJournaledWrites(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) {
  if (j.latest.empty() || blockSize == 0) return;
  const std::uint64_t volume = VolumeOfHandle(file);
  for (std::uint64_t block = position / blockSize; block * blockSize < position + size; ++block) {
    const auto it = j.latest.find(volume << 32 | block);
    if (it == j.latest.end()) continue;
    const std::uint64_t from = std::max(position, block * blockSize), to = std::min(position + size, (block + 1) * blockSize);
    std::memcpy(buffer + (from - position), j.arena.data() + it->second + (from - block * blockSize), to - from);
  }
}

bool JournalGroupFull() {
  return j.active && GroupBytes() >= j.groupLimit + std::min(j.groupLimit, kGroupBytes / 4);
}
bool JournalGroupWaits() {
  return j.active && !j.held.empty() && (GroupBytes() >= j.groupLimit || HeldOutputWaits());
}

void CommitJournalGroup(std::uint32_t resumeBlock, std::uint64_t releaseMark) {
  if (!j.active) return;
  if (!j.held.empty()) Commit();
  ClearGroup();
  ReleaseHeldOutput(releaseMark);
  j.groupBlock = resumeBlock;
  j.groupMaps = SaveMapState();
}

void EndJournal() {
  if (!j.active) return;
  CommitJournalGroup(lastBlock, 0);
  SetFailureHook(nullptr);
  if (!j.created) return;
  SyncWrittenFilesOrFail();
  for (JournalFile& f : j.files) platform::Close(f.handle);
  j.files.clear();
  platform::Close(j.file);
  j.file = platform::kInvalidFile;
  platform::ClearLastError();
  if (!platform::RemoveFile(j.path) || !platform::SyncDirectory(DirectoryOf(j.path))) JournalFailed("removing");
  j.active = false;
}

}  // namespace bt
