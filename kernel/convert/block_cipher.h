// Per-block cipher of an encrypted database: AES-CBC over the whole block, with an IV made from
// the block number.
#pragma once

#include <cstdint>

namespace bt {

// In place when in == out. 0 when no database key is loaded.
int DecryptDataBlock(const std::uint8_t* in, std::uint8_t* out, std::uint32_t b);
int EncryptDataBlock(const std::uint8_t* in, std::uint8_t* out, std::uint32_t b);
// Encrypts count consecutive blocks first, first + 1, ... laid end to end at blocks, in place,
// each exactly as EncryptDataBlock does; several at once. 0 when no database key is loaded.
int EncryptDataBlocks(std::uint8_t* blocks, std::uint32_t first, std::uint32_t count);

}  // namespace bt
