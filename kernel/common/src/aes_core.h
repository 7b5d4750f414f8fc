// AES block cipher (FIPS-197) with 128-, 192- and 256-bit keys. Three implementations give the
// same results; the fastest the processor has is chosen at run time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace crypto {

struct AesKeySchedule {
  std::uint32_t roundKeys[60];  // big-endian words; the decryption schedule is the equivalent inverse one
  int rounds;                   // 10, 12 or 14; anything else: never built
  alignas(16) std::uint8_t roundKeyBytes[240];
};

// Key length in bytes (16, 24, 32) or in bits (128, 192, 256). 0 on success, -1 otherwise.
int AesSetEncryptKey(const std::uint8_t* key, int length, AesKeySchedule& schedule);
int AesSetDecryptKey(const std::uint8_t* key, int length, AesKeySchedule& schedule);
// 0 on success, -1 when the schedule was never built. in and out may be the same.
int AesEncryptBlock(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& schedule);
int AesDecryptBlock(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& schedule);

// Portable table-driven code; the AES instructions, one 16-byte piece each; the vector AES
// instructions on 512-bit registers, four pieces each, or on 256-bit registers (a processor with
// AVX2 but no AVX-512), two pieces each (AES of one piece stays on the second).
enum class AesPath { kPortable, kHardware, kWide, kWide256 };
bool AesPathAvailable(AesPath path);
// Selects path when the processor has it; tells whether it did.
bool AesUsePath(AesPath path);
AesPath AesPathInUse();

// Internals shared with the modes: the portable and hardware block functions.
bool ValidRounds(const AesKeySchedule& schedule);
void AesEncryptPortable(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& schedule);
void AesDecryptPortable(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& schedule);
void AesEncryptHardware(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& schedule);
void AesDecryptHardware(const std::uint8_t in[16], std::uint8_t out[16], const AesKeySchedule& schedule);
void AesCbcDecryptHardware(const std::uint8_t* in, std::uint8_t* out, std::size_t blocks, std::uint8_t iv[16],
                           const AesKeySchedule& schedule);
void AesCbcEncryptHardware(const std::uint8_t* in, std::uint8_t* out, std::size_t blocks, std::uint8_t iv[16],
                           const AesKeySchedule& schedule);
void AesCbcEncryptManyHardware(std::uint8_t* const* messages, std::size_t count, std::size_t blocks,
                               const std::uint8_t (*ivs)[16], const AesKeySchedule& schedule);
bool AesHardwareAvailable();
bool AesWideAvailable();
void AesCbcDecryptWide(const std::uint8_t* in, std::uint8_t* out, std::size_t blocks, std::uint8_t iv[16],
                       const AesKeySchedule& schedule);
void AesCbcEncryptManyWide(std::uint8_t* const* messages, std::size_t count, std::size_t blocks,
                           const std::uint8_t (*ivs)[16], const AesKeySchedule& schedule);
bool AesWide256Available();
void AesCbcDecryptWide256(const std::uint8_t* in, std::uint8_t* out, std::size_t blocks, std::uint8_t iv[16],
                          const AesKeySchedule& schedule);
void AesCbcEncryptManyWide256(std::uint8_t* const* messages, std::size_t count, std::size_t blocks,
                              const std::uint8_t (*ivs)[16], const AesKeySchedule& schedule);

}  // namespace crypto
