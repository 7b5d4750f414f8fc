// AES with the processor's AES instructions (x86-64), used when the processor has them.
#include <cstring>

#include "aes_core.h"

#if defined(__x86_64__) || defined(_M_X64)
#include <immintrin.h>

namespace crypto {

#define BT_AES_TARGET __attribute__((target("aes,sse4.1")))

namespace {
BT_AES_TARGET inline __m128i Key(const AesKeySchedule& s, int r) {
  return _mm_load_si128(reinterpret_cast<const __m128i*>(s.roundKeyBytes + 16 * r));
}

BT_AES_TARGET inline __m128i Encrypt(__m128i x, const AesKeySchedule& s) {
  x = _mm_xor_si128(x, Key(s, 0));
  for (int r = 1; r < s.rounds; ++r) x = _mm_aesenc_si128(x, Key(s, r));
  return _mm_aesenclast_si128(x, Key(s, s.rounds));
}

BT_AES_TARGET inline __m128i Decrypt(__m128i x, const AesKeySchedule& s) {
  x = _mm_xor_si128(x, Key(s, 0));
  for (int r = 1; r < s.rounds; ++r) x = _mm_aesdec_si128(x, Key(s, r));
  return _mm_aesdeclast_si128(x, Key(s, s.rounds));
}

BT_AES_TARGET inline __m128i Load(const std::uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
BT_AES_TARGET inline void Store(std::uint8_t* p, __m128i x) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), x); }
}  // namespace

bool AesHardwareAvailable() { return __builtin_cpu_supports("aes") && __builtin_cpu_supports("sse4.1"); }

BT_AES_TARGET void AesEncryptHardware(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& s) {
  Store(out, Encrypt(Load(in), s));
}

BT_AES_TARGET void AesDecryptHardware(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& s) {
  Store(out, Decrypt(Load(in), s));
}

// CBC decryption has no chain between the decryptions: eight pieces go through the rounds together.
BT_AES_TARGET void AesCbcDecryptHardware(const std::uint8_t* in, std::uint8_t* out, std::size_t blocks,
                                         std::uint8_t iv[16], const AesKeySchedule& s) {
  __m128i chain = Load(iv);
  std::size_t i = 0;
  for (; i + 8 <= blocks; i += 8) {
    __m128i c[8], x[8];
    for (int k = 0; k < 8; ++k) c[k] = Load(in + 16 * (i + k));
    const __m128i k0 = Key(s, 0);
    for (int k = 0; k < 8; ++k) x[k] = _mm_xor_si128(c[k], k0);
    for (int r = 1; r < s.rounds; ++r) {
      const __m128i kr = Key(s, r);
      for (int k = 0; k < 8; ++k) x[k] = _mm_aesdec_si128(x[k], kr);
    }
    const __m128i kl = Key(s, s.rounds);
    for (int k = 0; k < 8; ++k) x[k] = _mm_aesdeclast_si128(x[k], kl);
    Store(out + 16 * i, _mm_xor_si128(x[0], chain));
    for (int k = 1; k < 8; ++k) Store(out + 16 * (i + k), _mm_xor_si128(x[k], c[k - 1]));
    chain = c[7];
  }
  for (; i < blocks; ++i) {
    const __m128i c = Load(in + 16 * i);
    Store(out + 16 * i, _mm_xor_si128(Decrypt(c, s), chain));
    chain = c;
  }
  Store(iv, chain);
}

BT_AES_TARGET void AesCbcEncryptHardware(const std::uint8_t* in, std::uint8_t* out, std::size_t blocks,
                                         std::uint8_t iv[16], const AesKeySchedule& s) {
  __m128i chain = Load(iv);
  const int rounds = s.rounds;
  __m128i k[15];
  for (int r = 0; r <= rounds; ++r) k[r] = Key(s, r);
  for (std::size_t i = 0; i < blocks; ++i) {
    __m128i x = _mm_xor_si128(_mm_xor_si128(Load(in + 16 * i), chain), k[0]);
    for (int r = 1; r < rounds; ++r) x = _mm_aesenc_si128(x, k[r]);
    chain = _mm_aesenclast_si128(x, k[rounds]);
    Store(out + 16 * i, chain);
  }
  Store(iv, chain);
}

// Independent chains, eight at a time: each round instruction of one chain waits for the one
// before it, so while it does the others go through the processor's AES unit.
BT_AES_TARGET void AesCbcEncryptManyHardware(std::uint8_t* const* messages, std::size_t count, std::size_t blocks,
                                             const std::uint8_t (*ivs)[16], const AesKeySchedule& s) {
  constexpr std::size_t kLanes = 8;
  const int rounds = s.rounds;
  __m128i k[15];
  for (int r = 0; r <= rounds; ++r) k[r] = Key(s, r);
  for (std::size_t first = 0; first < count; first += kLanes) {
    const std::size_t lanes = count - first < kLanes ? count - first : kLanes;
    __m128i chain[kLanes];
    for (std::size_t l = 0; l < lanes; ++l) chain[l] = Load(ivs[first + l]);
    for (std::size_t j = 0; j < blocks; ++j) {
      __m128i x[kLanes];
      for (std::size_t l = 0; l < lanes; ++l)
        x[l] = _mm_xor_si128(_mm_xor_si128(Load(messages[first + l] + 16 * j), chain[l]), k[0]);
      for (int r = 1; r < rounds; ++r)
        for (std::size_t l = 0; l < lanes; ++l) x[l] = _mm_aesenc_si128(x[l], k[r]);
      for (std::size_t l = 0; l < lanes; ++l) {
        chain[l] = _mm_aesenclast_si128(x[l], k[rounds]);
        Store(messages[first + l] + 16 * j, chain[l]);
      }
    }
  }
}

}  // namespace crypto

#else

namespace crypto {
bool AesHardwareAvailable() { return false; }
void AesEncryptHardware(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& s) {
  AesEncryptPortable(in, out, s);
}
void AesDecryptHardware(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& s) {
  AesDecryptPortable(in, out, s);
}
void AesCbcDecryptHardware(const std::uint8_t*, std::uint8_t*, std::size_t, std::uint8_t*, const AesKeySchedule&) {}
void AesCbcEncryptHardware(const std::uint8_t*, std::uint8_t*, std::size_t, std::uint8_t*, const AesKeySchedule&) {}
void AesCbcEncryptManyHardware(std::uint8_t* const*, std::size_t, std::size_t, const std::uint8_t (*)[16],
                               const AesKeySchedule&) {}
}  // namespace crypto

#endif
