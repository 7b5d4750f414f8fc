#include "recover.h"

#include <cstring>
#include <string>

#include "driver.h"
#include "journal.h"
#include "journal_format.h"
#include "label_block.h"
#include "lock_file.h"
#include "map_block.h"
#include "messages.h"
#include "state.h"
#include "volume_io.h"

namespace bt {

namespace {

[[noreturn]] void Refuse(const std::string& text) {
  FailTo(stderr, "byteturn-recover: %s\n", text.c_str());
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
  return found;
}

// The files of the database must be those the interrupted run converted, wherever they are now
// named: the same files (by identity), the main file beginning with its label block as the run
// found it or as the run converts it.
void CheckFilesOrRefuse(const journal::Found& found) {
  const journal::Header& h = found.header;
  if (h.volumes.size() != std::size_t{furtherVolumeCount} + 1)
    Refuse("the journal does not describe the volume set of " + databaseFileName + ". Nothing was changed.");
  primaryDirectory = h.primaryDirectory;
  volumeDirectories = h.directories;
  volumeFirstBlock[0] = furtherVolumeCount;
  for (std::uint32_t v = 1; v <= furtherVolumeCount; ++v) {
    volumeDirIndex[v] = h.volumes[v].directory;
    volumeFirstBlock[v] = h.volumes[v].firstBlock;
  }
  for (std::uint32_t v = 0; v <= furtherVolumeCount; ++v) {
    const std::string path = VolumePath(v);
    platform::ClearLastError();
    const platform::File file = platform::OpenReadOnly(path);
    if (file == platform::kInvalidFile) Refuse("cannot open " + path + ". " + ErrorText() + " Nothing was changed.");
    const bool same = platform::IdentityOf(file) == h.volumes[v].identity;
    std::uint8_t label[journal::kLabelCopyBytes] = {};
    const bool labelRead = v != 0 || ReadThrough(file, 0, label, sizeof label);
    platform::Close(file);
    if (!same)
      Refuse(path + " is not the file that the interrupted run converted. Nothing was changed.");
    if (v != 0) continue;
    std::uint8_t converted[journal::kLabelCopyBytes];
    std::memcpy(converted, h.label, sizeof converted);
    ConvertLabelBlock(Bytes(converted, sizeof converted));
    const bool inFlight = found.commit.number != 0 && found.head.resumeBlock <= 1;  // may be torn: it is put back
    if (!labelRead || (std::memcmp(label, h.label, sizeof label) != 0 &&
                       std::memcmp(label, converted, sizeof label) != 0 && !inFlight))
      Refuse(path + " does not begin with the label block of the database the journal was written for. Nothing was "
                    "changed.");
  }
}

// Puts back the words that the writes of the last record changed, and flushes them. A block that
// still holds them is left alone: the write that failed on a bad place of the disk is not tried
// again here, but where the run meets it, with the run's own message.
void PutBackOrFail(const journal::Found& found) {
  const std::uint32_t blockBytes = found.head.blockSize;
  std::vector<std::uint8_t> current(blockBytes);
  std::size_t at = found.undoOffset;
  std::vector<platform::File> files(std::size_t{furtherVolumeCount} + 1, platform::kInvalidFile);
  for (const journal::Entry& e : found.head.entries) {
    if (e.volume > furtherVolumeCount) Refuse("the journal names a volume the database does not have.");
    platform::File& file = files[e.volume];
    if (file == platform::kInvalidFile) file = OpenVolumeFile(e.volume);
    if (file == platform::kInvalidFile)
      Fail("\r\nError opening volume #%d for writing. %s\r\n", static_cast<int>(e.volume), ErrorText());
    for (std::uint32_t k = 0; k < e.blocks; ++k) {
      const std::uint64_t position = e.position + std::uint64_t{k} * blockBytes;
      const std::uint8_t* undo = found.record.data() + at;
      at += journal::UndoSize(undo, found.record.size() - at, blockBytes);
      if (!ReadThrough(file, position, current.data(), blockBytes))
        Fail("\r\nError reading volume #%d at byte %llu. %s\r\n", static_cast<int>(e.volume),
             static_cast<unsigned long long>(position), ErrorText());
      if (!journal::ApplyUndo(undo, blockBytes, current.data())) continue;
      if (!WriteThrough(file, position, current.data(), blockBytes))
        Fail("\r\nError writing volume #%d at byte %llu. %s\r\n", static_cast<int>(e.volume),
             static_cast<unsigned long long>(position), ErrorText());
    }
  }
  for (std::uint32_t v = 0; v < files.size(); ++v) {
    if (files[v] == platform::kInvalidFile) continue;
    SyncVolumeOrFail(files[v], v);
    platform::Close(files[v]);
  }
}

}  // namespace

int RecoverMain(int argc, const char* const* argv) {
  platform::PrepareConsole();
  if (argc != 2 || argv[1][0] == '\0') {
    PrintTo(stderr, "usage: byteturn-recover FILE\n");
    EndRun(1);
  }
  databaseFileName = argv[1];
  binDirectory = BinDirectoryOfThisProgram();
  const std::string path = ExistingJournal(databaseFileName);
  if (path.empty())
    Refuse("no journal of " + databaseFileName + " was found (" + databaseFileName + ".journal" +
           (JournalPathFor(databaseFileName) == databaseFileName + ".journal" || JournalPathFor(databaseFileName).empty()
                ? std::string()
                : ", " + JournalPathFor(databaseFileName)) +
           "): there is no interrupted conversion to finish.");
  const platform::File file = OpenJournal(path);
  const journal::Found found = ReadJournalOrRefuse(file, path);

  CommandLine commandLine;
  commandLine.verbose = found.header.verbose;
  commandLine.fileName = databaseFileName;
  CheckLabel(found.header.label, commandLine);  // asks for the keyfile again where there is one
  if (found.commit.number != 0 && found.head.blockSize != blockSize)
    Refuse("the journal " + path + " cannot be used: its last record is damaged. Nothing was changed.");
  CheckFilesOrRefuse(found);

  const std::uint32_t resume = found.commit.number == 0 ? 1 : found.head.resumeBlock;
  Print("\r\nResuming the interrupted conversion at block #%u.\r\n", resume);
  std::fflush(stdout);
  platform::KeepRunningWithoutConsole();
  EmptyHandleCache();
  if (found.commit.number != 0) PutBackOrFail(found);
  RestoreMapState(found.commit.number == 0 ? MapState{} : found.head.maps, resume);
  ContinueJournal({file, path, found.header.runId, found.commit.number + 1, found.commit.recordOffset,
                   found.commit.recordSize, resume, found.commit.number == 0 ? MapState{} : found.head.maps});
  ConvertVolumes(found.header.verbose, resume);
  FinishRun(LockPathFor(databaseFileName));
}

}  // namespace bt
