#include "sha1.h"

#include <cstring>

#include "byteorder.h"

namespace crypto {

namespace {
std::uint32_t Rotl(std::uint32_t x, int n) { return x << n | x >> (32 - n); }

void Compress(std::uint32_t state[5], const std::uint8_t block[64]) {
  std::uint32_t w[80];
  for (int i = 0; i < 16; ++i) w[i] = bt::LoadBE32(block + 4 * i);
  for (int i = 16; i < 80; ++i) w[i] = Rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
  std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
  for (int i = 0; i < 80; ++i) {
    std::uint32_t f, k;
    if (i < 20) {
      f = (b & c) | (~b & d), k = 0x5A827999;
    } else if (i < 40) {
      f = b ^ c ^ d, k = 0x6ED9EBA1;
    } else if (i < 60) {
      f = (b & c) | (b & d) | (c & d), k = 0x8F1BBCDC;
    } else {
      f = b ^ c ^ d, k = 0xCA62C1D6;
    }
    const std::uint32_t t = Rotl(a, 5) + f + e + k + w[i];
    e = d, d = c, c = Rotl(b, 30), b = a, a = t;
  }
  state[0] += a, state[1] += b, state[2] += c, state[3] += d, state[4] += e;
}
}  // namespace

void Sha1Init(Sha1Context& ctx) {
  static const std::uint32_t kInitial[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  std::memcpy(ctx.state, kInitial, sizeof kInitial);
  ctx.bits = 0;
  ctx.used = 0;
}

void Sha1Update(Sha1Context& ctx, const std::uint8_t* data, std::size_t length) {
  ctx.bits += static_cast<std::uint64_t>(length) * 8;
  while (length > 0) {
    const std::size_t take = length < 64 - ctx.used ? length : 64 - ctx.used;
    std::memcpy(ctx.block + ctx.used, data, take);
    ctx.used += take, data += take, length -= take;
    if (ctx.used == 64) {
      Compress(ctx.state, ctx.block);
      ctx.used = 0;
    }
  }
}

void Sha1Final(Sha1Context& ctx, std::uint8_t digest[20]) {
  const std::uint64_t bits = ctx.bits;
  ctx.block[ctx.used++] = 0x80;
  if (ctx.used > 56) {
    std::memset(ctx.block + ctx.used, 0, 64 - ctx.used);
    Compress(ctx.state, ctx.block);
    ctx.used = 0;
  }
  std::memset(ctx.block + ctx.used, 0, 56 - ctx.used);
  bt::StoreBE32(ctx.block + 56, static_cast<std::uint32_t>(bits >> 32));
  bt::StoreBE32(ctx.block + 60, static_cast<std::uint32_t>(bits));
  Compress(ctx.state, ctx.block);
  for (int i = 0; i < 5; ++i) bt::StoreBE32(digest + 4 * i, ctx.state[i]);
}

void Sha1(const std::uint8_t* data, std::size_t length, std::uint8_t digest[20]) {
  Sha1Context ctx;
  Sha1Init(ctx);
  Sha1Update(ctx, data, length);
  Sha1Final(ctx, digest);
}

}  // namespace crypto
