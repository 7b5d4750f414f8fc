// SHA-1 (FIPS 180-4).
#pragma once

#include <cstddef>
#include <cstdint>

namespace crypto {

struct Sha1Context {
  std::uint32_t state[5];
  std::uint8_t block[64];
  std::uint64_t bits;
  std::size_t used;
};

void Sha1Init(Sha1Context& ctx);
void Sha1Update(Sha1Context& ctx, const std::uint8_t* data, std::size_t length);
void Sha1Final(Sha1Context& ctx, std::uint8_t digest[20]);
void Sha1(const std::uint8_t* data, std::size_t length, std::uint8_t digest[20]);

}  // namespace crypto
