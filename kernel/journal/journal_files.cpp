#include "journal_files.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "journal.h"
#include "journal_format.h"
#include "journal_state.h"
#include "messages.h"
#include "database.h"
#include "volume_io.h"

namespace bt {

namespace journaling {

namespace {

Journal& j = TheJournalState().journal;

std::string BaseName(const std::string& path) {
  const std::size_t slash = path.rfind(platform::kSeparator);
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Hex16(std::uint64_t v) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(v));
  return text;
}

std::string TemporaryJournalName(const std::string& path, std::uint64_t runId) {
  return path + "." + Hex16(runId) + ".new";
}

void WriteJournalOrFail(const std::uint8_t* bytes, std::size_t size, std::uint64_t position) {
  if (!WriteThrough(j.file, position, bytes, static_cast<std::uint32_t>(size))) JournalFailed("writing");
}

void SyncJournalOrFail() {
  platform::ClearLastError();
  if (!platform::Sync(j.file)) JournalFailed("flushing");
}

// The mark of this run's journal at group: it names the journal's full path, or none where the
// path does not fit in its sector (the journal is then looked for under the names a journal of
// the file takes, and in their directories).
journal::Mark MarkAt(std::uint64_t runId, std::uint64_t originalSize, std::uint64_t group) {
  journal::Mark mark{runId, originalSize, group, FullPath(j.path)};
  std::uint8_t sector[journal::kSectorBytes];
  if (!journal::EncodeMark(mark, sector)) mark.journalPath.clear();
  return mark;
}

// The journal this run has just made, on which nothing relies yet (no file was written, and the
// main file bears no mark), removed where it lies now: left, it would have the next run refused
// and its recovery convert the whole database.
void RemoveUnusedJournal() {
  const int error = platform::LastError();
  const std::string path = platform::PathToRemove(j.path, j.file);
  platform::Close(j.file);
  j.file = platform::kInvalidFile;
  j.created = false;
  if (!path.empty() && platform::RemoveFile(path)) platform::SyncDirectory(DirectoryOf(path));
  platform::SetLastError(error);
}

// The main file, opened to bear the mark: the file the run began with, never one put in its place.
// Where it cannot be, a journal made for this mark (fresh) is removed before the run ends.
platform::File OpenMarkFile(bool freshJournal) {
  const platform::File file = platform::OpenReadWrite(databaseFileName);
  const bool opened = file != platform::kInvalidFile;
  if (opened && IsVolumeFound(0, file)) return file;
  if (opened) platform::Close(file);
  if (freshJournal) RemoveUnusedJournal();
  if (!opened) MarkFailed("writing");
  FailVolumeReplaced(0);
}

// The mark goes to the end of the main file, and is flushed, before the run writes anything: the
// group of the commit in effect in its sector, the other sector empty. A mark whose write or flush
// failed may be on the disk, and keeps its journal.
void MarkMainFile(bool freshJournal) {
  if (!j.marking) return;
  std::uint8_t bytes[journal::kMarkBytes] = {};
  j.mark = MarkAt(j.header.runId, j.header.mainFileSize, j.nextNumber - 1);
  if (!journal::EncodeMark(j.mark, bytes + journal::kSectorBytes * (j.mark.group % 2))) MarkFailed("writing");
  platform::ClearLastError();
  j.markFile = OpenMarkFile(freshJournal);
  if (!WriteThrough(j.markFile, j.mark.originalSize, bytes, sizeof bytes)) MarkFailed("writing");
  platform::ClearLastError();
  if (!platform::Sync(j.markFile)) MarkFailed("flushing");
}

}  // namespace

[[noreturn]] void JournalFailed(const char* what) {
  Fail("\r\nError %s journal %s. %s\r\n", what, j.path.c_str(), ErrorText());
}

std::uint64_t NewRunId() {
  std::random_device device;
  const auto now = std::chrono::system_clock::now().time_since_epoch().count();
  return (std::uint64_t{device()} << 32 ^ device()) ^ static_cast<std::uint64_t>(now) * 0x9E3779B97F4A7C15ull;
}

[[noreturn]] void MarkFailed(const char* what) {
  Fail("\r\nError %s the mark of this run in %s. %s\r\n", what, databaseFileName.c_str(), ErrorText());
}

// Made under another name, flushed, then given its own and the directory flushed: a journal
// under its name is always whole.
void CreateJournal() {
  const std::vector<std::uint8_t> header = journal::EncodeHeader(j.header);
  if (header.size() > journal::kHeaderBytes) Fail("\r\nThe journal cannot hold the names of this volume set.\r\n");
  std::vector<std::uint8_t> start(journal::kRecordsOffset, 0);
  std::copy(header.begin(), header.end(), start.begin());
  const journal::Commit none{j.header.runId, 0, 1, {}};
  journal::EncodeCommit(none, start.data() + journal::kCommitOffset);
  journal::EncodeCommit(none, start.data() + journal::kCommitOffset + journal::kCommitBytes);

  // Named after the run, made only where no file has that name, and given the journal's name only
  // where none has it: a run never takes or replaces another run's journal.
  const std::string fresh = TemporaryJournalName(j.path, j.header.runId);
  platform::ClearLastError();
  j.file = platform::CreateNewReadWrite(fresh);
  if (j.file == platform::kInvalidFile) JournalFailed("creating");
  WriteJournalOrFail(start.data(), start.size(), 0);
  // The table of written blocks, zeros: its places on the disk are taken now, so that the flush
  // of each commit after a piece of it was written has no new place of the file to record.
  const std::uint64_t tableEnd = journal::RecordsStart(j.header);
  std::fill(start.begin(), start.end(), 0);
  for (std::uint64_t at = journal::kTableOffset; at < tableEnd; at += start.size())
    WriteJournalOrFail(start.data(), static_cast<std::size_t>(std::min<std::uint64_t>(start.size(), tableEnd - at)), at);
  SyncJournalOrFail();
  platform::Close(j.file);
  platform::ClearLastError();
  if (!platform::RenameNoReplace(fresh, j.path)) {
    const int error = platform::LastError();
    platform::RemoveFile(fresh);
    platform::SetLastError(error);
    JournalFailed("creating");
  }
  if (!platform::SyncDirectory(DirectoryOf(j.path))) JournalFailed("creating");
  j.file = platform::OpenReadWrite(j.path);
  if (j.file == platform::kInvalidFile || !platform::TryLockExclusive(j.file)) JournalFailed("opening");
  j.created = true;
  MarkMainFile(true);
}

// Whether the main file of a run whose journal is of version takes a mark: every one now; before
// version 12, not one shorter than the blocks it holds.
bool MainFileTakesMark(std::uint64_t size, std::uint32_t version) {
  const std::uint64_t blocks = furtherVolumeCount != 0 ? primaryVolumeLastBlock : lastBlock;
  return version >= journal::kShortFilesMarkedVersion || size >= blocks * std::uint64_t{blockSize};
}

bool MarkExpected(const journal::Header& header) {
  if (!MainFileTakesMark(header.mainFileSize, header.version)) return false;
  journal::Mark mark;
  if (MainFileTakesMark(header.mainFileSize, 0) || ReadMarkOf(databaseFileName, mark)) return true;
  const platform::File file = platform::OpenReadOnly(databaseFileName);
  const std::int64_t size = file == platform::kInvalidFile ? -1 : platform::FileSize(file);
  platform::Close(file);
  return size == static_cast<std::int64_t>(header.mainFileSize);
}

bool MarkInside(const journal::Header& header) {
  const platform::File file = platform::OpenReadOnly(databaseFileName);
  if (file == platform::kInvalidFile) return false;
  std::uint8_t bytes[journal::kMarkBytes];
  journal::Mark mark;
  const std::int64_t size = platform::FileSize(file);
  const bool inside = size > static_cast<std::int64_t>(header.mainFileSize + journal::kMarkBytes) &&
                      ReadThrough(file, header.mainFileSize, bytes, sizeof bytes) &&
                      journal::DecodeMark(bytes, header.mainFileSize + journal::kMarkBytes, mark) &&
                      mark.runId == header.runId;
  platform::Close(file);
  return inside;
}

// The mark of a run resumed: the file keeps the mark it bears; one that has none (the run had not
// marked it yet) is marked now.
void ResumeMark() {
  j.marking = MarkExpected(j.header);
  journal::Mark mark;
  if (j.marking && ReadMarkOf(databaseFileName, mark) && mark.runId == j.header.runId) {
    j.mark = MarkAt(mark.runId, mark.originalSize, mark.group);
    j.markFile = OpenMarkFile(false);
    platform::ClearLastError();
    if (!platform::Sync(j.markFile)) MarkFailed("flushing");  // a killed run may have left it unflushed
  } else {
    MarkMainFile(false);
  }
}

// The writes of group number made: the main file's mark says so (flushed with them before the next
// commit). False where the mark cannot be written.
bool StampGroup(std::uint64_t number) {
  if (j.markFile == platform::kInvalidFile) return true;
  std::uint8_t sector[journal::kSectorBytes];
  journal::Mark mark = j.mark;
  mark.group = number;
  if (!journal::EncodeMark(mark, sector)) return false;
  if (!WriteThrough(j.markFile, mark.originalSize + journal::kSectorBytes * (mark.group % 2), sector, sizeof sector))
    return false;
  j.markUnflushed = true;
  return true;
}

// The put-back stands for the writes of the record in effect: the mark says they landed, as the
// next commit needs.
void StampResumedGroup() {
  if (j.markFile == platform::kInvalidFile || j.mark.group + 1 >= j.nextNumber) return;
  const bool stamped = StampGroup(j.nextNumber - 1);
  platform::ClearLastError();
  if (!stamped) MarkFailed("writing");
  if (!platform::Sync(j.markFile)) MarkFailed("flushing");
  j.markUnflushed = false;
}

// The last commit written again, saying so, and flushed: a main file that bears no mark beside a
// journal whose run did not complete had the mark cut off otherwise (a copy of its blocks alone,
// the file cut back to them), and is not taken for complete. A journal of an earlier version,
// continued by a recovery, keeps its commits as they were.
void CommitCompletion() {
  const std::uint64_t number = j.nextNumber - 1;
  if (number == 0 || j.header.version < journal::kCompletionVersion) return;
  std::uint8_t sector[journal::kCommitBytes];
  const std::uint64_t at = journal::kCommitOffset + journal::kCommitBytes * (number % 2);
  journal::Commit commit;
  platform::ClearLastError();
  if (!ReadThrough(j.file, at, sector, sizeof sector)) JournalFailed("reading");
  // Not as written (changed by something else since): the mark stays, and the recovery's checks
  // meet the journal as it is.
  if (!journal::DecodeCommit(sector, commit, j.header.version) || commit.number != number)
    Fail("\r\nThe journal %s does not hold the commit this run wrote last.\r\n", j.path.c_str());
  const journal::Commit inEffect = commit;
  commit.complete = true;
  journal::EncodeCommit(commit, sector);
  if (!WriteThrough(j.file, at, sector, sizeof sector)) {
    WriteCommitAfterFailure(number, &inEffect);
    JournalFailed("writing");
  }
  SyncJournalOrFail();
}

void WriteCommitAfterFailure(std::uint64_t number, const journal::Commit* inEffect) {
  if (j.header.version < journal::kFailedCommitVersion) return;
  const int error = platform::LastError();
  const std::uint64_t other = journal::kCommitOffset + journal::kCommitBytes * ((number + 1) % 2);
  std::uint8_t sector[journal::kCommitBytes];
  journal::Commit commit;
  if (inEffect != nullptr)
    commit = *inEffect;
  else if (!ReadThrough(j.file, other, sector, sizeof sector) || !journal::DecodeCommit(sector, commit, j.header.version))
    commit.runId = 0;
  if (commit.runId == j.header.runId) {
    commit.otherFailed = true;
    journal::EncodeCommit(commit, sector);
    if (WriteThrough(j.file, other, sector, sizeof sector)) (void)platform::Sync(j.file);
  }
  platform::SetLastError(error);
}

// Once every file is flushed: the mark is cut off (only where the file still ends with it).
void UnmarkMainFile() {
  if (j.markFile == platform::kInvalidFile) return;
  std::uint8_t bytes[journal::kMarkBytes];
  journal::Mark found;
  const std::int64_t size = platform::FileSize(j.markFile);
  if (size >= static_cast<std::int64_t>(sizeof bytes) &&
      ReadThrough(j.markFile, static_cast<std::uint64_t>(size) - sizeof bytes, bytes, sizeof bytes) &&
      journal::DecodeMark(bytes, static_cast<std::uint64_t>(size), found) && found.runId == j.mark.runId) {
    platform::ClearLastError();
    if (!platform::SetFileSize(j.markFile, found.originalSize)) MarkFailed("removing");
    if (!platform::Sync(j.markFile)) MarkFailed("removing");
  }
  platform::Close(j.markFile);
  j.markFile = platform::kInvalidFile;
}

namespace {
bool volumeReplaced = false;  // the last handle OpenVolumeHandle could not give
}

// Opened by the run, never by the writer: the writer only writes and flushes. Only the file the run
// began with: one put in its place since is not written.
bool OpenVolumeHandle(std::uint32_t v) {
  JournalFile& f = j.files[v];
  if (f.handle == platform::kInvalidFile) {
    platform::ClearLastError();
    f.handle = platform::OpenReadWrite(VolumePath(v));
    volumeReplaced = f.handle != platform::kInvalidFile && !IsVolumeFound(v, f.handle);
    if (volumeReplaced) {
      platform::Close(f.handle);
      f.handle = platform::kInvalidFile;
    }
  }
  return f.handle != platform::kInvalidFile;
}

[[noreturn]] void FailOpeningVolume(std::uint32_t v) {
  if (volumeReplaced) FailVolumeReplaced(v);
  Fail("\r\nError opening volume #%d for writing. %s\r\n", static_cast<int>(v), ErrorText());
}

}  // namespace journaling

using namespace journaling;

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind(platform::kSeparator);
  if (slash == std::string::npos) return std::string(".");
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

std::string JournalPathFor(const std::string& fileName) {
  const char* place = std::getenv("BYTETURN_JOURNAL");
  if (place == nullptr || *place == '\0') return fileName + ".journal";
  const std::string dir = place;
  if (dir == "off") return "";
  const bool separated = dir.back() == platform::kSeparator || dir.back() == '/';
  // Two databases of one name (two ORVA.DAT) get two journals: the hash of the full path tells them apart.
  std::string full = platform::FullPathName(fileName, 32768);
  if (full.empty()) full = fileName;
  const std::uint64_t hash = journal::ChecksumOf(reinterpret_cast<const std::uint8_t*>(full.data()), full.size());
  return dir + (separated ? "" : std::string(1, platform::kSeparator)) + BaseName(fileName) + "." + Hex16(hash) +
         ".journal";
}

bool ReadMarkOf(const std::string& fileName, journal::Mark& mark) {
  const platform::File file = platform::OpenReadOnly(fileName);
  if (file == platform::kInvalidFile) return false;
  std::uint8_t bytes[journal::kMarkBytes];
  const std::int64_t size = platform::FileSize(file);
  const bool marked = size >= static_cast<std::int64_t>(sizeof bytes) &&
                      ReadThrough(file, static_cast<std::uint64_t>(size) - sizeof bytes, bytes, sizeof bytes) &&
                      journal::DecodeMark(bytes, static_cast<std::uint64_t>(size), mark);
  platform::Close(file);
  return marked;
}

namespace {

// The run id in the header of the journal at path; 0 where it has none that can be read.
std::uint64_t RunOfJournal(const std::string& path) {
  const platform::File file = platform::OpenReadOnly(path);
  if (file == platform::kInvalidFile) return 0;
  std::vector<std::uint8_t> bytes(journal::kHeaderBytes);
  const auto n = static_cast<std::uint32_t>(
      std::clamp<std::int64_t>(platform::FileSize(file), 0, static_cast<std::int64_t>(journal::kHeaderBytes)));
  journal::Header header;
  std::string why;
  const bool read = ReadThrough(file, 0, bytes.data(), n) && journal::DecodeHeader(bytes.data(), n, header, why);
  platform::Close(file);
  return read ? header.runId : 0;
}

}  // namespace

// The journal of the run that marked the file is looked for under the names a journal of this
// file takes, where the mark says it is, and then under any name in those directories (a journal
// moved or renamed). Without a mark, a journal under this file's own names stops a run too: the
// recovery tells what it is.
JournalFound FindJournal(const std::string& fileName) {
  JournalFound found;
  found.marked = ReadMarkOf(fileName, found.mark);
  std::vector<std::string> names{fileName + ".journal"};
  if (const std::string elsewhere = JournalPathFor(fileName); !elsewhere.empty()) names.push_back(elsewhere);
  if (!found.marked) {
    for (const std::string& name : names)
      if (platform::FileExists(name)) {
        found.path = name;
        break;
      }
    return found;
  }
  if (!found.mark.journalPath.empty()) names.push_back(found.mark.journalPath);
  for (const std::string& name : names)
    if (platform::FileExists(name) && RunOfJournal(name) == found.mark.runId) {
      found.path = name;
      return found;
    }
  std::vector<std::string> dirs;
  for (const std::string& name : names)
    if (std::find(dirs.begin(), dirs.end(), DirectoryOf(name)) == dirs.end()) dirs.push_back(DirectoryOf(name));
  for (const std::string& dir : dirs)
    for (const std::string& entry : platform::DirectoryEntries(dir)) {
      const std::string path = dir + platform::kSeparator + entry;
      if (entry.ends_with(".journal") && RunOfJournal(path) == found.mark.runId) {
        found.path = path;
        return found;
      }
    }
  // Not there: where it was, or, where the mark names no journal, beside the file (a journal put
  // there is found).
  found.path = found.mark.journalPath.empty() ? names[0] : found.mark.journalPath;
  return found;
}

std::vector<std::string> TemporaryJournalsOf(const std::string& journalPath) {
  std::vector<std::string> left;
  const std::string dir = DirectoryOf(journalPath), prefix = BaseName(journalPath) + ".";
  for (const std::string& entry : platform::DirectoryEntries(dir))
    if (entry.size() == prefix.size() + 16 + 4 && entry.starts_with(prefix) && entry.ends_with(".new"))
      left.push_back(dir + platform::kSeparator + entry);
  return left;
}

std::string RecoverLine(const JournalFound& found, const std::string& fileName) {
  if (found.marked && found.mark.journalPath.empty() && !platform::FileExists(found.path))
    return "An interrupted conversion left a journal whose path is too long for the mark of " + fileName +
           ": put the journal beside it as " + found.path +
           ", or name its directory in BYTETURN_JOURNAL, then finish the conversion with byteturn-recover " + fileName +
           ".\n";
  if (found.marked && !platform::FileExists(found.path))
    return "An interrupted conversion left its journal " + found.path +
           ", which is not there now: put it back there, then finish the conversion with byteturn-recover " +
           fileName + ".\n";
  return "An interrupted conversion left its journal " + found.path + ": finish it with byteturn-recover " +
         fileName + ".\n";
}

std::string FullPath(const std::string& path) {
  const std::string full = platform::FullPathName(path, 32768);
  return full.empty() ? path : full;
}

}  // namespace bt
