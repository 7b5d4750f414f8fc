// HMAC with SHA-1 (RFC 2104).
#pragma once

#include <cstddef>
#include <cstdint>

namespace crypto {

void HmacSha1(const std::uint8_t* message, std::size_t messageLength, const std::uint8_t* key, std::size_t keyLength,
              std::uint8_t out[20]);

}  // namespace crypto
