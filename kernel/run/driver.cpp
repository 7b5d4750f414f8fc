#include "driver.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "block_batch.h"
#include "block_cipher.h"
#include "block_header.h"
#include "command_line.h"
#include "compression.h"
#include "label_block.h"
#include "label_check.h"
#include "lock_file.h"
#include "map_block.h"
#include "messages.h"
#include "mirror_info.h"
#include "pass.h"
#include "platform.h"
#include "database.h"
#include "store.h"
#include "volume_info.h"
#include "volume_io.h"
#include "volume_set.h"

namespace bt {

namespace {

constexpr std::size_t kBinDirectoryLimit = 227;

enum class Step { kWrite, kSkip };

std::string BinDirectoryOf(const std::string& executable) {
  std::size_t slash = executable.rfind(platform::kSeparator);
  return slash == std::string::npos ? std::string() : executable.substr(0, slash + 1);
}

void ReadLabelCopy(std::uint8_t* labelCopy) {
  platform::File file = OpenDatabaseFile(databaseFileName);
  if (file == platform::kInvalidFile)
    Fail("Error opening database file %s for reading. %s\r\n", databaseFileName.c_str(), ErrorText());
  NoteVolumeIdentity(0, file);
  if (!ReadBlockAt(file, 0, labelCopy, kLabelCopySize))
    Fail("\r\nerror reading map block of database file. %s\r\n", ErrorText());
  platform::Close(file);
}

// Another run may have converted the file between the check of its label and this run's lock,
// through another name (whose lock is another file): once the file is held, its label must still
// be the one checked. (A file that does not open or read now fails where the run opens it, with
// the system's reason; one put in its place, where the run finds it is not the file it began with.)
void RefuseWhenChangedMeanwhile(const std::string& lockPath) {
  std::uint8_t now[kLabelCopySize];
  const platform::File file = OpenDatabaseFile(databaseFileName);
  const bool changed = file != platform::kInvalidFile && ReadBlockAt(file, 0, now, kLabelCopySize) &&
                       std::memcmp(now, labelCopyAtStart, kLabelCopySize) != 0;
  platform::Close(file);
  if (!changed) return;
  TheStore().Unlock(lockPath);
  FailTo(stderr, "%s changed while this run was starting (another run may have converted it): nothing was written.\n",
         databaseFileName.c_str());
}

struct Volume {
  std::uint32_t index, first, last;
};


// Block b as it is on disk; ends the run with message (block number, system error) when it
// cannot be read.
Bytes FetchBlockOrFail(std::uint32_t b, const char* message) {
  Bytes block = FetchBlock(b);
  if (block.empty()) Fail(message, b, ErrorText());
  return block;
}

void DecryptAfterRead(Bytes block, std::uint32_t b, const char* message) {
  if (databaseEncrypted && !DecryptDataBlock(block.data(), block.data(), b)) Fail("%s", message);
}

// Decompresses the block; a failure ends the run with message. Loading a library may fail, so
// the converted blocks before it go to disk first.
void DecompressOrFail(Bytes block, std::uint32_t b, const char* message) {
  if (binDirectory.empty() || compression::MethodNeedsLoading(block[header::kByte5])) WritePendingBlocks();
  if (DecompressBlock(block.data()) == 0) Fail(message, b);
}

// Converts block b in its slot (reading, decrypting and decompressing it first); tells whether
// it is to be written back.
Step ConvertBlock(Pass& pass, const Volume& v, std::uint32_t b) {
  if (b == 1) {
    ConvertLabelBlock(FetchBlockOrFail(1, "\r\nError read label block #%u. %s\r\n"));
    return Step::kWrite;
  }
  if (b == volumeInfoBlockNumber || b == v.first) {
    Bytes block = FetchBlockOrFail(b, "\r\nError reading volume info block #%u. %s\r\n");
    WritePendingBlocks();  // a bad directory list ends the run
    CvVolInfo(block, static_cast<std::int32_t>(v.index));
    return Step::kWrite;
  }
  if (InMapArea(b)) {
    Bytes block = FetchBlockOrFail(b, "\r\nError read map block #%u. %s\r\n");
    DecryptAfterRead(block, b, "Error decrypting map block\n");
    if (block[header::kType] & header::kCompressed)
      DecompressOrFail(block, b, "\r\nError uncompressing map block (block #%u)\r\n");
    ConvertMapBlock(pass.maps, block, b);
    return Step::kWrite;
  }

  const std::uint32_t m = GoverningMap(b);
  if (!IsCurrentMap(pass.maps, m)) {
    WritePendingBlocks();  // the map is read ahead, or missing from the list
    FetchGoverningMap(pass.maps, pass.blocks, b, m);
  }
  if (IsFreeBlock(pass.maps, b)) return Step::kSkip;
  Bytes block = FetchBlockOrFail(b, "\r\nError read block #%u. %s\r\n");
  DecryptAfterRead(block, b, "Error decrypting data block\n");

  std::uint8_t type = block[header::kType];
  if ((type & 0x7F) == kTypeBigString) return Step::kSkip;
  if (type & header::kCompressed) {
    DecompressOrFail(block, b, "\r\nError uncompressing block #%u\r\n");
    type &= 0x7F;
  }
  if (type == kTypeMirrorInfo) {
    CvMirInfo(block);
    return Step::kWrite;
  }
  return ConvertOrdinaryBlock(pass.blocks, block, b, type) ? Step::kWrite : Step::kSkip;
}

void PrintProgress(std::uint32_t b, bool verbose) {
  if (!verbose || b % 1000 != 0 || lastBlock == 0) return;
  std::uint32_t percent = b * 100u / lastBlock;  // unsigned 32 bits: wraps once b * 100 passes 2^32
  Print("\r%u blocks (%.0d%%)     ", b, static_cast<int>(percent));  // shown once the blocks before it are written
}

void ConvertVolume(Pass& pass, std::uint32_t index, std::uint32_t& b, bool verbose) {
  Volume v{index, 1, 0};
  if (index == 0) {
    v.last = furtherVolumeCount != 0 ? primaryVolumeLastBlock : lastBlock;
  } else {
    v.first = volumeFirstBlock[index];
    v.last = index == furtherVolumeCount ? lastBlock : volumeFirstBlock[index + 1] - 1;
  }
  const platform::File readFile = pass.read = OpenVolumeFile(index);
  if (readFile == platform::kInvalidFile)
    Fail("\r\nError opening volume #%d for reading. %s\r\n", static_cast<int>(index), ErrorText());
  platform::AdviseSequentialRead(readFile);
  const platform::File writeFile = pass.write = OpenVolumeFile(index);
  if (writeFile == platform::kInvalidFile)
    Fail("\r\nError opening volume #%d for writing. %s\r\n", static_cast<int>(index), ErrorText());

  Store& store = TheStore();
  BeginVolumeBatch(pass.maps, v.first, v.last, b, readFile, writeFile);
  std::uint64_t handled = 0;
  for (; b <= v.last; ++b, ++handled) {
    pass.progress.turn = b;
    const Step step = ConvertBlock(pass, v, b);
    PrintProgress(b, verbose);
    KeepBlock(b, step == Step::kWrite);
    ++(step == Step::kWrite ? pass.progress.written : pass.progress.passedOver);
    if (store.WantsToSettle()) {
      WritePendingBlocks();
      store.Settle(b + 1, std::uint64_t{b} + 1);
    }
    if (b == UINT32_MAX) break;
  }
  if (handled == 0) Fail("\r\nError reading %s block #%u.\r\n", b == 1 ? "label" : "volume info", b);
  EndVolumeBatch();
  SyncVolumeOrFail(writeFile, index);  // on stable storage before the run says it is done
  platform::Close(pass.read);
  platform::Close(pass.write);
  pass.read = pass.write = platform::kInvalidFile;
}

}  // namespace

std::string BinDirectoryOfThisProgram() { return BinDirectoryOf(platform::ExecutablePath(kBinDirectoryLimit)); }

std::string PrepareRun(int argc, const char* const* argv, CommandLine& commandLine) {
  platform::PrepareConsole();
  if (!ParseCommandLine(argc, argv, commandLine)) PrintUsageAndEnd();
  databaseFileName = commandLine.fileName;
  binDirectory = BinDirectoryOfThisProgram();

  ReadLabelCopy(labelCopyAtStart);
  CheckLabel(labelCopyAtStart, commandLine);
  if (furtherVolumeCount > kMaxVolumes)
    Fail("\r\nThis database names %u further volumes; at most %u are supported.\r\n", furtherVolumeCount,
         kMaxVolumes);
  if (furtherVolumeCount != 0 && !LeftByInterruptedRun()) DiscoverVolumeSet();

  const std::string lockPath = LockPathFor(databaseFileName);
  TheStore().Lock(lockPath, databaseFileName);
  RefuseWhenChangedMeanwhile(lockPath);
  return lockPath;
}

void ConvertVolumes(Pass& pass, bool verbose, std::uint32_t from) {
  pass.progress = RunProgress{from, 0, 0};
  std::uint32_t b = from;
  for (std::uint32_t volume = 0; volume <= furtherVolumeCount; ++volume) {
    const std::uint32_t last = volume == furtherVolumeCount ? lastBlock : volumeFirstBlock[volume + 1] - 1;
    if (from > 1 && last < from) continue;  // converted before the run was interrupted
    ConvertVolume(pass, volume, b, verbose);
  }
  pass.handles.SyncAll();
  TheStore().Finish();
}

void FinishRun(Pass& pass, const std::string& lockPath) {
  Print("\r\nDone converting to %s", swapFlag ? "little-endian\r\n" : "big-endian\r\n");
  pass.handles.CloseAll();
  TheStore().Unlock(lockPath);
  EndRun(0);
}

}  // namespace bt
