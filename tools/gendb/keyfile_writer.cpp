// Keyfiles and block encryption for the generator.
#include <cstring>
#include <fstream>

#include "aes_core.h"
#include "aes_modes.h"
#include "gendb.h"
#include "pbkdf2.h"

namespace gendb {

std::vector<std::uint8_t> AesKeyWrap(const std::vector<std::uint8_t>& kek, const std::vector<std::uint8_t>& key) {
  crypto::AesKeySchedule schedule{};
  crypto::AesSetEncryptKey(kek.data(), static_cast<int>(kek.size()), schedule);
  const std::size_t n = key.size() / 8;
  std::vector<std::uint8_t> out(8 + key.size());
  std::memset(out.data(), 0xA6, 8);
  std::memcpy(out.data() + 8, key.data(), key.size());
  std::uint8_t block[16];
  for (std::uint64_t j = 0; j <= 5; ++j) {
    for (std::size_t i = 1; i <= n; ++i) {
      std::memcpy(block, out.data(), 8);
      std::memcpy(block + 8, out.data() + 8 * i, 8);
      crypto::AesEncryptBlock(block, block, schedule);
      std::uint64_t t = n * j + i;
      for (int k = 7; k >= 0; --k, t >>= 8) block[k] ^= static_cast<std::uint8_t>(t);
      std::memcpy(out.data(), block, 8);
      std::memcpy(out.data() + 8 * i, block + 8, 8);
    }
  }
  return out;
}

KeyfileBuilder& KeyfileBuilder::Item(const std::vector<std::uint8_t>& item) {
  bytes.push_back(static_cast<std::uint8_t>(item.size()));
  bytes.push_back(static_cast<std::uint8_t>(item.size() >> 8));
  bytes.insert(bytes.end(), item.begin(), item.end());
  return *this;
}

KeyfileBuilder& KeyfileBuilder::Text(const std::string& text) {
  return Item(std::vector<std::uint8_t>(text.begin(), text.end()));
}

KeyfileBuilder& KeyfileBuilder::User(const std::string& name, const std::string& password, int iterations,
                                     const std::vector<std::uint8_t>& salt, int kekLength,
                                     const std::vector<std::uint8_t>& key) {
  std::vector<std::uint8_t> kek(static_cast<std::size_t>(kekLength == 16 || kekLength == 24 ? kekLength : 32));
  crypto::Pbkdf2HmacSha1(reinterpret_cast<const std::uint8_t*>(password.data()), password.size(), iterations,
                         salt.data(), salt.size(), kek.data(), kek.size());
  return Text(name).Text(std::to_string(iterations)).Item(salt).Text(std::to_string(kekLength)).Item(AesKeyWrap(kek, key));
}

KeyfileBuilder& KeyfileBuilder::KeyRecord(const std::string& keyId, const std::vector<std::uint8_t>& master,
                                          const std::vector<std::uint8_t>& key) {
  return Text("KEY").Text(keyId).Text("1").Text("not interpreted").Text("discarded").Item(AesKeyWrap(master, key));
}

std::string KeyfileBuilder::Save(const std::string& path) const {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return out ? "" : "cannot write " + path;
}

std::string WriteKeyfile(const std::string& path, const std::string& version, const std::string& keyId,
                         const std::string& user, const std::string& password,
                         const std::vector<std::uint8_t>& databaseKey) {
  const std::vector<std::uint8_t> salt = {'s', 'a', 'l', 't', 0, 1, 2, 3};
  KeyfileBuilder k;
  k.Text(version);
  if (version == "1.0") {
    k.Text(keyId).Text("1");
    k.User("someone-else", "other", 10, salt, 16, databaseKey);
    k.User(user, password, 50, salt, static_cast<int>(databaseKey.size()), databaseKey);
  } else {
    std::vector<std::uint8_t> master(32);
    for (std::size_t i = 0; i < master.size(); ++i) master[i] = static_cast<std::uint8_t>(0x5A ^ i * 17);
    std::vector<std::uint8_t> otherKey(16, 0x33);
    k.KeyRecord(keyId + "-old", master, otherKey);
    k.KeyRecord(keyId, master, databaseKey);
    k.Text("ADM").User("someone-else", "other", 10, salt, 16, master);
    k.Text("ADM").User(user, password, 50, salt, 24, master);
  }
  return k.Save(path);
}

void EncryptBlock(const std::vector<std::uint8_t>& key, std::uint8_t* block, std::uint32_t size, std::uint32_t b) {
  static std::vector<std::uint8_t> scheduledKey;  // the schedule of the last key used
  static crypto::AesKeySchedule schedule{};
  if (key != scheduledKey) {
    crypto::AesSetEncryptKey(key.data(), static_cast<int>(key.size()), schedule);
    scheduledKey = key;
  }
  std::uint8_t iv[16] = {static_cast<std::uint8_t>(b >> 24), static_cast<std::uint8_t>(b >> 16),
                         static_cast<std::uint8_t>(b >> 8), static_cast<std::uint8_t>(b)};
  crypto::AesEncryptBlock(iv, iv, schedule);
  crypto::AesCbcEncrypt(block, block, size, iv, schedule);
}

}  // namespace gendb
