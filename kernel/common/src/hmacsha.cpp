#include "hmacsha.h"

#include <cstring>

#include "sha1.h"

namespace crypto {

void HmacSha1(const std::uint8_t* message, std::size_t messageLength, const std::uint8_t* key, std::size_t keyLength,
              std::uint8_t out[20]) {
  std::uint8_t block[64] = {};
  if (keyLength > 64)
    Sha1(key, keyLength, block);  // a long key is replaced by its digest
  else if (keyLength > 0)
    std::memcpy(block, key, keyLength);
  std::uint8_t pad[64];
  std::uint8_t inner[20];
  Sha1Context ctx;
  for (int i = 0; i < 64; ++i) pad[i] = block[i] ^ 0x36;
  Sha1Init(ctx);
  Sha1Update(ctx, pad, 64);
  Sha1Update(ctx, message, messageLength);
  Sha1Final(ctx, inner);
  for (int i = 0; i < 64; ++i) pad[i] = block[i] ^ 0x5C;
  Sha1Init(ctx);
  Sha1Update(ctx, pad, 64);
  Sha1Update(ctx, inner, 20);
  Sha1Final(ctx, out);
}

}  // namespace crypto
