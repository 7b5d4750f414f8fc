#include "driver.h"

#include <cstdint>
#include <cstdio>
#include <limits>

#include "block_cipher.h"
#include "block_header.h"
#include "command_line.h"
#include "label_block.h"
#include "lock_file.h"
#include "map_block.h"
#include "messages.h"
#include "mirror_info.h"
#include "platform.h"
#include "state.h"
#include "volume_info.h"
#include "volume_io.h"
#include "volume_set.h"

namespace bt {

namespace {

constexpr std::size_t kBinDirectoryLimit = 227;

// Both handles of the volume being converted move forward one block at a time.
struct VolumeStream {
  std::uint32_t volume;
  std::uint32_t first;
  std::uint32_t last;
  platform::File readFile;
  platform::File writeFile;
  std::uint64_t readPosition;
  std::uint64_t writePosition;
};

enum class Step { kWrite, kSkip };

std::string BinDirectoryOf(const std::string& executable) {
  std::size_t slash = executable.rfind(platform::kSeparator);
  return slash == std::string::npos ? std::string() : executable.substr(0, slash + 1);
}

void ReadLabelCopy(std::uint8_t* labelCopy) {
  platform::File file = platform::OpenReadWrite(databaseFileName);
  if (file == platform::kInvalidFile)
    Fail("Error opening database file %s for reading. %s\r\n", databaseFileName.c_str(), ErrorText());
  if (!ReadBlockAt(file, 0, labelCopy, kLabelCopySize))
    Fail("\r\nerror reading map block of database file. %s\r\n", ErrorText());
  platform::Close(file);
}

bool AdvanceOneBlock(std::uint64_t& position) {
  if (position > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) - blockSize) return false;
  position += blockSize;
  return true;
}

bool ReadNextBlock(VolumeStream& vs) {
  bool ok = ReadBlockAt(vs.readFile, vs.readPosition, blockBuffer, blockSize);
  if (ok) vs.readPosition += blockSize;
  return ok;
}

void DecryptAfterRead(std::uint32_t b, const char* message) {
  if (databaseEncrypted && !DecryptDataBlock(blockBuffer, blockBuffer, b)) Fail("%s", message);
}

// Reads, decrypts, decompresses and converts block b; tells whether it is to be written back.
Step ConvertBlock(VolumeStream& vs, std::uint32_t b) {
  Bytes block = BlockSpan();
  if (b == 1) {
    if (!ReadNextBlock(vs)) Fail("\r\nError read label block #%u. %s\r\n", 1u, ErrorText());
    ConvertLabelBlock(block);
    return Step::kWrite;
  }
  if (b == volumeInfoBlockNumber || b == vs.first) {
    if (!ReadNextBlock(vs)) Fail("\r\nError reading volume info block #%u. %s\r\n", b, ErrorText());
    CvVolInfo(block, static_cast<std::int32_t>(vs.volume));
    return Step::kWrite;
  }
  if (InMapArea(b)) {
    if (!ReadNextBlock(vs)) Fail("\r\nError read map block #%u. %s\r\n", b, ErrorText());
    DecryptAfterRead(b, "Error decrypting map block\n");
    if ((blockBuffer[header::kType] & header::kCompressed) && DecompressBlock(blockBuffer) == 0)
      Fail("\r\nError uncompressing map block (block #%u)\r\n", b);
    ConvertMapBlock(block, b);
    return Step::kWrite;
  }

  FetchGoverningMap(b, GoverningMap(b));
  if (IsFreeBlock(b)) {
    if (!AdvanceOneBlock(vs.readPosition))
      Fail("\r\nRead fseek failed to advance block #%u. %s\r\n", b, ErrorText());
    return Step::kSkip;
  }
  if (!ReadNextBlock(vs)) Fail("\r\nError read block #%u. %s\r\n", b, ErrorText());
  DecryptAfterRead(b, "Error decrypting data block\n");

  std::uint8_t type = blockBuffer[header::kType];
  if ((type & 0x7F) == kTypeBigString) return Step::kSkip;
  if (type & header::kCompressed) {
    if (DecompressBlock(blockBuffer) == 0) Fail("\r\nError uncompressing block #%u\r\n", b);
    type &= 0x7F;
  }
  if (type == kTypeMirrorInfo) {
    CvMirInfo(block);
    return Step::kWrite;
  }
  return ConvertOrdinaryBlock(block, b, type) ? Step::kWrite : Step::kSkip;
}

void PrintProgress(std::uint32_t b, bool verbose) {
  if (!verbose || b % 1000 != 0 || lastBlock == 0) return;
  std::uint32_t percent = b * 100u / lastBlock;  // unsigned 32 bits: wraps once b * 100 passes 2^32
  Print("\r%u blocks (%.0d%%)     ", b, static_cast<int>(percent));
  std::fflush(stdout);  // a terminal shows the line while the run goes on
}

void WriteBack(VolumeStream& vs, std::uint32_t b) {
  if (databaseEncrypted && b != volumeInfoBlockNumber && b != vs.first &&
      !EncryptDataBlock(blockBuffer, blockBuffer, b))
    Fail("Error encrypting block\n");
  if (!WriteBlockAt(vs.writeFile, vs.writePosition, blockBuffer, blockSize)) {
    if (b == 1) Fail("\r\nWrite of label block failed. %s\r\n", ErrorText());
    Fail("\r\nError writing block %u. %s\r\n", b, ErrorText());
  }
  vs.writePosition += blockSize;
}

void ConvertVolume(std::uint32_t volume, std::uint32_t& b, bool verbose) {
  VolumeStream vs{};
  vs.volume = volume;
  if (volume == 0) {
    vs.first = 1;
    vs.last = furtherVolumeCount != 0 ? primaryVolumeLastBlock : lastBlock;
  } else {
    vs.first = volumeFirstBlock[volume];
    vs.last = volume == furtherVolumeCount ? lastBlock : volumeFirstBlock[volume + 1] - 1;
  }
  vs.readFile = OpenVolumeFile(volume);
  if (vs.readFile == platform::kInvalidFile)
    Fail("\r\nError opening volume #%d for reading. %s\r\n", static_cast<int>(volume), ErrorText());
  platform::AdviseSequentialRead(vs.readFile);
  vs.writeFile = OpenVolumeFile(volume);
  if (vs.writeFile == platform::kInvalidFile)
    Fail("\r\nError opening volume #%d for writing. %s\r\n", static_cast<int>(volume), ErrorText());

  std::uint64_t handled = 0;
  for (; b <= vs.last; ++b, ++handled) {
    if (ConvertBlock(vs, b) == Step::kWrite) {
      PrintProgress(b, verbose);
      WriteBack(vs, b);
    } else {
      if (!AdvanceOneBlock(vs.writePosition))
        Fail("\r\nWrite fseek failed to advance block #%u. %s\r\n", b, ErrorText());
      PrintProgress(b, verbose);
    }
    if (b == UINT32_MAX) break;
  }
  if (handled == 0) Fail("\r\nError reading %s block #%u.\r\n", b == 1 ? "label" : "volume info", b);
  SyncVolumeOrFail(vs.writeFile, volume);  // on stable storage before the run says it is done
  platform::Close(vs.readFile);
  platform::Close(vs.writeFile);
}

}  // namespace

int ByteturnMain(int argc, const char* const* argv) {
  platform::PrepareConsole();
  CommandLine commandLine;
  if (!ParseCommandLine(argc, argv, commandLine)) PrintUsageAndEnd();
  databaseFileName = commandLine.fileName;
  binDirectory = BinDirectoryOf(platform::ExecutablePath(kBinDirectoryLimit));

  static std::uint8_t labelCopy[kLabelCopySize];
  ReadLabelCopy(labelCopy);
  CheckLabel(labelCopy, commandLine);
  if (furtherVolumeCount > kMaxVolumes)
    Fail("\r\nThis database names %u further volumes; at most %u are supported.\r\n", furtherVolumeCount,
         kMaxVolumes);
  if (furtherVolumeCount != 0) DiscoverVolumeSet();

  EmptyHandleCache();
  ResetMaps();
  const std::string lockPath = LockPathFor(databaseFileName);
  if (!lockPath.empty()) TakeLock(lockPath, databaseFileName);

  // Nothing is read from the operator any more; losing the console must not stop a half-done run.
  platform::KeepRunningWithoutConsole();
  std::uint32_t b = 1;
  for (std::uint32_t volume = 0; volume <= furtherVolumeCount; ++volume) ConvertVolume(volume, b, commandLine.verbose);
  SyncHandleCache();

  Print("\r\nDone converting to %s", swapFlag ? "little-endian\r\n" : "big-endian\r\n");
  CloseHandleCache();
  ReleaseLock(lockPath);
  EndRun(0);
}

}  // namespace bt
