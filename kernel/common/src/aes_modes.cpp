#include "aes_modes.h"

#include <cstring>

namespace crypto {

int AesCbcDecrypt(const std::uint8_t* in, std::uint8_t* out, std::size_t length, std::uint8_t iv[16],
                  const AesKeySchedule& s) {
  if (length % 16 != 0 || !ValidRounds(s)) return -1;
  switch (AesPathInUse()) {
    case AesPath::kWide: AesCbcDecryptWide(in, out, length / 16, iv, s); return 0;
    case AesPath::kWide256: AesCbcDecryptWide256(in, out, length / 16, iv, s); return 0;
    case AesPath::kHardware: AesCbcDecryptHardware(in, out, length / 16, iv, s); return 0;
    case AesPath::kPortable: break;
  }
  for (std::size_t off = 0; off < length; off += 16) {
    std::uint8_t cipher[16];
    std::memcpy(cipher, in + off, 16);  // kept: in place, the output overwrites it
    AesDecryptPortable(cipher, out + off, s);
    for (int k = 0; k < 16; ++k) out[off + k] ^= iv[k];
    std::memcpy(iv, cipher, 16);
  }
  return 0;
}

int AesCbcEncrypt(const std::uint8_t* in, std::uint8_t* out, std::size_t length, std::uint8_t iv[16],
                  const AesKeySchedule& s) {
  if (length % 16 != 0 || !ValidRounds(s)) return -1;
  if (AesPathInUse() != AesPath::kPortable) {  // one chain: a piece at a time on either path
    AesCbcEncryptHardware(in, out, length / 16, iv, s);
    return 0;
  }
  for (std::size_t off = 0; off < length; off += 16) {
    for (int k = 0; k < 16; ++k) iv[k] ^= in[off + k];
    AesEncryptPortable(iv, iv, s);
    std::memcpy(out + off, iv, 16);
  }
  return 0;
}

int AesCbcEncryptMany(std::uint8_t* const* messages, std::size_t count, std::size_t length,
                      const std::uint8_t (*ivs)[16], const AesKeySchedule& s) {
  if (length % 16 != 0 || !ValidRounds(s)) return -1;
  switch (AesPathInUse()) {
    case AesPath::kWide: AesCbcEncryptManyWide(messages, count, length / 16, ivs, s); return 0;
    case AesPath::kWide256: AesCbcEncryptManyWide256(messages, count, length / 16, ivs, s); return 0;
    case AesPath::kHardware: AesCbcEncryptManyHardware(messages, count, length / 16, ivs, s); return 0;
    case AesPath::kPortable: break;
  }
  for (std::size_t i = 0; i < count; ++i) {
    std::uint8_t iv[16];
    std::memcpy(iv, ivs[i], 16);
    AesCbcEncrypt(messages[i], messages[i], length, iv, s);
  }
  return 0;
}

}  // namespace crypto
