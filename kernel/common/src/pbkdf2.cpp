#include "pbkdf2.h"

#include <cstdlib>
#include <cstring>

#include "byteorder.h"
#include "hmacsha.h"

namespace crypto {

int Pbkdf2HmacSha1(const std::uint8_t* password, std::size_t passwordLength, int iterations,
                   const std::uint8_t* salt, std::size_t saltLength, std::uint8_t* out, std::size_t outLength) {
  auto* salted = static_cast<std::uint8_t*>(std::malloc(saltLength + 4));
  if (salted == nullptr) return 0;
  if (saltLength > 0) std::memcpy(salted, salt, saltLength);
  for (std::uint32_t index = 1; outLength > 0; ++index) {
    bt::StoreBE32(salted + saltLength, index);
    std::uint8_t u[20], t[20];
    HmacSha1(salted, saltLength + 4, password, passwordLength, u);
    std::memcpy(t, u, 20);
    for (int i = 1; i < iterations; ++i) {
      HmacSha1(u, 20, password, passwordLength, u);
      for (int k = 0; k < 20; ++k) t[k] ^= u[k];
    }
    const std::size_t take = outLength < 20 ? outLength : 20;
    std::memcpy(out, t, take);
    out += take, outLength -= take;
  }
  std::free(salted);
  return 1;
}

}  // namespace crypto
