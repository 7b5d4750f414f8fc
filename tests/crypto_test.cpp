#include <gtest/gtest.h>

#include "aes_core.h"
#include "aes_modes.h"
#include "aeskeywrap.h"
#include "hmacsha.h"
#include "json.h"
#include "pbkdf2.h"
#include "sha1.h"

#include <cstring>
#include <utility>

using namespace testsupport;
using Bytes = std::vector<unsigned char>;

namespace {

const Json& Vectors() {
  static const Json json = ParseJsonFile(VECTORS_JSON);
  return json;
}

// SHA-1 around its padding boundaries and HMAC-SHA-1 around its key block length.
const Json& Boundaries() {
  static const Json json = ParseJsonFile(BOUNDARY_JSON);
  return json;
}

// Runs body once on each AES path the processor has.
template <typename Body>
void OnEveryAesPath(Body body) {
  const crypto::AesPath before = crypto::AesPathInUse();
  for (auto [path, name] : {std::pair{crypto::AesPath::kPortable, "portable AES"},
                            std::pair{crypto::AesPath::kHardware, "AES instructions"},
                            std::pair{crypto::AesPath::kWide, "vector AES instructions"},
                            std::pair{crypto::AesPath::kWide256, "vector AES instructions on 256-bit registers"}}) {
    if (!crypto::AesUsePath(path)) {
      std::printf("not on this processor: %s path not run\n", name);
      continue;
    }
    SCOPED_TRACE(name);
    body();
  }
  crypto::AesUsePath(before);
}

TEST(Crypto, AesBlockVectors) {
  OnEveryAesPath([] {
    for (const Json& v : Vectors()["aes_fips197_appendix_c"].items) {
      Bytes key = Hex(v["key"].text), plain = Hex(v["plaintext"].text), cipher = Hex(v["ciphertext"].text);
      crypto::AesKeySchedule enc{}, dec{};
      ASSERT_EQ(crypto::AesSetEncryptKey(key.data(), static_cast<int>(key.size()), enc), 0);
      ASSERT_EQ(crypto::AesSetDecryptKey(key.data(), static_cast<int>(key.size() * 8), dec), 0);  // in bits
      Bytes out(16);
      EXPECT_EQ(crypto::AesEncryptBlock(plain.data(), out.data(), enc), 0);
      EXPECT_EQ(out, cipher);
      EXPECT_EQ(crypto::AesDecryptBlock(out.data(), out.data(), dec), 0);  // in place
      EXPECT_EQ(out, plain);
    }
  });
}

TEST(Crypto, AesCbcVectorsInPlace) {
  OnEveryAesPath([] {
    for (const Json& v : Vectors()["aes_cbc_sp800_38a_f2"].items) {
      Bytes key = Hex(v["key"].text), iv = Hex(v["iv"].text), plain = Hex(v["plaintext"].text),
            cipher = Hex(v["ciphertext"].text);
      crypto::AesKeySchedule enc{}, dec{};
      crypto::AesSetEncryptKey(key.data(), static_cast<int>(key.size()), enc);
      crypto::AesSetDecryptKey(key.data(), static_cast<int>(key.size()), dec);
      Bytes buffer = plain, chain = iv;
      ASSERT_EQ(crypto::AesCbcEncrypt(buffer.data(), buffer.data(), buffer.size(), chain.data(), enc), 0);
      EXPECT_EQ(buffer, cipher);
      EXPECT_EQ(chain, Bytes(cipher.end() - 16, cipher.end()));
      chain = iv;
      ASSERT_EQ(crypto::AesCbcDecrypt(buffer.data(), buffer.data(), buffer.size(), chain.data(), dec), 0);
      EXPECT_EQ(buffer, plain);
      // Long runs take the eight- and sixteen-wide paths: a 4 KB round trip, with a tail.
      Bytes big(4096 + 48);
      for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 13);
      Bytes copy = big, c1 = iv, c2 = iv;
      crypto::AesCbcEncrypt(big.data(), big.data(), big.size(), c1.data(), enc);
      crypto::AesCbcDecrypt(big.data(), big.data(), big.size(), c2.data(), dec);
      EXPECT_EQ(big, copy);
    }
  });
}

// Several independent chains encrypted together give what each gives alone: 1 to 35 messages
// (beyond two groups of sixteen), taken in the reverse of the buffer's order, every key size,
// every AES path; messages of a block's size, and messages shorter than the chains' stagger.
TEST(Crypto, CbcEncryptionOfManyMessagesEqualsOneByOne) {
  OnEveryAesPath([] {
    for (std::size_t keySize : {16u, 24u, 32u}) {
      Bytes key(keySize);
      for (std::size_t i = 0; i < keySize; ++i) key[i] = static_cast<unsigned char>(i * 11 + 5);
      crypto::AesKeySchedule enc{};
      ASSERT_EQ(crypto::AesSetEncryptKey(key.data(), static_cast<int>(keySize), enc), 0);
      for (const std::size_t length : {4096u, 16u, 48u, 112u})
        for (std::size_t count = 1; count <= 35; ++count) {
          Bytes data(count * length), expected;
          std::uint8_t ivs[35][16];
          for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + i / 4096);
          for (std::size_t i = 0; i < sizeof ivs; ++i) ivs[i / 16][i % 16] = static_cast<std::uint8_t>(i * 3 + 1);
          expected = data;
          std::uint8_t* messages[35];
          for (std::size_t m = 0; m < count; ++m) {
            const std::size_t at = count - 1 - m;  // the last message in the buffer comes first
            messages[m] = data.data() + at * length;
            Bytes iv(ivs[m], ivs[m] + 16);
            crypto::AesCbcEncrypt(expected.data() + at * length, expected.data() + at * length, length, iv.data(), enc);
          }
          ASSERT_EQ(crypto::AesCbcEncryptMany(messages, count, length, ivs, enc), 0);
          EXPECT_EQ(data, expected) << keySize << "-byte key, " << count << " messages of " << length << " bytes";
        }
      // Empty messages are read nowhere.
      std::uint8_t* nowhere[16] = {};
      std::uint8_t ivs[16][16] = {};
      EXPECT_EQ(crypto::AesCbcEncryptMany(nowhere, 16, 0, ivs, enc), 0);
    }
  });
}

TEST(Crypto, AesResultCodesAndInputChecks) {
  crypto::AesKeySchedule never{}, a{}, b{};
  Bytes key(32, 7), block(16, 1), iv(16, 2);
  EXPECT_EQ(crypto::AesEncryptBlock(block.data(), block.data(), never), -1);
  EXPECT_EQ(crypto::AesDecryptBlock(block.data(), block.data(), never), -1);
  EXPECT_EQ(crypto::AesSetEncryptKey(key.data(), 20, a), -1);
  EXPECT_EQ(crypto::AesSetDecryptKey(key.data(), 40, a), -1);
  ASSERT_EQ(crypto::AesSetEncryptKey(key.data(), 128, a), 0);
  ASSERT_EQ(crypto::AesSetEncryptKey(key.data(), 16, b), 0);
  EXPECT_EQ(0, std::memcmp(a.roundKeys, b.roundKeys, sizeof a.roundKeys[0] * 44));
  EXPECT_EQ(a.rounds, 10);
  Bytes data(24, 3), before = data, ivBefore = iv;
  EXPECT_EQ(crypto::AesCbcDecrypt(data.data(), data.data(), 24, iv.data(), a), -1);
  EXPECT_EQ(data, before);
  EXPECT_EQ(crypto::AesCbcDecrypt(data.data(), data.data(), 0, iv.data(), a), 0);
  EXPECT_EQ(iv, ivBefore);
}

TEST(Crypto, KeyUnwrapVectorsAndChecks) {
  OnEveryAesPath([] {
    for (const Json& v : Vectors()["aes_key_wrap_rfc3394_section4"].items) {
      Bytes kek = Hex(v["kek"].text), key = Hex(v["key_data"].text), wrapped = Hex(v["wrapped"].text);
      Bytes out(64);
      std::size_t length = 0;
      EXPECT_EQ(crypto::AesKeyUnwrap(wrapped.data(), wrapped.size(), kek.data(), kek.size(), out.data(), &length), 1);
      EXPECT_EQ(Bytes(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(length)), key);
      wrapped[5] ^= 0x10;
      EXPECT_EQ(crypto::AesKeyUnwrap(wrapped.data(), wrapped.size(), kek.data(), kek.size(), out.data(), &length), 0);
      EXPECT_EQ(length, key.size());  // set before the check
    }
  });
  Bytes kek(40, 1), wrapped(24, 2), out(64);
  std::size_t length = 0;
  EXPECT_EQ(crypto::AesKeyUnwrap(wrapped.data(), 24, kek.data(), 40, out.data(), &length), 0);
  EXPECT_EQ(crypto::AesKeyUnwrap(wrapped.data(), 20, kek.data(), 16, out.data(), &length), 0);
  Bytes initial(8, 0xA6);
  EXPECT_EQ(crypto::AesKeyUnwrap(initial.data(), 8, kek.data(), 16, out.data(), &length), 1);
  EXPECT_EQ(length, 0u);
}

TEST(Crypto, Sha1HmacAndPbkdf2Vectors) {
  for (const Json& v : Vectors()["sha1_fips180"].items) {
    Bytes message;
    if (v.Has("message_repeat")) {
      Bytes unit = Hex(v["message_repeat"].text);
      for (long i = 0; i < std::stol(v["count"].text); ++i) message.insert(message.end(), unit.begin(), unit.end());
    } else {
      message = Hex(v["message"].text);
    }
    Bytes digest(20);
    crypto::Sha1(message.data(), message.size(), digest.data());
    EXPECT_EQ(digest, Hex(v["digest"].text));
  }
  for (const Json& v : Boundaries()["sha1_padding_boundaries"].items) {
    Bytes message = Hex(v["message"].text), digest(20);
    crypto::Sha1(message.data(), message.size(), digest.data());
    EXPECT_EQ(digest, Hex(v["digest"].text)) << message.size() << " bytes";
  }
  for (const Json& v : Boundaries()["hmac_sha1_key_lengths"].items) {
    Bytes key = Hex(v["key"].text), data = Hex(v["data"].text), digest(20);
    crypto::HmacSha1(data.data(), data.size(), key.data(), key.size(), digest.data());
    EXPECT_EQ(digest, Hex(v["digest"].text)) << key.size() << "-byte key";
  }
  for (const Json& v : Vectors()["hmac_sha1_rfc2202"].items) {
    Bytes key = Hex(v["key"].text), data = Hex(v["data"].text), digest(20);
    crypto::HmacSha1(data.data(), data.size(), key.data(), key.size(), digest.data());
    Bytes expected = Hex(v["digest"].text);
    EXPECT_EQ(Bytes(digest.begin(), digest.begin() + static_cast<std::ptrdiff_t>(expected.size())), expected);
  }
  for (const Json& v : Vectors()["pbkdf2_hmac_sha1_rfc6070"].items) {
    Bytes password = Hex(v["password"].text), salt = Hex(v["salt"].text), expected = Hex(v["dk"].text);
    Bytes out(expected.size());
    EXPECT_EQ(crypto::Pbkdf2HmacSha1(password.data(), password.size(), std::stoi(v["iterations"].text), salt.data(),
                                     salt.size(), out.data(), out.size()),
              1);
    EXPECT_EQ(out, expected);
  }
  // Iteration counts of 0 and below mean one.
  Bytes a(20), b(20), c(20);
  const unsigned char pw[] = "password", salt[] = "salt";
  crypto::Pbkdf2HmacSha1(pw, 8, 0, salt, 4, a.data(), 20);
  crypto::Pbkdf2HmacSha1(pw, 8, -3, salt, 4, b.data(), 20);
  crypto::Pbkdf2HmacSha1(pw, 8, 1, salt, 4, c.data(), 20);
  EXPECT_EQ(a, c);
  EXPECT_EQ(b, c);
}

}  // namespace
