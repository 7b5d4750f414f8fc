// PBKDF2 with HMAC-SHA-1 as the pseudorandom function (RFC 8018), the password as HMAC key.
#pragma once

#include <cstddef>
#include <cstdint>

namespace crypto {

// 1 on success, 0 when working memory cannot be had. An iteration count below 2 means one.
int Pbkdf2HmacSha1(const std::uint8_t* password, std::size_t passwordLength, int iterations,
                   const std::uint8_t* salt, std::size_t saltLength, std::uint8_t* out, std::size_t outLength);

}  // namespace crypto
