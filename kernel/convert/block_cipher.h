// Per-block cipher of an encrypted database: AES-CBC over the whole block, with an IV made from
// the block number.
#pragma once

#include <cstdint>

namespace bt {

// In place when in == out. 0 when no database key is loaded.
int DecryptDataBlock(const std::uint8_t* in, std::uint8_t* out, std::uint32_t b);
int EncryptDataBlock(const std::uint8_t* in, std::uint8_t* out, std::uint32_t b);

}  // namespace bt
