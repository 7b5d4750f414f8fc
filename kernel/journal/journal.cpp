#include "journal.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "block_cipher.h"
#include "journal_commit.h"
#include "journal_files.h"
#include "journal_state.h"
#include "journal_writer.h"
#include "lock_file.h"
#include "messages.h"
#include "database.h"
#include "volume_io.h"

namespace bt {

namespace journaling {

// Made at its first use and never destroyed: the journal's threads wait on its handover until the
// process ends.
JournalState& TheJournalState() {
  static JournalState& state = *new JournalState;
  return state;
}

namespace {

Journal& j = TheJournalState().journal;

// The journal's keys from the files' identities.
void StartKeys(const std::vector<journal::VolumeRecord>& volumes) {
  std::vector<platform::FileIdentity> identities;
  for (const journal::VolumeRecord& v : volumes) identities.push_back(v.identity);
  j.fileKey = FileKeys(identities);
}

}  // namespace

// A failure the writer met ends the run here, as it would have in the run's own thread: the
// messages made before the write that failed are shown, then the run's message.
[[noreturn]] void FailAsTheWriterStopped(const Outcome& o, const Group& g) {
  SetFailureHook(nullptr);
  AwaitLandings();
  platform::SetLastError(o.error);
  if (o.stop == Stop::kJournalWriting) JournalFailed("writing");
  if (o.stop == Stop::kJournalFlushing) JournalFailed("flushing");
  if (o.stop == Stop::kMarkWriting) MarkFailed("writing");
  if (o.stop == Stop::kVolumeFlushing)
    Fail("\r\nError flushing volume #%d. %s\r\n", static_cast<int>(o.volume), ErrorText());
  const HeldWrite& w = g.held[o.write];
  const std::string text = ErrorText();
  CapHeldOutput(w.cap);
  ReleaseHeldOutput(UINT64_MAX);
  CapHeldOutput(UINT64_MAX);
  platform::SetLastError(o.error);  // the messages shown since may have set another
  if (w.failure == nullptr) FailWritingBlock(o.block);
  DiscardHeldOutput();
  Fail(w.failure, w.block, text.c_str());
}

}  // namespace journaling

using namespace journaling;

void BeginJournal(bool verbose, const std::string& lockPath, const Maps& maps) {
  j = Journal{};
  j.maps = &maps;
  j.path = JournalPathFor(databaseFileName);
  if (j.path.empty()) return;
  j.active = true;
  j.header.runId = NewRunId();
  j.header.verbose = verbose;
  std::memcpy(j.header.label, labelCopyAtStart, journal::kLabelCopyBytes);
  // Full paths: a recovery started from another directory finds the same files.
  j.header.mainFile = FullPath(databaseFileName);
  j.header.mainDirectory = FullPath(DirectoryOf(databaseFileName) + platform::kSeparator);
  j.header.primaryDirectory = FullPath(primaryDirectory);
  for (const std::string& d : volumeDirectories) j.header.directories.push_back(FullPath(d));
  // A further volume's size, which the run does not change: a recovery refuses one cut short (or
  // grown) since, where the blocks lost may be some the run never reads.
  for (std::uint32_t v = 0; v <= furtherVolumeCount; ++v)
    j.header.volumes.push_back({v == 0 ? std::uint16_t{0} : volumeDirIndex[v], v == 0 ? 1 : volumeFirstBlock[v],
                                VolumeIdentity(v), v == 0 ? 0 : VolumeSize(v)});
  j.header.lockPath = lockPath.empty() ? std::string() : FullPath(lockPath);
  const LockStamp lock = lockPath.empty() ? LockStamp{} : HeldLockStamp();
  j.header.lockIdentity = lock.identity;
  j.header.lockChanged = lock.changed;
  j.header.keyChecked = databaseEncrypted && databaseKeyLoaded;
  j.header.keyCheck = KeyCheck(j.header.runId);
  j.header.tableBlocks = lastBlock < UINT32_MAX ? lastBlock + 1 : UINT32_MAX;
  const platform::File main = platform::OpenReadOnly(databaseFileName);
  const std::int64_t size = main == platform::kInvalidFile ? -1 : platform::FileSize(main);
  platform::Close(main);
  j.header.mainFileSize = size < 0 ? 0 : static_cast<std::uint64_t>(size);
  j.marking = size >= 0 && MainFileTakesMark(j.header.mainFileSize, j.header.version);
  // Without a mark, nothing but a journal beside the main file tells byteturn of the run; nor with
  // the mark of a main file shorter than its blocks, which a repair of its missing blocks writes over.
  if (!j.marking || !MainFileTakesMark(j.header.mainFileSize, 0)) j.path = databaseFileName + ".journal";
  StartKeys(j.header.volumes);
  j.groupBlock = 1;
  j.groupMaps = MapState{};
  StartGroups();
}

void ContinueJournal(const JournalResume& resume) {
  const journal::Found& found = *resume.found;
  j = Journal{};
  j.maps = resume.maps;
  j.active = j.created = true;
  j.file = resume.file;
  j.path = resume.path;
  j.header = found.header;
  j.nextNumber = found.commit.number + 1;
  // The records the commit in effect names stay whole until the next commit is on disk; the
  // put-back that follows stands for every write they name.
  for (std::uint32_t k = found.commit.open; k-- > 0 && found.commit.number != 0;)
    j.placed.push_back({found.commit.number - k, found.commit.records[k].offset, found.commit.records[k].size,
                        found.commit.number - found.commit.open});
  j.settled = found.commit.number;
  j.groupBlock = resume.resumeBlock;
  j.groupMaps = found.commit.number == 0 ? MapState{} : found.Earliest().maps;
  StartKeys(j.header.volumes);
  // The sample goes on; the blocks of it that its modulus does not take are the volumes' tails.
  std::vector<journal::Check> tails;
  if (found.commit.number != 0) {
    const journal::RecordHead& latest = found.Latest();
    j.sampleModulus = std::max<std::uint64_t>(latest.sampleModulus, 1);
    for (const journal::Check& c : latest.sample) {
      const std::uint64_t key = BlockKey(j.fileKey[c.volume], c.position / latest.blockSize);
      if (Sampled(key, j.sampleModulus))
        j.sample[key] = c;
      else
        tails.push_back(c);
    }
  }
  ResumeMark();
  StartGroups();
  for (const journal::Check& c : tails)
    if (c.volume < j.tails.size()) j.tails[c.volume] = Journal::Tail{true, false, c, 0};
}

void NoteResumedBlocks(const std::vector<journal::Check>& landed, const std::vector<KeptBlock>& kept) {
  StampResumedGroup();
  j.landed = landed;
  j.kept = kept;
  // What the put-back left is what the disk holds now.
  for (const journal::Check& c : landed) {
    const std::uint64_t key = BlockKey(j.fileKey[c.volume], c.position / blockSize);
    if (const auto it = j.sample.find(key); it != j.sample.end()) it->second.after = c.after;
    for (Journal::Tail& t : j.tails)
      if (t.set && BlockKey(t.check.volume, t.check.position / blockSize) == key) t.check.after = c.after;
  }
}

bool JournalHoldsWrites() { return j.active; }

void EndJournal() {
  if (!j.active) return;
  CommitJournalGroup(lastBlock, 0);
  AwaitFlights();
  SetFailureHook(nullptr);
  if (!j.created) return;
  Outcome outcome;
  if (!SyncWrittenFiles(outcome)) FailAsTheWriterStopped(outcome, j.group);
  // The table then names every block the run wrote, as the last commit, saying the run completed,
  // tells the recovery: it checks them all.
  if (j.header.version >= journal::kWholeTableVersion) {
    std::vector<TableEntry> table = SettleEveryGroup();
    if (!WriteTableAndSync(outcome, table)) FailAsTheWriterStopped(outcome, j.group);
  }
  for (JournalFile& f : j.files) platform::Close(f.handle);
  j.files.clear();
  CommitCompletion();
  UnmarkMainFile();
  // Where the journal's directory was moved away while the run went on, it is removed where it
  // lies now; a journal put under its old name since is another run's, and stays.
  const std::string path = platform::PathToRemove(j.path, j.file);
  platform::Close(j.file);
  j.file = platform::kInvalidFile;
  platform::ClearLastError();
  if (!path.empty() && (!platform::RemoveFile(path) || !platform::SyncDirectory(DirectoryOf(path))))
    JournalFailed("removing");
  j.active = false;
}

}  // namespace bt
