#include "label_check.h"

#include <cstdio>

#include "keyfile.h"
#include "label_block.h"
#include "messages.h"
#include "database.h"

namespace bt {

namespace {
std::string (*interruptedAdvice)(const std::string&) = nullptr;
bool leftByInterruptedRun = false;
}  // namespace

void SetInterruptedAdvice(std::string (*advice)(const std::string& fileName)) { interruptedAdvice = advice; }
bool LeftByInterruptedRun() { return leftByInterruptedRun; }

void CheckLabel(const std::uint8_t* labelCopy, const CommandLine& cl) {
  using namespace label;
  const std::string interrupted = interruptedAdvice != nullptr ? interruptedAdvice(databaseFileName) : std::string();
  leftByInterruptedRun = !interrupted.empty();
  swapFlag = labelCopy[kEndianFlag] != 0 ? 0 : 1;
  const bool big = swapFlag != 0;
  const char* orderName = big ? "big-endian" : "little-endian";

  std::uint32_t code = DbLoad32(labelCopy + kBlockSizeCode);
  if (code == 0) Fail("This is a 2k database and is no longer supported by byteturn\r\n");
  if (DbLoad16(labelCopy + kOldVolumeCount) > 1)
    Fail("This is a multivolume database and is no longer supported by byteturn\r\n");

  if (cl.statedOrderCheck && interrupted.empty()) {
    char first = cl.orderWord.empty() ? '\0' : cl.orderWord[0];
    if (big && first == 'l') Fail("This is a big-endian database but you have specified little-endian\r\n");
    if (!big && first == 'b') Fail("This is a little-endian database but you have specified big-endian\r\n");
  }
  if (cl.alreadyConvertedCheck && interrupted.empty()) {
    if (big && cl.direction == kDirectionBig)
      Fail("This database is already big-endian and does not require conversion.\r\n");
    if (!big && cl.direction == kDirectionLittle)
      Fail("This database is already little-endian and does not require conversion.\r\n");
  }
  if (cl.verbose) Print("This database is %s\r\n", big ? "big-endian." : "little-endian.");

  // The size table knows codes 0 to 5; a database with another code is refused where it is needed.
  if (code > 5)
    Fail("This database has an unknown block size code (%u) and cannot be converted by byteturn\r\n", code);
  SetGeometry(code);
  if (cl.verbose)
    Print("This database has a block size of %d Bytes.\r\n", static_cast<int>(blockSize));
  else
    Print("%s <%d Bytes>\r\n", orderName, static_cast<int>(blockSize));
  if (cl.alreadyConvertedCheck && cl.direction == kDirectionReport) {
    if (!interrupted.empty()) FailTo(stderr, "%s", interrupted.c_str());
    EndRun(0);
  }

  if (DbLoad16(labelCopy + kFlagsWord) & kEncryptedFlag) {
    Print("Database is marked as encrypted.\n");
    std::uint32_t keyIdLength = DbLoad16(labelCopy + kKeyIdLength);
    if (keyIdLength == 0 || keyIdLength > kMaxKeyIdLength)
      Fail("Illegal database encryption key ID length in label block:%d\n", static_cast<int>(keyIdLength));
    std::fflush(stdout);
    if (!LoadDatabaseKey(static_cast<int>(keyIdLength), labelCopy + kKeyId))
      FailTo(stderr, "Error processing keyfile.\n");
    databaseEncrypted = true;
  }

  furtherVolumeCount = DbLoad16(labelCopy + kFurtherVolumeCount);
  volumeInfoBlockNumber = DbLoad32(labelCopy + kVolumeInfoBlock);
  primaryVolumeLastBlock = DbLoad32(labelCopy + kPrimaryVolumeLastBlock);
  volumeSetFieldA = DbLoad32(labelCopy + kVolumeSetFieldA);
  volumeSetFieldB = DbLoad32(labelCopy + kVolumeSetFieldB);
  const auto mapCount = static_cast<std::int32_t>(DbLoad32(labelCopy + kMapCount));
  lastBlock = DbLoad32(labelCopy + kLastBlock);

  Print("\r\nThis database has %d map%s.\r\nThe last block is %u.\r\n", mapCount, mapCount > 1 ? "s" : "",
        lastBlock);
  std::uint16_t dirLength = DbLoad16(labelCopy + kManagerDirLength);
  if (dirLength <= 255)
    Print("\r\nOriginal manager directory is %.*s\r\n", static_cast<int>(dirLength),
          reinterpret_cast<const char*>(labelCopy + kManagerDir));
}

}  // namespace bt
