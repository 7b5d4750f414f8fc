#include "block_cipher.h"

namespace bt {

int DecryptDataBlock(const std::uint8_t*, std::uint8_t*, std::uint32_t) { return 0; }
int EncryptDataBlock(const std::uint8_t*, std::uint8_t*, std::uint32_t) { return 0; }

}  // namespace bt
