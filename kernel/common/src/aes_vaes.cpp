// AES with the processor's vector AES instructions on 512-bit registers (x86-64 with VAES and
// AVX-512): one instruction takes a round of four 16-byte pieces; or on 256-bit registers (VAES
// and AVX2), two pieces.
#include "aes_core.h"

#if defined(__x86_64__) || defined(_M_X64)
#include <cpuid.h>
#include <immintrin.h>

// GCC 12's AVX-512 intrinsics start some results from a deliberately undefined register and then
// warn about it where they are inlined.
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif

namespace crypto {

#define BT_VAES_TARGET __attribute__((target("aes,sse4.1,avx512f,vaes")))

namespace {
// Round key r in each of the four lanes of a register.
BT_VAES_TARGET inline __m512i Key4(const AesKeySchedule& s, int r) {
  return _mm512_broadcast_i32x4(_mm_load_si128(reinterpret_cast<const __m128i*>(s.roundKeyBytes + 16 * r)));
}

BT_VAES_TARGET inline __m128i Load(const std::uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
BT_VAES_TARGET inline void Store(std::uint8_t* p, __m128i x) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), x); }

// Four pieces from four places into the lanes of one register, and back.
BT_VAES_TARGET inline __m512i Gather(const std::uint8_t* const p[4]) {
  __m512i v = _mm512_castsi128_si512(Load(p[0]));
  v = _mm512_inserti32x4(v, Load(p[1]), 1);
  v = _mm512_inserti32x4(v, Load(p[2]), 2);
  return _mm512_inserti32x4(v, Load(p[3]), 3);
}

BT_VAES_TARGET inline void Scatter(std::uint8_t* const p[4], __m512i v) {
  Store(p[0], _mm512_castsi512_si128(v));
  Store(p[1], _mm512_extracti32x4_epi32(v, 1));
  Store(p[2], _mm512_extracti32x4_epi32(v, 2));
  Store(p[3], _mm512_extracti32x4_epi32(v, 3));
}

// CBC encryption of up to 4 * R chains (lanes) together, in place. A register lane with no
// chain of its own repeats the last chain: same bytes in, same bytes out, stored to the same place.
template <int R>
BT_VAES_TARGET void EncryptChains(std::uint8_t* const* messages, std::size_t lanes, std::size_t blocks,
                                  const std::uint8_t (*ivs)[16], const AesKeySchedule& s) {
  const int rounds = s.rounds;
  __m512i k[15];
  for (int r = 0; r <= rounds; ++r) k[r] = Key4(s, r);
  std::uint8_t* start[4 * R];
  for (std::size_t l = 0; l < 4 * R; ++l) start[l] = messages[l < lanes ? l : lanes - 1];
  __m512i chain[R];
  for (int q = 0; q < R; ++q) {
    const std::uint8_t* iv[4];
    for (std::size_t l = 0; l < 4; ++l) {
      const std::size_t lane = 4 * static_cast<std::size_t>(q) + l;
      iv[l] = ivs[lane < lanes ? lane : lanes - 1];
    }
    chain[q] = Gather(iv);
  }
  for (std::size_t j = 0; j < blocks; ++j) {
    std::uint8_t* at[4 * R];
    for (std::size_t l = 0; l < 4 * R; ++l) at[l] = start[l] + 16 * j;
    __m512i x[R];
    for (int q = 0; q < R; ++q) x[q] = _mm512_xor_si512(_mm512_xor_si512(Gather(at + 4 * q), chain[q]), k[0]);
    for (int r = 1; r < rounds; ++r)
      for (int q = 0; q < R; ++q) x[q] = _mm512_aesenc_epi128(x[q], k[r]);
    for (int q = 0; q < R; ++q) chain[q] = _mm512_aesenclast_epi128(x[q], k[rounds]);
    for (int q = 0; q < R; ++q) Scatter(at + 4 * q, chain[q]);
  }
}
}  // namespace

// VAES is bit 9 of ECX in leaf 7 (asked directly: not every compiler knows its name); the
// AVX-512 check also asks whether the system saves the 512-bit registers.
bool AesWideAvailable() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  const bool vaes = __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (c & (1u << 9)) != 0;
  return vaes && AesHardwareAvailable() && __builtin_cpu_supports("avx512f");
}

// CBC decryption has no chain between the decryptions: sixteen pieces per step in four
// registers. The value each piece is combined with is the ciphertext before it, taken from the
// registers already loaded, so that in and out may be the same.
BT_VAES_TARGET void AesCbcDecryptWide(const std::uint8_t* in, std::uint8_t* out, std::size_t blocks,
                                      std::uint8_t iv[16], const AesKeySchedule& s) {
  const int rounds = s.rounds;
  __m512i k[15];
  for (int r = 0; r <= rounds; ++r) k[r] = Key4(s, r);
  __m512i before = _mm512_inserti32x4(_mm512_setzero_si512(), Load(iv), 3);  // its last lane: the chain value
  std::size_t i = 0;
  for (; i + 16 <= blocks; i += 16) {
    __m512i c[4], x[4];
    for (int q = 0; q < 4; ++q) c[q] = _mm512_loadu_si512(in + 16 * i + 64 * q);
    for (int q = 0; q < 4; ++q) x[q] = _mm512_xor_si512(c[q], k[0]);
    for (int r = 1; r < rounds; ++r)
      for (int q = 0; q < 4; ++q) x[q] = _mm512_aesdec_epi128(x[q], k[r]);
    for (int q = 0; q < 4; ++q) x[q] = _mm512_aesdeclast_epi128(x[q], k[rounds]);
    // Each lane's predecessor: the register's lanes moved up one, the one before's last lane first.
    _mm512_storeu_si512(out + 16 * i, _mm512_xor_si512(x[0], _mm512_alignr_epi64(c[0], before, 6)));
    for (int q = 1; q < 4; ++q)
      _mm512_storeu_si512(out + 16 * i + 64 * q, _mm512_xor_si512(x[q], _mm512_alignr_epi64(c[q], c[q - 1], 6)));
    before = c[3];
  }
  Store(iv, _mm512_extracti32x4_epi32(before, 3));
  if (i < blocks) AesCbcDecryptHardware(in + 16 * i, out + 16 * i, blocks - i, iv, s);
}

BT_VAES_TARGET void AesCbcEncryptManyWide(std::uint8_t* const* messages, std::size_t count, std::size_t blocks,
                                          const std::uint8_t (*ivs)[16], const AesKeySchedule& s) {
  constexpr std::size_t kLanes = 16;
  for (std::size_t first = 0; first < count; first += kLanes) {
    const std::size_t lanes = count - first < kLanes ? count - first : kLanes;
    std::uint8_t* const* at = messages + first;
    switch ((lanes + 3) / 4) {
      case 1: EncryptChains<1>(at, lanes, blocks, ivs + first, s); break;
      case 2: EncryptChains<2>(at, lanes, blocks, ivs + first, s); break;
      case 3: EncryptChains<3>(at, lanes, blocks, ivs + first, s); break;
      default: EncryptChains<4>(at, lanes, blocks, ivs + first, s); break;
    }
  }
}

#define BT_VAES256_TARGET __attribute__((target("aes,sse4.1,avx2,vaes")))

namespace {
BT_VAES256_TARGET inline __m128i Load128(const std::uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Round key r in both lanes of a register.
BT_VAES256_TARGET inline __m256i Key2(const AesKeySchedule& s, int r) {
  return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(s.roundKeyBytes + 16 * r)));
}

// CBC encryption of up to 2 * R chains together, in place, as EncryptChains does on 512-bit
// registers, but with register q's pair of chains kStagger pieces behind the pair before it.
// The blocks of a batch lie a power of two apart, so chains taken in step would all touch one set
// of the processor's first cache, which holds eight lines: sixteen in step ran at half the speed.
// A register lane with no chain of its own works on a spare piece of its own.
constexpr std::size_t kStagger = 4;  // pieces: a cache line

// Piece t - kStagger * q of each register q's chains; where kChecked, a register outside its
// chains (before their start, past their end) is idle: neither stored nor chained.
template <int R, bool kChecked>
BT_VAES256_TARGET inline void ChainStep(std::size_t t, std::size_t blocks, std::uint8_t* const* start,
                                        const std::size_t* step, __m256i* chain, const __m256i* k, int rounds) {
  __m256i x[R];
  std::size_t at[R];
  bool active[R];
  for (std::size_t q = 0; q < R; ++q) {
    active[q] = !kChecked || (t >= kStagger * q && t - kStagger * q < blocks);
    at[q] = active[q] ? t - kStagger * q : 0;
    const __m256i m = _mm256_inserti128_si256(_mm256_castsi128_si256(Load128(start[2 * q] + step[2 * q] * at[q])),
                                              Load128(start[2 * q + 1] + step[2 * q + 1] * at[q]), 1);
    x[q] = _mm256_xor_si256(_mm256_xor_si256(m, chain[q]), k[0]);
  }
  for (int r = 1; r < rounds; ++r)
    for (std::size_t q = 0; q < R; ++q) x[q] = _mm256_aesenc_epi128(x[q], k[r]);
  for (std::size_t q = 0; q < R; ++q) {
    if (!active[q]) continue;
    chain[q] = _mm256_aesenclast_epi128(x[q], k[rounds]);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(start[2 * q] + step[2 * q] * at[q]), _mm256_castsi256_si128(chain[q]));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(start[2 * q + 1] + step[2 * q + 1] * at[q]),
                     _mm256_extracti128_si256(chain[q], 1));
  }
}

template <int R>
BT_VAES256_TARGET void EncryptChains256(std::uint8_t* const* messages, std::size_t lanes, std::size_t blocks,
                                        const std::uint8_t (*ivs)[16], const AesKeySchedule& s) {
  if (blocks == 0) return;  // an idle register reads its chain's first piece: there is none
  const int rounds = s.rounds;
  __m256i k[15];
  for (int r = 0; r <= rounds; ++r) k[r] = Key2(s, r);
  alignas(16) std::uint8_t spare[2 * R][16] = {};
  std::uint8_t* start[2 * R];
  std::size_t step[2 * R];
  for (std::size_t l = 0; l < 2 * R; ++l) {
    start[l] = l < lanes ? messages[l] : spare[l];
    step[l] = l < lanes ? 16 : 0;
  }
  __m256i chain[R];
  for (std::size_t q = 0; q < R; ++q) {
    const std::size_t first = 2 * q < lanes ? 2 * q : lanes - 1, second = 2 * q + 1 < lanes ? 2 * q + 1 : lanes - 1;
    chain[q] = _mm256_inserti128_si256(_mm256_castsi128_si256(Load128(ivs[first])), Load128(ivs[second]), 1);
  }
  // The registers start one after the other, run together, and end one after the other.
  const std::size_t lag = kStagger * (R - 1);
  std::size_t t = 0;
  for (; t < lag; ++t) ChainStep<R, true>(t, blocks, start, step, chain, k, rounds);
  for (; t < blocks; ++t) ChainStep<R, false>(t, blocks, start, step, chain, k, rounds);
  for (; t < blocks + lag; ++t) ChainStep<R, true>(t, blocks, start, step, chain, k, rounds);
}
}  // namespace

bool AesWide256Available() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  const bool vaes = __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (c & (1u << 9)) != 0;
  return vaes && AesHardwareAvailable() && __builtin_cpu_supports("avx2");
}

// Sixteen pieces per step in eight registers, each combined with the ciphertext before it, as
// AesCbcDecryptWide does.
BT_VAES256_TARGET void AesCbcDecryptWide256(const std::uint8_t* in, std::uint8_t* out, std::size_t blocks,
                                            std::uint8_t iv[16], const AesKeySchedule& s) {
  const int rounds = s.rounds;
  __m256i k[15];
  for (int r = 0; r <= rounds; ++r) k[r] = Key2(s, r);
  __m256i before = _mm256_inserti128_si256(_mm256_setzero_si256(), Load128(iv), 1);  // its high lane: the chain value
  std::size_t i = 0;
  for (; i + 16 <= blocks; i += 16) {
    __m256i c[8], x[8];
    for (int q = 0; q < 8; ++q) c[q] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + 16 * i + 32 * q));
    for (int q = 0; q < 8; ++q) x[q] = _mm256_xor_si256(c[q], k[0]);
    for (int r = 1; r < rounds; ++r)
      for (int q = 0; q < 8; ++q) x[q] = _mm256_aesdec_epi128(x[q], k[r]);
    for (int q = 0; q < 8; ++q) x[q] = _mm256_aesdeclast_epi128(x[q], k[rounds]);
    // Each lane's predecessor: the high lane of the register before, then its own low lane.
    for (int q = 0; q < 8; ++q)
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 16 * i + 32 * q),
                          _mm256_xor_si256(x[q], _mm256_permute2x128_si256(q == 0 ? before : c[q - 1], c[q], 0x21)));
    before = c[7];
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(iv), _mm256_extracti128_si256(before, 1));
  if (i < blocks) AesCbcDecryptHardware(in + 16 * i, out + 16 * i, blocks - i, iv, s);
}

BT_VAES256_TARGET void AesCbcEncryptManyWide256(std::uint8_t* const* messages, std::size_t count, std::size_t blocks,
                                                const std::uint8_t (*ivs)[16], const AesKeySchedule& s) {
  constexpr std::size_t kLanes = 16;
  for (std::size_t first = 0; first < count; first += kLanes) {
    const std::size_t lanes = count - first < kLanes ? count - first : kLanes;
    std::uint8_t* const* at = messages + first;
    switch ((lanes + 3) / 4) {
      case 1: EncryptChains256<2>(at, lanes, blocks, ivs + first, s); break;
      case 2: EncryptChains256<4>(at, lanes, blocks, ivs + first, s); break;
      case 3: EncryptChains256<6>(at, lanes, blocks, ivs + first, s); break;
      default: EncryptChains256<8>(at, lanes, blocks, ivs + first, s); break;
    }
  }
}

}  // namespace crypto

#else

namespace crypto {
bool AesWideAvailable() { return false; }
void AesCbcDecryptWide(const std::uint8_t*, std::uint8_t*, std::size_t, std::uint8_t*, const AesKeySchedule&) {}
void AesCbcEncryptManyWide(std::uint8_t* const*, std::size_t, std::size_t, const std::uint8_t (*)[16],
                           const AesKeySchedule&) {}
bool AesWide256Available() { return false; }
void AesCbcDecryptWide256(const std::uint8_t*, std::uint8_t*, std::size_t, std::uint8_t*, const AesKeySchedule&) {}
void AesCbcEncryptManyWide256(std::uint8_t* const*, std::size_t, std::size_t, const std::uint8_t (*)[16],
                              const AesKeySchedule&) {}
}  // namespace crypto

#endif
