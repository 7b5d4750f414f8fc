#include "big_string.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "block_cipher.h"
#include "block_header.h"
#include "messages.h"
#include "database.h"
#include "vector.h"

namespace bt {

namespace {
alignas(16) std::uint8_t bigBuffer[kMaxBlockSize];
constexpr char kBigUniWriteFailed[] = "\r\nCvBigUni failed to write block #%u. %s";
constexpr char kBigVecWriteFailed[] = "\r\nCvBigVec failed to write block #%u. %s";
constexpr char kBigVecOpenFailed[] = "\r\nCvBigVec: failed to open database volume containing block #%u. %s";

// Writes bigBuffer back as block b, out of its turn; a failure ends the run with its message.
void WriteOrFail(OtherBlocks& blocks, std::uint32_t b, const char* writeFailed, const char* openFailed) {
  const Reach written = blocks.Write(b, bigBuffer, writeFailed);
  if (written == Reach::kNoVolume) Fail(openFailed, b, ErrorText());
  if (written != Reach::kDone) Fail(writeFailed, b, ErrorText());
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using Allocation = std::unique_ptr<T[], FreeDeleter>;

template <typename T>
Allocation<T> Allocate(std::int64_t bytes) {
  if (bytes < 0) return nullptr;
  return Allocation<T>(static_cast<T*>(std::malloc(bytes == 0 ? 1 : static_cast<std::size_t>(bytes))));
}
}  // namespace

int CvBigUni(OtherBlocks& blocks, std::uint32_t b, int unicode) {
  if (b > lastBlock) {
    Print("\r\nBig Unicode Node points to block (%u) that is not in the file.", b);
    return 0;
  }
  const Reach read = blocks.Read(b, bigBuffer);
  if (read == Reach::kNoVolume)
    Fail("\r\nCvBigUni: failed to open database volume containing block #%u. %s", b, ErrorText());
  if (read != Reach::kDone) Fail("\r\nCvBigUni failed to read block #%u. %s", b, ErrorText());
  if (databaseEncrypted && !DecryptDataBlock(bigBuffer, bigBuffer, b)) Fail("Error decrypting CvBigUni block\n");
  if ((bigBuffer[header::kType] & header::kCompressed) && DecompressBlock(bigBuffer) == 0)
    Fail("\r\nCvBigUni: Error uncopmressing block #%u\r\n", b);
  if (bigBuffer[header::kType] != kTypeBigString) return 0;

  const std::uint8_t mark = bigBuffer[header::kOrdermark];
  if ((mark == bigstring::kOrdermarkBig && swapFlag == 0) || (mark == bigstring::kOrdermarkLittle && swapFlag == 1))
    return 1;  // reached from a second node: in the target order already

  Bytes block(bigBuffer, blockSize);
  const std::uint32_t offset = Take32(bigBuffer + header::kOffset);
  if (std::uint64_t{header::kSize} + offset > blockSize) {
    Print("\r\nBad big string block, block #%u, bad offset %lld\r\n", b, static_cast<long long>(offset));
    return 0;
  }
  ReverseHeaderFields(block);
  if (unicode == 1) RevEach(block, header::kSize, blockSize, 2);  // the whole block, not only the data
  bigBuffer[header::kOrdermark] = swapFlag ? bigstring::kOrdermarkLittle : bigstring::kOrdermarkBig;

  if (databaseEncrypted && !EncryptDataBlock(bigBuffer, bigBuffer, b)) Fail("Error encrypting big Unicode block\n");
  WriteOrFail(blocks, b, kBigUniWriteFailed, "\r\nCvBigUni: failed to open database volume containing block #%u. %s");
  return 1;
}

int CvBigVec(OtherBlocks& blocks, Bytes block, std::size_t start, std::size_t pntend) {
  const std::int64_t n = (static_cast<std::int64_t>(pntend) - static_cast<std::int64_t>(start) - 4) / 4;
  const std::uint32_t capacity = blockSize - header::kSize;
  Allocation<std::uint8_t> vector = Allocate<std::uint8_t>(n * blockSize);
  if (!vector) {
    Print("\r\nCvBigVec failed to allocate %d byte conversion buffer", static_cast<int>(n * blockSize));
    return 0;
  }
  Allocation<std::uint32_t> numbers = Allocate<std::uint32_t>(4 * n);
  if (!numbers) {
    Print("\r\nCvBigVec failed to allocate %d byte block # buffer", static_cast<int>(4 * n));
    return 0;
  }
  Allocation<std::uint8_t> headers = Allocate<std::uint8_t>(28 * n);
  if (!headers) {
    Print("\r\nCvBigVec failed to allocate %d byte block header buffer", static_cast<int>(28 * n));
    return 0;
  }
  Rev32At(block, start);

  for (std::int64_t i = 0; i < n; ++i) {
    const std::uint32_t b = Take32(block.data() + start + 4 + 4 * i);
    if (b > lastBlock) {
      Print("\r\nCvBigVec: Node points to block (%u) that is not in the file.", b);
      return 0;
    }
    numbers[i] = b;
    const Reach read = blocks.Read(b, bigBuffer);
    if (read == Reach::kNoVolume) Fail(kBigVecOpenFailed, b, ErrorText());
    if (read != Reach::kDone) Fail("\r\nCvBigVec failed to read block #%u. %s", b, ErrorText());
    if (databaseEncrypted && !DecryptDataBlock(bigBuffer, bigBuffer, b))
      Fail("Error decrypting CvBigVec big string block: #%u\n", b);
    if (bigBuffer[header::kType] != kTypeBigString) {
      Print("\r\nCvBigVec: Block %u does not have the expected big string block type (%d).", b,
            bigBuffer[header::kType]);
      return 0;
    }
    std::memcpy(headers.get() + 28 * i, bigBuffer, header::kSize);
    std::memcpy(vector.get() + capacity * i, bigBuffer + header::kSize, capacity);
  }

  CvVector(Bytes(vector.get(), static_cast<std::size_t>(n) * capacity), 0);

  for (std::int64_t i = 0; i < n; ++i) {
    const std::uint32_t b = numbers[i];
    std::memcpy(bigBuffer, headers.get() + 28 * i, header::kSize);
    std::memcpy(bigBuffer + header::kSize, vector.get() + capacity * i, capacity);
    Rev32At(Bytes(bigBuffer, blockSize), header::kOffset);
    ReverseHeaderFields(Bytes(bigBuffer, blockSize));
    if (databaseEncrypted && !EncryptDataBlock(bigBuffer, bigBuffer, b))
      Fail("Error encrypting big string vector block #%u\n", b);
    WriteOrFail(blocks, b, kBigVecWriteFailed, kBigVecOpenFailed);
  }
  return 1;
}

}  // namespace bt
