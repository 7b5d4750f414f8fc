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

}  // namespace crypto
