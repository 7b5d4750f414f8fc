#include "aes_core.h"

#include <cstring>

#include "byteorder.h"

namespace crypto {

namespace {

// The S-box, its inverse and the round tables, computed once from the field arithmetic.
struct Tables {
  std::uint8_t sbox[256], inverse[256];
  std::uint32_t te[4][256], td[4][256];
};

std::uint8_t Mul(std::uint8_t a, std::uint8_t b) {
  std::uint8_t r = 0;
  while (b) {
    if (b & 1) r ^= a;
    a = static_cast<std::uint8_t>((a << 1) ^ ((a & 0x80) ? 0x1B : 0));
    b >>= 1;
  }
  return r;
}

std::uint32_t Ror8(std::uint32_t x) { return x >> 8 | x << 24; }

Tables MakeTables() {
  Tables t{};
  for (int x = 0; x < 256; ++x) {
    std::uint8_t inv = 0;
    for (int y = 1; y < 256 && x != 0; ++y)
      if (Mul(static_cast<std::uint8_t>(x), static_cast<std::uint8_t>(y)) == 1) inv = static_cast<std::uint8_t>(y);
    std::uint8_t s = inv;
    for (int i = 1; i < 5; ++i) s ^= static_cast<std::uint8_t>(inv << i | inv >> (8 - i));
    s ^= 0x63;
    t.sbox[x] = s;
    t.inverse[s] = static_cast<std::uint8_t>(x);
  }
  for (int x = 0; x < 256; ++x) {
    const std::uint8_t s = t.sbox[x], i = t.inverse[x];
    t.te[0][x] = std::uint32_t{Mul(s, 2)} << 24 | std::uint32_t{s} << 16 | std::uint32_t{s} << 8 | Mul(s, 3);
    t.td[0][x] = std::uint32_t{Mul(i, 14)} << 24 | std::uint32_t{Mul(i, 9)} << 16 | std::uint32_t{Mul(i, 13)} << 8 |
                 Mul(i, 11);
    for (int k = 1; k < 4; ++k) {
      t.te[k][x] = Ror8(t.te[k - 1][x]);
      t.td[k][x] = Ror8(t.td[k - 1][x]);
    }
  }
  return t;
}

const Tables& T() {
  static const Tables tables = MakeTables();
  return tables;
}

bool chosen = false;
AesPath path = AesPath::kPortable;

AesPath Choice() {
  if (!chosen) {
    chosen = true;
    path = AesWideAvailable()      ? AesPath::kWide
           : AesWide256Available() ? AesPath::kWide256
           : AesHardwareAvailable()  ? AesPath::kHardware
                                     : AesPath::kPortable;
  }
  return path;
}

int RoundsFor(int length, int* bytes) {
  if (length == 128 || length == 192 || length == 256) length /= 8;
  *bytes = length;
  return length == 16 ? 10 : length == 24 ? 12 : length == 32 ? 14 : 0;
}

void StoreRoundKeyBytes(AesKeySchedule& s) {
  for (int i = 0; i < 4 * (s.rounds + 1); ++i) bt::StoreBE32(s.roundKeyBytes + 4 * i, s.roundKeys[i]);
}

std::uint32_t SubWord(std::uint32_t w) {
  const auto& s = T().sbox;
  return std::uint32_t{s[w >> 24]} << 24 | std::uint32_t{s[(w >> 16) & 0xFF]} << 16 |
         std::uint32_t{s[(w >> 8) & 0xFF]} << 8 | s[w & 0xFF];
}

}  // namespace

bool ValidRounds(const AesKeySchedule& s) { return s.rounds == 10 || s.rounds == 12 || s.rounds == 14; }

int AesSetEncryptKey(const std::uint8_t* key, int length, AesKeySchedule& s) {
  int bytes = 0;
  const int rounds = RoundsFor(length, &bytes);
  if (rounds == 0) return -1;
  const int nk = bytes / 4, total = 4 * (rounds + 1);
  for (int i = 0; i < nk; ++i) s.roundKeys[i] = bt::LoadBE32(key + 4 * i);
  std::uint32_t rcon = 1;
  for (int i = nk; i < total; ++i) {
    std::uint32_t temp = s.roundKeys[i - 1];
    if (i % nk == 0) {
      temp = SubWord(temp << 8 | temp >> 24) ^ (rcon << 24);
      rcon = Mul(static_cast<std::uint8_t>(rcon), 2);
    } else if (nk > 6 && i % nk == 4) {
      temp = SubWord(temp);
    }
    s.roundKeys[i] = s.roundKeys[i - nk] ^ temp;
  }
  s.rounds = rounds;
  StoreRoundKeyBytes(s);
  return 0;
}

int AesSetDecryptKey(const std::uint8_t* key, int length, AesKeySchedule& s) {
  AesKeySchedule e;
  if (AesSetEncryptKey(key, length, e) != 0) return -1;
  const Tables& t = T();
  s.rounds = e.rounds;
  for (int r = 0; r <= e.rounds; ++r) {
    for (int c = 0; c < 4; ++c) {
      std::uint32_t w = e.roundKeys[4 * (e.rounds - r) + c];
      if (r > 0 && r < e.rounds)  // InvMixColumns of the middle round keys
        w = t.td[0][t.sbox[w >> 24]] ^ t.td[1][t.sbox[(w >> 16) & 0xFF]] ^ t.td[2][t.sbox[(w >> 8) & 0xFF]] ^
            t.td[3][t.sbox[w & 0xFF]];
      s.roundKeys[4 * r + c] = w;
    }
  }
  StoreRoundKeyBytes(s);
  return 0;
}

void AesEncryptPortable(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& s) {
  const Tables& t = T();
  const std::uint32_t* rk = s.roundKeys;
  std::uint32_t s0 = bt::LoadBE32(in) ^ rk[0], s1 = bt::LoadBE32(in + 4) ^ rk[1];
  std::uint32_t s2 = bt::LoadBE32(in + 8) ^ rk[2], s3 = bt::LoadBE32(in + 12) ^ rk[3];
  for (int r = 1; r < s.rounds; ++r) {
    rk += 4;
    const std::uint32_t t0 = t.te[0][s0 >> 24] ^ t.te[1][(s1 >> 16) & 0xFF] ^ t.te[2][(s2 >> 8) & 0xFF] ^ t.te[3][s3 & 0xFF] ^ rk[0];
    const std::uint32_t t1 = t.te[0][s1 >> 24] ^ t.te[1][(s2 >> 16) & 0xFF] ^ t.te[2][(s3 >> 8) & 0xFF] ^ t.te[3][s0 & 0xFF] ^ rk[1];
    const std::uint32_t t2 = t.te[0][s2 >> 24] ^ t.te[1][(s3 >> 16) & 0xFF] ^ t.te[2][(s0 >> 8) & 0xFF] ^ t.te[3][s1 & 0xFF] ^ rk[2];
    const std::uint32_t t3 = t.te[0][s3 >> 24] ^ t.te[1][(s0 >> 16) & 0xFF] ^ t.te[2][(s1 >> 8) & 0xFF] ^ t.te[3][s2 & 0xFF] ^ rk[3];
    s0 = t0, s1 = t1, s2 = t2, s3 = t3;
  }
  rk += 4;
  const auto& sb = t.sbox;
  auto last = [&](std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d, std::uint32_t k) {
    return (std::uint32_t{sb[a >> 24]} << 24 | std::uint32_t{sb[(b >> 16) & 0xFF]} << 16 |
            std::uint32_t{sb[(c >> 8) & 0xFF]} << 8 | sb[d & 0xFF]) ^ k;
  };
  const std::uint32_t o0 = last(s0, s1, s2, s3, rk[0]), o1 = last(s1, s2, s3, s0, rk[1]);
  const std::uint32_t o2 = last(s2, s3, s0, s1, rk[2]), o3 = last(s3, s0, s1, s2, rk[3]);
  bt::StoreBE32(out, o0), bt::StoreBE32(out + 4, o1), bt::StoreBE32(out + 8, o2), bt::StoreBE32(out + 12, o3);
}

void AesDecryptPortable(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& s) {
  const Tables& t = T();
  const std::uint32_t* rk = s.roundKeys;
  std::uint32_t s0 = bt::LoadBE32(in) ^ rk[0], s1 = bt::LoadBE32(in + 4) ^ rk[1];
  std::uint32_t s2 = bt::LoadBE32(in + 8) ^ rk[2], s3 = bt::LoadBE32(in + 12) ^ rk[3];
  for (int r = 1; r < s.rounds; ++r) {
    rk += 4;
    const std::uint32_t t0 = t.td[0][s0 >> 24] ^ t.td[1][(s3 >> 16) & 0xFF] ^ t.td[2][(s2 >> 8) & 0xFF] ^ t.td[3][s1 & 0xFF] ^ rk[0];
    const std::uint32_t t1 = t.td[0][s1 >> 24] ^ t.td[1][(s0 >> 16) & 0xFF] ^ t.td[2][(s3 >> 8) & 0xFF] ^ t.td[3][s2 & 0xFF] ^ rk[1];
    const std::uint32_t t2 = t.td[0][s2 >> 24] ^ t.td[1][(s1 >> 16) & 0xFF] ^ t.td[2][(s0 >> 8) & 0xFF] ^ t.td[3][s3 & 0xFF] ^ rk[2];
    const std::uint32_t t3 = t.td[0][s3 >> 24] ^ t.td[1][(s2 >> 16) & 0xFF] ^ t.td[2][(s1 >> 8) & 0xFF] ^ t.td[3][s0 & 0xFF] ^ rk[3];
    s0 = t0, s1 = t1, s2 = t2, s3 = t3;
  }
  rk += 4;
  const auto& ib = t.inverse;
  auto last = [&](std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d, std::uint32_t k) {
    return (std::uint32_t{ib[a >> 24]} << 24 | std::uint32_t{ib[(b >> 16) & 0xFF]} << 16 |
            std::uint32_t{ib[(c >> 8) & 0xFF]} << 8 | ib[d & 0xFF]) ^ k;
  };
  const std::uint32_t o0 = last(s0, s3, s2, s1, rk[0]), o1 = last(s1, s0, s3, s2, rk[1]);
  const std::uint32_t o2 = last(s2, s1, s0, s3, rk[2]), o3 = last(s3, s2, s1, s0, rk[3]);
  bt::StoreBE32(out, o0), bt::StoreBE32(out + 4, o1), bt::StoreBE32(out + 8, o2), bt::StoreBE32(out + 12, o3);
}

int AesEncryptBlock(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& s) {
  if (!ValidRounds(s)) return -1;
  if (Choice() != AesPath::kPortable)
    AesEncryptHardware(in, out, s);
  else
    AesEncryptPortable(in, out, s);
  return 0;
}

int AesDecryptBlock(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& s) {
  if (!ValidRounds(s)) return -1;
  if (Choice() != AesPath::kPortable)
    AesDecryptHardware(in, out, s);
  else
    AesDecryptPortable(in, out, s);
  return 0;
}

bool AesPathAvailable(AesPath p) {
  switch (p) {
    case AesPath::kPortable: return true;
    case AesPath::kHardware: return AesHardwareAvailable();
    case AesPath::kWide: return AesWideAvailable();
    case AesPath::kWide256: return AesWide256Available();
  }
  return false;
}

bool AesUsePath(AesPath p) {
  if (!AesPathAvailable(p)) return false;
  chosen = true;
  path = p;
  return true;
}

AesPath AesPathInUse() { return Choice(); }

}  // namespace crypto
