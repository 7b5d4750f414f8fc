#include "aeskeywrap.h"

#include <cstdlib>
#include <cstring>

#include "aes_core.h"

namespace crypto {

int AesKeyUnwrap(const std::uint8_t* wrapped, std::size_t n, const std::uint8_t* kek, std::size_t kekLength,
                 std::uint8_t* out, std::size_t* outLength) {
  if (n < 1 || n % 8 != 0) return 0;
  if (kekLength != 16 && kekLength != 24 && kekLength != 32) return 0;
  auto* work = static_cast<std::uint8_t*>(std::malloc(n));
  if (work == nullptr) return 0;
  std::memcpy(work, wrapped, n);
  AesKeySchedule schedule{};
  AesSetDecryptKey(kek, static_cast<int>(kekLength), schedule);

  const std::size_t m = n / 8 - 1;
  std::uint8_t* a = work;
  std::uint8_t block[16];
  for (int j = 5; j >= 0; --j) {
    for (std::size_t i = m; i >= 1; --i) {
      std::uint64_t t = static_cast<std::uint64_t>(m) * static_cast<std::uint64_t>(j) + i;
      for (int k = 7; k >= 0 && t != 0; --k, t >>= 8) a[k] ^= static_cast<std::uint8_t>(t);
      std::memcpy(block, a, 8);
      std::memcpy(block + 8, work + 8 * i, 8);
      AesDecryptBlock(block, block, schedule);
      std::memcpy(a, block, 8);
      std::memcpy(work + 8 * i, block + 8, 8);
    }
  }
  *outLength = n - 8;
  if (m > 0) std::memcpy(out, work + 8, n - 8);
  static const std::uint8_t kInitial[8] = {0xA6, 0xA6, 0xA6, 0xA6, 0xA6, 0xA6, 0xA6, 0xA6};
  const int ok = std::memcmp(a, kInitial, 8) == 0 ? 1 : 0;
  std::free(work);
  return ok;
}

}  // namespace crypto
