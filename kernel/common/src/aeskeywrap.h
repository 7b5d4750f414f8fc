// AES key unwrap (RFC 3394, index form, default initial value A6A6A6A6A6A6A6A6).
#pragma once

#include <cstddef>
#include <cstdint>

namespace crypto {

// Unwraps wrapped (a multiple of 8 bytes) under the key encryption key (16, 24 or 32 bytes) into
// out, storing wrappedLength - 8 in *outLength. 1 when the integrity value comes out right, else 0.
int AesKeyUnwrap(const std::uint8_t* wrapped, std::size_t wrappedLength, const std::uint8_t* kek,
                 std::size_t kekLength, std::uint8_t* out, std::size_t* outLength);

}  // namespace crypto
