// Per-block cipher of an encrypted database: AES-CBC over the whole block, with an IV made from
// the block number.
#pragma once

#include <cstdint>

namespace bt {

// A value that tells one database key from another and gives nothing of it away: the database
// key's encryption of salt (little-endian) followed by eight bytes 0xC5, its first eight bytes
// taken little-endian. 0 when no database key is loaded.
std::uint64_t KeyCheck(std::uint64_t salt);

// The CBC IV of block b (a database key must be loaded).
void BlockIv(std::uint32_t b, std::uint8_t iv[16]);
// CBC over length bytes (a multiple of 16) from the IV given, as a block's own does from the
// middle of the block: iv is the ciphertext's 16 bytes before them. In place when in == out.
void DecryptFrom(const std::uint8_t* in, std::uint8_t* out, std::uint32_t length, const std::uint8_t iv[16]);
void EncryptFrom(const std::uint8_t* in, std::uint8_t* out, std::uint32_t length, const std::uint8_t iv[16]);

// Whether block b of a volume whose first block is first is stored encrypted: in an encrypted
// database every block but the volume's first (the label, or the volume's own info) and the
// volume info block.
bool StoredEncrypted(std::uint64_t b, std::uint64_t first);

// In place when in == out. 0 when no database key is loaded.
int DecryptDataBlock(const std::uint8_t* in, std::uint8_t* out, std::uint32_t b);
int EncryptDataBlock(const std::uint8_t* in, std::uint8_t* out, std::uint32_t b);
// Encrypts count blocks in place, block i at blocks[i] with the number numbers[i], each exactly
// as EncryptDataBlock does; several at once. 0 when no database key is loaded.
int EncryptDataBlocks(std::uint8_t* const* blocks, const std::uint32_t* numbers, std::uint32_t count);

}  // namespace bt
