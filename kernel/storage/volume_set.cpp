#include "volume_set.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "console_input.h"
#include "messages.h"
#include "platform.h"
#include "database.h"
#include "volume_info.h"
#include "volume_io.h"

namespace bt {

namespace {

constexpr std::size_t kMarkerBytes = 909;
constexpr std::size_t kDirectoryLine = 910;
// The volume info block being read: the primary volume's, then each further volume's in turn.
alignas(16) std::uint8_t infoBlock[kMaxBlockSize];
Bytes InfoBlock() { return Bytes(infoBlock, blockSize); }

void ReadPrimaryVolumeInfo() {
  if (volumeInfoBlockNumber == 0 || volumeInfoBlockNumber > primaryVolumeLastBlock)
    Fail("\r\nVolume info block #%u in primary volume is not in the file.\r\n", volumeInfoBlockNumber);
  platform::File file = OpenDatabaseFile(databaseFileName);
  if (file == platform::kInvalidFile)
    Fail("\r\nFailed to open primary volume to read volume info block. %s\r\n", ErrorText());
  if (!ReadBlockAt(file, BlockPosition(volumeInfoBlockNumber, 1, blockSize), infoBlock, blockSize))
    Fail("\r\nFailed to read volume info block #%u in primary volume. %s\r\n", volumeInfoBlockNumber, ErrorText());
  platform::Close(file);
}

void FindPrimaryDirectory() {
  const std::size_t slash = databaseFileName.rfind(platform::kSeparator);
  if (slash == std::string::npos) {
    primaryDirectory = std::string(".") + platform::kSeparator;
    return;
  }
  primaryDirectory = databaseFileName.substr(0, slash + 1);
  if (primaryDirectory.size() > kMaxDirLength) Fail("\r\nInvalid primary volume directory - too long or invalid syntax.\r\n");
}

void PrintExpectedLocations() {
  Print("\r\nDatabase has %d volumes.\r\n", static_cast<int>(furtherVolumeCount + 1));
  Print("Volumes are expected to be in the primary directory:\r\n");
  Print(" %.*s\r\n", static_cast<int>(primaryDirectory.size()), primaryDirectory.c_str());
  Print("Plus the following set of additional volume directories:\r\n");
  if (volumeDirectories.empty()) Print(" <none>\r\n");
  for (const std::string& d : volumeDirectories) Print(" %.*s\r\n", static_cast<int>(d.size()), d.c_str());
  Print("\r\nIf volumes are in the expected locations listed above, enter Yes.\r\n"
        "Otherwise, enter No to supply a new set of additional volume directories.\r\n");
}

// Asks until the answer is Yes or No; there is no other way out, not even the end of input.
bool AskVolumesInPlace() {
  for (;;) {
    Print("\r\nAre volumes in their expected locations? ");
    std::fflush(stdout);
    char answer[5];
    bool ended = false;
    ReadConsoleLine(answer, sizeof answer, &ended);  // the end of input reads as an empty line
    if (!ended) DiscardRestOfLine();
    for (char* c = answer; *c != '\0'; ++c)
      if (*c >= 'a' && *c <= 'z') *c = static_cast<char>(*c - 32);
    if (std::strcmp(answer, "Y") == 0 || std::strcmp(answer, "YES") == 0) return true;
    if (std::strcmp(answer, "N") == 0 || std::strcmp(answer, "NO") == 0) return false;
    Print("Please enter Yes or No.");
  }
}

void EnterDirectories() {
  Print("\r\nEnter a new set of additional volume directories.\r\nThe primary directory is implicitly included.\r\n");
  volumeDirectories.clear();
  while (volumeDirectories.size() < kMaxVolumeDirs) {
    Print("Directory #%d (null=end)? ", static_cast<int>(volumeDirectories.size() + 1));
    std::fflush(stdout);
    char line[kDirectoryLine];
    bool ended = false;
    if (!ReadConsoleLine(line, sizeof line, &ended)) break;
    if (!ended) {
      DiscardRestOfLine();
      Print("Invalid volume directory - too long or invalid syntax.\r\n");
      continue;
    }
    if (line[0] == '\0') break;
    std::string dir(line);
    if (dir.back() != platform::kSeparator) dir += platform::kSeparator;
    if (dir.size() > kMaxDirLength) {
      Print("Invalid volume directory - too long or invalid syntax.\r\n");
      continue;
    }
    if (dir == primaryDirectory) {
      Print("Directory matches primary directory, which is implicitly included.\r\n");
      continue;
    }
    volumeDirectories.push_back(dir);
  }
}

bool SameIgnoringCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
    if (lower(static_cast<unsigned char>(a[i])) != lower(static_cast<unsigned char>(b[i]))) return false;
  }
  return true;
}

// A directory without a marker file is accepted; one whose marker names another primary
// directory ends the run; one whose marker cannot be opened stays unconfirmed.
std::vector<bool> ConfirmDirectories() {
  std::vector<bool> confirmed(volumeDirectories.size(), false);
  std::string resolved = platform::FullPathName(primaryDirectory, kMaxDirLength + 1);
  std::string resolveError;
  if (resolved.empty()) {
    resolveError = ErrorText();
    resolved = primaryDirectory;
  }
  for (std::size_t k = 0; k < volumeDirectories.size(); ++k) {
    const std::string& dir = volumeDirectories[k];
    if (dir.empty() || dir.size() > kMaxDirLength) continue;
    platform::File marker = OpenDatabaseFile(dir + "orva.dbdir");
    if (marker == platform::kInvalidFile) {
      confirmed[k] = platform::IsNotFoundError(platform::LastError());
      continue;
    }
    std::uint8_t text[kMarkerBytes];
    const std::int64_t read = platform::ReadAt(marker, text, sizeof text, 0);
    platform::Close(marker);
    std::size_t lineLength = 0;
    while (read > 0 && lineLength < static_cast<std::size_t>(read) && text[lineLength] != '\r' &&
           text[lineLength] != '\n')
      ++lineLength;
    // The marker's line is compared in the form the system's paths take: UTF-8 where paths are
    // UTF-8, else the 8-bit characters it decodes to.
    std::uint8_t decoded[kMaxDirLength + 2];
    const int n = platform::kPathsAreUtf8 ? CheckUtf8Path(text, static_cast<int>(lineLength), decoded)
                                          : Utf8ToLatin1(text, static_cast<int>(lineLength), decoded);
    std::string named = n > 0 ? std::string(reinterpret_cast<const char*>(decoded), static_cast<std::size_t>(n)) : "";
    if (!named.empty() && named.back() != platform::kSeparator) named += platform::kSeparator;
    if (n <= 0 || !SameIgnoringCase(named, resolved)) {
      // One failure, whose text byteturn-check's verdict quotes.
      const std::string cause =
          resolveError.empty()
              ? std::string()
              : "This may have occurred due to an error resolving the absolute path of the primary directory: " +
                    resolveError + ".\r\n";
      Fail("\r\nThe orva.dbdir file in %.*s indicates it is a volume directory of another database.\r\n%s",
           static_cast<int>(dir.size()), dir.c_str(), cause.c_str());
    }
    confirmed[k] = true;
  }
  return confirmed;
}

// Finds volume v in every directory (to catch duplicates), checks its volume info block and
// records it; returns the first block of the next volume.
std::uint32_t FindVolume(std::uint32_t v, std::uint32_t expectedStart, std::uint32_t checkpoint,
                         const std::vector<bool>& confirmed) {
  char name[14] = {};
  VolumeFileName(v, name);
  bool found = false;
  std::uint32_t nextStart = 0;
  for (std::size_t d = 0; d <= volumeDirectories.size(); ++d) {
    const std::string& dir = d == 0 ? primaryDirectory : volumeDirectories[d - 1];
    const std::string path = dir + name;
    platform::File file = OpenDatabaseFile(path);
    if (file == platform::kInvalidFile) continue;
    if (d > 0 && !confirmed[d - 1]) {
      platform::Close(file);
      Fail("\r\nError reading orva.dbdir file in %.*s.\r\n", static_cast<int>(dir.size()), dir.c_str());
    }
    if (found) {
      platform::Close(file);
      Fail("\r\nMultiple files named %s were found among the volume directories.\r\n", name);
    }
    NoteVolumeIdentity(v, file);
    if (!ReadBlockAt(file, 0, infoBlock, blockSize))
      Fail("\r\nError reading volume info block in %s. %s\r\n", path.c_str(), ErrorText());
    platform::Close(file);

    Bytes block = InfoBlock();
    if (swapFlag) CvVolInfo(block, static_cast<std::int32_t>(v));
    const std::uint8_t* p = block.data();
    if (!IsVolumeInfoType(p) || LoadLE32(p + volinfo::kVolumeNumber) != v)
      Fail("\r\nBad volume info block in %s.\r\n", path.c_str());
    if (LoadLE32(p + volinfo::kSetFieldA) != volumeSetFieldA || LoadLE32(p + volinfo::kSetFieldB) != volumeSetFieldB)
      Fail("\r\nMismatched volume information in %s: volume appears to be from the wrong database.\r\n", path.c_str());
    if (LoadLE32(p + volinfo::kCheckpoint) != checkpoint)
      Fail("\r\nMismatched volume information in %s: volume appears to be from a different point in time "
           "(discrepancy in checkpoint values).\r\n",
           path.c_str());
    if (LoadLE64(p + volinfo::kStartingBlock) != expectedStart)
      Fail("\r\nMismatched volume information in %s: volume doesn't have the expected starting block number.\r\n",
           path.c_str());
    volumeFirstBlock[v] = expectedStart;
    volumeDirIndex[v] = static_cast<std::uint16_t>(d);
    nextStart = static_cast<std::uint32_t>(LoadLE64(p + volinfo::kNextStartingBlock));
    found = true;
  }
  if (!found) Fail("\r\nUnable to find or open file %s.\r\n", name);
  return nextStart;
}

}  // namespace

// Checks the primary volume info block and reads its stored directory list (at most 20 entries).
void ReadVolumeDirectoryList(Bytes block, std::uint32_t* checkpoint) {
  if (swapFlag) CvVolInfo(block, 0);
  if (!IsVolumeInfoType(block.data()) || LoadLE32(block.data() + volinfo::kVolumeNumber) != 0 ||
      LoadLE64(block.data() + volinfo::kStartingBlock) != 1)
    Fail("\r\nBad volume info block in primary volume.\r\n");
  *checkpoint = LoadLE32(block.data() + volinfo::kCheckpoint);
  volumeDirectories.clear();
  const std::uint64_t end = volinfo::kDirList + std::uint64_t{LoadLE32(block.data() + volinfo::kDirListLength)};
  for (std::size_t cursor = volinfo::kDirList; cursor < end && volumeDirectories.size() < kMaxVolumeDirs;) {
    // An entry that would reach past the block is as bad as a malformed one.
    if (!Fits(block, cursor, 2)) Fail("\r\nBad volume info block in primary volume.\r\n");
    const std::uint16_t length = LoadLE16(block.data() + cursor);
    if (length == 0 || length > kMaxDirLength || !Fits(block, cursor + 2, length))
      Fail("\r\nBad volume info block in primary volume.\r\n");
    volumeDirectories.emplace_back(reinterpret_cast<const char*>(block.data() + cursor + 2), length);
    cursor += 2 + ((length + 1u) & ~1u);
  }
}

void DiscoverVolumeSet() {
  ReadPrimaryVolumeInfo();
  FindPrimaryDirectory();
  std::uint32_t checkpoint = 0;
  ReadVolumeDirectoryList(InfoBlock(), &checkpoint);
  PrintExpectedLocations();
  if (!AskVolumesInPlace()) EnterDirectories();
  std::vector<bool> confirmed;
  if (!volumeDirectories.empty()) confirmed = ConfirmDirectories();

  volumeFirstBlock[0] = furtherVolumeCount;  // entry 0 describes no volume
  std::uint32_t start = primaryVolumeLastBlock + 1;
  for (std::uint32_t v = 1; v <= furtherVolumeCount; ++v) start = FindVolume(v, start, checkpoint, confirmed);
  Print("\r\nFound all volumes, proceeding with conversion.\r\n");
}

int VolumeFileName(std::uint32_t volume, char* destination) {
  if (volume < 1 || volume > kMaxVolumes) return 0;
  const char name[13] = {'O', 'R', 'V', 'A', '-',
                         static_cast<char>('0' + volume / 1000), static_cast<char>('0' + volume % 1000 / 100),
                         static_cast<char>('0' + volume % 100 / 10), static_cast<char>('0' + volume % 10),
                         '.', 'V', 'O', 'L'};
  std::memcpy(destination, name, sizeof name);  // no terminator: the caller puts it
  return 1;
}

namespace {
// Decodes a counted UTF-8 string by the marker file's rules: a bad or cut sequence fails, and so
// does output beyond 227 bytes. Writes 8-bit characters (values above 255 fail), or with keepUtf8
// the sequences themselves.
int DecodeMarkerText(const std::uint8_t* source, int length, std::uint8_t* destination, bool keepUtf8) {
  if (length < 0) return -1;
  int in = 0, out = 0;
  while (in < length) {
    const int start = in;
    const std::uint8_t lead = source[in++];
    unsigned value = lead;
    int follow = 0;
    if (lead >= 0x80) {
      if ((lead & 0xE0) == 0xC0)
        follow = 1, value = lead & 0x1F;
      else if ((lead & 0xF0) == 0xE0)
        follow = 2, value = lead & 0x0F;
      else if ((lead & 0xF8) == 0xF0)
        follow = 3, value = lead & 0x07;
      else
        return -1;
    }
    const int size = keepUtf8 ? 1 + follow : 1;
    if (out + size > static_cast<int>(kMaxDirLength)) return -1;
    for (; follow > 0; --follow) {
      if (in >= length || (source[in] & 0xC0) != 0x80) return -1;
      value = value << 6 | (source[in++] & 0x3F);
    }
    if (keepUtf8) {
      for (int i = start; i < in; ++i) destination[out++] = source[i];
    } else {
      if (value > 255) return -1;
      destination[out++] = static_cast<std::uint8_t>(value);
    }
  }
  return out;
}
}  // namespace

int Utf8ToLatin1(const std::uint8_t* source, int length, std::uint8_t* destination) {
  return DecodeMarkerText(source, length, destination, false);
}

int CheckUtf8Path(const std::uint8_t* source, int length, std::uint8_t* destination) {
  return DecodeMarkerText(source, length, destination, true);
}

}  // namespace bt
