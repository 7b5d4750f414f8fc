#include "block_cipher.h"

#include "aes_modes.h"
#include "database.h"

namespace bt {

// The CBC IV of a block: its number, big-endian whatever the database's order, then twelve
// zeros, encrypted once under the database key. A block keeps its IV across a conversion.
void BlockIv(std::uint32_t b, std::uint8_t iv[16]) {
  for (int i = 0; i < 16; ++i) iv[i] = 0;
  StoreBE32(iv, b);
  crypto::AesEncryptBlock(iv, iv, encryptionKeySchedule);
}

std::uint64_t KeyCheck(std::uint64_t salt) {
  if (!databaseKeyLoaded) return 0;
  std::uint8_t block[16];
  StoreLE64(block, salt);
  for (int i = 8; i < 16; ++i) block[i] = 0xC5;
  crypto::AesEncryptBlock(block, block, encryptionKeySchedule);
  return LoadLE64(block);
}

void DecryptFrom(const std::uint8_t* in, std::uint8_t* out, std::uint32_t length, const std::uint8_t iv[16]) {
  std::uint8_t chain[16];
  for (int i = 0; i < 16; ++i) chain[i] = iv[i];
  crypto::AesCbcDecrypt(in, out, length, chain, decryptionKeySchedule);
}

void EncryptFrom(const std::uint8_t* in, std::uint8_t* out, std::uint32_t length, const std::uint8_t iv[16]) {
  std::uint8_t chain[16];
  for (int i = 0; i < 16; ++i) chain[i] = iv[i];
  crypto::AesCbcEncrypt(in, out, length, chain, encryptionKeySchedule);
}

int DecryptDataBlock(const std::uint8_t* in, std::uint8_t* out, std::uint32_t b) {
  if (!databaseKeyLoaded) return 0;
  std::uint8_t iv[16];
  BlockIv(b, iv);
  DecryptFrom(in, out, blockSize, iv);  // a size that is no multiple of 16 changes nothing
  return 1;
}

int EncryptDataBlock(const std::uint8_t* in, std::uint8_t* out, std::uint32_t b) {
  if (!databaseKeyLoaded) return 0;
  std::uint8_t iv[16];
  BlockIv(b, iv);
  if (blockSize % 16 != 0 || blockSize < 16) return 1;
  EncryptFrom(in, out, blockSize, iv);
  return 1;
}

bool StoredEncrypted(std::uint64_t b, std::uint64_t first) {
  return databaseEncrypted && b != volumeInfoBlockNumber && b != first;
}

int EncryptDataBlocks(std::uint8_t* const* blocks, const std::uint32_t* numbers, std::uint32_t count) {
  if (!databaseKeyLoaded) return 0;
  if (blockSize % 16 != 0 || blockSize < 16) return 1;
  constexpr std::uint32_t kGroup = 64;
  std::uint8_t ivs[kGroup][16];
  for (std::uint32_t done = 0; done < count; done += kGroup) {
    const std::uint32_t n = count - done < kGroup ? count - done : kGroup;
    for (std::uint32_t i = 0; i < n; ++i) BlockIv(numbers[done + i], ivs[i]);
    crypto::AesCbcEncryptMany(blocks + done, n, blockSize, ivs, encryptionKeySchedule);
  }
  return 1;
}

}  // namespace bt
