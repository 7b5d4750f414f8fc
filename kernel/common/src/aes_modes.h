// AES in CBC mode. The IV is updated to the last chaining value; in and out may be the same.
#pragma once

#include <cstddef>
#include <cstdint>

#include "aes_core.h"

namespace crypto {

// 0 on success (also for length 0), -1 when length is not a multiple of 16.
int AesCbcDecrypt(const std::uint8_t* in, std::uint8_t* out, std::size_t length, std::uint8_t iv[16],
                  const AesKeySchedule& decryptSchedule);
int AesCbcEncrypt(const std::uint8_t* in, std::uint8_t* out, std::size_t length, std::uint8_t iv[16],
                  const AesKeySchedule& encryptSchedule);

// CBC encryption of count messages of length bytes each, in place; message i is at messages[i]
// and starts from ivs[i] (not updated). The chains are independent, so the processor's AES
// instructions advance several of them together. The result is that of AesCbcEncrypt on each.
// 0 on success, -1 when length is not a multiple of 16.
int AesCbcEncryptMany(std::uint8_t* const* messages, std::size_t count, std::size_t length,
                      const std::uint8_t (*ivs)[16], const AesKeySchedule& encryptSchedule);

}  // namespace crypto
